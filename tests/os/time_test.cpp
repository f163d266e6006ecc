#include <bv/os.h>

#include "support/faults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

unsigned g_slept;      // what usleep() was asked for, instead of sleeping
unsigned g_sleep_left; // what sleep() says is left
volatile sig_atomic_t g_alarms;

void count_alarm(int)
{
    g_alarms = g_alarms + 1;
}

// SIGALRM stays blocked except while a test waits for it, so that none is missed.
void catch_alarms()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGALRM, count_alarm);
}

void wait_for_alarms(int count)
{
    sigset_t none;
    sigemptyset(&none);
    while (g_alarms < count)
        sigsuspend(&none);
}

tm new_year_2026()
{
    tm broken = {};
    broken.tm_year = 126;
    broken.tm_mon = 0;
    broken.tm_mday = 1;
    broken.tm_hour = 12;
    return broken;
}

} // namespace

extern "C" int usleep(useconds_t usec)
{
    g_slept = usec;
    errno = EINTR;
    return -1;
}

extern "C" unsigned sleep(unsigned seconds)
{
    g_slept = seconds;
    return g_sleep_left;
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

TEST(Time, SleepsPassTheirResultOn)
{
    EXPECT_EQ(bv_os_usleep(12345), -1);
    EXPECT_EQ(g_slept, 12345u);
    g_sleep_left = 3;
    EXPECT_EQ(bv_os_sleep(9), 3u);
    EXPECT_EQ(g_slept, 9u);
}

TEST(Time, BrokenDownTimesGoBothWays)
{
    setenv("TZ", "UTC0", 1);
    tzset();
    tm broken = new_year_2026();
    time_t seconds = bv_os_mktime(&broken);
    EXPECT_EQ(seconds, 1767268800);
    EXPECT_EQ(broken.tm_wday, 4); // a Thursday

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

TEST(Time, StrftimeAndStrptimeFollowTheFormat)
{
    tm broken = new_year_2026();
    char text[32];
    EXPECT_EQ(bv_os_strftime(text, sizeof text, "%Y-%m-%d %H", &broken), 13u);
    EXPECT_STREQ(text, "2026-01-01 12");
    EXPECT_EQ(bv_os_strftime(text, 5, "%Y-%m-%d", &broken), 0u);

    const char input[] = "2025-12-31x";
    EXPECT_EQ(bv_os_strptime(input, "%Y-%m-%d", &broken), input + 10);
    EXPECT_EQ(broken.tm_year, 125);
    EXPECT_EQ(broken.tm_mon, 11);
    EXPECT_EQ(bv_os_strptime("no date", "%Y", &broken), nullptr);
}

TEST(Time, SetitimerRingsAndTellsTheOldValue)
{
    catch_alarms();
    itimerval value = {{0, 0}, {100, 0}};
    EXPECT_EQ(bv_os_setitimer(ITIMER_REAL, &value, nullptr), 0);
    value = {{0, 0}, {0, 1000}};
    itimerval old = {};
    EXPECT_EQ(bv_os_setitimer(ITIMER_REAL, &value, &old), 0);
    EXPECT_GT(old.it_value.tv_sec, 90);
    wait_for_alarms(1);
    EXPECT_EQ(g_alarms, 1);
}

TEST(Time, TimerSettimeArmsAndTellsTheOldValue)
{
    catch_alarms();
    timer_t timer;
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGALRM;
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
    itimerspec value = {{0, 0}, {100, 0}};
    EXPECT_EQ(bv_os_timer_settime(timer, 0, &value, nullptr), 0);
    value = {{0, 0}, {0, 1000000}};
    itimerspec old = {};
    EXPECT_EQ(bv_os_timer_settime(timer, 0, &value, &old), 0);
    EXPECT_GT(old.it_value.tv_sec, 90);
    wait_for_alarms(1);
    EXPECT_EQ(g_alarms, 1);
    timer_delete(timer);
}
