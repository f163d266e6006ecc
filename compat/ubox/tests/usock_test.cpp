/* SPDX-License-Identifier: ISC */
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libubox/usock.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

// A descriptor from usock() that closes itself.
struct Socket {
    int fd;

    Socket(int type, const char *host, const char *service = nullptr)
        : fd(usock(type, host, service))
    {
    }
    ~Socket()
    {
        if (fd >= 0)
            close(fd);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
};

constexpr char kPath[] = "/scratch/usock";

int kind_of(int fd)
{
    int kind = -1;
    socklen_t size = sizeof(kind);

    getsockopt(fd, SOL_SOCKET, SO_TYPE, &kind, &size);
    return kind;
}

class Usock : public testing::Test {
protected:
    void SetUp() override { unlink(kPath); }
    void TearDown() override { unlink(kPath); }
};

TEST_F(Usock, UnixClientTalksToAUnixServer)
{
    Socket server(USOCK_UNIX | USOCK_SERVER, kPath, "not used");
    ASSERT_GE(server.fd, 0);
    Socket client(USOCK_UNIX, kPath);
    ASSERT_GE(client.fd, 0);
    int accepted = accept(server.fd, nullptr, nullptr);
    ASSERT_GE(accepted, 0);

    char byte = 0;
    EXPECT_EQ(write(client.fd, "x", 1), 1);
    EXPECT_EQ(read(accepted, &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(kind_of(client.fd), SOCK_STREAM);
    close(accepted);
}

TEST_F(Usock, DescriptorsAreCloseOnExecAndBlockingUnlessToldOtherwise)
{
    Socket server(USOCK_UNIX | USOCK_SERVER, kPath);
    Socket plain(USOCK_UNIX, kPath);
    Socket other(USOCK_UNIX | USOCK_NOCLOEXEC | USOCK_NONBLOCK, kPath);

    for (int fd : {server.fd, plain.fd}) {
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
        EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    }
    EXPECT_FALSE(fcntl(other.fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(other.fd, F_GETFL) & O_NONBLOCK);
}

void expect_failure(int type, const char *host, int error)
{
    errno = 0;
    EXPECT_EQ(usock(type, host, nullptr), -1);
    EXPECT_EQ(errno, error);
}

TEST_F(Usock, FailuresTellWhy)
{
    expect_failure(USOCK_UNIX, kPath, ENOENT);

    int file = open(kPath, O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(file, 0);
    close(file);
    expect_failure(USOCK_UNIX, kPath, ECONNREFUSED);
    expect_failure(USOCK_UNIX | USOCK_SERVER, kPath, EADDRINUSE);
    struct stat st;
    EXPECT_EQ(stat(kPath, &st), 0); // still there
    expect_failure(USOCK_UNIX, nullptr, EINVAL);
}

TEST_F(Usock, FailureLeavesNoDescriptorOpen)
{
    int next = dup(0);
    close(next);
    EXPECT_EQ(usock(USOCK_UNIX, kPath, nullptr), -1);
    EXPECT_EQ(usock(USOCK_UNIX | USOCK_SERVER, "/no/such/folder/socket", nullptr), -1);
    EXPECT_EQ(usock(USOCK_TCP | USOCK_NUMERIC, "127.0.0.1", "1"), -1);
    int now = dup(0);
    close(now);
    EXPECT_EQ(now, next);
}

TEST_F(Usock, PathHasAtMost107Characters)
{
    std::string longest = "/scratch/" + std::string(98, 'p');

    ASSERT_EQ(longest.size(), 107u);
    Socket server(USOCK_UNIX | USOCK_SERVER, longest.c_str());
    EXPECT_GE(server.fd, 0);
    Socket client(USOCK_UNIX, longest.c_str());
    EXPECT_GE(client.fd, 0);
    expect_failure(USOCK_UNIX | USOCK_SERVER, (longest + "p").c_str(), EINVAL);
    expect_failure(USOCK_UNIX, (longest + "p").c_str(), EINVAL);
    unlink(longest.c_str());
}

TEST_F(Usock, UdpMeansDatagrams)
{
    Socket server(USOCK_UNIX | USOCK_UDP | USOCK_SERVER, kPath);
    ASSERT_GE(server.fd, 0);
    Socket client(USOCK_UNIX | USOCK_UDP, kPath);
    ASSERT_GE(client.fd, 0);
    EXPECT_EQ(kind_of(server.fd), SOCK_DGRAM);
    EXPECT_EQ(write(client.fd, "abc", 3), 3);
    EXPECT_EQ(write(client.fd, "d", 1), 1);
    char bytes[8];
    EXPECT_EQ(read(server.fd, bytes, sizeof(bytes)), 3);
}

std::string port_of(int fd)
{
    sockaddr_storage addr = {};
    socklen_t size = sizeof(addr);

    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &size);
    return std::to_string(ntohs(addr.ss_family == AF_INET6
                                    ? reinterpret_cast<sockaddr_in6 *>(&addr)->sin6_port
                                    : reinterpret_cast<sockaddr_in *>(&addr)->sin_port));
}

TEST_F(Usock, TcpAndUdpWorkOverTheLoopbackInterface)
{
    for (int type : {USOCK_TCP, USOCK_UDP}) {
        Socket server(type | USOCK_SERVER | USOCK_NUMERIC | USOCK_IPV4ONLY, "127.0.0.1", "0");
        ASSERT_GE(server.fd, 0);
        Socket client(type | USOCK_NUMERIC, "127.0.0.1", port_of(server.fd).c_str());
        ASSERT_GE(client.fd, 0);
        EXPECT_EQ(kind_of(client.fd), type == USOCK_UDP ? SOCK_DGRAM : SOCK_STREAM);
    }
    EXPECT_EQ(usock(USOCK_TCP | USOCK_NUMERIC | USOCK_IPV6ONLY, "127.0.0.1", "1"), -1);
    EXPECT_EQ(usock(USOCK_TCP | USOCK_NUMERIC, "not.an.address", "1"), -1);
}

TEST_F(Usock, NonBlockingConnectMayStillBeUnderWay)
{
    Socket server(USOCK_SERVER | USOCK_NUMERIC, "127.0.0.1", "0");
    Socket client(USOCK_NONBLOCK | USOCK_NUMERIC, "127.0.0.1", port_of(server.fd).c_str());

    EXPECT_GE(client.fd, 0);
}

} // namespace
