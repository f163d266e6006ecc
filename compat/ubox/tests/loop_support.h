// SPDX-License-Identifier: ISC
// Records with a function object as callback, and a loop for one test.
#ifndef COMPAT_UBOX_TESTS_LOOP_SUPPORT_H
#define COMPAT_UBOX_TESTS_LOOP_SUPPORT_H

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <libubox/uloop.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

struct Fd : uloop_fd {
    std::function<void(Fd &, unsigned int)> on;

    explicit Fd(int number, std::function<void(Fd &, unsigned int)> call = {})
        : uloop_fd(), on(std::move(call))
    {
        fd = number;
        cb = [](uloop_fd *u, unsigned int events) {
            Fd *self = static_cast<Fd *>(u);
            if (self->on)
                self->on(*self, events);
        };
    }
};

struct Timer : uloop_timeout {
    std::function<void(Timer &)> on;

    explicit Timer(std::function<void(Timer &)> call = {}) : uloop_timeout(), on(std::move(call))
    {
        cb = [](uloop_timeout *t) {
            Timer *self = static_cast<Timer *>(t);
            if (self->on)
                self->on(*self);
        };
    }
    ~Timer() { uloop_timeout_cancel(this); }
};

struct Process : uloop_process {
    std::function<void(Process &, int)> on;

    explicit Process(std::function<void(Process &, int)> call = {})
        : uloop_process(), on(std::move(call))
    {
        cb = [](uloop_process *p, int status) {
            Process *self = static_cast<Process *>(p);
            if (self->on)
                self->on(*self, status);
        };
    }
    ~Process() { uloop_process_delete(this); }

    // Starts a child that runs this and ends with its result.
    void start(const std::function<int()> &run)
    {
        pid = fork();
        if (pid == 0)
            _exit(run());
    }
};

class LoopTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(uloop_init(), 0); }
    void TearDown() override { uloop_done(); }
};

// Both ends are closed with the object, or earlier with close_end().
struct Ends {
    int a = -1;
    int b = -1;

    ~Ends()
    {
        close_end(a);
        close_end(b);
    }
    static void close_end(int &fd)
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
};

struct SocketPair : Ends {
    explicit SocketPair(int type = SOCK_STREAM)
    {
        int fds[2];
        if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds) == 0) {
            a = fds[0];
            b = fds[1];
        }
    }
};

struct Pipe : Ends { // a reads, b writes
    Pipe()
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) == 0) {
            a = fds[0];
            b = fds[1];
        }
    }
};

inline void send_byte(int fd)
{
    ASSERT_EQ(write(fd, "x", 1), 1);
}

inline std::string read_all(int fd)
{
    char bytes[256];
    ssize_t count = read(fd, bytes, sizeof(bytes));
    return count > 0 ? std::string(bytes, static_cast<size_t>(count)) : "";
}

inline bool is_nonblocking(int fd)
{
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

class Stopwatch {
public:
    long ms() const
    {
        auto passed = std::chrono::steady_clock::now() - start_;
        return static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(passed).count());
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

inline void sleep_ms(int ms)
{
    usleep(static_cast<useconds_t>(ms) * 1000);
}

// Ends a test that would otherwise hang.
struct Watchdog : Timer {
    explicit Watchdog(int ms = 5000)
        : Timer([](Timer &) {
              ADD_FAILURE() << "the loop did not end by itself";
              uloop_end();
          })
    {
        uloop_timeout_set(this, ms);
    }
};

#endif
