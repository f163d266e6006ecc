// SPDX-License-Identifier: ISC
// The notifier in a forked child. Each test needs a process of its own, which CTest gives it.
// ThreadSanitizer knows no threads after such a fork, so these are not among its programs.

#include <bv/notifier.h>

#include <bv/status.h>

#include "support/child.h"
#include "support/events.h"
#include "support/libc.h"
#include "support/process.h"

#include <atomic>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// The steps of a child that starts the notifier for itself; 0, or the first step that failed.
int start_and_deliver()
{
    if (bv_notifier_send(1, "early", 5) != -1) // not before it initialises
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

// The port id that a netlink socket is bound to; 0 for any other descriptor.
uint32_t port_of(int fd)
{
    sockaddr_nl self = {};
    socklen_t size = sizeof self;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&self), &size) != 0)
        return 0;
    return self.nl_family == AF_NETLINK ? self.nl_pid : 0;
}

// With a driver; user-mode emulation refuses netlink protocols.
bool start_with_driver(int32_t (*init)())
{
    g_redirect_netlink = true;
    const int32_t result = init();
    if (g_last_socket.fd < 0)
        return false;
    EXPECT_EQ(result, BV_OK);
    EXPECT_EQ(port_of(g_last_socket.fd), static_cast<uint32_t>(getpid()));
    return true;
}

// In a child: whether the parent's socket is closed and one of its own opened.
int has_own_socket_only()
{
    if (fcntl(g_last_socket.fd, F_GETFD) != -1)
        return 1;
    if (bv_notifier_init() != 0)
        return 2;
    return port_of(g_last_socket.fd) == static_cast<uint32_t>(getpid()) ? 0 : 3;
}

class NotifierFork : public testing::Test {
protected:
    void SetUp() override { g_redirect_netlink = false; } // no driver
};

} // namespace

TEST_F(NotifierFork, ChildAndGrandchildStartTheirOwnDispatchers)
{
    ASSERT_EQ(bv_notifier_init(), 0);
    record_events_up_to<1>();
    EXPECT_EQ(run_in_child([] {
                  const int own = start_and_deliver();
                  return own != 0 ? own : run_in_child(start_and_deliver);
              }),
              0);
    EXPECT_EQ(bv_notifier_send(1, "parent", 6), 0);
    EXPECT_TRUE(eventually([] { return recorded_events() == Events{{1, "parent"}}; }));
}

TEST_F(NotifierFork, LockHeldAtTheForkDoesNotStopTheChild)
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
        failures += run_in_child(start_and_deliver) != 0;
    done = true;
    sender.join();
    EXPECT_EQ(failures, 0);
}

TEST_F(NotifierFork, ChildOfAParentWithNothingButASocketOpensItsOwn)
{
    if (!start_with_driver(bv_netlink_init))
        GTEST_SKIP() << "user-mode emulation refuses netlink protocols";
    EXPECT_EQ(run_in_child([] {
                  bv_notifier_init();
                  return port_of(g_last_socket.fd) == static_cast<uint32_t>(getpid()) ? 0 : 1;
              }),
              0);
}

TEST_F(NotifierFork, ChildClosesTheParentsSocketAndOpensItsOwn)
{
    if (!start_with_driver(bv_notifier_init))
        GTEST_SKIP() << "user-mode emulation refuses netlink protocols";
    EXPECT_EQ(run_in_child(has_own_socket_only), 0);
    EXPECT_EQ(port_of(g_last_socket.fd), static_cast<uint32_t>(getpid()));
}
