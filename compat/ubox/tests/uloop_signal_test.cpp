/* SPDX-License-Identifier: ISC */
#include "loop_support.h"
#include "support/shared.h"

#include <cerrno>
#include <thread>

namespace {

void (*handler_of(int signo))(int)
{
    struct sigaction action;

    sigaction(signo, nullptr, &action);
    return action.sa_handler;
}

void own_handler(int) {}

class UloopSignal : public testing::Test {
protected:
    void TearDown() override
    {
        uloop_done();
        for (int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            signal(signo, SIG_DFL);
        uloop_handle_sigchld = true;
    }
};

TEST_F(UloopSignal, RunReturnsTheSignalThatEndedIt)
{
    ASSERT_EQ(uloop_init(), 0);
    for (int signo : {SIGTERM, SIGINT}) {
        Watchdog watchdog;
        std::thread other([signo] {
            sleep_ms(20);
            kill(getpid(), signo);
        });

        EXPECT_EQ(uloop_run(), signo);
        EXPECT_TRUE(uloop_cancelled);
        other.join();
    }
    EXPECT_EQ(SIGTERM, 15);
    EXPECT_EQ(SIGINT, 2);
}

TEST_F(UloopSignal, SignalRaisedInACallbackCountsWhenThatReturns)
{
    bool second_ran = false;
    Watchdog watchdog;
    Timer first([](Timer &) { raise(SIGTERM); });
    Timer second([&](Timer &) { second_ran = true; });

    ASSERT_EQ(uloop_init(), 0);
    uloop_timeout_set(&first, 0);
    uloop_timeout_set(&second, 0);
    EXPECT_EQ(uloop_run(), SIGTERM);
    EXPECT_TRUE(second_ran);
}

TEST_F(UloopSignal, SignalTakenByAnotherThreadEndsTheWait)
{
    Watchdog watchdog;
    ASSERT_EQ(uloop_init(), 0);

    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    std::thread other([&term] {
        pthread_sigmask(SIG_UNBLOCK, &term, nullptr);
        sleep_ms(20);
        raise(SIGTERM);
    });
    EXPECT_EQ(uloop_run(), SIGTERM);
    other.join();
    pthread_sigmask(SIG_UNBLOCK, &term, nullptr);
}

TEST_F(UloopSignal, SignalBeforeTheRunIsLost)
{
    ASSERT_EQ(uloop_init(), 0);
    raise(SIGTERM);
    EXPECT_TRUE(uloop_cancelled);
    EXPECT_EQ(uloop_run_timeout(1000), 0); // returns early, and that is all
    EXPECT_FALSE(uloop_cancelled);
}

TEST_F(UloopSignal, AnyCaughtSignalInterruptsTheWait)
{
    Stopwatch watch;
    struct sigaction action = {};
    pid_t self = getpid();

    ASSERT_EQ(uloop_init(), 0);
    action.sa_handler = own_handler;
    sigaction(SIGUSR1, &action, nullptr);
    sigset_t all;
    sigfillset(&all);
    std::thread other([&all, self] {
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        sleep_ms(30);
        kill(self, SIGUSR1);
    });
    EXPECT_EQ(uloop_run_timeout(10000), 0);
    EXPECT_LT(watch.ms(), 8000);
    other.join();
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(UloopSignal, OnlyDefaultActionsAreReplaced)
{
    signal(SIGINT, own_handler);
    signal(SIGTERM, SIG_IGN);
    signal(SIGCHLD, own_handler);
    signal(SIGPIPE, own_handler);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(handler_of(SIGINT), own_handler);
    EXPECT_EQ(handler_of(SIGTERM), SIG_IGN);
    EXPECT_EQ(handler_of(SIGCHLD), own_handler);
    EXPECT_EQ(handler_of(SIGPIPE), own_handler);
    uloop_done();
    EXPECT_EQ(handler_of(SIGINT), own_handler);
    EXPECT_EQ(handler_of(SIGTERM), SIG_IGN);
    EXPECT_EQ(handler_of(SIGCHLD), own_handler);
}

TEST_F(UloopSignal, HandlerWithInformationCountsAsAHandler)
{
    struct sigaction action = {}, after = {};

    action.sa_sigaction = [](int, siginfo_t *, void *) {};
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTERM, &action, nullptr);
    ASSERT_EQ(uloop_init(), 0);
    sigaction(SIGTERM, nullptr, &after);
    EXPECT_EQ(after.sa_sigaction, action.sa_sigaction);
}

TEST_F(UloopSignal, HandlersDoNotRestartSystemCalls)
{
    struct sigaction action;

    ASSERT_EQ(uloop_init(), 0);
    for (int signo : {SIGINT, SIGTERM, SIGCHLD}) {
        sigaction(signo, nullptr, &action);
        EXPECT_NE(action.sa_handler, SIG_DFL);
        EXPECT_EQ(action.sa_flags & SA_RESTART, 0);
    }
}

TEST_F(UloopSignal, ChildrenAreLeftToTheProgramIfAsked)
{
    uloop_handle_sigchld = false;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(handler_of(SIGCHLD), SIG_DFL);
    EXPECT_NE(handler_of(SIGTERM), SIG_DFL);
}

TEST_F(UloopSignal, DoneRestoresTheDefaultsExceptForSigpipe)
{
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(handler_of(SIGPIPE), SIG_IGN);
    uloop_done();
    for (int signo : {SIGINT, SIGTERM, SIGCHLD})
        EXPECT_EQ(handler_of(signo), SIG_DFL);
    EXPECT_EQ(handler_of(SIGPIPE), SIG_IGN);

    Pipe pipe;
    Ends::close_end(pipe.a);
    EXPECT_EQ(write(pipe.b, "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(UloopSignal, DoneKeepsAHandlerInstalledMeanwhile)
{
    ASSERT_EQ(uloop_init(), 0);
    signal(SIGTERM, own_handler);
    uloop_done();
    EXPECT_EQ(handler_of(SIGTERM), own_handler);
    EXPECT_EQ(handler_of(SIGINT), SIG_DFL);
}

TEST_F(UloopSignal, OtherSignalsAreLeftAlone)
{
    ASSERT_EQ(uloop_init(), 0);
    for (int signo : {SIGHUP, SIGUSR1, SIGUSR2, SIGALRM})
        EXPECT_EQ(handler_of(signo), SIG_DFL);
}

TEST_F(UloopSignal, MoreSignalsThanThePipeHoldsDoNoHarm)
{
    BV_NEEDS_OWN_ROOT("a traced process takes minutes for so many signals");
    ASSERT_EQ(uloop_init(), 0);
    Watchdog watchdog;
    Timer storm([](Timer &) {
        for (int i = 0; i < 70000; i++) {
            errno = ENOTTY;
            raise(SIGTERM);
            if (errno != ENOTTY)
                ADD_FAILURE() << "the handler changed errno";
        }
    });

    uloop_timeout_set(&storm, 0);
    EXPECT_EQ(uloop_run(), SIGTERM);
    uloop_run_timeout(0); // takes the wake-ups

    Stopwatch watch;
    EXPECT_EQ(uloop_run_timeout(30), 0);
    EXPECT_GE(watch.ms(), 29);
}

} // namespace
