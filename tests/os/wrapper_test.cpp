// SPDX-License-Identifier: ISC
// What a wrapper gets is what the platform's function gets, argument for argument, and what that
// returns is what the caller gets, errno included. This program interposes every function that has
// a wrapper; while a test records, they do nothing but note their arguments.

#include <bv/os.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

using Numbers = std::vector<uint64_t>;

constexpr uint64_t kPattern = 0x01234567'89abcdef; // the low half is negative as an int
constexpr int kErrno = 99;
constexpr int kPlainWrappers = 85;

struct Call {
    std::string name;
    Numbers arguments;
};
std::vector<Call> g_calls;
bool g_recording;

template <typename T>
uint64_t number(T value)
{
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<uintptr_t>(value);
    else
        return static_cast<uint64_t>(value);
}

template <typename... T>
Numbers numbers(T... values)
{
    return {number(values)...};
}

// A value of any type, of all its bits, and another one for every index.
template <typename T>
T value(uint64_t index)
{
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<T>(static_cast<uintptr_t>(kPattern + index * 16));
    else
        return static_cast<T>(kPattern + index * 16);
}

constexpr uint64_t kResult = 20; // index of the value that is returned

template <typename Result>
Result note(const char *name, const Numbers &arguments)
{
    g_calls.push_back({name, arguments});
    errno = kErrno;
    return value<Result>(kResult);
}

// The next function after this program's own. Where offsets or times are wider than a long, the C
// library has it under another name, which its headers put in place of the usual one.
void *find_next(const std::string &name)
{
    const bool wide_time = sizeof(time_t) > sizeof(long);
    const std::string names[] = {wide_time ? "__" + name + "_time64" : name,
                                 wide_time ? "__" + name + "64" : name, name + "64", name};
    for (const std::string &candidate : names)
        if (void *symbol = dlsym(RTLD_NEXT, candidate.c_str()))
            return symbol;
    abort();
}

template <typename Function>
Function *next(std::atomic<void *> &known, const char *name)
{
    if (known == nullptr)
        known = find_next(name);
    return reinterpret_cast<Function *>(known.load());
}

// Makes one call while all is recorded.
template <typename Wrapper>
auto record(Wrapper wrapper)
{
    g_calls.clear();
    errno = 0;
    g_recording = true;
    const auto result = wrapper();
    const int error = errno;
    g_recording = false;
    EXPECT_EQ(error, kErrno);
    return result;
}

void expect_call(const char *name, const Numbers &arguments)
{
    ASSERT_EQ(g_calls.size(), 1u) << name;
    EXPECT_EQ(g_calls[0].name, name);
    EXPECT_EQ(g_calls[0].arguments, arguments) << name;
}

template <typename Result, typename... Parameters, size_t... Index>
void check(const char *name, Result (*wrapper)(Parameters...), std::index_sequence<Index...>)
{
    const Result result = record([=] { return wrapper(value<Parameters>(Index)...); });
    EXPECT_EQ(result, value<Result>(kResult)) << name;
    expect_call(name, numbers(value<Parameters>(Index)...));
}

template <typename Result, typename... Parameters>
void check(const char *name, Result (*wrapper)(Parameters...))
{
    check(name, wrapper, std::index_sequence_for<Parameters...>());
}

// The wrappers that pass everything on.
struct Plain {
    explicit Plain(void (*check)()) : check_wrapper(check), next(first) { first = this; }
    void (*check_wrapper)();
    Plain *next;
    static Plain *first;
};
Plain *Plain::first;

} // namespace

// PLAIN is a function whose wrapper passes everything on; RECORDED is only interposed.
#define PLAIN(result, name, parameters, arguments)                                                 \
    RECORDED(result, name, parameters, arguments);                                                 \
    static const Plain plain_##name([] { check(#name, bv_os_##name); })
