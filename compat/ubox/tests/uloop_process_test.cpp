/* SPDX-License-Identifier: ISC */
#include "loop_support.h"

#include <cerrno>

namespace {

using UloopProcess = LoopTest;

TEST_F(UloopProcess, CallbackGetsTheRawStatus)
{
    std::vector<int> statuses;
    Watchdog watchdog;
    auto note = [&](Process &self, int status) {
        EXPECT_FALSE(self.pending);
        statuses.push_back(status);
        uloop_end();
    };
    Process coded(note), killed(note);

    coded.start([] { return 7; });
    EXPECT_EQ(uloop_process_add(&coded), 0);
    uloop_run();
    killed.start([] {
        raise(SIGKILL);
        return 0;
    });
    EXPECT_EQ(uloop_process_add(&killed), 0);
    uloop_run();
    EXPECT_EQ(statuses, (std::vector<int>{0x700, 0x009}));
}

TEST_F(UloopProcess, AllRecordsOfOneChildAreCalled)
{
    std::string order;
    Watchdog watchdog;
    Process first([&](Process &, int) { order += "1"; });
    Process second([&](Process &, int status) {
        order += "2";
        EXPECT_EQ(WEXITSTATUS(status), 3);
        uloop_end();
    });

    first.start([] { return 3; });
    second.pid = first.pid;
    uloop_process_add(&first);
    uloop_process_add(&second);
    uloop_run();
    EXPECT_EQ(order, "12");
}

TEST_F(UloopProcess, AddAndDeleteTellWhetherItWasPending)
{
    Process child;

    child.pid = 999999; // not a child: it just stays
    EXPECT_EQ(uloop_process_delete(&child), -1);
    EXPECT_EQ(uloop_process_add(&child), 0);
    EXPECT_EQ(uloop_process_add(&child), -1);
    EXPECT_TRUE(child.pending);
    EXPECT_EQ(uloop_process_delete(&child), 0);
    EXPECT_FALSE(child.pending);
    EXPECT_EQ(child.list.next, nullptr);
    EXPECT_EQ(uloop_process_delete(&child), -1);
}

// Runs until all children are gone, at most a few seconds.
void run_until_no_child_is_left()
{
    for (int i = 0; i < 500; i++) {
        uloop_run_timeout(10);
        siginfo_t info = {};
        if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) < 0 && errno == ECHILD)
            return;
    }
    ADD_FAILURE() << "children were left";
}

