/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/faults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <unistd.h>
#include <utility>

namespace {

unsigned g_slept; // what usleep() was asked for, instead of sleeping

} // namespace

extern "C" int usleep(useconds_t usec)
{
    g_slept = usec;
    errno = EINTR;
    return -1;
}

TEST(Time, MsleepSleepsAThousandMicrosecondsEachAndWrapsAt32Bits)
{
    const std::pair<uint32_t, unsigned> rows[] = {
        {1500, 1500000}, {0, 0}, {4294967, 4294967000}, {4294968, 704}, {0xffffffff, 4294966296}};
    for (const auto &[ms, us] : rows) {
        errno = 0;
        EXPECT_EQ(bv_os_msleep(ms), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(g_slept, us) << ms;
    }
}

TEST(Time, BrokenDownTimesGoBothWays)
{
    setenv("TZ", "UTC0", 1);
    tzset();
    tm broken = {};
    const char input[] = "2026-01-01 12x";
    EXPECT_EQ(bv_os_strptime(input, "%Y-%m-%d %H", &broken), input + 13);
    time_t seconds = bv_os_mktime(&broken);
    EXPECT_EQ(seconds, 1767268800);
    EXPECT_EQ(broken.tm_wday, 4); // a Thursday
    char text[32];
    EXPECT_EQ(bv_os_strftime(text, sizeof text, "%Y-%m-%d %H", &broken), 13u);
    EXPECT_STREQ(text, "2026-01-01 12");

    tm *local = bv_os_localtime(&seconds);
    ASSERT_NE(local, nullptr);
    EXPECT_EQ(local->tm_year, 126);
    EXPECT_EQ(local->tm_hour, 12);
    seconds = 0x80000000;
    EXPECT_EQ(bv_os_localtime(&seconds), local) << "the C library's one record";
    EXPECT_EQ(local->tm_year, 138) << "past 2038";
    EXPECT_EQ(bv_os_difftime(seconds + 5, seconds), 5.0);
    EXPECT_GT(bv_os_time(&seconds), 1700000000);
    EXPECT_GT(seconds, 1700000000);
}

TEST(Time, TimersTellTheirOldValue)
{
    const itimerval minute = {{0, 0}, {60, 0}}, never = {};
    itimerval left = {};
    EXPECT_EQ(bv_os_setitimer(ITIMER_REAL, &minute, nullptr), 0);
    EXPECT_EQ(bv_os_setitimer(ITIMER_REAL, &never, &left), 0);
    EXPECT_GT(left.it_value.tv_sec, 30);

    timer_t timer;
    sigevent event = {};
    event.sigev_notify = SIGEV_NONE;
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
    const itimerspec longer = {{0, 0}, {60, 0}}, stopped = {};
    itimerspec rest = {};
    EXPECT_EQ(bv_os_timer_settime(timer, 0, &longer, nullptr), 0);
    EXPECT_EQ(bv_os_timer_settime(timer, 0, &stopped, &rest), 0);
    EXPECT_GT(rest.it_value.tv_sec, 30);
    timer_delete(timer);
}
