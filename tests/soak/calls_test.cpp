// Remote calls without end: four calling processes, two owners, and a bus daemon and owners that
// are killed and come back. Each call ends in the right answer or in the code for what happened.

#include "soak/soak.h"

#include "support/bus.h"

#include <bv/ubus.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

using soak::Memory;
using soak::seconds;

constexpr uint32_t kCallers = 4;
constexpr uint32_t kOwners = 2;
constexpr uint32_t kLongest = 65536;
constexpr const char *kObjects[kOwners] = {"soak.first", "soak.second"};
constexpr uint32_t kWarmUp = 1000; // calls until a process's buffers have their size

// A call has three seconds. What is beyond is this machine's load, not a wait of the library.
constexpr double kLongestCall = 3.0 + 4.0;
constexpr double kNoProgress = 30;

// What all processes write down.
struct Shared {
    std::atomic<uint32_t> allowed;    // calls until the next restart is over
    std::atomic<uint32_t> left;       // calls that are still to be made
    std::atomic<uint32_t> done;       // calls that have ended
    std::atomic<uint32_t> right;      // in the right answer
    std::atomic<uint32_t> wrong;      // in anything that is not documented
    std::atomic<uint32_t> failed[16]; // by code
    std::atomic<uint32_t> starts;     // of the callers' connections
    std::atomic<uint32_t> runs;       // of the owners' loops
    std::atomic<uint32_t> slowest_ms;
    Memory callers[kCallers];
    Memory owners[kOwners];
    char first_wrong[200];
};
Shared *g_shared;

// An xorshift generator: the same numbers on every machine.
struct Numbers {
    uint32_t state;
    uint32_t next()
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
};

uint32_t checksum(const uint8_t *bytes, uint32_t length)
{
    uint32_t sum = length;
    for (uint32_t i = 0; i < length; i++)
        sum = sum * 31 + bytes[i];
    return 0x40000000u | (sum & 0x0fffffffu); // no status of the bus, and no error code
}

// ---- owners ----

Memory *g_own_memory;

// Answers with every byte changed, and the sum of what came.
uint32_t change(void *data, uint32_t length)
{
    auto *bytes = static_cast<uint8_t *>(data);
    const uint32_t sum = checksum(bytes, length);
    for (uint32_t i = 0; i < length; i++)
        bytes[i] = static_cast<uint8_t>(bytes[i] ^ 0x5a);
    g_own_memory->note(kWarmUp);
    return sum;
}

int register_functions()
{
    return bv_ubus_server_reg("change", change);
}

[[noreturn]] void own(uint32_t which)
{
    g_own_memory = &g_shared->owners[which];
    *g_own_memory = Memory{getpid(), 0, 0, 0};
    for (;;) {
        bv_ubus_server_init(kObjects[which], register_functions);
        ++g_shared->runs;
        usleep(5000); // the bus is gone: it takes a while to come back
    }
}

// ---- callers ----

uint32_t pick_length(Numbers &numbers)
{
    const uint32_t kind = numbers.next() % 16;
    if (kind == 0)
        return 0;
    if (kind == 1)
        return kLongest;
    if (kind < 9)
        return numbers.next() % 256;
    return numbers.next() % (kind < 13 ? 4096 : kLongest + 1);
}

void connect(uint32_t which)
{
    bv_ubus_client_exit();
    while (bv_ubus_client_init(kObjects[which]) != 0)
        usleep(5000);
    ++g_shared->starts;
}

void note_duration(double started)
{
    const auto ms = static_cast<uint32_t>((seconds() - started) * 1000);
    uint32_t seen = g_shared->slowest_ms;
    while (ms > seen && !g_shared->slowest_ms.compare_exchange_weak(seen, ms)) {
    }
}

bool is_documented(uint32_t code)
{
    return code == 2 || code == 4 || code == 7 || code == 10;
}

