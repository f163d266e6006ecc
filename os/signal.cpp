// SPDX-License-Identifier: ISC
// System calls: signals.

#include <bv/os.h>

int bv_os_sigemptyset(sigset_t *set)
{
    return sigemptyset(set);
}

int bv_os_sigfillset(sigset_t *set)
{
    return sigfillset(set);
}

int bv_os_sigaddset(sigset_t *set, int sig)
{
    return sigaddset(set, sig);
}

int bv_os_sigdelset(sigset_t *set, int sig)
{
    return sigdelset(set, sig);
}

int bv_os_sigismember(const sigset_t *set, int sig)
{
    return sigismember(set, sig);
}

int bv_os_sigaction(int sig, const struct sigaction *act, struct sigaction *old)
{
    return sigaction(sig, act, old);
}

int bv_os_sigprocmask(int how, const sigset_t *set, sigset_t *old)
{
    return sigprocmask(how, set, old);
}

int bv_os_sigpending(sigset_t *set)
{
    return sigpending(set);
}

int bv_os_sigsuspend(const sigset_t *mask)
{
    return sigsuspend(mask);
}

int bv_os_sigwait(const sigset_t *set, int *sig)
{
    return sigwait(set, sig);
}

int bv_os_sigwaitinfo(const sigset_t *set, siginfo_t *info)
{
    return sigwaitinfo(set, info);
}

int bv_os_sigtimedwait(const sigset_t *set, siginfo_t *info, const struct timespec *timeout)
{
    return sigtimedwait(set, info, timeout);
}

void (*bv_os_signal(int sig, void (*handler)(int)))(int)
{
    return signal(sig, handler);
}
