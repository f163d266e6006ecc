// SPDX-License-Identifier: ISC
// Notifier events by the million: eight threads post, one dispatches.

#include "soak/soak.h"

#include "support/process.h"

#include <bv/notifier.h>
#include <bv/status.h>

#include <atomic>
#include <sched.h>
#include <thread>

namespace {

constexpr uint32_t kThreads = 8;
constexpr uint32_t kMostWaiting = 20000; // of one thread: the list itself has no limit

struct Numbered {
    uint32_t thread;
    uint32_t number;
};

// Written by the dispatch thread.
std::atomic<uint32_t> g_arrived[kThreads];
std::atomic<uint32_t> g_out_of_order{0};

std::atomic<uint32_t> g_ready{0}; // threads that wait for the others before they post

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
        // Each thread has a type of its own, and all of them share one.
        const uint32_t type = number % 4 == 0 ? 13 : 1 + thread;
        ASSERT_EQ(bv_notifier_send(type, &event, sizeof event), BV_OK);
    }
}

// Each thread posts so many events; all must arrive in order.
void post_from_all(uint32_t each)
{
    g_ready = 0;
    for (auto &count : g_arrived)
        count = 0;
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < kThreads; i++)
        threads.emplace_back(post, i, each);
    for (std::thread &thread : threads)
        thread.join();

    const auto all_arrived = [each] {
        return std::all_of(std::begin(g_arrived), std::end(g_arrived),
                           [each](uint32_t count) { return count == each; });
    };
    EXPECT_TRUE(eventually([&] { return all_arrived() || g_out_of_order != 0; }, 60000));
    EXPECT_EQ(g_out_of_order, 0u);
}

TEST(Soak, EventsOfEachThreadAllArriveInOrder)
{
    const uint32_t each = soak::parameter("SOAK_EVENTS", 160000) / kThreads;
    ASSERT_EQ(bv_notifier_init(), BV_OK);
    for (uint32_t type = 1; type <= 13; type++)
        bv_notifier_reg(type, take);

    post_from_all(each); // lets the heap grow to its size
    ASSERT_FALSE(HasFailure());
    const long before = soak::memory_of(getpid());
    const double started = soak::seconds();
    post_from_all(each);
    printf("%u events from %u threads in %.1f s\n", kThreads * each, kThreads,
           soak::seconds() - started);

    usleep(100000); // enough for one event too many to arrive
    EXPECT_EQ(g_out_of_order, 0u);
    for (const auto &count : g_arrived)
        EXPECT_EQ(count, each);
    // How many events wait at once differs from round to round, by the heaps of nine threads.
    soak::expect_steady("events", before, soak::memory_of(getpid()), 16 * 1024);
}

} // namespace
