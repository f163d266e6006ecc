// SPDX-License-Identifier: ISC
// Commits one after the other, each read back from the file.

#include "soak/soak.h"

#include <bv/db.h>
#include <bv/status.h>
#include <bv/ubus.h>

#include <cstring>

namespace {

constexpr char kFamily[] = "/etc/template/lan";
constexpr char kTemplate[] = R"({"getfunc":"get","setfunc":"set","para":[
  {"name":"number","type":"uint","len":"4","value":"0"},
  {"name":"host","type":"string","len":"60","value":"gateway"}]})";
constexpr uint32_t kInstances = 50;
constexpr uint32_t kWarmUpCommits = 500;

struct Image {
    uint32_t number;
    char host[60]; // of changing length, so that the file grows and shrinks
};

Image image(uint32_t commit, uint32_t instance)
{
    Image bytes = {};
    bytes.number = commit * 1000 + instance;
    memset(bytes.host, 'a' + static_cast<char>(commit % 26), commit % 59);
    return bytes;
}

// Whether an object has this text under this key.
bool has(json_object *object, const char *key, const std::string &expected)
{
    const char *text = bv_json_object_get_string(bv_json_object_object_get(object, key));
    return text != nullptr && text == expected;
}

bool file_is_right(uint32_t commit)
{
    json_object *tree = bv_json_object_from_file("/config/work/userdata.json");
    json_object *family = bv_json_object_object_get(tree, kFamily);
    bool right = family != nullptr && bv_json_object_array_length(family) == kInstances;
    for (uint32_t i = 1; right && i <= kInstances; i++) {
        const Image expected = image(commit, i);
        json_object *element = bv_json_object_array_get_idx(family, i - 1);
        json_object *values = bv_json_object_object_get(element, "para");
        right = has(element, "inst", std::to_string(i)) &&
                has(values, "number", std::to_string(expected.number)) &&
                has(values, "host", expected.host);
    }
    bv_json_object_put(tree);
    return right;
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

TEST(Soak, EveryCommitIsReadBack)
{
    const uint32_t commits = soak::parameter("SOAK_COMMITS", 300);
    set_up_database();
    soak::Memory memory{getpid()};
    const double started = soak::seconds();
    for (uint32_t commit = 1; commit <= commits; commit++) {
        for (uint32_t i = 1; i <= kInstances; i++) {
            const Image bytes = image(commit, i);
            ASSERT_EQ(bv_db_write(kFamily, &bytes, sizeof bytes, i), BV_OK);
        }
        ASSERT_EQ(bv_db_commit(), BV_OK);
        ASSERT_TRUE(file_is_right(commit)) << "commit " << commit;
        memory.note(kWarmUpCommits);
    }
    printf("%u commits of %u instances in %.1f s\n", commits, kInstances,
           soak::seconds() - started);
    memory.check("commits");
}

} // namespace
