// System calls that fail on purpose, and their calls counted.
//
// The library calls libc through the dynamic linker, so a function of the same name in the test
// program comes first. A fault point, at file scope of one source file, puts one there:
//
//     BV_FAULT_socket; // ready-made, see the list at the end; any other with BV_FAULT_POINT
//
//     TEST(...)
//     {
//         fault_socket.fail_next(1, EMFILE);
//         ... the next socket() of any thread returns -1 with EMFILE ...
//         EXPECT_EQ(fault_socket.calls(), 1);
//     }
//
// A refused allocation is support/faults.h's business.
#ifndef BV_TESTS_SUPPORT_FAULT_POINTS_H
#define BV_TESTS_SUPPORT_FAULT_POINTS_H

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>

// The function of that name behind this program's own.
template <typename Function>
Function *next_function(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// Decides about the calls of one function and counts them, those of the test itself included.
// Calls of all threads are concerned.
class FaultPoint {
public:
    // The n-th call from now fails, once.
    void fail_next(int n = 1, int error = EIO)
    {
        pass();
        error_ = error;
        countdown_ = n;
    }

    // Every call fails until pass().
    void fail_always(int error = EIO)
    {
        pass();
        error_ = error;
        always_ = true;
    }

    // Calls go through again, and are counted from 0.
    void pass()
    {
        always_ = false;
        countdown_ = 0;
        calls_ = 0;
    }

    // Calls since the last of the three above, or since the program started.
    int calls() const { return calls_; }

    // For the function in front: counts a call and tells whether it fails, errno set.
    bool fails()
    {
        ++calls_;
        bool hit = always_;
        if (countdown_ > 0 && --countdown_ == 0)
            hit = true;
        if (hit)
            errno = error_;
        return hit;
    }

private:
    std::atomic<int> countdown_{0};
    std::atomic<int> calls_{0};
    std::atomic<int> error_{0};
    std::atomic<bool> always_{false};
};

// BV_FAULT_POINT(symbol, result type, (parameters), (arguments), result of a failure) puts this
// program in front of a libc function and defines fault_<symbol>. An optional argument behind
// "..." is given as an ordinary last parameter.
#define BV_FAULT_POINT(symbol, result, parameters, arguments, failure)                             \
    FaultPoint fault_##symbol;                                                                     \
    extern "C" {                                                                                   \
    result bv_faulty_##symbol parameters __asm__(#symbol);                                         \
    result bv_faulty_##symbol parameters                                                           \
    {                                                                                              \
        static std::atomic<result(*) parameters> next;                                             \
        if (next == nullptr)                                                                       \
            next = next_function<result parameters>(#symbol);                                      \
        if (fault_##symbol.fails())                                                                \
            return failure;                                                                        \
        return next.load() arguments;                                                              \
    }                                                                                              \
    }                                                                                              \
    static_assert(true, "")

// Where offsets are wider than a long, glibc has names of their own for some functions; their fault
// points are fault_fopen64 and so on there. BV_FAULT_OF(fopen) names the right one anywhere.
#if defined(__GLIBC__) && !defined(__LP64__)
#define BV_FAULT_OF(name) fault_##name##64
#define BV_FAULT_POINT_64(symbol, result, parameters, arguments, failure)                          \
    BV_FAULT_POINT(symbol##64, result, parameters, arguments, failure)
#else
#define BV_FAULT_OF(name) fault_##name
#define BV_FAULT_POINT_64(symbol, result, parameters, arguments, failure)                          \
    BV_FAULT_POINT(symbol, result, parameters, arguments, failure)
#endif

// clang-format off
#define BV_FAULT_socket \
    BV_FAULT_POINT(socket, int, (int domain, int type, int protocol), (domain, type, protocol), -1)
#define BV_FAULT_bind \
    BV_FAULT_POINT(bind, int, (int fd, const sockaddr *addr, socklen_t len), (fd, addr, len), -1)
#define BV_FAULT_read \
    BV_FAULT_POINT(read, ssize_t, (int fd, void *buf, size_t n), (fd, buf, n), -1)
#define BV_FAULT_close \
    BV_FAULT_POINT(close, int, (int fd), (fd), -1)
#define BV_FAULT_popen \
    BV_FAULT_POINT(popen, FILE *, (const char *command, const char *type), (command, type), nullptr)
#define BV_FAULT_pthread_create \
    BV_FAULT_POINT(pthread_create, int, (pthread_t *thread, const pthread_attr_t *attr, \
        void *(*start)(void *), void *argument), (thread, attr, start, argument), EAGAIN)

// A function with a large-file name: test it through BV_FAULT_OF(fopen).
#define BV_FAULT_fopen \
    BV_FAULT_POINT_64(fopen, FILE *, (const char *path, const char *mode), (path, mode), nullptr)
// clang-format on

#endif
