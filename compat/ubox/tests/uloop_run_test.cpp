// SPDX-License-Identifier: ISC
// Life cycle, ending, nesting and forking.

#include "loop_support.h"
#include "support/process.h"
#include "support/shared.h"

#include <atomic>
#include <cerrno>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>

namespace {

bool g_refuse_registration;

} // namespace

// Comes before the C library's own.
extern "C" int epoll_ctl(int epfd, int op, int fd, struct epoll_event *event) noexcept
{
    if (g_refuse_registration) {
        errno = ENOMEM;
        return -1;
    }
    return static_cast<int>(syscall(SYS_epoll_ctl, epfd, op, fd, event));
}

namespace {

using UloopRun = LoopTest;

// Two descriptors whose callbacks end the loop.
struct TwoThatEnd {
    int calls = 0;
    SocketPair one, two;
    std::function<void(Fd &, unsigned int)> end = [this](Fd &, unsigned int) {
        calls++;
        uloop_end();
    };
    Fd first{one.a, end}, second{two.a, end};

    void make_readable()
    {
        for (Fd *fd : {&first, &second})
            uloop_fd_add(fd, ULOOP_READ);
        send_byte(one.b);
        send_byte(two.b);
    }
};

TEST_F(UloopRun, NegativeArgumentRunsUntilTheEnd)
{
    int calls = 0;
    Watchdog watchdog;
    Timer timer([&](Timer &self) {
        if (++calls == 5)
            uloop_end();
        else
            uloop_timeout_set(&self, 1);
    });

    for (int argument : {-1, -2, -1000}) {
        calls = 0;
        uloop_timeout_set(&timer, 0);
        EXPECT_EQ(uloop_run_timeout(argument), 0);
        EXPECT_EQ(calls, 5);
    }
}

TEST_F(UloopRun, EndBeforeTheRunHasNoEffect)
{
    bool ran = false;
    Watchdog watchdog;
    Timer timer([&](Timer &) {
        ran = true;
        uloop_end();
    });

    uloop_timeout_set(&timer, 10);
    uloop_end();
    uloop_run();
    EXPECT_TRUE(ran);
}

TEST_F(UloopRun, FlagStaysSetUntilTheNextRun)
{
    Timer timer([](Timer &) {
        EXPECT_FALSE(uloop_cancelled);
        EXPECT_FALSE(uloop_cancelling());
        uloop_end();
        EXPECT_TRUE(uloop_cancelling());
    });

    uloop_timeout_set(&timer, 0);
    uloop_run();
    EXPECT_TRUE(uloop_cancelled);
    EXPECT_FALSE(uloop_cancelling()); // no run is in progress
    uloop_run_timeout(0);
    EXPECT_FALSE(uloop_cancelled);
}

TEST_F(UloopRun, EndInADescriptorCallbackComesBeforeTheNextDescriptor)
{
    TwoThatEnd fds;
    fds.make_readable();
    uloop_run();
    EXPECT_EQ(fds.calls, 1);
    uloop_fd_delete(&fds.first);
    uloop_fd_delete(&fds.second);
}

TEST_F(UloopRun, EndOfANestedRunEndsTheOuterOne)
{
    std::string order;
    Watchdog watchdog;
    Timer inner([&](Timer &) {
        order += "i";
        uloop_end();
    });
    Timer outer([&](Timer &) {
        uloop_timeout_set(&inner, 5);
        EXPECT_EQ(uloop_run(), 0);
        EXPECT_TRUE(uloop_cancelling());
        order += "o";
    });

    uloop_timeout_set(&outer, 0);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(order, "io");
}

TEST_F(UloopRun, NestedTurnClearsAPendingEnd)
{
    std::string order;
    Watchdog watchdog;
    Timer later([&](Timer &) {
        order += "l";
        uloop_end();
    });
    Timer first([&](Timer &) {
        raise(SIGTERM);
        EXPECT_TRUE(uloop_cancelling());
        uloop_run_timeout(0);
        EXPECT_FALSE(uloop_cancelling());
        order += "f";
    });

    uloop_timeout_set(&later, 20);
    uloop_timeout_set(&first, 0);
    EXPECT_EQ(uloop_run(), 0); // the signal's number is gone as well
    EXPECT_EQ(order, "fl");
}

TEST_F(UloopRun, EndFromAnotherThreadIsNoticedAfterTheWait)
{
    Stopwatch watch;
    std::atomic<bool> running{false};
    Timer start([&](Timer &) { running = true; });
    Timer timer([](Timer &) {});
    std::thread other([&] {
        while (!running)
            sleep_ms(1); // an end before the run would be lost
        sleep_ms(20);
        uloop_end();
    });

    uloop_timeout_set(&start, 0);
    uloop_timeout_set(&timer, 100);
    uloop_run();
    EXPECT_GE(watch.ms(), 98);
    other.join();
}

TEST_F(UloopRun, WaitWithoutEventsEndsAfterTheArgument)
{
    Stopwatch watch;

    EXPECT_EQ(uloop_run_timeout(30), 0);
    EXPECT_GE(watch.ms(), 29);
}

TEST(UloopLife, InitOpensThreeDescriptorsThatAreNotInherited)
{
    size_t before = open_descriptors().size();
    std::vector<bool> open(256);

    for (int fd = 0; fd < 256; fd++)
        open[static_cast<size_t>(fd)] = fcntl(fd, F_GETFD) >= 0;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(open_descriptors().size(), before + 3);

    int nonblocking = 0;
    for (int fd = 0; fd < 256; fd++) {
        if (open[static_cast<size_t>(fd)] || fcntl(fd, F_GETFD) < 0)
            continue;
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
        nonblocking += is_nonblocking(fd);
    }
    EXPECT_EQ(nonblocking, 2); // both ends of the pipe

    EXPECT_EQ(uloop_init(), 0);
    EXPECT_EQ(open_descriptors().size(), before + 3);
    uloop_done();
    EXPECT_EQ(open_descriptors().size(), before);
    uloop_done();
    EXPECT_EQ(open_descriptors().size(), before);
}

// As in a process that serves on one thread and calls from another: both connect, and so init.
TEST(UloopLife, TwoThreadsThatInitAtOnceOpenOneLoop)
{
    size_t before = open_descriptors().size();

    const int rounds = root_is_shared() ? 200 : 2000; // a traced thread takes long to start
    for (int round = 0; round < rounds; round++) {
        std::atomic<int> ready{0};
        const auto init = [&] {
            ready++;
            while (ready < 2)
                sched_yield();
            EXPECT_EQ(uloop_init(), 0);
        };
        std::thread other(init);
        init();
        other.join();
        uloop_done();
        ASSERT_EQ(open_descriptors().size(), before) << "in round " << round;
    }
}

TEST(UloopLife, FailedInitLeavesNothingBehind)
{
    rlimit limit, few;
    size_t before = open_descriptors().size();

    // Room for nothing, for the poll object, and for that and half a pipe.
    getrlimit(RLIMIT_NOFILE, &limit);
    int lowest = dup(0);
    close(lowest);
    for (int room = 0; room < 3; room++) {
        few = limit;
        few.rlim_cur = static_cast<rlim_t>(lowest + room);
        setrlimit(RLIMIT_NOFILE, &few);
        errno = 0;
        EXPECT_EQ(uloop_init(), -1);
        EXPECT_EQ(errno, EMFILE);
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(open_descriptors().size(), before);
        struct sigaction action;
        sigaction(SIGTERM, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_DFL);
    }

    g_refuse_registration = true;
    EXPECT_EQ(uloop_init(), -1);
    EXPECT_EQ(errno, ENOMEM);
    g_refuse_registration = false;
    EXPECT_EQ(open_descriptors().size(), before);

    EXPECT_EQ(uloop_init(), 0);
    uloop_done();
}

TEST(UloopLife, WithoutInitTimersCanBeSetButNothingIsWaitedFor)
{
    bool ran = false;
    Timer timer([&](Timer &) { ran = true; });
    SocketPair pair;
    Fd fd(pair.a);
    Stopwatch watch;

    EXPECT_EQ(uloop_timeout_set(&timer, 0), 0);
    EXPECT_EQ(uloop_fd_add(&fd, ULOOP_READ), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(fd.registered);
    EXPECT_TRUE(is_nonblocking(pair.a));
    EXPECT_EQ(uloop_run_timeout(10000), 0);
    EXPECT_LT(watch.ms(), 8000);
    EXPECT_TRUE(ran);
}

TEST(UloopLife, DoneForgetsTimersAndProcessesWithoutCallingThem)
{
    Timer timer([](Timer &) { ADD_FAILURE(); });
    Process child([](Process &, int) { ADD_FAILURE(); });

    ASSERT_EQ(uloop_init(), 0);
    child.pid = 999999;
    uloop_timeout_set(&timer, 0);
    uloop_process_add(&child);
    uloop_cancelled = true;
    uloop_done();
    EXPECT_TRUE(uloop_cancelled);
    EXPECT_FALSE(timer.pending);
    EXPECT_EQ(timer.list.next, nullptr);
    EXPECT_EQ(timer.list.prev, nullptr);
    EXPECT_FALSE(child.pending);
    EXPECT_EQ(child.list.next, nullptr);
    ASSERT_EQ(uloop_init(), 0);
    uloop_run_timeout(0);
    uloop_done();
}

TEST(UloopLife, RecordThatOutlivedItsLoopMustBeDeletedFirst)
{
    SocketPair pair;
    Fd fd(pair.a);

    ASSERT_EQ(uloop_init(), 0);
    ASSERT_EQ(uloop_fd_add(&fd, ULOOP_READ), 0);
    uloop_done();
    EXPECT_TRUE(fd.registered);
    EXPECT_EQ(fd.flags, ULOOP_READ);

    ASSERT_EQ(uloop_init(), 0);
    errno = 0;
    EXPECT_EQ(uloop_fd_add(&fd, ULOOP_READ), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(uloop_fd_delete(&fd), -1);
    EXPECT_EQ(uloop_fd_add(&fd, ULOOP_READ), 0);
    uloop_fd_delete(&fd);
    uloop_done();
}

TEST(UloopLife, EventsFetchedBeforeDoneAreNotDeliveredAfterwards)
{
    TwoThatEnd fds;
    ASSERT_EQ(uloop_init(), 0);
    fds.make_readable();
    uloop_run();
    uloop_done();
    ASSERT_EQ(uloop_init(), 0);
    uloop_run_timeout(0);
    EXPECT_EQ(fds.calls, 1);
    uloop_done();
}

TEST(UloopLife, LoopCanBeMadeManyTimes)
{
    size_t before = open_descriptors().size();

    for (int i = 0; i < 300; i++) {
        bool ran = false;
        Timer timer([&](Timer &) { ran = true; });

        ASSERT_EQ(uloop_init(), 0);
        uloop_timeout_set(&timer, 0);
        uloop_run_timeout(0);
        ASSERT_TRUE(ran);
        uloop_done();
    }
    EXPECT_EQ(open_descriptors().size(), before);
}

// What a forked child does that goes on without exec: done, clear, init, add.
int child_with_a_loop_of_its_own(Fd &inherited)
{
    SocketPair pair;
    bool called = false;
    Fd own(pair.a, [&](Fd &, unsigned int) {
        called = true;
        uloop_end();
    });

    uloop_done();
    if (uloop_fd_delete(&inherited) != -1 || uloop_init() != 0)
        return 1;
    if (uloop_fd_add(&own, ULOOP_READ) != 0 || write(pair.b, "x", 1) != 1)
        return 2;
    uloop_run();
    if (!called)
        return 3;
    uloop_fd_delete(&own);
    uloop_done();
    return 0;
}

TEST(UloopFork, ChildClosesTheLoopWithoutDisturbingTheParent)
{
    int calls = 0;
    SocketPair pair;
    ASSERT_EQ(uloop_init(), 0);
    Watchdog watchdog;
    Fd fd(pair.a, [&](Fd &self, unsigned int) {
        calls++;
        read_all(self.fd);
        uloop_end();
    });

    ASSERT_EQ(uloop_fd_add(&fd, ULOOP_READ), 0);
    Process child;
    child.start([&fd] { return child_with_a_loop_of_its_own(fd); });
    int status = -1;
    ASSERT_EQ(waitpid(child.pid, &status, 0), child.pid);
    EXPECT_EQ(status, 0);

    send_byte(pair.b);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(uloop_fd_delete(&fd), 0);

    // The wake-up still works too.
    Timer timer([](Timer &) { raise(SIGTERM); });
    uloop_timeout_set(&timer, 0);
    EXPECT_EQ(uloop_run(), SIGTERM);
    uloop_timeout_cancel(&watchdog);
    uloop_done();
}

TEST(UloopFork, SignalToTheChildDoesNotEndTheParent)
{
    ASSERT_EQ(uloop_init(), 0);
    Watchdog watchdog;
    bool ended = false;
    Process child([&](Process &, int status) {
        EXPECT_EQ(WEXITSTATUS(status), SIGTERM);
        ended = true;
        uloop_end();
    });

    child.start([] {
        Timer timer([](Timer &) { raise(SIGTERM); });
        uloop_timeout_set(&timer, 10);
        return uloop_run();
    });
    uloop_process_add(&child);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_TRUE(ended);
    uloop_timeout_cancel(&watchdog);
    uloop_done();
}

} // namespace
