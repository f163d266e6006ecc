// SPDX-License-Identifier: ISC
// Remote calls without end: four callers, two owners, and a bus daemon and owners that are killed
// and come back. Each call ends in the right answer or in the code for what happened.

#include "soak/soak.h"

#include "support/bus.h"

#include <bv/ubus.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>

namespace {

using soak::Memory;
using soak::seconds;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kCallers = 4;
constexpr uint32_t kOwners = 2;
constexpr uint32_t kLongest = 65536;
constexpr const char *kObjects[kOwners] = {"soak.first", "soak.second"};
constexpr uint32_t kWarmUp = 1000; // calls until the buffers of a process have their size
constexpr double kLongestCall = 7; // the library waits for 3 seconds; the rest is a busy machine
constexpr double kNoProgress = 30;

// What all processes write down.
struct Shared {
    uint32_t calls;                // to be made
    std::atomic<uint32_t> begun;   // calls
    std::atomic<uint32_t> done;    // calls
    std::atomic<uint32_t> allowed; // as many calls may be done: the next restart must not be late
    std::atomic<uint32_t> right;   // calls that brought the right answer
    std::atomic<uint32_t> wrong;   // calls that ended in no way that is documented
    std::atomic<uint32_t> failed[16]; // by code
    std::atomic<uint32_t> connections;
    std::atomic<uint32_t> runs; // of the owners' loops
    double slowest[kCallers];
    Memory callers[kCallers];
    Memory owners[kOwners];
};
Shared *g_shared;

uint32_t checksum(const uint8_t *bytes, uint32_t length)
{
    uint32_t sum = length;
    for (uint32_t i = 0; i < length; i++)
        sum = sum * 31 + bytes[i];
    return 0x40000000u | (sum & 0x0fffffffu); // neither a status of the bus nor an error code
}

// ---- owners ----

Memory *g_own_memory;

// Answers with every byte changed, and the sum of what came.
uint32_t change(void *data, uint32_t length)
{
    auto *bytes = static_cast<uint8_t *>(data);
    const uint32_t sum = checksum(bytes, length);
    for (uint32_t i = 0; i < length; i++)
        bytes[i] ^= 0x5a;
    g_own_memory->note(kWarmUp);
    return sum;
}

int register_functions()
{
    return bv_ubus_server_reg("change", change);
}

int own(uint32_t which)
{
    g_own_memory = &g_shared->owners[which];
    *g_own_memory = Memory{getpid()};
    for (;;) {
        bv_ubus_server_init(kObjects[which], register_functions);
        ++g_shared->runs;
        usleep(5000); // the bus is gone and takes a while to come back
    }
}

// ---- callers ----

uint32_t pick_length(std::minstd_rand &random)
{
    static constexpr uint32_t kLimits[] = {0,   kLongest, 255,  255,  255,      255,     255,
                                           255, 255,      4095, 4095, kLongest, kLongest};
    const uint32_t limit = kLimits[random() % std::size(kLimits)];
    return limit == kLongest && random() % 3 == 0 ? kLongest : random() % (limit + 1);
}

void connect(uint32_t which)
{
    bv_ubus_client_exit();
    while (bv_ubus_client_init(kObjects[which % kOwners]) != 0)
        usleep(5000);
    ++g_shared->connections;
}

bool is_documented(uint32_t code)
{
    return code == 2 || code == 4 || code == 7 || code == 10;
}

// One call, checked. False when the caller has to connect again.
bool call_once(uint32_t which, std::minstd_rand &random, Bytes &asked, Bytes &answer, Bytes &buffer)
{
    const uint32_t length = pick_length(random);
    const auto first = static_cast<uint8_t>(random());
    for (uint32_t i = 0; i < length; i++) {
        asked[i] = static_cast<uint8_t>(first + i * 7);
        answer[i] = asked[i] ^ 0x5a;
    }
    asked[length] = answer[length] = 0xee; // must not be touched
    std::copy_n(asked.begin(), length + 1, buffer.begin());

    const double started = seconds();
    const uint32_t result = bv_ubus_client_call("change", buffer.data(), length);
    g_shared->slowest[which] = std::max(g_shared->slowest[which], seconds() - started);

    const bool answered = result == checksum(asked.data(), length);
    const auto holds = [&](const Bytes &bytes) {
        return std::equal(buffer.begin(), buffer.begin() + length + 1, bytes.begin());
    };
    // The bytes of an answer come before the bus says that it is complete. When the connection or
    // the owner ends in between, they are there although the call failed.
    const bool may_have_answer = answered || result == 7 || result == 10;
    const bool bytes_are_right = (!answered && holds(asked)) || (may_have_answer && holds(answer));
    if (!bytes_are_right || (!answered && !is_documented(result))) {
        if (g_shared->wrong++ == 0)
            fprintf(stderr, "a call of %u bytes returned 0x%x, %s\n", length, result,
                    bytes_are_right ? "which is not documented" : "and wrong bytes");
    } else {
        ++(answered ? g_shared->right : g_shared->failed[result]);
    }
    ++g_shared->done;
    return answered;
}

int call_until_done(uint32_t which)
{
    Memory &memory = g_shared->callers[which];
    memory = Memory{getpid()};
    std::minstd_rand random(which + 1); // the same numbers on every machine
    Bytes asked(kLongest + 1), answer(kLongest + 1), buffer(kLongest + 1);

    connect(which);
    while (g_shared->begun++ < g_shared->calls) {
        while (g_shared->done > g_shared->allowed)
            usleep(1000);
        if (!call_once(which, random, asked, answer, buffer)) {
            usleep(2000);
            connect(which);
        }
        memory.note(kWarmUp);
    }
    bv_ubus_client_exit();
    return 0;
}

// ---- the scene ----

class Scene {
public:
    Scene()
    {
        for (uint32_t i = 0; i < kOwners; i++)
            start_owner(i);
        for (const char *object : kObjects)
            EXPECT_TRUE(wait_for_object(object));
        for (uint32_t i = 0; i < kCallers; i++)
            callers_[i].reset(new Service([i] { return call_until_done(i); }));
    }

