// The notifier in a forked child. Each test needs a process of its own, which CTest gives it.
// ThreadSanitizer knows no threads after such a fork, so these are not among its programs.

#include <bv/notifier.h>

#include <bv/status.h>

#include "support/events.h"
#include "support/faults.h"
#include "support/process.h"

#include <atomic>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

bool g_has_driver; // whether the kernel's user-to-user protocol is used for the driver's
int g_last_socket = -1;

// The exit status of a child that ran the body; -1 when it did not end by itself. A child that
// hangs (on a lock that no thread will release) is ended by its alarm.
int status_of_child(int (*body)())
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The steps of a child that starts the notifier for itself; 0, or the first step that failed.
int start_and_deliver()
{
    if (bv_notifier_send(1, "early", 5) != -1)
        return 1;
    if (bv_notifier_init() != 0)
        return 2;
    forget_events(); // what the parent had
    record_events_up_to<1>();
    if (bv_notifier_send(1, "own", 3) != 0)
        return 3;
    if (!eventually([] { return !recorded_events().empty(); }))
        return 4;
    usleep(10000); // a callback of the parent's, or a second dispatcher, would have its turn now
    return recorded_events() == Events{{1, "own"}} ? 0 : 5;
}

int send_early()
{
    return bv_notifier_send(1, "early", 5) == -1 ? 0 : 1;
}

// The port id that a netlink socket is bound to; 0 for any other descriptor.
uint32_t port_of(int fd)
{
    sockaddr_nl self = {};
    socklen_t size = sizeof self;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&self), &size) != 0)
        return 0;
    return self.nl_family == AF_NETLINK ? self.nl_pid : 0;
}

int own_socket_only()
{
    const int parents = g_last_socket;
    if (fcntl(parents, F_GETFD) != -1)
        return 1;
    if (bv_notifier_init() != 0)
        return 2;
    return port_of(g_last_socket) == static_cast<uint32_t>(getpid()) ? 0 : 3;
}

} // namespace

extern "C" int mapped_socket(int domain, int type, int protocol) __asm__("socket");
extern "C" int mapped_socket(int domain, int type, int protocol)
{
    static const auto next = next_function<int(int, int, int)>("socket");
    if (domain != AF_NETLINK)
        return next(domain, type, protocol);
    if (!g_has_driver) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    g_last_socket = next(domain, type, NETLINK_USERSOCK);
    return g_last_socket;
}

TEST(NotifierFork, ChildStartsItsOwnDispatcher)
{
    ASSERT_EQ(bv_notifier_init(), 0);
    record_events_up_to<1>();
    EXPECT_EQ(status_of_child(start_and_deliver), 0);

    EXPECT_EQ(bv_notifier_send(1, "parent", 6), 0);
    EXPECT_TRUE(eventually([] { return recorded_events() == Events{{1, "parent"}}; }));
}

TEST(NotifierFork, GrandchildStartsItsOwnDispatcherToo)
{
    ASSERT_EQ(bv_notifier_init(), 0);
    EXPECT_EQ(status_of_child([] {
                  const int own = start_and_deliver();
                  return own != 0 ? own : status_of_child(start_and_deliver);
              }),
              0);
}

TEST(NotifierFork, ChildThatDoesNotInitialiseIsRefused)
{
    ASSERT_EQ(bv_notifier_init(), 0);
    EXPECT_EQ(status_of_child(send_early), 0);
}

TEST(NotifierFork, LockHeldAtTheForkDoesNotStopTheChild)
{
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer's allocator does not survive such a fork";
    static std::atomic<bool> done{false};
    ASSERT_EQ(bv_notifier_init(), 0);
    std::thread sender([] {
        while (!done)
            bv_notifier_send(0, nullptr, 0);
    });
    int failures = 0;
    for (int i = 0; i < 50; i++)
        failures += status_of_child(start_and_deliver) != 0;
    done = true;
    sender.join();
    EXPECT_EQ(failures, 0);
}

TEST(NotifierFork, ChildOfAParentWithNothingButASocketOpensItsOwn)
{
    g_has_driver = true;
    if (bv_netlink_init() != BV_OK)
        GTEST_SKIP() << "user-mode emulation refuses netlink protocols";
    EXPECT_EQ(status_of_child([] {
                  bv_notifier_init();
                  return port_of(g_last_socket) == static_cast<uint32_t>(getpid()) ? 0 : 1;
              }),
              0);
}

TEST(NotifierFork, ChildClosesTheParentsSocketAndOpensItsOwn)
{
    g_has_driver = true;
    ASSERT_EQ(bv_notifier_init(), 0);
    if (g_last_socket < 0)
        GTEST_SKIP() << "user-mode emulation refuses netlink protocols";
    EXPECT_EQ(port_of(g_last_socket), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(status_of_child(own_socket_only), 0);
    EXPECT_EQ(port_of(g_last_socket), static_cast<uint32_t>(getpid()));
}
