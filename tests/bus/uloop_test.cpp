// SPDX-License-Identifier: ISC
// Event loop wrappers: each does what the function underneath does.

#include <bv/ubus.h>

#include "support/process.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Uloop : public testing::Test {
protected:
    Uloop()
    {
        EXPECT_EQ(bv_uloop_init(), 0);
        guard_.cb = [](uloop_timeout *) {
            ADD_FAILURE() << "the loop did not end by itself";
            uloop_end();
        };
        bv_uloop_timeout_set(&guard_, 20000);
    }
    ~Uloop() override { bv_uloop_done(); }

private:
    uloop_timeout guard_ = {};
};

int g_calls;
unsigned int g_events;
int g_status;

void end_on_timer(uloop_timeout *)
{
    g_calls++;
    uloop_end();
}

void count_timer(uloop_timeout *)
{
    g_calls++;
}

} // namespace

TEST(UloopLife, InitOpensAndDoneCloses)
{
    const size_t before = open_descriptors().size();
    EXPECT_EQ(bv_uloop_init(), 0);
    EXPECT_GT(open_descriptors().size(), before);
    bv_uloop_done();
    EXPECT_EQ(open_descriptors().size(), before);
}

TEST_F(Uloop, RunEndsWhenToldToAndReturns0)
{
    uloop_timeout timer = {};
    timer.cb = end_on_timer;
    EXPECT_EQ(bv_uloop_timeout_set(&timer, 10), 0);
    EXPECT_EQ(bv_uloop_run(), 0);
    EXPECT_EQ(g_calls, 1);
}

TEST_F(Uloop, RunReturnsTheSignalThatEndedIt)
{
    uloop_timeout timer = {};
    timer.cb = [](uloop_timeout *) { raise(SIGTERM); };
    bv_uloop_timeout_set(&timer, 1);
    EXPECT_EQ(bv_uloop_run(), SIGTERM);
}

TEST_F(Uloop, TimersAreMovedCancelledAndReportTheTimeLeft)
{
    uloop_timeout timer = {};
    timer.cb = count_timer;
    EXPECT_EQ(bv_uloop_timeout_remaining(&timer), -1);
    EXPECT_EQ(bv_uloop_timeout_cancel(&timer), -1);

    EXPECT_EQ(bv_uloop_timeout_set(&timer, 60000), 0);
    EXPECT_GT(bv_uloop_timeout_remaining(&timer), 30000);
    EXPECT_LE(bv_uloop_timeout_remaining(&timer), 60000);
    EXPECT_EQ(bv_uloop_timeout_set(&timer, 600000), 0);
    EXPECT_GT(bv_uloop_timeout_remaining(&timer), 60000);
    EXPECT_EQ(bv_uloop_timeout_cancel(&timer), 0);
    EXPECT_EQ(bv_uloop_timeout_remaining(&timer), -1);

    EXPECT_EQ(bv_uloop_timeout_set(&timer, -1000), 0);
    EXPECT_LE(bv_uloop_timeout_remaining(&timer), -999) << "overdue";
    uloop_timeout last = {};
    last.cb = end_on_timer;
    bv_uloop_timeout_set(&last, 0);
    bv_uloop_run();
    EXPECT_EQ(g_calls, 2);
}

TEST_F(Uloop, DescriptorIsWatchedUntilItIsDeleted)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    uloop_fd watched = {};
    watched.fd = ends[0];
    watched.cb = [](uloop_fd *, unsigned int events) {
        g_calls++;
        g_events = events;
        uloop_end();
    };
    EXPECT_EQ(bv_uloop_fd_add(&watched, ULOOP_READ | ULOOP_BLOCKING), 0);
    EXPECT_TRUE(watched.registered);
    EXPECT_EQ(watched.flags, 9);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    bv_uloop_run();
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(g_events, static_cast<unsigned int>(ULOOP_READ));

    EXPECT_EQ(bv_uloop_fd_delete(&watched), 0);
    EXPECT_FALSE(watched.registered);
    uloop_timeout timer = {};
    timer.cb = end_on_timer;
    bv_uloop_timeout_set(&timer, 10);
    bv_uloop_run();
    EXPECT_EQ(g_calls, 2) << "the timer's; the byte is still there";

    uloop_fd closed = {};
    closed.fd = -1;
    EXPECT_EQ(bv_uloop_fd_add(&closed, ULOOP_READ), -1);
}

TEST_F(Uloop, ReportsTheEndOfAChild)
{
    uloop_process child = {};
    child.cb = [](uloop_process *, int status) {
        g_status = status;
        uloop_end();
    };
    child.pid = fork();
    if (child.pid == 0)
        _exit(7);
    EXPECT_EQ(bv_uloop_process_add(&child), 0);
    EXPECT_EQ(bv_uloop_process_add(&child), -1);
    bv_uloop_run();
    EXPECT_TRUE(WIFEXITED(g_status));
    EXPECT_EQ(WEXITSTATUS(g_status), 7);
}

// A thread that waits for a child of its own has to know.
TEST_F(Uloop, CollectsChildrenThatItWasNotAskedFor)
{
    static pid_t child;
    child = fork();
    if (child == 0)
        _exit(7);
    uloop_timeout timer = {};
    timer.cb = [](uloop_timeout *self) {
        if (kill(child, 0) == 0)
            bv_uloop_timeout_set(self, 1);
        else
            uloop_end();
    };
    bv_uloop_timeout_set(&timer, 0);
    bv_uloop_run();
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(Uloop, ForgetsAChildThatWasDeleted)
{
    uloop_process child = {};
    child.pid = 12345;
    child.cb = [](uloop_process *, int) {};
    EXPECT_EQ(bv_uloop_process_delete(&child), -1);
    EXPECT_EQ(bv_uloop_process_add(&child), 0);
    EXPECT_TRUE(child.pending);
    EXPECT_EQ(bv_uloop_process_delete(&child), 0);
    EXPECT_FALSE(child.pending);
}