    // False when nothing moved for too long.
    bool wait_for_calls(uint32_t count)
    {
        double moved = seconds();
        while (seen_ < count && seconds() - moved < kNoProgress) {
            usleep(2000);
            for (const uint32_t done = g_shared->done; seen_ < done; seen_++) {
                daemon_.note(kCallers * kWarmUp);
                moved = seconds();
            }
        }
        return seen_ >= count;
    }

    void restart_daemon(bool crash)
    {
        if (crash)
            bus_.kill();
        else
            bus_.stop();
        daemon_.check("daemon");
        usleep(50000);
        bus_.start();
        daemon_ = Memory{bus_.pid()};
    }

    void restart_owner(uint32_t which)
    {
        owners_[which].reset(); // killed
        g_shared->owners[which].check(kObjects[which]);
        usleep(20000);
        start_owner(which);
    }

    void end()
    {
        for (auto &caller : callers_)
            EXPECT_EQ(caller->wait(), 0);
        for (const Memory &memory : g_shared->callers)
            memory.check("caller");
        for (uint32_t i = 0; i < kOwners; i++)
            g_shared->owners[i].check(kObjects[i]);
        daemon_.check("daemon");
    }

private:
    void start_owner(uint32_t which)
    {
        owners_[which].reset(new Service([=] { return own(which); }));
    }

    BusDaemon bus_;
    Memory daemon_{bus_.pid()};
    uint32_t seen_ = 0; // calls that the daemon's memory was watched over
    std::unique_ptr<Service> owners_[kOwners];
    std::unique_ptr<Service> callers_[kCallers];
};

TEST(Soak, EveryCallEndsInTheRightAnswerOrTheCodeForItsFailure)
{
    const uint32_t calls = soak::parameter("SOAK_CALLS", 4000);
    const uint32_t restarts = soak::parameter("SOAK_RESTARTS", 1);
    const uint32_t step = calls / (2 * restarts + 1);
    g_shared = soak::make_shared<Shared>();
    g_shared->calls = calls;
    g_shared->allowed = step + step / 2;

    const double started = seconds();
    Scene scene;
    for (uint32_t i = 0; i < 2 * restarts; i++) { // the daemon and an owner in turn
        ASSERT_TRUE(scene.wait_for_calls(step * (i + 1))) << "a call hangs";
        if (i % 2 == 0)
            scene.restart_daemon(i % 4 == 0);
        else
            scene.restart_owner(i / 2 % kOwners);
        g_shared->allowed = i + 1 == 2 * restarts ? UINT32_MAX : step * (i + 2) + step / 2;
    }
    ASSERT_TRUE(scene.wait_for_calls(calls)) << "a call hangs";
    scene.end();

    const double slowest = *std::max_element(g_shared->slowest, std::end(g_shared->slowest));
    printf("%u calls in %.1f s, %u right, slowest %.3f s, daemon and owners restarted %u times\n",
           calls, seconds() - started, g_shared->right.load(), slowest, restarts);
    for (uint32_t code : {2u, 4u, 7u, 10u})
        printf("code %-2u %u times\n", code, g_shared->failed[code].load());
    printf("callers connected %u times, owners' loops ended %u times\n",
           g_shared->connections.load(), g_shared->runs.load());

    EXPECT_EQ(g_shared->wrong, 0u);
    EXPECT_EQ(g_shared->done, calls);
    EXPECT_GT(g_shared->right, calls / 2);
    EXPECT_LT(slowest, kLongestCall);
    EXPECT_GE(g_shared->connections, kCallers + restarts) << "no caller noticed the restarts";
    EXPECT_GE(g_shared->runs, restarts * kOwners) << "the owners did not come back";
}

} // namespace
