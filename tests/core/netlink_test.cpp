// SPDX-License-Identifier: ISC
// The driver's messages over real netlink sockets.
//
// The library's socket is one of the kernel's user-to-user protocol here, and its message to the
// driver (port 0) goes to a socket of the test. tests/gateway has the real driver. The test sends
// from a second socket of the same protocol, since anybody may. Each test needs a process of its
// own, which CTest gives it.

#include <bv/notifier.h>

#include <bv/status.h>

#include "support/capture_stdout.h"
#include "support/dirty_heap.h"
#include "support/events.h"
#include "support/libc.h"
#include "support/process.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <mutex>
#include <poll.h>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t kHeader = 16;

// What the library asked of the system, and how it is to be answered.
struct Boundary {
    std::mutex lock;          // guards sent and sent_to, which other threads write
    uint32_t driver_port = 0; // where messages to the driver go instead; 0: nowhere else
    sockaddr_nl sent_to = {};
    unsigned sent = 0; // messages to anybody
    std::atomic<int> failing_receives{0};
    std::atomic<int> failed_receives{0};
    std::atomic<size_t> parts{0}; // of the buffer of the last receive
};
Boundary &g_boundary = *new Boundary; // never destroyed: those threads outlive main()

// User-mode emulation answers for the kernel, and knows only the kernel's own protocols.
bool netlink_is_refused()
{
    const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK);
    close(fd);
    return fd < 0 && getenv("BV_ROOT_USERLAND") != nullptr;
}

sockaddr_nl address_of(int fd)
{
    sockaddr_nl self = {};
    socklen_t size = sizeof(self);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&self), &size), 0);
    return self;
}

const uint32_t kOwnPort = static_cast<uint32_t>(getpid());

} // namespace

BV_INTERPOSE(sendmsg, BV_TIMED("sendmsg", "sendmsg", "__sendmsg64"), ssize_t,
             (int fd, const msghdr *message, int flags))
{
    if (message->msg_namelen != sizeof(sockaddr_nl))
        return BV_NEXT(sendmsg)(fd, message, flags);
    sockaddr_nl to;
    memcpy(&to, message->msg_name, sizeof(to));
    {
        std::lock_guard<std::mutex> guard(g_boundary.lock);
        g_boundary.sent_to = to;
        g_boundary.sent++;
    }
    msghdr redirected = *message;
    redirected.msg_name = &to;
    if (g_boundary.driver_port != 0)
        to.nl_pid = g_boundary.driver_port;
    return BV_NEXT(sendmsg)(fd, &redirected, flags);
}

BV_INTERPOSE(recvmsg, BV_TIMED("recvmsg", "recvmsg", "__recvmsg64"), ssize_t,
             (int fd, msghdr *message, int flags))
{
    g_boundary.parts = static_cast<size_t>(message->msg_iovlen);
    if (g_boundary.failing_receives > 0) {
        g_boundary.failing_receives--;
        errno = ++g_boundary.failed_receives % 2 == 0 ? EINTR : ENOBUFS;
        return -1;
    }
    return BV_NEXT(recvmsg)(fd, message, flags);
}

namespace {

// A port id that is not in use. The kernel would choose the process id, the library's own; other
// processes may run this program at the same time.
uint32_t unused_port()
{
    static uint32_t last = 0x40000000 + (kOwnPort << 6);
    return ++last;
}

// A socket of the driver's protocol, with which the test speaks to the library.
class Peer {
public:
    explicit Peer(uint32_t port = unused_port())
        : fd_(socket(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK)), port_(port)
    {
        sockaddr_nl self = {};
        self.nl_family = AF_NETLINK;
        self.nl_pid = port;
        EXPECT_TRUE(bind(fd_, reinterpret_cast<sockaddr *>(&self), sizeof(self)) == 0 ||
                    netlink_is_refused());
    }
    ~Peer() { close(fd_); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    uint32_t port() const { return port_; }

    // One datagram to the library, byte for byte.
    void send_raw(const std::string &bytes)
    {
        sockaddr_nl to = {};
        to.nl_family = AF_NETLINK;
        to.nl_pid = kOwnPort;
        EXPECT_EQ(sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to),
                         sizeof(to)),
                  static_cast<ssize_t>(bytes.size()));
    }

    void send(uint16_t type, const std::string &payload)
    {
        send_raw(message(type, payload, kHeader + static_cast<uint32_t>(payload.size())));
    }

    // A message whose length field says whatever it is told to.
    static std::string message(uint16_t type, const std::string &payload, uint32_t length_field)
    {
        nlmsghdr header = {};
        header.nlmsg_len = length_field;
        header.nlmsg_type = type;
        header.nlmsg_flags = 0xffff;
        header.nlmsg_seq = 0xdeadbeef;
        header.nlmsg_pid = 0xdeadbeef;
        return std::string(reinterpret_cast<char *>(&header), sizeof(header)) + payload;
    }