void note_wrong(uint32_t length, uint32_t expected, uint32_t result)
{
    if (g_shared->wrong++ == 0)
        snprintf(g_shared->first_wrong, sizeof g_shared->first_wrong,
                 "a call of %u bytes returned 0x%x, not 0x%x, or other bytes", length, result,
                 expected);
}

// One call, checked. False when the connection is to be made anew.
bool call_once(Numbers &numbers, std::vector<uint8_t> &sent, std::vector<uint8_t> &buffer)
{
    const uint32_t length = pick_length(numbers);
    const auto first = static_cast<uint8_t>(numbers.next());
    for (uint32_t i = 0; i < length; i++)
        sent[i] = static_cast<uint8_t>(first + i * 7);
    std::copy(sent.begin(), sent.begin() + length, buffer.begin());
    buffer[length] = 0xee; // nothing of it may be touched
    const uint32_t expected = checksum(sent.data(), length);

    const double started = seconds();
    const uint32_t result = bv_ubus_client_call("change", buffer.data(), length);
    note_duration(started);

    const bool answered = result == expected;
    const auto holds = [&] {
        return buffer[length] == 0xee &&
               std::equal(sent.begin(), sent.begin() + length, buffer.begin());
    };
    bool bytes_are_right = !answered && holds();
    for (uint32_t i = 0; i < length; i++)
        sent[i] = static_cast<uint8_t>(sent[i] ^ 0x5a);
    // The bytes of an answer come ahead of the bus's word that it is complete: when the connection
    // or the owner ends in between, they are there although the call failed.
    if (answered || result == 7 || result == 10)
        bytes_are_right = bytes_are_right || holds();

    if (!bytes_are_right || (!answered && !is_documented(result)))
        note_wrong(length, expected, result);
    else if (answered)
        ++g_shared->right;
    else
        ++g_shared->failed[result];
    ++g_shared->done;
    return answered;
}

int call_until_done(uint32_t which)
{
    Memory &memory = g_shared->callers[which];
    memory = Memory{getpid(), 0, 0, 0};
    Numbers numbers = {which + 1};
    std::vector<uint8_t> sent(kLongest + 1);
    std::vector<uint8_t> buffer(kLongest + 1);

    connect(which % kOwners);
    while (g_shared->left.fetch_sub(1) - 1 < UINT32_MAX / 2) {
        while (g_shared->done > g_shared->allowed)
            usleep(1000);
        if (!call_once(numbers, sent, buffer)) {
            usleep(2000);
            connect(which % kOwners);
        }
        memory.note(kWarmUp);
    }
    bv_ubus_client_exit();
    return 0;
}

// ---- the scene ----

// Daemon, owners and callers, what they use, and how they are taken down.
class Scene {
public:
    Scene()
    {
        daemon_ = Memory{bus_.pid(), 0, 0, 0};
        for (uint32_t i = 0; i < kOwners; i++)
            start_owner(i);
        for (uint32_t i = 0; i < kOwners; i++)
            EXPECT_TRUE(wait_for_object(kObjects[i]));
        for (uint32_t i = 0; i < kCallers; i++)
            callers_[i].reset(new Service([i] { return call_until_done(i); }));
    }

    // Ends the daemon, as a crash does or properly, and starts it again.
    void restart_daemon(bool crash)
    {
        if (crash)
            bus_.kill();
        else
            bus_.stop();
        keep("daemon", daemon_);
        usleep(50000);
        bus_.start();
        daemon_ = Memory{bus_.pid(), 0, 0, 0};
    }

    void restart_owner(uint32_t which)
    {
        owners_[which].reset(); // killed
        keep(kObjects[which], g_shared->owners[which]);
        usleep(20000);
        start_owner(which);
    }

    // The daemon's memory by the calls that it carried.
    void watch_daemon(uint32_t calls)
    {
        for (; calls > 0; calls--)
            daemon_.note(kCallers * kWarmUp);
    }

