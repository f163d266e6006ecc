// Commits one after the other, each read back by another process.

#include "soak/soak.h"

#include "support/bus.h"
#include "support/files.h"

#include <bv/db.h>
#include <bv/status.h>
#include <bv/ubus.h>

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using soak::Memory;
using soak::seconds;

constexpr char kFamily[] = "/etc/template/lan";
constexpr char kFile[] = "/config/work/userdata.json";
constexpr char kTemplate[] = R"({"getfunc":"get","setfunc":"set","para":[
  {"name":"number","type":"uint","len":"4","value":"0"},
  {"name":"host","type":"string","len":"60","value":"gateway"}]})";
constexpr uint32_t kInstances = 50;
constexpr uint32_t kWarmUp = 500;

struct Image {
    uint32_t number;
    char host[60];
};

Memory *g_reader_memory;

Image image(uint32_t commit, uint32_t instance)
{
    Image bytes = {};
    bytes.number = commit * 1000 + instance;
    // Of changing length, so that the file grows and shrinks.
    memset(bytes.host, 'a' + static_cast<char>(commit % 26), commit % 59);
    return bytes;
}

std::string text_of(json_object *object, const char *key)
{
    const char *text = bv_json_object_get_string(bv_json_object_object_get(object, key));
    return text == nullptr ? "(none)" : text;
}

bool instance_is_right(json_object *element, uint32_t commit, uint32_t instance)
{
    const Image expected = image(commit, instance);
    json_object *values = bv_json_object_object_get(element, "para");
    return text_of(element, "inst") == std::to_string(instance) &&
           text_of(values, "number") == std::to_string(expected.number) &&
           text_of(values, "host") == expected.host;
}

bool file_is_right(uint32_t commit)
{
    json_object *tree = bv_json_object_from_file(kFile);
    json_object *family = bv_json_object_object_get(tree, kFamily);
    bool right = family != nullptr && bv_json_object_array_length(family) == kInstances;
    for (uint32_t i = 0; right && i < kInstances; i++)
        right = instance_is_right(bv_json_object_array_get_idx(family, i), commit, i + 1);
    bv_json_object_put(tree);
    return right;
}

// Gets the number of a commit and answers whether the file holds it.
int read_back(int fd)
{
    *g_reader_memory = Memory{getpid(), 0, 0, 0};
    uint32_t commit;
    while (read(fd, &commit, sizeof commit) == sizeof commit) {
        const uint8_t right = file_is_right(commit);
        g_reader_memory->note(kWarmUp);
        if (write(fd, &right, 1) != 1)
            return 1;
    }
    return 0;
}

bool reader_agrees(int fd, uint32_t commit)
{
    uint8_t right = 0;
    return write(fd, &commit, sizeof commit) == sizeof commit && read(fd, &right, 1) == 1 &&
           right == 1;
}

void set_up_database()
{
    write_file(kFamily, kTemplate);
    ASSERT_EQ(bv_db_init(), BV_OK);
    ASSERT_EQ(bv_db_reg_user(kFamily), BV_OK);
    ASSERT_EQ(bv_db_start(), BV_OK);
    ASSERT_EQ(bv_db_ready(), BV_OK);
    for (uint32_t i = 1; i <= kInstances; i++) {
        const Image bytes = image(0, i);
        ASSERT_EQ(bv_db_inst_add(kFamily, &bytes, sizeof bytes, i), BV_OK);
    }
}

TEST(Soak, EveryCommitIsReadBackByAnotherProcess)
{
    const uint32_t commits = soak::parameter("SOAK_COMMITS", 300);
    set_up_database();
    g_reader_memory = static_cast<Memory *>(
        mmap(nullptr, sizeof(Memory), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    Service reader([&ends] {
        close(ends[0]);
        return read_back(ends[1]);
    });
    close(ends[1]);

    Memory memory = {getpid(), 0, 0, 0};
    const double started = seconds();
    for (uint32_t commit = 1; commit <= commits; commit++) {
        for (uint32_t i = 1; i <= kInstances; i++) {
            const Image bytes = image(commit, i);
            ASSERT_EQ(bv_db_write(kFamily, &bytes, sizeof bytes, i), BV_OK);
        }
        ASSERT_EQ(bv_db_commit(), BV_OK);
        ASSERT_TRUE(reader_agrees(ends[0], commit)) << "commit " << commit;
        memory.note(kWarmUp);
    }
    const double taken = seconds() - started;
    close(ends[0]);
    EXPECT_EQ(reader.wait(), 0);

    printf("%u commits of %u instances in %.1f s\n", commits, kInstances, taken);
    for (const Memory *m : {&memory, g_reader_memory}) {
        if (!m->known())
            continue;
        printf("%s: %ld KiB, later %ld KiB\n", m == &memory ? "writer" : "reader", m->base,
               m->last);
        if (soak::memory_counts()) {
            EXPECT_LE(m->growth(), soak::kMostGrowth);
        }
    }
}

} // namespace