    // The next datagram that came, or empty after ten seconds.
    std::string receive(sockaddr_nl *from)
    {
        pollfd ready = {fd_, POLLIN, 0};
        if (poll(&ready, 1, 10000) != 1)
            return "";
        char buffer[4096];
        socklen_t size = sizeof(*from);
        const ssize_t n =
            recvfrom(fd_, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr *>(from), &size);
        return std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    }

private:
    int fd_;
    uint32_t port_;
};

// The notifier with the receive thread running and every event type recorded.
class Netlink : public testing::Test {
protected:
    void SetUp() override
    {
        if (netlink_is_refused())
            GTEST_SKIP() << "user-mode emulation refuses netlink protocols";
        g_redirect_netlink = true;
        static const bool started = [] {
            EXPECT_EQ(bv_notifier_init(), 0);
            record_events_up_to<13>();
            return true;
        }();
        ASSERT_TRUE(started);
        forget_events();
    }

    // Everything that arrived before a marker that is sent now.
    Events settle()
    {
        peer.send(2, "end of test");
        return events_before(4, "end of test");
    }

    Peer peer;
};

// bv_netlink_init() alone, with all that it may leave.
class NetlinkInit : public testing::Test {
protected:
    void SetUp() override
    {
        if (netlink_is_refused())
            GTEST_SKIP() << "user-mode emulation refuses netlink protocols";
        g_redirect_netlink = true;
        before = open_descriptors();
        fault_pthread_create.pass();
    }

    void expect_failure(int32_t code)
    {
        EXPECT_EQ(bv_netlink_init(), code);
        EXPECT_EQ(open_descriptors(), before);
    }

    std::vector<int> before;
};

constexpr auto kChannel = static_cast<int32_t>(BV_ERR_CHANNEL);

} // namespace

TEST_F(NetlinkInit, OpensOneRawSocketOfTheDriversProtocolBoundToTheProcessId)
{
    ASSERT_EQ(bv_netlink_init(), BV_OK);
    EXPECT_EQ(g_last_socket.domain, AF_NETLINK);
    EXPECT_EQ(g_last_socket.type, static_cast<int>(SOCK_RAW));
    EXPECT_EQ(g_last_socket.protocol, 26);
    EXPECT_EQ(fcntl(g_last_socket.fd, F_GETFD), FD_CLOEXEC) << "programs do not get it";

    const sockaddr_nl self = address_of(g_last_socket.fd);
    EXPECT_EQ(self.nl_family, AF_NETLINK);
    EXPECT_EQ(self.nl_pid, kOwnPort);
    EXPECT_EQ(self.nl_groups, 0u);
    EXPECT_EQ(fault_pthread_create.calls(), 1);
    EXPECT_TRUE(eventually([] { return g_boundary.parts == 1; })) << "it receives into one buffer";
}

