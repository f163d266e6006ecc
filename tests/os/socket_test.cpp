/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/loopback.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// A stream between two sockets of this process, made with the wrappers.
class Connection : public testing::Test {
protected:
    void SetUp() override
    {
        listener_ = bv_os_socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_GE(listener_, 0);
        int yes = 1;
        ASSERT_EQ(bv_os_setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes), 0);
        sockaddr_in address = loopback(5001);
        ASSERT_EQ(bv_os_bind(listener_, generic(address), sizeof address), 0);
        ASSERT_EQ(bv_os_listen(listener_, 1), 0);
        client_ = bv_os_socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(bv_os_connect(client_, generic(address), sizeof address), 0);
        sockaddr_in from = {};
        socklen_t length = sizeof from;
        server_ = bv_os_accept(listener_, generic(from), &length);
        ASSERT_GE(server_, 0);
        EXPECT_EQ(length, sizeof from);
        EXPECT_EQ(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    }
    void TearDown() override
    {
        close(server_);
        close(client_);
        close(listener_);
    }

    int listener_ = -1;
    int client_ = -1;
    int server_ = -1;
};

} // namespace

TEST_F(Connection, CarriesBytesBothWays)
{
    char buffer[16] = {};
    EXPECT_EQ(bv_os_send(client_, "hello", 5, 0), 5);
    EXPECT_EQ(bv_os_recv(server_, buffer, sizeof buffer, MSG_PEEK), 5); // flags arrive
    EXPECT_EQ(bv_os_recv(server_, buffer, sizeof buffer, 0), 5);
    EXPECT_STREQ(buffer, "hello");
    EXPECT_EQ(bv_os_send(server_, "back", 4, 0), 4);
    EXPECT_EQ(bv_os_recv(client_, buffer, 2, 0), 2);
}

TEST_F(Connection, ShutdownEndsBothDirections)
{
    EXPECT_EQ(bv_os_shutdown(client_), 0);
    char byte;
    EXPECT_EQ(recv(server_, &byte, 1, 0), 0); // the other side sees the end
    errno = 0;
    EXPECT_EQ(send(client_, "x", 1, MSG_NOSIGNAL), -1); // nothing can be sent
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(recv(client_, &byte, 1, MSG_DONTWAIT), 0); // nor received
}

TEST_F(Connection, IoctlPassesItsArgumentOn)
{
    ASSERT_EQ(send(client_, "12345", 5, 0), 5);
    char byte;
    ASSERT_EQ(recv(server_, &byte, 1, MSG_PEEK), 1);
    int waiting = 0;
    EXPECT_EQ(bv_os_ioctl(server_, FIONREAD, &waiting), 0);
    EXPECT_EQ(waiting, 5);
    EXPECT_EQ(bv_os_ioctl(-1, FIONREAD, &waiting), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Connection, SelectAndEpollReportWhatWasAskedFor)
{
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(server_, &readable);
    timeval soon = {0, 1000};
    EXPECT_EQ(bv_os_select(server_ + 1, &readable, nullptr, nullptr, &soon), 0);
    int epoll = bv_os_epoll_create(1);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = 77;
    EXPECT_EQ(bv_os_epoll_ctl(epoll, EPOLL_CTL_ADD, server_, &event), 0);
    epoll_event seen[2] = {};
    EXPECT_EQ(bv_os_epoll_wait(epoll, seen, 2, 0), 0);

    ASSERT_EQ(send(client_, "x", 1, 0), 1);
    FD_SET(server_, &readable);
    EXPECT_EQ(bv_os_select(server_ + 1, &readable, nullptr, nullptr, nullptr), 1);
    EXPECT_TRUE(FD_ISSET(server_, &readable));
    EXPECT_EQ(bv_os_epoll_wait(epoll, seen, 2, 5000), 1);
    EXPECT_EQ(seen[0].data.u64, 77u);
    EXPECT_EQ(seen[0].events, uint32_t{EPOLLIN});
    close(epoll);
}

TEST(Datagrams, CarryTheirAddresses)
{
    int receiver = bv_os_socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = loopback(5002);
    ASSERT_EQ(bv_os_bind(receiver, generic(to), sizeof to), 0);
    int sender = bv_os_socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in own = loopback(5003);
    ASSERT_EQ(bv_os_bind(sender, generic(own), sizeof own), 0);

    EXPECT_EQ(bv_os_sendto(sender, "abc", 3, 0, generic(to), sizeof to), 3);
    char buffer[8] = {};
    sockaddr_in from = {};
    socklen_t length = sizeof from;
    EXPECT_EQ(bv_os_recvfrom(receiver, buffer, sizeof buffer, 0, generic(from), &length), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(from.sin_port, htons(5003));
    EXPECT_EQ(length, sizeof from);

    iovec part = {buffer, 3};
    msghdr message = {};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    EXPECT_EQ(bv_os_sendmsg(sender, &message, 0), 3);
    message.msg_name = nullptr;
    message.msg_namelen = 0;
    memset(buffer, 0, sizeof buffer);
    EXPECT_EQ(bv_os_recvmsg(receiver, &message, 0), 3);
    EXPECT_STREQ(buffer, "abc");
    close(sender);
    close(receiver);
}
