/* SPDX-License-Identifier: ISC */
#include "loop_support.h"

#include <climits>

namespace {

using UloopTimeout = LoopTest;

TEST_F(UloopTimeout, TimersRunInOrderOfExpiryAndEqualOnesInOrderOfSetting)
{
    // All timers of a first pass must be due, so that one clock reading serves them.
    const int delays[] = {30, 10, 20, 10, 10, 0, -5, 10};
    std::vector<int> order;
    std::vector<Timer> timers(8);

    for (size_t i = 0; i < 8; i++) {
        timers[i].on = [&order, i](Timer &) { order.push_back(static_cast<int>(i)); };
        uloop_timeout_set(&timers[i], delays[i]);
    }
    sleep_ms(40);
    uloop_run_timeout(0);
    EXPECT_EQ(order, (std::vector<int>{6, 5, 1, 3, 4, 7, 2, 0}));
}

TEST_F(UloopTimeout, TimerIsAtMostOneMillisecondEarly)
{
    Watchdog watchdog;

    for (int i = 0; i < 10; i++) {
        Stopwatch watch;
        Timer timer([](Timer &) { uloop_end(); });
        uloop_timeout_set(&timer, 10);
        uloop_run();
        EXPECT_GE(watch.ms(), 9);
    }
}

TEST_F(UloopTimeout, SettingAPendingTimerMovesIt)
{
    int calls = 0;
    Watchdog watchdog;
    Timer timer([&](Timer &) { calls++; });
    Timer end([](Timer &) { uloop_end(); });

    EXPECT_EQ(uloop_timeout_set(&timer, 1), 0);
    EXPECT_EQ(uloop_timeout_set(&timer, 20), 0);
    EXPECT_TRUE(timer.pending);
    uloop_timeout_set(&end, 40);
    uloop_run_timeout(10);
    EXPECT_EQ(calls, 0);
    uloop_run();
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopTimeout, CallbackSeesItsTimerIdleAndMaySetItAgain)
{
    int calls = 0;
    Watchdog watchdog;
    Timer timer([&](Timer &self) {
        EXPECT_FALSE(self.pending);
        if (++calls < 3)
            uloop_timeout_set(&self, 1);
        else
            uloop_end();
    });

    uloop_timeout_set(&timer, 0);
    uloop_run();
    EXPECT_EQ(calls, 3);
}

TEST_F(UloopTimeout, CallbackMayFreeItsTimer)
{
    bool called = false;
    Timer *timer = new Timer;

    timer->on = [&](Timer &self) {
        called = true;
        delete &self;
    };
    // The function object goes with the record, so it must not be used after the call.
    timer->cb = [](uloop_timeout *t) {
        std::function<void(Timer &)> on = static_cast<Timer *>(t)->on;
        on(*static_cast<Timer *>(t));
    };
    uloop_timeout_set(timer, 0);
    uloop_run_timeout(0);
    EXPECT_TRUE(called);
}

TEST_F(UloopTimeout, DueTimerCancelledByAnEarlierOneDoesNotRun)
{
    bool ran = false;
    Timer second([&](Timer &) { ran = true; });
    Timer first([&](Timer &) { EXPECT_EQ(uloop_timeout_cancel(&second), 0); });

    uloop_timeout_set(&first, 0);
    uloop_timeout_set(&second, 0);
    uloop_run_timeout(0);
    uloop_run_timeout(0);
    EXPECT_FALSE(ran);
}

TEST_F(UloopTimeout, DueTimerMovedByAnEarlierOneRunsAtItsNewTimeOnly)
{
    int calls = 0;
    Timer second([&](Timer &) { calls++; });
    Timer first([&](Timer &) { uloop_timeout_set(&second, 30); });

    uloop_timeout_set(&first, 0);
    uloop_timeout_set(&second, 0);
    uloop_run_timeout(0);
    EXPECT_EQ(calls, 0);
    sleep_ms(40);
    uloop_run_timeout(0);
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopTimeout, EndingTheLoopDoesNotStopTheOthersThatAreDue)
{
    int calls = 0;
    std::vector<Timer> timers(4);

    for (Timer &timer : timers) {
        timer.on = [&](Timer &) {
            calls++;
            uloop_end();
        };
        uloop_timeout_set(&timer, 0);
    }
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(calls, 4);
}

TEST_F(UloopTimeout, TimerThatIsAlwaysDueStarvesNothing)
{
    Watchdog watchdog;
    SocketPair pair;
    Fd reader(pair.a, [](Fd &, unsigned int) { uloop_end(); });
    Timer timer([](Timer &self) { uloop_timeout_set(&self, -60000); });

    ASSERT_EQ(uloop_fd_add(&reader, ULOOP_READ), 0);
    send_byte(pair.b);
    uloop_timeout_set(&timer, 0);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(uloop_fd_delete(&reader), 0);
}

TEST_F(UloopTimeout, TimerWithoutCallbackIsDropped)
{
    uloop_timeout timer = {};

    uloop_timeout_set(&timer, 0);
    uloop_run_timeout(0);
    EXPECT_FALSE(timer.pending);
}

TEST_F(UloopTimeout, CancelTellsWhetherItWasPendingAndUnlinks)
{
    Timer timer;

    EXPECT_EQ(uloop_timeout_cancel(&timer), -1);
    uloop_timeout_set(&timer, 100);
    EXPECT_EQ(uloop_timeout_cancel(&timer), 0);
    EXPECT_FALSE(timer.pending);
    EXPECT_EQ(timer.list.next, nullptr);
    EXPECT_EQ(timer.list.prev, nullptr);
    EXPECT_EQ(uloop_timeout_cancel(&timer), -1);
}

TEST_F(UloopTimeout, AddTakesAnAbsoluteTimeOnce)
{
    bool ran = false;
    Timer timer([&](Timer &) { ran = true; });
    timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    timer.time.tv_sec = now.tv_sec + 100;
    EXPECT_EQ(uloop_timeout_add(&timer), 0);
    EXPECT_EQ(uloop_timeout_add(&timer), -1);
    EXPECT_GT(uloop_timeout_remaining64(&timer), 98000);
    EXPECT_LE(uloop_timeout_remaining64(&timer), 100000);

    uloop_timeout_cancel(&timer);
    timer.time.tv_sec = now.tv_sec - 1;
    EXPECT_EQ(uloop_timeout_add(&timer), 0);
    uloop_run_timeout(0);
    EXPECT_TRUE(ran);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
TEST_F(UloopTimeout, RemainingIsNegativeWhenOverdueAndMinusOneWhenIdle)
{
    Timer timer;

    EXPECT_EQ(uloop_timeout_remaining(&timer), -1);
    EXPECT_EQ(uloop_timeout_remaining64(&timer), -1);

    uloop_timeout_set(&timer, 10000);
    EXPECT_GT(uloop_timeout_remaining(&timer), 9000);
    EXPECT_LE(uloop_timeout_remaining64(&timer), 10000);

    uloop_timeout_set(&timer, 0);
    sleep_ms(50);
    EXPECT_LE(uloop_timeout_remaining(&timer), -49);
    EXPECT_GT(uloop_timeout_remaining64(&timer), -5000);
}

TEST_F(UloopTimeout, RemainingBeyondAnIntIsClampedInTheShortFormOnly)
{
    Timer timer;
    timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    timer.time.tv_sec = now.tv_sec + 3000000;
    uloop_timeout_add(&timer);
    EXPECT_EQ(uloop_timeout_remaining(&timer), INT_MAX);
    EXPECT_GT(uloop_timeout_remaining64(&timer), 2999990000LL);
    EXPECT_EQ(uloop_get_next_timeout(), INT_MAX);

    uloop_timeout_cancel(&timer);
    timer.time.tv_sec = now.tv_sec - 3000000;
    uloop_timeout_add(&timer);
    EXPECT_EQ(uloop_timeout_remaining(&timer), INT_MIN);
    EXPECT_LE(uloop_timeout_remaining64(&timer), -3000000000LL);

    uloop_timeout_cancel(&timer);
    timer.time.tv_sec = std::numeric_limits<time_t>::min();
    uloop_timeout_add(&timer);
    EXPECT_LT(uloop_timeout_remaining64(&timer), INT_MIN);
    uloop_timeout_cancel(&timer);
    timer.time.tv_sec = std::numeric_limits<time_t>::max();
    uloop_timeout_add(&timer);
    EXPECT_GT(uloop_timeout_remaining64(&timer), INT_MAX);
}
#pragma GCC diagnostic pop

TEST_F(UloopTimeout, LongestDelayIsAccepted)
{
    Timer timer;

    EXPECT_EQ(uloop_timeout_set(&timer, INT_MAX), 0);
    EXPECT_GT(uloop_timeout_remaining64(&timer), INT_MAX - 5000LL);
    EXPECT_LE(uloop_timeout_remaining64(&timer), INT_MAX);
    EXPECT_EQ(uloop_timeout_set(&timer, INT_MIN), 0);
    EXPECT_EQ(uloop_get_next_timeout(), 0);
}

TEST_F(UloopTimeout, NextTimeoutIsThatOfTheNearest)
{
    Timer near, far;

    EXPECT_EQ(uloop_get_next_timeout(), -1);
    uloop_timeout_set(&far, 60000);
    uloop_timeout_set(&near, 20000);
    EXPECT_GT(uloop_get_next_timeout(), 19000);
    EXPECT_LE(uloop_get_next_timeout(), 20000);
    uloop_timeout_set(&far, -5);
    EXPECT_EQ(uloop_get_next_timeout(), 0);
}

TEST_F(UloopTimeout, NextTimeoutIsZeroWhileOthersOfThePassWait)
{
    int next = -2;
    Timer second;
    Timer first([&](Timer &) { next = uloop_get_next_timeout(); });

    uloop_timeout_set(&first, 0);
    uloop_timeout_set(&second, 0);
    uloop_run_timeout(0);
    EXPECT_EQ(next, 0);
    EXPECT_EQ(uloop_get_next_timeout(), -1);
}

TEST_F(UloopTimeout, TimerThatIsDueIsNotRunByTheCallWhoseWaitItEnded)
{
    bool ran = false;
    Timer timer([&](Timer &) { ran = true; });
    Stopwatch watch;

    uloop_timeout_set(&timer, 20);
    uloop_run_timeout(2000);
    EXPECT_FALSE(ran);
    EXPECT_GE(watch.ms(), 18);
    EXPECT_LT(watch.ms(), 1500);
    uloop_run_timeout(0);
    EXPECT_TRUE(ran);
}

TEST_F(UloopTimeout, TimerDueOnEntryRunsAndTheCallStillWaits)
{
    bool ran = false;
    Timer timer([&](Timer &) { ran = true; });
    Stopwatch watch;

    uloop_timeout_set(&timer, 0);
    uloop_run_timeout(50);
    EXPECT_TRUE(ran);
    EXPECT_GE(watch.ms(), 49);
}

TEST_F(UloopTimeout, NestedRunServesTheOtherTimersThatAreDue)
{
    std::string order;
    Timer second([&](Timer &) { order += "2"; });
    Timer first([&](Timer &) {
        order += "1";
        uloop_run_timeout(0);
        order += "e";
    });

    uloop_timeout_set(&first, 0);
    uloop_timeout_set(&second, 0);
    uloop_run_timeout(0);
    EXPECT_EQ(order, "12e");
}

TEST_F(UloopTimeout, DoneInACallbackForgetsTheOthersThatAreDue)
{
    bool ran = false;
    Timer second([&](Timer &) { ran = true; });
    Timer first([&](Timer &) {
        uloop_end();
        uloop_done();
    });

    uloop_timeout_set(&first, 0);
    uloop_timeout_set(&second, 0);
    uloop_run();
    EXPECT_FALSE(ran);
    EXPECT_FALSE(second.pending);
    EXPECT_EQ(second.list.next, nullptr);
}

} // namespace