TEST_F(NetlinkInit, SocketDoesNotBecomeStandardInput)
{
    WithoutStdin closed;
    before = open_descriptors();
    EXPECT_EQ(bv_netlink_init(), BV_OK);
    EXPECT_EQ(g_last_socket.fd, STDIN_FILENO) << "what the socket call gave";

    std::vector<int> added;
    for (int fd : open_descriptors()) {
        if (std::find(before.begin(), before.end(), fd) == before.end())
            added.push_back(fd);
    }
    ASSERT_EQ(added.size(), 1u);
    EXPECT_GT(added[0], STDERR_FILENO);
    EXPECT_EQ(fcntl(added[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(address_of(added[0]).nl_pid, kOwnPort);
}

TEST_F(NetlinkInit, SecondInitReachesADriverThatWasLoadedLater)
{
    fault_socket.fail_always(EPROTONOSUPPORT);
    ASSERT_EQ(bv_notifier_init(), 0);
    record_events_up_to<13>();
    fault_socket.pass();
    ASSERT_EQ(bv_notifier_init(), 0);

    Peer peer;
    peer.send(2, "at last");
    EXPECT_TRUE(eventually([] { return recorded_events() == Events{{4, "at last"}}; }));

    fault_socket.pass();
    ASSERT_EQ(bv_notifier_init(), 0);
    EXPECT_EQ(fault_socket.calls(), 0) << "it runs: no further socket";
}

TEST_F(NetlinkInit, FailsWithoutTheProtocol)
{
    fault_socket.fail_always(EPROTONOSUPPORT);
    expect_failure(BV_ERR_FAILED);
    EXPECT_EQ(fault_pthread_create.calls(), 0);
}

TEST_F(NetlinkInit, FailureToBindHasACodeOfItsOwn)
{
    fault_bind.fail_next(1, ENOMEM);
    expect_failure(kChannel);

    Peer squatter(kOwnPort); // the port id is taken
    before = open_descriptors();
    expect_failure(kChannel);
    EXPECT_EQ(fault_pthread_create.calls(), 0);
}

TEST_F(NetlinkInit, WithoutAThreadItFailsAndThePortIdIsFreeAgain)
{
    fault_pthread_create.fail_always(EAGAIN);
    expect_failure(BV_ERR_FAILED);
    fault_pthread_create.pass();
    EXPECT_EQ(bv_netlink_init(), BV_OK);
}

TEST_F(NetlinkInit, WithoutABufferTheThreadEndsAndThePortIdIsFreeAgain)
{
    CaptureStdout refusal;
    before = open_descriptors();
    {
        FailAllocationsOfSize buffer(1040);
        EXPECT_EQ(bv_netlink_init(), BV_OK);
        EXPECT_TRUE(eventually([&] { return buffer.happened() && open_descriptors() == before; }));
        EXPECT_EQ(buffer.happened(), 1u);
    }
    EXPECT_EQ(refusal.stop(), "malloc fail\n");
    EXPECT_EQ(bv_netlink_init(), BV_OK);
}

TEST_F(NetlinkInit, RegistersItsPortIdWithOneMessageOf1040Bytes)
{
    dirty_heap();
    Peer driver;
    g_boundary.driver_port = driver.port();
    ASSERT_EQ(bv_netlink_init(), BV_OK);

    sockaddr_nl from = {};
    const std::string message = driver.receive(&from);
    ASSERT_EQ(message.size(), 1040u);
    EXPECT_EQ(from.nl_pid, kOwnPort);
    nlmsghdr expected = {};
    expected.nlmsg_len = 1040;
    expected.nlmsg_pid = kOwnPort;
    EXPECT_EQ(memcmp(message.data(), &expected, sizeof(expected)), 0);
    EXPECT_EQ(message.substr(kHeader), std::string(1024, '\0'));

    std::lock_guard<std::mutex> guard(g_boundary.lock);
    EXPECT_EQ(g_boundary.sent_to.nl_family, AF_NETLINK);
    EXPECT_EQ(g_boundary.sent_to.nl_pid, 0u);
    EXPECT_EQ(g_boundary.sent_to.nl_groups, 0u);
}

TEST_F(NetlinkInit, MessagesBeforeTheNotifierStartedAreLostAndNothingElse)
{
    ASSERT_EQ(bv_netlink_init(), BV_OK);
    Peer peer;
    CaptureStdout out;
    peer.send(2, "early");
    peer.send(0, "seen");
    EXPECT_TRUE(eventually([&] { return out.text().find("seen") != std::string::npos; }));
}

TEST_F(Netlink, RegistrationIsTheOnlyMessageThatItEverSends)
{
    g_boundary.failing_receives = 5;
    for (int i = 0; i < 10; i++)
        peer.send(2, "x");
    settle();
    std::lock_guard<std::mutex> guard(g_boundary.lock);
    EXPECT_EQ(g_boundary.sent, 1u);
}

TEST_F(Netlink, SecondInitFindsThePortIdTakenAndDisturbsNothing)
{
    const std::vector<int> before = open_descriptors();
    const size_t threads = thread_count();
    EXPECT_EQ(bv_netlink_init(), kChannel);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(thread_count(), threads);
    peer.send(9, "still there");
    EXPECT_EQ(settle(), (Events{{13, "still there"}}));
}

TEST_F(Netlink, DriverCodesBecomeTheirEventTypes)
{
    Events wanted;
    const std::pair<uint16_t, uint32_t> map[] = {{2, 4},  {4, 5},  {5, 6}, {6, 8},
                                                 {7, 11}, {8, 12}, {9, 13}};
    for (const auto &[code, type] : map) {
        const std::string payload = "code " + std::to_string(code) + std::string(1, '\0') + "more";
        peer.send(code, payload);
        wanted.emplace_back(type, payload);
    }
    peer.send(2, "");
    wanted.emplace_back(4, "");
    EXPECT_EQ(settle(), wanted);
}

TEST_F(Netlink, UnknownCodesArePrintedAndCodeOneIsIgnored)
{
    CaptureStdout out;
    peer.send(1, "hello");
    peer.send(0, "zero");
    peer.send(2, std::string(1024, 'x'));
    peer.send(3, "ab"); // bytes of the longer message before do not show
    peer.send(10, "");
    peer.send(65535, std::string("cut\0here", 8));
    EXPECT_EQ(settle(), (Events{{4, std::string(1024, 'x')}}));
    EXPECT_EQ(out.stop(), "[bv_notifier_kernel:0139]type(0)-len(4)-data(zero)\r\n"
                          "[bv_notifier_kernel:0139]type(3)-len(2)-data(ab)\r\n"
                          "[bv_notifier_kernel:0139]type(10)-len(0)-data()\r\n"
                          "[bv_notifier_kernel:0139]type(65535)-len(8)-data(cut)\r\n");
}

TEST_F(Netlink, PayloadOf1024BytesIsWholeAndALongerOneIsCut)
{
    std::string payload;
    for (int i = 0; i < 3000; i++)
        payload.push_back(static_cast<char>('a' + i % 26));
    peer.send(2, payload.substr(0, 1024));
    peer.send(4, payload.substr(0, 1025));
    peer.send(5, payload);
    const std::string whole = payload.substr(0, 1024);
    EXPECT_EQ(settle(), (Events{{4, whole}, {5, whole}, {6, whole}}));
}

TEST_F(Netlink, MessagesShorterThanTheHeaderAreDropped)
{
    CaptureStdout out;
    peer.send(2, "a whole one before, whose header stays in the buffer");
    for (uint32_t length : {0u, 1u, 15u})
        peer.send_raw(Peer::message(2, "wrong length field", length));
    for (size_t length : {1, 4, 15})
        peer.send_raw(Peer::message(4, "", 1040).substr(0, length));
    EXPECT_EQ(settle().size(), 1u);
    EXPECT_EQ(out.stop(), ""); // a length of -1 would be refused by the allocator, aloud
}

TEST_F(Netlink, LengthFieldBeyondTheDatagramIsCutToTheBytesThatCame)
{
    peer.send_raw(Peer::message(2, "first and long", 30));
    Events wanted = {{4, "first and long"}};
    for (uint32_t length : {21u, 1040u, 1041u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        peer.send_raw(Peer::message(4, "four", length));
        wanted.emplace_back(5, "four");
    }
    EXPECT_EQ(settle(), wanted);
}

TEST_F(Netlink, LengthFieldShortOfTheDatagramCutsThePayload)
{
    peer.send_raw(Peer::message(2, "payload", 16));
    peer.send_raw(Peer::message(2, "payload", 19));
    // Only the first message of a datagram counts.
    peer.send_raw(Peer::message(2, "1234", 20) + Peer::message(4, "5678", 20));
    EXPECT_EQ(settle(), (Events{{4, ""}, {4, "pay"}, {4, "1234"}}));
}

TEST_F(Netlink, SenderIsNotChecked)
{
    Peer stranger;
    stranger.send(2, "from anywhere");
    ASSERT_TRUE(eventually([] { return !recorded_events().empty(); }));
    EXPECT_EQ(settle(), (Events{{4, "from anywhere"}}));
}

TEST_F(Netlink, BurstArrivesWholeAndInOrder)
{
    Events wanted;
    for (int i = 0; i < 3000; i++) { // more than the socket holds: the sender waits
        peer.send(2, std::to_string(i));
        wanted.emplace_back(4, std::to_string(i));
    }
    EXPECT_EQ(settle(), wanted);
}

TEST_F(Netlink, FailedReceivesAreTriedAgainAtOnceAndSilently)
{
    CaptureStdout out;
    g_boundary.failing_receives = 500;
    peer.send(2, "wakes the waiting receive");
    EXPECT_TRUE(eventually([] { return g_boundary.failed_receives >= 500; }));
    peer.send(2, "after the failures");
    EXPECT_EQ(settle(), (Events{{4, "wakes the waiting receive"}, {4, "after the failures"}}));
    EXPECT_EQ(out.stop(), "");
}

// The translation by itself, as any caller may use it.

TEST_F(Netlink, CallersMayTranslateMessagesToo)
{
    char text[] = "direct";
    bv_notifier_kernel(6, text, 6);
    bv_notifier_kernel(8, nullptr, 2);
    bv_notifier_kernel(1, text, 6);
    EXPECT_EQ(settle(), (Events{{8, "direct"}, {12, std::string(2, '\0')}}));
}

TEST_F(Netlink, PrintsAtMostTheLengthGivenAndLargeNumbersAsSigned)
{
    char text[] = "abcdef";
    CaptureStdout out;
    bv_notifier_kernel(3, text, 3);
    bv_notifier_kernel(3, text, 0);
    bv_notifier_kernel(10, nullptr, 50);
    bv_notifier_kernel(0xffffffff, text, 0xffffffff);
    bv_notifier_kernel(11, text, 0x7fffffff);
    EXPECT_EQ(out.stop(), "[bv_notifier_kernel:0139]type(3)-len(3)-data(abc)\r\n"
                          "[bv_notifier_kernel:0139]type(3)-len(0)-data()\r\n"
                          "[bv_notifier_kernel:0139]type(10)-len(50)-data()\r\n"
                          "[bv_notifier_kernel:0139]type(-1)-len(-1)-data(abcdef)\r\n"
                          "[bv_notifier_kernel:0139]type(11)-len(2147483647)-data(abcdef)\r\n");
}
