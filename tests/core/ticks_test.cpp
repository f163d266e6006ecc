// SPDX-License-Identifier: ISC
// The delay is a select() without descriptors. A recorder at the libc boundary shows delays of
// weeks; without one the call is the real one.

#include <bv/notifier.h>

#include "support/faults.h"
#include "support/process.h"

#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/time.h>

namespace {

struct Recorded {
    int nfds;
    bool any_set;
    timeval interval;
    int calls;
    bool interrupted; // a signal ends the delay
};
Recorded *g_recorder;

timeval delay(uint32_t ms)
{
    Recorded recorded = {};
    g_recorder = &recorded;
    bv_timer_set(ms);
    g_recorder = nullptr;
    EXPECT_EQ(recorded.calls, 1);
    EXPECT_EQ(recorded.nfds, 0);
    EXPECT_FALSE(recorded.any_set);
    return recorded.interval;
}

void expect_delay(uint32_t ms, long seconds, long microseconds)
{
    const timeval interval = delay(ms);
    EXPECT_EQ(static_cast<long>(interval.tv_sec), seconds) << ms << " ms";
    EXPECT_EQ(static_cast<long>(interval.tv_usec), microseconds) << ms << " ms";
}

void tick()
{
    ADD_FAILURE() << "a tick came";
}

} // namespace

BV_INTERPOSE(select, BV_TIMED("select", "__select_time64", "__select64"), int,
             (int nfds, fd_set *in, fd_set *out, fd_set *other, timeval *timeout))
{
    if (g_recorder == nullptr)
        return BV_NEXT(select)(nfds, in, out, other, timeout);
    g_recorder->calls++;
    g_recorder->nfds = nfds;
    g_recorder->any_set = in != nullptr || out != nullptr || other != nullptr;
    g_recorder->interval = *timeout;
    if (g_recorder->interrupted) {
        errno = EINTR;
        return -1;
    }
    return 0;
}

TEST(TimerSet, SplitsMillisecondsIntoSecondsAndMicroseconds)
{
    expect_delay(0, 0, 0);
    expect_delay(1, 0, 1000);
    expect_delay(999, 0, 999000);
    expect_delay(1000, 1, 0);
    expect_delay(1500, 1, 500000);
    expect_delay(4294967, 4294, 967000); // the last whose product fits 32 bits
}

TEST(TimerSet, AboveSeventyOneMinutesTheProductWrapsBeforeTheRemainder)
{
    expect_delay(4294968, 4294, 704);           // 4294968000 - 2^32 = 704
    expect_delay(5000000, 5000, 32704);         // 705032704 mod 10^6
    expect_delay(4294967295u, 4294967, 966296); // 2^32 - 1000 mod 10^6
}

TEST(TimerSet, SignalEndsTheDelayEarlyForGood)
{
    Recorded recorded = {};
    recorded.interrupted = true;
    g_recorder = &recorded;
    bv_timer_set(1500);
    g_recorder = nullptr;
    EXPECT_EQ(recorded.calls, 1);
}

TEST(TimerSet, ReallySleeps)
{
    const auto start = std::chrono::steady_clock::now();
    bv_timer_set(0); // a wait without end would run into the time limit
    bv_timer_set(30);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
}

TEST(TimeTick, AcceptsEverythingAndDoesNothing)
{
    const size_t threads = thread_count();
    EXPECT_EQ(bv_time_tick_init(), 0);
    bv_time_tick_reg(tick, 1);
    bv_time_tick_set(tick, 1);
    bv_time_tick_reg(nullptr, 0);
    bv_time_tick_set(nullptr, 0xffffffff);
    bv_timer_set(20); // time enough for a tick, if there were any
    EXPECT_EQ(thread_count(), threads);
    itimerval timer = {};
    ASSERT_EQ(getitimer(ITIMER_REAL, &timer), 0);
    EXPECT_FALSE(timerisset(&timer.it_value));
}