TEST_F(UloopProcess, UnregisteredChildrenAreReapedToo)
{
    Process stray,
        deleted([](Process &, int) { ADD_FAILURE() << "deleted before its child ended"; });

    stray.start([] { return 0; });
    deleted.start([] {
        sleep_ms(20);
        return 0;
    });
    uloop_process_add(&deleted);
    uloop_process_delete(&deleted);
    run_until_no_child_is_left();
    EXPECT_EQ(waitpid(stray.pid, nullptr, 0), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(waitpid(deleted.pid, nullptr, 0), -1);
}

TEST_F(UloopProcess, NothingIsReapedOutsideARun)
{
    Process child;

    child.start([] { return 9; });
    int status = 0;
    EXPECT_EQ(waitpid(child.pid, &status, 0), child.pid);
    EXPECT_EQ(WEXITSTATUS(status), 9);
    EXPECT_EQ(WEXITSTATUS(system("exit 4")), 4);
}

TEST_F(UloopProcess, CallbackMayWaitForItsOwnChild)
{
    Watchdog watchdog;
    Timer timer([](Timer &) {
        EXPECT_EQ(WEXITSTATUS(system("exit 5")), 5);
        uloop_end();
    });

    uloop_timeout_set(&timer, 0);
    uloop_run();
}

TEST_F(UloopProcess, CallbackMayAddItsRecordAgain)
{
    std::vector<int> codes;
    Watchdog watchdog;
    Process child([&](Process &self, int status) {
        codes.push_back(WEXITSTATUS(status));
        if (codes.size() == 2) {
            uloop_end();
            return;
        }
        self.start([] { return 2; });
        EXPECT_EQ(uloop_process_add(&self), 0);
    });

    child.start([] { return 1; });
    uloop_process_add(&child);
    uloop_run();
    EXPECT_EQ(codes, (std::vector<int>{1, 2}));
}

TEST_F(UloopProcess, CallbackMayAddItsRecordForTheSameChildAgainAndAgain)
{
    int calls = 0;
    Process child([&](Process &self, int) {
        calls++;
        uloop_process_add(&self);
    });

    child.start([] { return 0; });
    uloop_process_add(&child);
    run_until_no_child_is_left();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(child.pending);
}

TEST_F(UloopProcess, CallbackMayDeleteAndFreeTheOthers)
{
    Watchdog watchdog;
    Process *second = new Process([](Process &, int) { ADD_FAILURE() << "it was deleted"; });
    Process first([&](Process &, int) {
        EXPECT_EQ(uloop_process_delete(second), 0);
        delete second;
        uloop_end();
    });

    first.start([] { return 0; });
    second->pid = first.pid;
    uloop_process_add(&first);
    uloop_process_add(second);
    uloop_run();
}

TEST_F(UloopProcess, NestedRunCallsTheOtherRecordsOfTheChild)
{
    std::string order;
    Watchdog watchdog;
    Process second([&](Process &, int status) {
        order += "2";
        EXPECT_EQ(WEXITSTATUS(status), 6);
    });
    Process first([&](Process &, int) {
        order += "1";
        uloop_run_timeout(0);
        order += "e";
        uloop_end();
    });

    first.start([] { return 6; });
    second.pid = first.pid;
    uloop_process_add(&first);
    uloop_process_add(&second);
    uloop_run();
    EXPECT_EQ(order, "12e");
}

TEST_F(UloopProcess, ChildThatEndedBeforeItWasAddedIsReported)
{
    int code = -1;
    Watchdog watchdog;
    Process child([&](Process &, int status) {
        code = WEXITSTATUS(status);
        uloop_end();
    });
    siginfo_t info;

    child.start([] { return 8; });
    waitid(P_PID, static_cast<id_t>(child.pid), &info, WEXITED | WNOWAIT);
    uloop_process_add(&child);
    uloop_run();
    EXPECT_EQ(code, 8);
}

TEST_F(UloopProcess, ChildIsNotReportedByTheCallWhoseWaitItEnded)
{
    bool called = false;
    Stopwatch watch;
    Process child([&](Process &, int) { called = true; });

    child.start([] {
        sleep_ms(50);
        return 0;
    });
    uloop_process_add(&child);
    uloop_run_timeout(10000);
    EXPECT_LT(watch.ms(), 8000);
    EXPECT_FALSE(called);
    uloop_run_timeout(0);
    EXPECT_TRUE(called);
}

TEST_F(UloopProcess, ManyChildrenAtOnceAreAllReported)
{
    int left = 40;
    Watchdog watchdog;
    std::vector<Process> children(40);

    for (size_t i = 0; i < children.size(); i++) {
        children[i].on = [&left, i](Process &, int status) {
            EXPECT_EQ(WEXITSTATUS(status), static_cast<int>(i));
            if (--left == 0)
                uloop_end();
        };
        children[i].start([i] { return static_cast<int>(i); });
        uloop_process_add(&children[i]);
    }
    uloop_run();
    EXPECT_EQ(left, 0);
}

TEST_F(UloopProcess, RecordWithoutCallbackIsTakenOut)
{
    Process child;

    child.cb = nullptr;
    child.start([] { return 0; });
    uloop_process_add(&child);
    run_until_no_child_is_left();
    EXPECT_FALSE(child.pending);
}

TEST_F(UloopProcess, DoneInACallbackForgetsTheOtherRecords)
{
    Process second([](Process &, int) { ADD_FAILURE() << "it was forgotten"; }), other;
    Process first([](Process &, int) {
        uloop_end();
        uloop_done();
    });

    first.start([] { return 0; });
    second.pid = first.pid;
    other.pid = 999999;
    for (Process *child : {&first, &second, &other})
        uloop_process_add(child);
    uloop_run();
    EXPECT_FALSE(second.pending);
    EXPECT_FALSE(other.pending);
    EXPECT_EQ(other.list.next, nullptr);
}

TEST(UloopProcessIgnored, CallbacksNeverComeWhileSigchldIsIgnored)
{
    signal(SIGCHLD, SIG_IGN);
    ASSERT_EQ(uloop_init(), 0);
    Process child([](Process &, int) { ADD_FAILURE() << "the kernel reaped it"; });

    child.start([] { return 0; });
    uloop_process_add(&child);
    for (int i = 0; i < 5; i++)
        uloop_run_timeout(10);
    EXPECT_TRUE(child.pending);
    uloop_done();
    signal(SIGCHLD, SIG_DFL);
}

} // namespace
