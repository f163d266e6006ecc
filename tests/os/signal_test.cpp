/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <pthread.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t g_caught;

void catch_signal(int sig)
{
    g_caught = sig;
}

sigset_t only(int sig)
{
    sigset_t set;
    bv_os_sigemptyset(&set);
    bv_os_sigaddset(&set, sig);
    return set;
}

} // namespace

TEST(Signals, HandlersAreInstalledAndTheOldOneReturned)
{
    EXPECT_EQ(bv_os_signal(SIGUSR1, catch_signal), SIG_DFL);
    raise(SIGUSR1);
    EXPECT_EQ(g_caught, SIGUSR1);
    EXPECT_EQ(bv_os_signal(SIGUSR1, SIG_IGN), catch_signal);

    struct sigaction action = {}, old = {};
    action.sa_handler = catch_signal;
    EXPECT_EQ(bv_os_sigaction(SIGUSR2, &action, nullptr), 0);
    raise(SIGUSR2);
    EXPECT_EQ(g_caught, SIGUSR2);
    EXPECT_EQ(bv_os_sigaction(SIGUSR2, nullptr, &old), 0);
    EXPECT_EQ(old.sa_handler, catch_signal);
}

TEST(Signals, BlockedSignalIsPendingUntilItIsLetIn)
{
    signal(SIGUSR1, catch_signal);
    sigset_t set = only(SIGUSR1);
    sigset_t old;
    EXPECT_EQ(bv_os_sigprocmask(SIG_BLOCK, &set, &old), 0);
    EXPECT_EQ(sigismember(&old, SIGUSR1), 0);
    raise(SIGUSR1);
    EXPECT_EQ(g_caught, 0);

    sigset_t pending;
    EXPECT_EQ(bv_os_sigpending(&pending), 0);
    EXPECT_EQ(bv_os_sigismember(&pending, SIGUSR1), 1);

    sigset_t others;
    EXPECT_EQ(bv_os_sigfillset(&others), 0);
    EXPECT_EQ(bv_os_sigdelset(&others, SIGUSR1), 0);
    errno = 0;
    EXPECT_EQ(bv_os_sigsuspend(&others), -1); // let in while this waits
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(g_caught, SIGUSR1);
}

TEST(Signals, WaitingTakesAPendingSignal)
{
    sigset_t set = only(SIGUSR1);
    ASSERT_EQ(sigprocmask(SIG_BLOCK, &set, nullptr), 0);

    raise(SIGUSR1);
    int sig = 0;
    EXPECT_EQ(bv_os_sigwait(&set, &sig), 0);
    EXPECT_EQ(sig, SIGUSR1);

    raise(SIGUSR1);
    siginfo_t info = {};
    EXPECT_EQ(bv_os_sigwaitinfo(&set, &info), SIGUSR1);
    EXPECT_EQ(info.si_signo, SIGUSR1);
    EXPECT_EQ(info.si_pid, getpid());

    raise(SIGUSR1);
    timespec soon = {0, 1000000};
    info = {};
    EXPECT_EQ(bv_os_sigtimedwait(&set, &info, &soon), SIGUSR1);
    EXPECT_EQ(info.si_signo, SIGUSR1);
}

TEST(Signals, ThreadsHaveMasksAndSignalsOfTheirOwn)
{
    signal(SIGUSR1, catch_signal);
    sigset_t set = only(SIGUSR1);
    sigset_t old;
    EXPECT_EQ(bv_os_pthread_sigmask(SIG_BLOCK, &set, &old), 0);
    EXPECT_EQ(bv_os_pthread_kill(pthread_self(), SIGUSR1), 0);
    EXPECT_EQ(g_caught, 0);
    EXPECT_EQ(bv_os_pthread_sigmask(SIG_SETMASK, &old, nullptr), 0);
    EXPECT_EQ(g_caught, SIGUSR1);
    EXPECT_EQ(bv_os_pthread_sigmask(99, &set, nullptr), EINVAL); // the number, not -1
}
