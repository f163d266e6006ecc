// SPDX-License-Identifier: ISC
// Two owners on the kit save in one data file, again and again, while they and the bus daemon are
// killed at any moment. A caller whose owner is killed waits for 3 seconds, so a round takes as
// long. At each look the file parses, nothing that was saved is gone, no family has its defaults,
// and the part of a service that does not run is as it was.

#include "soak/soak.h"

#include "support/bus.h"

#include <bv/db.h>
#include <bv/service.h>
#include <bv/status.h>

#include <atomic>
#include <memory>
#include <random>

namespace {

using soak::Memory;
using soak::seconds;

constexpr char kFile[] = "/config/work/userdata.json";
constexpr uint32_t kOwners = 2;
constexpr uint32_t kFirst = 1000; // the number that the file begins with; the default is 7
constexpr uint32_t kWarmUp = 200;
constexpr double kNoProgress = 30;

struct Image {
    uint32_t number;
    char host[60]; // of changing length, so that the file grows and shrinks
};

constexpr const char *kNames[kOwners] = {"soak.first", "soak.second"};
constexpr const char *kFamilies[kOwners] = {"first.json", "second.json"};
constexpr char kBystander[] = R"([ { "inst": "1",   "para": { "left": "as it is" } } ])";

// What all processes write down.
struct Shared {
    std::atomic<uint32_t> tried[kOwners]; // the last number that was to be set
    std::atomic<uint32_t> saved[kOwners]; // the last number of which a commit said that it is saved
    std::atomic<uint32_t> commits[kOwners];
    std::atomic<uint32_t> failed; // requests, since the owner or the bus was gone
    std::atomic<uint32_t> wrong;  // requests that ended in no way that is documented
    std::atomic<bool> end;
    Memory clients[kOwners];
};
Shared *g_rounds;

std::string host_of(uint32_t number)
{
    return std::string(number % 58 + 1, static_cast<char>('a' + number % 26));
}

// ---- owners ----

int own_family(uint32_t which)
{
    const bv_service_family family = {kFamilies[which], sizeof(Image), BV_SERVICE_USER, 0,
                                      nullptr,          nullptr};
    bv_service service = {};
    service.size = sizeof(service);
    service.name = kNames[which];
    service.families = &family;
    service.n_families = 1;
    return bv_service_run(&service);
}

// ---- clients ----

// Whether a request was done. What may come when an owner or the bus is gone: no such object, no
// answer in time, no bus, and a family whose owner is not found.
bool is_done(int32_t status, const char *what, bv_service_client *client)
{
    if (status == BV_OK)
        return true;
    const bool is_documented = status == 4 || status == 7 || status == 10 ||
                               status == static_cast<int32_t>(BV_ERR_NO_FAMILY);
    if (!is_documented && g_rounds->wrong++ == 0)
        fprintf(stderr, "%s: 0x%x %s\n", what, static_cast<unsigned>(status),
                bv_service_words(client));
    g_rounds->failed++;
    return false;
}

// Sets a number, saves it and reads it back. An owner that was started again between the first two
// has nothing to save; then it does not have the number either.
bool save_number(bv_service_client *client, uint32_t which, uint32_t number)
{
    Image image = {};
    image.number = number;
    strcpy(image.host, host_of(number).c_str());
    g_rounds->tried[which] = number;
    const char *family = kFamilies[which];
    return is_done(bv_service_set(client, family, &image, sizeof(image), 1), "set", client) &&
           is_done(bv_service_request(client, "commit", nullptr, nullptr), "commit", client) &&
           is_done(bv_service_get(client, family, &image, sizeof(image), 1), "get", client) &&
           image.number == number;
}

int save_until_end(uint32_t which)
{
    Memory &memory = g_rounds->clients[which];
    memory = Memory{getpid()};
    bv_service_client *client = bv_service_open(kNames[which], 100);
    for (uint32_t number = kFirst + 1; !g_rounds->end; number++) {
        if (save_number(client, which, number)) {
            g_rounds->saved[which] = number;
            g_rounds->commits[which]++;
        }
        memory.note(kWarmUp);
    }
    bv_service_close(client);
    return 0;
}

// ---- the file ----

const char *text_of(json_object *object, const char *key)
{
    const char *text = bv_json_object_get_string(bv_json_object_object_get(object, key));
    return text == nullptr ? "" : text;
}

// The number that the file has for an owner; 0 when its part is missing or is not one that was set.
uint32_t number_in(json_object *tree, uint32_t which)
{
    json_object *family = bv_json_object_object_get(tree, kFamilies[which]);
    if (family == nullptr || bv_json_object_array_length(family) != 1)
        return 0;
    json_object *values =
        bv_json_object_object_get(bv_json_object_array_get_idx(family, 0), "para");
    const auto number = static_cast<uint32_t>(strtoul(text_of(values, "number"), nullptr, 10));
    return host_of(number) == text_of(values, "host") ? number : 0;
}

// The file is replaced as a whole, so it can be read at any time.
void check_file()
{
    uint32_t least[kOwners];
    for (uint32_t i = 0; i < kOwners; i++)
        least[i] = g_rounds->saved[i];
    const std::string text = read_file(kFile);
    json_object *tree = json_tokener_parse(text.c_str());
    ASSERT_NE(tree, nullptr) << "it does not parse: " << text;
    for (uint32_t i = 0; i < kOwners; i++) {
        const uint32_t number = number_in(tree, i);
        EXPECT_GE(number, least[i]) << kNames[i] << " lost what was saved: " << text;
        EXPECT_LE(number, g_rounds->tried[i]) << text;
    }
    bv_json_object_put(tree);
    EXPECT_NE(text.find(kBystander), std::string::npos) << text;
    EXPECT_FALSE(file_exists(std::string(kFile) + ".bad"));
}

void set_files()
{
    std::string text = "{\n";
    for (uint32_t i = 0; i < kOwners; i++) {
        write_file(std::string("/etc/template/") + kFamilies[i], R"({"para": [
            {"name": "number", "type": "uint", "len": 4, "value": "7"},
            {"name": "host", "type": "string", "len": 60, "value": "default"}]})");
        text += std::string("\"") + kFamilies[i] + R"(": [{"inst": "1", "para": {"number": ")" +
                std::to_string(kFirst) + R"(", "host": ")" + host_of(kFirst) + "\"}}],\n";
    }
    write_file(kFile, text + "\"bystander.json\": " + kBystander + "\n}\n");
}

// ---- the scene ----

class Rounds {
public:
    Rounds()
    {
        for (uint32_t i = 0; i < kOwners; i++) {
            g_rounds->saved[i] = g_rounds->tried[i] = kFirst;
            start_owner(i);
        }
        for (uint32_t i = 0; i < kOwners; i++)
            clients_[i].reset(new Service([i] { return save_until_end(i); }));
    }

    // Until each client has saved something more. False when nothing moves for too long.
    bool wait_for_commits()
    {
        const double started = seconds();
        const uint32_t before[kOwners] = {g_rounds->commits[0], g_rounds->commits[1]};
        while (g_rounds->commits[0] == before[0] || g_rounds->commits[1] == before[1]) {
            if (seconds() - started > kNoProgress)
                return false;
            usleep(1000);
        }
        return true;
    }

    // The owners whose bits are set.
    void kill_owners(uint32_t which)
    {
        for (uint32_t i = 0; i < kOwners; i++)
            if ((which & 1u << i) != 0)
                owners_[i].reset();
        check_file();
        for (uint32_t i = 0; i < kOwners; i++)
            if ((which & 1u << i) != 0)
                start_owner(i);
    }

    void kill_daemon()
    {
        bus_.kill();
        check_file();
        bus_.start();
    }

    void end()
    {
        g_rounds->end = true;
        for (uint32_t i = 0; i < kOwners; i++) {
            EXPECT_EQ(clients_[i]->wait(), 0);
            g_rounds->clients[i].check(kNames[i]);
            owners_[i]->signal(SIGTERM);
            EXPECT_EQ(owners_[i]->wait(), 0) << kNames[i];
        }
        check_file();
    }

private:
    void start_owner(uint32_t which)
    {
        owners_[which].reset(new Service([which] { return own_family(which); }));
    }

    BusDaemon bus_;
    std::unique_ptr<Service> owners_[kOwners];
    std::unique_ptr<Service> clients_[kOwners];
};

TEST(Soak, SavedFamiliesOutliveKilledOwnersAndDaemons)
{
    const uint32_t kills = soak::parameter("SOAK_KILLS", 4);
    g_rounds = soak::make_shared<Shared>();
    set_files();
    std::minstd_rand random(kills);

    const double started = seconds();
    Rounds rounds;
    for (uint32_t i = 0; i < kills && !HasFailure(); i++) {
        ASSERT_TRUE(rounds.wait_for_commits())
            << "no commit for a long time, after " << i << " kills";
        usleep(random() % 10000); // at any moment of a commit
        if (i % 4 == 3)
            rounds.kill_daemon();
        else
            rounds.kill_owners(i % 4 + 1);
    }
    ASSERT_TRUE(rounds.wait_for_commits());
    rounds.end();

    printf("killed %u times in %.1f s, %u and %u commits, %u requests failed\n", kills,
           seconds() - started, g_rounds->commits[0].load(), g_rounds->commits[1].load(),
           g_rounds->failed.load());
    EXPECT_EQ(g_rounds->wrong, 0u);
    EXPECT_GT(g_rounds->failed, 0u) << "no client noticed";
}

} // namespace