    bool wait_for_callers()
    {
        bool well = true;
        for (auto &caller : callers_)
            well = caller->wait() == 0 && well;
        for (uint32_t i = 0; i < kCallers; i++)
            keep("caller", g_shared->callers[i]);
        for (uint32_t i = 0; i < kOwners; i++)
            keep(kObjects[i], g_shared->owners[i]);
        keep("daemon", daemon_);
        return well;
    }

    void check_memory() const
    {
        for (const Life &life : lives_) {
            if (!life.memory.known())
                continue;
            printf("%-12s %7u calls: %5ld KiB, later %5ld KiB\n", life.name, life.memory.work,
                   life.memory.base, life.memory.last);
            if (soak::memory_counts()) {
                EXPECT_LE(life.memory.growth(), soak::kMostGrowth) << life.name;
            }
        }
    }

private:
    struct Life {
        const char *name;
        Memory memory;
    };

    void start_owner(uint32_t which)
    {
        owners_[which].reset(new Service([which]() -> int { own(which); }));
    }

    void keep(const char *name, const Memory &memory) { lives_.push_back({name, memory}); }

    BusDaemon bus_;
    Memory daemon_ = {};
    std::unique_ptr<Service> owners_[kOwners];
    std::unique_ptr<Service> callers_[kCallers];
    std::vector<Life> lives_;
};

// Restarts what there is at even distances over all calls, the daemon and an owner in turn.
// False when nothing moved for too long.
bool watch(Scene &scene, uint32_t calls, uint32_t restarts)
{
    const uint32_t step = calls / (2 * restarts + 1);
    uint32_t taken_down = 0;
    uint32_t seen = 0;
    double moved = seconds();
    while (seen < calls) {
        // On a busy machine the callers could be through before we get to a restart.
        g_shared->allowed =
            taken_down == 2 * restarts ? UINT32_MAX : step * (taken_down + 1) + step / 2;
        usleep(2000);
        const uint32_t done = g_shared->done;
        if (done != seen)
            moved = seconds();
        else if (seconds() - moved > kNoProgress)
            return false;
        scene.watch_daemon(done - seen);
        seen = done;
        if (taken_down == 2 * restarts || done < step * (taken_down + 1))
            continue;
        if (taken_down % 2 == 0)
            scene.restart_daemon(taken_down % 4 == 0);
        else
            scene.restart_owner(taken_down / 2 % kOwners);
        taken_down++;
    }
    return taken_down == 2 * restarts;
}

TEST(Soak, EveryCallEndsInTheRightAnswerOrTheCodeForItsFailure)
{
    const uint32_t calls = soak::parameter("SOAK_CALLS", 4000);
    const uint32_t restarts = soak::parameter("SOAK_RESTARTS", 1);
    g_shared = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(g_shared, MAP_FAILED);
    g_shared->left = calls;
    g_shared->allowed = calls;

    const double started = seconds();
    Scene scene;
    ASSERT_TRUE(watch(scene, calls, restarts)) << "a call hangs";
    EXPECT_TRUE(scene.wait_for_callers());

    printf("%u calls in %.1f s, %u right, slowest %u ms, daemon and owners restarted %u times\n",
           calls, seconds() - started, g_shared->right.load(), g_shared->slowest_ms.load(),
           restarts);
    for (uint32_t code : {2u, 4u, 7u, 10u})
        printf("code %-2u %u times\n", code, g_shared->failed[code].load());
    printf("callers connected %u times, owners' loops ended %u times\n", g_shared->starts.load(),
           g_shared->runs.load());
    scene.check_memory();

    EXPECT_EQ(g_shared->wrong, 0u) << g_shared->first_wrong;
    EXPECT_EQ(g_shared->done, calls);
    EXPECT_GT(g_shared->right, calls / 2);
    EXPECT_LT(g_shared->slowest_ms, kLongestCall * 1000);
    EXPECT_GE(g_shared->starts, kCallers + restarts) << "no caller noticed the restarts";
    EXPECT_GE(g_shared->runs, restarts * kOwners) << "the owners did not come back";
}

} // namespace