#define RECORDED(result, name, parameters, arguments)                                              \
    static std::atomic<void *> next_##name;                                                        \
    extern "C" result name parameters                                                              \
    {                                                                                              \
        if (g_recording)                                                                           \
            return note<result>(#name, numbers arguments);                                         \
        return next<result parameters>(next_##name, #name) arguments;                              \
    }                                                                                              \
    static_assert(true, "")

// The same for functions with an optional argument, `optional` among the arguments.
#define RECORDED_OPTIONAL(result, name, parameters, last, type, arguments)                         \
    static std::atomic<void *> next_##name;                                                        \
    extern "C" result name parameters                                                              \
    {                                                                                              \
        va_list list;                                                                              \
        va_start(list, last);                                                                      \
        const type optional = va_arg(list, type);                                                  \
        va_end(list);                                                                              \
        if (g_recording)                                                                           \
            return note<result>(#name, numbers arguments);                                         \
        return next<result parameters>(next_##name, #name) arguments;                              \
    }                                                                                              \
    static_assert(true, "")

// clang-format off
RECORDED_OPTIONAL(int, open, (const char *a, int b, ...), b, mode_t, (a, b, optional));
RECORDED_OPTIONAL(int, semctl, (int a, int b, int c, ...), c, void *, (a, b, c, optional));

PLAIN(time_t, mktime, (struct tm *a), (a));
PLAIN(time_t, time, (time_t *a), (a));
PLAIN(struct tm *, localtime, (const time_t *a), (a));
PLAIN(double, difftime, (time_t a, time_t b), (a, b));
PLAIN(size_t, strftime, (char *a, size_t b, const char *c, const struct tm *d), (a, b, c, d));
PLAIN(char *, strptime, (const char *a, const char *b, struct tm *c), (a, b, c));
PLAIN(int, usleep, (useconds_t a), (a));
PLAIN(unsigned, sleep, (unsigned a), (a));
PLAIN(int, setitimer, (int a, const itimerval *b, itimerval *c), (a, b, c));
PLAIN(int, timer_settime, (timer_t a, int b, const itimerspec *c, itimerspec *d), (a, b, c, d));

PLAIN(int, socket, (int a, int b, int c), (a, b, c));
PLAIN(int, bind, (int a, const sockaddr *b, socklen_t c), (a, b, c));
PLAIN(int, connect, (int a, const sockaddr *b, socklen_t c), (a, b, c));
PLAIN(int, accept, (int a, sockaddr *b, socklen_t *c), (a, b, c));
PLAIN(int, listen, (int a, int b), (a, b));
RECORDED(int, shutdown, (int a, int b), (a, b));
PLAIN(ssize_t, send, (int a, const void *b, size_t c, int d), (a, b, c, d));
PLAIN(ssize_t, sendto, (int a, const void *b, size_t c, int d, const sockaddr *e, socklen_t f), (a, b, c, d, e, f));
PLAIN(ssize_t, sendmsg, (int a, const msghdr *b, int c), (a, b, c));
PLAIN(ssize_t, recv, (int a, void *b, size_t c, int d), (a, b, c, d));
PLAIN(ssize_t, recvfrom, (int a, void *b, size_t c, int d, sockaddr *e, socklen_t *f), (a, b, c, d, e, f));
PLAIN(ssize_t, recvmsg, (int a, msghdr *b, int c), (a, b, c));
PLAIN(int, setsockopt, (int a, int b, int c, const void *d, socklen_t e), (a, b, c, d, e));
PLAIN(int, select, (int a, fd_set *b, fd_set *c, fd_set *d, timeval *e), (a, b, c, d, e));
PLAIN(int, epoll_create, (int a), (a));
PLAIN(int, epoll_ctl, (int a, int b, int c, epoll_event *d), (a, b, c, d));
PLAIN(int, epoll_wait, (int a, epoll_event *b, int c, int d), (a, b, c, d));

PLAIN(FILE *, fopen, (const char *a, const char *b), (a, b));
PLAIN(int, fclose, (FILE *a), (a));
PLAIN(size_t, fread, (void *a, size_t b, size_t c, FILE *d), (a, b, c, d));
PLAIN(size_t, fwrite, (const void *a, size_t b, size_t c, FILE *d), (a, b, c, d));
PLAIN(int, fseek, (FILE *a, long b, int c), (a, b, c));
PLAIN(char *, fgets, (char *a, int b, FILE *c), (a, b, c));
PLAIN(int, feof, (FILE *a), (a));
PLAIN(FILE *, popen, (const char *a, const char *b), (a, b));
PLAIN(int, pclose, (FILE *a), (a));

PLAIN(int, close, (int a), (a));
PLAIN(int, creat, (const char *a, mode_t b), (a, b));
PLAIN(ssize_t, read, (int a, void *b, size_t c), (a, b, c));
PLAIN(ssize_t, write, (int a, const void *b, size_t c), (a, b, c));
PLAIN(off_t, lseek, (int a, off_t b, int c), (a, b, c));
PLAIN(int, flock, (int a, int b), (a, b));
PLAIN(int, chdir, (const char *a), (a));
PLAIN(int, mkfifo, (const char *a, mode_t b), (a, b));
PLAIN(int, pipe, (int *a), (a));
PLAIN(int, access, (const char *a, int b), (a, b));
PLAIN(int, remove, (const char *a), (a));
PLAIN(int, rename, (const char *a, const char *b), (a, b));
PLAIN(int, stat, (const char *a, struct stat *b), (a, b));
PLAIN(int, fstat, (int a, struct stat *b), (a, b));
PLAIN(pid_t, getpid, (), ());

PLAIN(int, sigemptyset, (sigset_t *a), (a));
PLAIN(int, sigfillset, (sigset_t *a), (a));
PLAIN(int, sigaddset, (sigset_t *a, int b), (a, b));
PLAIN(int, sigdelset, (sigset_t *a, int b), (a, b));
PLAIN(int, sigismember, (const sigset_t *a, int b), (a, b));
PLAIN(int, sigaction, (int a, const struct sigaction *b, struct sigaction *c), (a, b, c));
PLAIN(int, sigprocmask, (int a, const sigset_t *b, sigset_t *c), (a, b, c));
PLAIN(int, sigpending, (sigset_t *a), (a));
PLAIN(int, sigsuspend, (const sigset_t *a), (a));
PLAIN(int, sigwait, (const sigset_t *a, int *b), (a, b));
PLAIN(int, sigwaitinfo, (const sigset_t *a, siginfo_t *b), (a, b));
PLAIN(int, sigtimedwait, (const sigset_t *a, siginfo_t *b, const timespec *c), (a, b, c));
PLAIN(sighandler_t, signal, (int a, sighandler_t b), (a, b));

PLAIN(int, sem_init, (sem_t *a, int b, unsigned c), (a, b, c));
PLAIN(int, sem_destroy, (sem_t *a), (a));
PLAIN(int, sem_wait, (sem_t *a), (a));
PLAIN(int, sem_trywait, (sem_t *a), (a));
PLAIN(int, sem_post, (sem_t *a), (a));
PLAIN(int, sem_close, (sem_t *a), (a));
PLAIN(int, sem_unlink, (const char *a), (a));
PLAIN(int, semget, (key_t a, int b, int c), (a, b, c));
PLAIN(int, semop, (int a, sembuf *b, size_t c), (a, b, c));
PLAIN(void *, shmat, (int a, const void *b, int c), (a, b, c));
PLAIN(int, shmdt, (const void *a), (a));
PLAIN(int, shmctl, (int a, int b, shmid_ds *c), (a, b, c));

PLAIN(int, pthread_create, (pthread_t *a, const pthread_attr_t *b, void *(*c)(void *), void *d), (a, b, c, d));
PLAIN(int, pthread_detach, (pthread_t a), (a));
PLAIN(int, pthread_join, (pthread_t a, void **b), (a, b));
PLAIN(int, pthread_kill, (pthread_t a, int b), (a, b));
PLAIN(int, pthread_sigmask, (int a, const sigset_t *b, sigset_t *c), (a, b, c));
PLAIN(int, pthread_mutex_init, (pthread_mutex_t *a, const pthread_mutexattr_t *b), (a, b));
PLAIN(int, pthread_mutex_destroy, (pthread_mutex_t *a), (a));
PLAIN(int, pthread_mutex_trylock, (pthread_mutex_t *a), (a));
PLAIN(int, pthread_mutex_lock, (pthread_mutex_t *a), (a));
PLAIN(int, pthread_mutex_unlock, (pthread_mutex_t *a), (a));
// clang-format on

// Two optional arguments; nothing in this program needs the real one.
extern "C" sem_t *sem_open(const char *name, int flags, ...)
{
    va_list list;
    va_start(list, flags);
    const mode_t mode = va_arg(list, mode_t);
    const unsigned value = va_arg(list, unsigned);
    va_end(list);
    return note<sem_t *>("sem_open", numbers(name, flags, mode, value));
}

TEST(Wrappers, PassArgumentsResultAndErrnoOn)
{
    int count = 0;
    for (const Plain *plain = Plain::first; plain != nullptr; plain = plain->next, count++)
        plain->check_wrapper(); // an offset is widened with its sign, a result of 64 bits cut
    EXPECT_EQ(count, kPlainWrappers);
}

TEST(Wrappers, ShutdownAlwaysAsksForBothDirections)
{
    EXPECT_EQ(record([] { return bv_os_shutdown(7); }), value<int>(kResult));
    expect_call("shutdown", {7, SHUT_RDWR});
}

// Whatever the flags or the command: the platform knows which of them need the argument.
TEST(Wrappers, OptionalArgumentsAreAlwaysPassedOn)
{
    const mode_t mode = 0xdb6d;
    const char *path = "/path";
    for (int flags : {0, O_RDONLY | O_NONBLOCK, O_CREAT | O_WRONLY, 0x40000000}) {
        for (auto *open_file : {bv_os_open, bv_os_dev_open}) {
            EXPECT_EQ(record([=] { return open_file(path, flags, mode); }), value<int>(kResult));
            expect_call("open", numbers(path, flags, mode));
        }
        EXPECT_EQ(record([=] { return bv_os_sem_open(path, flags, mode, 77u); }),
                  value<sem_t *>(kResult));
        expect_call("sem_open", numbers(path, flags, mode, 77u));
    }
    int object;
    for (int command : {IPC_RMID, GETVAL, SETVAL, IPC_STAT, 98, 0x7fffffff}) {
        EXPECT_EQ(record([&] { return bv_os_semctl(5, 6, command, &object); }),
                  value<int>(kResult));
        expect_call("semctl", numbers(5, 6, command, &object));
    }
}
