// Notifier events by the million: eight threads post, one dispatches.

#include "soak/soak.h"

#include <bv/notifier.h>
#include <bv/status.h>

#include <atomic>
#include <gtest/gtest.h>
#include <sched.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using soak::seconds;

constexpr uint32_t kThreads = 8;
constexpr uint32_t kMostWaiting = 20000; // of one thread: the list has no limit of its own

struct Numbered {
    uint32_t thread;
    uint32_t number;
};

// Written by the dispatch thread.
std::atomic<uint32_t> g_arrived[kThreads];
std::atomic<uint32_t> g_out_of_order{0};

// Threads that stand ready: posting is over so soon that they would hardly meet.
std::atomic<uint32_t> g_ready{0};

void take(void *data, uint32_t length)
{
    const auto *event = static_cast<const Numbered *>(data);
    if (length != sizeof(Numbered) || event->thread >= kThreads ||
        g_arrived[event->thread] != event->number)
        ++g_out_of_order;
    else
        ++g_arrived[event->thread];
}

void post(uint32_t thread, uint32_t count)
{
    ++g_ready;
    while (g_ready < kThreads)
        sched_yield();
    for (uint32_t number = 0; number < count; number++) {
        while (number - g_arrived[thread] > kMostWaiting && g_out_of_order == 0)
            usleep(500);
        const Numbered event = {thread, number};
        // Every thread posts types of its own and one of all.
        const uint32_t type = number % 4 == 0 ? 13 : 1 + thread;
        ASSERT_EQ(bv_notifier_send(type, &event, sizeof event), BV_OK);
    }
}

uint32_t arrived()
{
    uint32_t sum = 0;
    for (const auto &count : g_arrived)
        sum += count;
    return sum;
}

bool wait_for(uint32_t count)
{
    const double started = seconds();
    while (arrived() < count && g_out_of_order == 0 && seconds() - started < 60)
        usleep(1000);
    return arrived() >= count;
}

void post_from_all(uint32_t each)
{
    g_ready = 0;
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < kThreads; i++)
        threads.emplace_back(post, i, each);
    for (std::thread &thread : threads)
        thread.join();
}

TEST(Soak, EventsOfEachThreadArriveAllAndInOrder)
{
    const uint32_t each = soak::parameter("SOAK_EVENTS", 160000) / kThreads;
    ASSERT_EQ(bv_notifier_init(), BV_OK);
    for (uint32_t type = 1; type <= 13; type++)
        bv_notifier_reg(type, take);

    // A first round, so that the heap has its size.
    post_from_all(each);
    ASSERT_TRUE(wait_for(kThreads * each)) << arrived();
    ASSERT_EQ(g_out_of_order, 0u);
    for (auto &count : g_arrived)
        count = 0;
    const long before = soak::memory_of(getpid());

    const double started = seconds();
    post_from_all(each);
    EXPECT_TRUE(wait_for(kThreads * each)) << arrived() << " of " << kThreads * each;
    const double taken = seconds() - started;
    usleep(100000); // one too many would come now

    EXPECT_EQ(g_out_of_order, 0u);
    for (const auto &count : g_arrived)
        EXPECT_EQ(count, each);
    const long after = soak::memory_of(getpid());
    printf("%u events from %u threads in %.1f s; memory %ld KiB, later %ld KiB\n", kThreads * each,
           kThreads, taken, before, after);
    // How many events wait at once differs from round to round, by the heaps of nine threads.
    if (soak::memory_counts()) {
        EXPECT_LE(after - before, 16 * 1024);
    }
}

} // namespace
