// The driver's messages over real netlink sockets.
//
// On a gateway the socket of protocol 26 is the real one and the driver's. Elsewhere the kernel
// has no such protocol: the library's socket call then gets one of the kernel's user-to-user
// protocol, and its message to the driver (port 0) goes to this test's socket instead. Either way
// this test sends from a second socket of the same protocol, since anybody may. Each test needs a
// process of its own, which CTest gives it.

#include <bv/notifier.h>

#include <bv/status.h>

#include "support/capture.h"
#include "support/dirty_heap.h"
#include "support/events.h"
#include "support/libc.h"
#include "support/process.h"

#include <algorithm>
#include <cstring>
#include <atomic>
#include <gtest/gtest.h>
#include <iterator>
#include <linux/netlink.h>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <utility>
#include <vector>

namespace {

constexpr int kDriverProtocol = 26;
constexpr uint32_t kHeader = 16;

// What the library asked of the system, and how it is to be answered.
struct Boundary {
    int domain = 0, type = 0, protocol = 0; // its last netlink socket
    int fd = -1;
    bool socket_fails = false;
    uint32_t driver_port = 0; // where messages to port 0 go instead; 0: nowhere else
    sockaddr_nl sent_to = {};
    unsigned sent = 0; // messages to anybody
    std::atomic<int> failing_receives{0};
    std::atomic<int> failed_receives{0};
    std::atomic<size_t> parts{0}; // that the last receive gave its bytes room in
};
Boundary &g_boundary = *new Boundary;

// Guards what other threads write: g_boundary.sent and sent_to. Neither it nor they are ever
// destroyed, since those threads outlive main().
std::mutex &g_lock = *new std::mutex;

int real_socket(int protocol)
{
    static const auto next = next_function<int(int, int, int)>("socket");
    return next(AF_NETLINK, SOCK_RAW, protocol);
}

// The protocol that stands for the driver's on this kernel.
int usable_protocol()
{
    static const int protocol = [] {
        const int fd = real_socket(kDriverProtocol);
        if (fd < 0)
            return NETLINK_USERSOCK;
        close(fd);
        return kDriverProtocol;
    }();
    return protocol;
}

// The private root says whether its programs are another machine's. The emulator answers for the
// kernel then, and knows only the kernel's own protocols.
bool emulator_refuses_netlink()
{
    if (getenv("BV_ROOT_USERLAND") == nullptr)
        return false;
    const int fd = real_socket(NETLINK_USERSOCK);
    close(fd);
    return fd < 0;
}
#define SKIP_WITHOUT_NETLINK()                                                                     \
    if (emulator_refuses_netlink())                                                                \
    GTEST_SKIP() << "user-mode emulation refuses netlink protocols"

bool driver_is_real()
{
    return usable_protocol() == kDriverProtocol;
}

} // namespace

extern "C" int mapped_socket(int domain, int type, int protocol) __asm__("socket");
extern "C" int mapped_socket(int domain, int type, int protocol)
{
    static const auto next = next_function<int(int, int, int)>("socket");
    if (domain != AF_NETLINK)
        return next(domain, type, protocol);

    g_boundary.domain = domain;
    g_boundary.type = type;
    g_boundary.protocol = protocol;
    if (g_boundary.socket_fails) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    g_boundary.fd = next(domain, type, usable_protocol());
    return g_boundary.fd;
}

extern "C" ssize_t redirected_sendmsg(int fd, const msghdr *message, int flags) __asm__("sendmsg");
extern "C" ssize_t redirected_sendmsg(int fd, const msghdr *message, int flags)
{
    static const auto next = next_function<ssize_t(int, const msghdr *, int)>("sendmsg");
    if (message->msg_namelen != sizeof(sockaddr_nl))
        return next(fd, message, flags);

    sockaddr_nl to;
    memcpy(&to, message->msg_name, sizeof(to));
    {
        std::lock_guard<std::mutex> guard(g_lock);
        g_boundary.sent_to = to;
        g_boundary.sent++;
    }
    if (g_boundary.driver_port == 0)
        return next(fd, message, flags);
    to.nl_pid = g_boundary.driver_port;
    msghdr redirected = *message;
    redirected.msg_name = &to;
    return next(fd, &redirected, flags);
}

extern "C" ssize_t failing_recvmsg(int fd, msghdr *message, int flags) __asm__("recvmsg");
extern "C" ssize_t failing_recvmsg(int fd, msghdr *message, int flags)
{
    static const auto next = next_function<ssize_t(int, msghdr *, int)>("recvmsg");
    g_boundary.parts = static_cast<size_t>(message->msg_iovlen);
    if (g_boundary.failing_receives > 0) {
        g_boundary.failing_receives--;
        errno = ++g_boundary.failed_receives % 2 == 0 ? EINTR : ENOBUFS;
        return -1;
    }
    return next(fd, message, flags);
}


namespace {

// A port id that no one else has. The kernel's own choice would be the process id, the library's;
// other processes may run this program at the same time.
uint32_t unused_port()
{
    static uint32_t last = 0x40000000 + (static_cast<uint32_t>(getpid()) << 6);
    return ++last;
}

// A socket of the driver's protocol, with which the test speaks to the library.
class Peer {
public:
    explicit Peer(uint32_t port = unused_port()) : fd_(real_socket(usable_protocol())), port_(port)
    {
        sockaddr_nl self = {};
        self.nl_family = AF_NETLINK;
        self.nl_pid = port;
        EXPECT_TRUE(bind(fd_, reinterpret_cast<sockaddr *>(&self), sizeof(self)) == 0 ||
                    emulator_refuses_netlink());
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
        to.nl_pid = static_cast<uint32_t>(getpid());
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
    uint32_t port_ = 0;
};

// The notifier with the receive thread running and every event type recorded.
class Netlink : public testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_NETLINK();
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

// Asks the gateway's own driver, as the emulated gateway has it, for one of its counters, or
// makes it send a message.
uint32_t ask_driver(const char *operation, const std::string &data = "")
{
    struct {
        char name[256];
        uint32_t length, result;
        char data[256];
    } record = {};
    snprintf(record.name, sizeof(record.name), "%s", operation);
    record.length = static_cast<uint32_t>(data.size());
    memcpy(record.data, data.data(), data.size());
    const int fd = open("/dev/brovan", O_RDWR);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ioctl(fd, 0, &record), 0);
    close(fd);
    return record.result;
}

bool has_driver_node()
{
    return driver_is_real() && access("/dev/brovan", F_OK) == 0;
}

// bv_netlink_init() alone, with all that it may leave behind.
class NetlinkInit : public testing::Test {
protected:
    NetlinkInit() : before(open_descriptors()) {}
    void SetUp() override { SKIP_WITHOUT_NETLINK(); }

    std::vector<int> before;
};

} // namespace

TEST_F(NetlinkInit, OpensARawSocketOfTheDriversProtocolBoundToTheProcessId)
{
    ASSERT_EQ(bv_netlink_init(), BV_OK);
    EXPECT_EQ(g_boundary.domain, AF_NETLINK);
    EXPECT_EQ(g_boundary.type, static_cast<int>(SOCK_RAW));
    EXPECT_EQ(g_boundary.protocol, 26);

    sockaddr_nl self = {};
    socklen_t size = sizeof(self);
    ASSERT_EQ(getsockname(g_boundary.fd, reinterpret_cast<sockaddr *>(&self), &size), 0);
    EXPECT_EQ(self.nl_family, AF_NETLINK);
    EXPECT_EQ(self.nl_pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(self.nl_groups, 0u);
    EXPECT_EQ(fault_pthread_create.calls(), 1);
}

TEST_F(NetlinkInit, SocketIsNotPassedOnToPrograms)
{
    ASSERT_EQ(bv_netlink_init(), BV_OK);
    EXPECT_EQ(fcntl(g_boundary.fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(NetlinkInit, SocketDoesNotBecomeStandardInput)
{
    WithoutStdin closed;
    before = open_descriptors();
    EXPECT_EQ(bv_netlink_init(), BV_OK);
    EXPECT_EQ(g_boundary.fd, STDIN_FILENO) << "what the socket call gave";

    const std::vector<int> after = open_descriptors();
    std::vector<int> added;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                        std::back_inserter(added));
    ASSERT_EQ(added.size(), 1u);
    const int fd = added[0];
    EXPECT_GT(fd, STDERR_FILENO);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    sockaddr_nl self = {};
    socklen_t size = sizeof(self);
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&self), &size), 0);
    EXPECT_EQ(self.nl_pid, static_cast<uint32_t>(getpid()));
}

TEST_F(NetlinkInit, DriverThatIsLoadedLaterIsReachedByASecondInit)
{
    g_boundary.socket_fails = true;
    ASSERT_EQ(bv_notifier_init(), 0);
    record_events_up_to<13>();
    g_boundary.socket_fails = false;
    ASSERT_EQ(bv_notifier_init(), 0);

    Peer peer;
    peer.send(2, "at last");
    EXPECT_TRUE(eventually([] { return recorded_events() == Events{{4, "at last"}}; }));

    g_boundary.fd = -1;
    ASSERT_EQ(bv_notifier_init(), 0);
    EXPECT_EQ(g_boundary.fd, -1) << "it runs: no further socket";
}

TEST_F(NetlinkInit, ReceivesIntoOneBuffer)
{
    ASSERT_EQ(bv_netlink_init(), BV_OK);
    EXPECT_TRUE(eventually([] { return g_boundary.parts > 0; }));
    EXPECT_EQ(g_boundary.parts, 1u);
}

TEST_F(NetlinkInit, WithoutTheProtocolItFails)
{
    g_boundary.socket_fails = true;
    EXPECT_EQ(bv_netlink_init(), BV_ERR_FAILED);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(fault_pthread_create.calls(), 0);
}

TEST_F(NetlinkInit, ATakenPortIdIsACodeOfItsOwnAndTheSocketIsClosed)
{
    Peer squatter(static_cast<uint32_t>(getpid()));
    before = open_descriptors();
    EXPECT_EQ(bv_netlink_init(), static_cast<int32_t>(BV_ERR_CHANNEL));
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(fault_pthread_create.calls(), 0);
}

TEST_F(NetlinkInit, AnyBindFailureIsThatCode)
{
    fault_bind.fail_next(1, ENOMEM);
    EXPECT_EQ(bv_netlink_init(), static_cast<int32_t>(BV_ERR_CHANNEL));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(NetlinkInit, WithoutAThreadItFailsAndClosesTheSocket)
{
    fault_pthread_create.fail_always(EAGAIN);
    EXPECT_EQ(bv_netlink_init(), BV_ERR_FAILED);
    EXPECT_EQ(open_descriptors(), before);

    fault_pthread_create.pass();
    EXPECT_EQ(bv_netlink_init(), BV_OK) << "the port id is free again";
}

TEST_F(NetlinkInit, WithoutABufferTheThreadEndsAndClosesTheSocket)
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
    EXPECT_EQ(bv_netlink_init(), BV_OK) << "the port id is free again";
}

TEST_F(NetlinkInit, RegistersItsPortIdWithOneMessageOf1040Bytes)
{
    if (driver_is_real())
        GTEST_SKIP() << "the message goes to the real driver, see the next test";
    dirty_heap();
    Peer driver;
    g_boundary.driver_port = driver.port();
    ASSERT_EQ(bv_netlink_init(), BV_OK);

    sockaddr_nl from = {};
    const std::string message = driver.receive(&from);
    ASSERT_EQ(message.size(), 1040u);
    EXPECT_EQ(from.nl_pid, static_cast<uint32_t>(getpid()));
    nlmsghdr expected = {};
    expected.nlmsg_len = 1040;
    expected.nlmsg_pid = static_cast<uint32_t>(getpid());
    EXPECT_EQ(memcmp(message.data(), &expected, sizeof(expected)), 0);
    EXPECT_EQ(message.substr(kHeader), std::string(1024, '\0'));

    std::lock_guard<std::mutex> guard(g_lock);
    EXPECT_EQ(g_boundary.sent_to.nl_family, AF_NETLINK);
    EXPECT_EQ(g_boundary.sent_to.nl_pid, 0u);
    EXPECT_EQ(g_boundary.sent_to.nl_groups, 0u);
}

TEST_F(Netlink, TheRegistrationIsTheOnlyMessageThatItEverSends)
{
    g_boundary.failing_receives = 5;
    for (int i = 0; i < 10; i++)
        peer.send(2, "x");
    settle();
    std::lock_guard<std::mutex> guard(g_lock);
    EXPECT_EQ(g_boundary.sent, 1u);
}

TEST_F(Netlink, TheRealDriverLearnsThePortIdAndItsEventsArrive)
{
    if (!has_driver_node())
        GTEST_SKIP() << "no gateway driver on this machine";
    EXPECT_TRUE(
        eventually([] { return ask_driver("nl-port") == static_cast<uint32_t>(getpid()); }));
    EXPECT_EQ(ask_driver("nl-reglen"), 1040u);

    const uint16_t type = 7;
    std::string order(reinterpret_cast<const char *>(&type), sizeof(type));
    ask_driver("nl-send", order + "link up");
    EXPECT_TRUE(eventually([] { return recorded_events() == Events{{11, "link up"}}; }));
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

TEST_F(Netlink, ASecondInitFindsThePortIdTakenAndDisturbsNothing)
{
    const std::vector<int> before = open_descriptors();
    const size_t threads = thread_count();
    EXPECT_EQ(bv_netlink_init(), static_cast<int32_t>(BV_ERR_CHANNEL));
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
    EXPECT_EQ(settle(), wanted);
}

TEST_F(Netlink, CodeOneIsIgnoredWithoutAWord)
{
    CaptureStdout out;
    peer.send(1, "hello");
    EXPECT_EQ(settle(), Events{});
    EXPECT_EQ(out.stop(), "");
}

TEST_F(Netlink, UnknownCodesArePrintedAndNotPosted)
{
    CaptureStdout out;
    peer.send(0, "zero");
    peer.send(3, "three");
    peer.send(10, "");
    peer.send(65535, std::string("cut\0here", 8));
    EXPECT_EQ(settle(), Events{});
    EXPECT_EQ(out.stop(), "[bv_notifier_kernel:0139]type(0)-len(4)-data(zero)\r\n"
                          "[bv_notifier_kernel:0139]type(3)-len(5)-data(three)\r\n"
                          "[bv_notifier_kernel:0139]type(10)-len(0)-data()\r\n"
                          "[bv_notifier_kernel:0139]type(65535)-len(8)-data(cut)\r\n");
}

TEST_F(Netlink, BytesOfAnEarlierMessageDoNotShowInAShorterOne)
{
    CaptureStdout out;
    peer.send(2, std::string(1024, 'x'));
    peer.send(3, "ab");
    settle();
    EXPECT_EQ(out.stop(), "[bv_notifier_kernel:0139]type(3)-len(2)-data(ab)\r\n");
}

TEST_F(Netlink, APayloadOf1024BytesIsWholeAndALongerOneIsCut)
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

TEST_F(Netlink, AnEmptyPayloadArrives)
{
    peer.send(2, "");
    EXPECT_EQ(settle(), (Events{{4, ""}}));
}

TEST_F(Netlink, ALengthFieldBelowTheHeaderDropsTheMessage)
{
    CaptureStdout out;
    for (uint32_t length : {0u, 1u, 15u})
        peer.send_raw(Peer::message(2, "lies", length));
    EXPECT_EQ(settle(), Events{});
    EXPECT_EQ(out.stop(), ""); // a length of -1 would be refused by the allocator, aloud
}

TEST_F(Netlink, ADatagramShorterThanTheHeaderIsDropped)
{
    CaptureStdout out;
    peer.send(2, "a whole one before, whose header stays in the buffer");
    const std::string message = Peer::message(4, "", 1040);
    for (size_t length : {1, 4, 15})
        peer.send_raw(message.substr(0, length));
    EXPECT_EQ(settle().size(), 1u);
    EXPECT_EQ(out.stop(), "");
}

TEST_F(Netlink, ALengthFieldBeyondTheDatagramIsCutToTheBytesThatCame)
{
    peer.send_raw(Peer::message(2, "first and long", 30));
    for (uint32_t length : {21u, 1040u, 1041u, 0x7fffffffu, 0x80000000u, 0xffffffffu})
        peer.send_raw(Peer::message(4, "four", length));
    EXPECT_EQ(settle(), (Events{{4, "first and long"},
                                {5, "four"},
                                {5, "four"},
                                {5, "four"},
                                {5, "four"},
                                {5, "four"},
                                {5, "four"}}));
}

TEST_F(Netlink, ALengthFieldShortOfTheDatagramCutsThePayload)
{
    peer.send_raw(Peer::message(2, "payload", 16));
    peer.send_raw(Peer::message(2, "payload", 19));
    EXPECT_EQ(settle(), (Events{{4, ""}, {4, "pay"}}));
}

TEST_F(Netlink, OnlyTheFirstMessageOfADatagramCounts)
{
    peer.send_raw(Peer::message(2, "1234", 20) + Peer::message(4, "5678", 20));
    EXPECT_EQ(settle(), (Events{{4, "1234"}}));
}

TEST_F(Netlink, TheSenderIsNotChecked)
{
    Peer stranger;
    stranger.send(2, "from anywhere");
    ASSERT_TRUE(eventually([] { return !recorded_events().empty(); }));
    EXPECT_EQ(settle(), (Events{{4, "from anywhere"}}));
}

TEST_F(Netlink, ABurstArrivesWholeAndInOrder)
{
    Events wanted;
    for (int i = 0; i < 3000; i++) { // more than the socket holds: the sender waits
        peer.send(2, std::to_string(i));
        wanted.emplace_back(4, std::to_string(i));
    }
    EXPECT_EQ(settle(), wanted);
}

TEST_F(Netlink, FailedReceivesAreTriedAgainAtOnceAndWithoutAWord)
{
    CaptureStdout out;
    g_boundary.failing_receives = 500;
    peer.send(2, "wakes the waiting receive");
    EXPECT_TRUE(eventually([] { return g_boundary.failed_receives >= 500; }));
    peer.send(2, "behind the failures");
    EXPECT_EQ(settle(), (Events{{4, "wakes the waiting receive"}, {4, "behind the failures"}}));
    EXPECT_EQ(out.stop(), "");
}

// The translation by itself, as any caller may use it.

TEST_F(Netlink, PrintsAtMostTheLengthGiven)
{
    char text[] = "abcdef";
    CaptureStdout out;
    bv_notifier_kernel(3, text, 3);
    bv_notifier_kernel(3, text, 0);
    EXPECT_EQ(out.stop(), "[bv_notifier_kernel:0139]type(3)-len(3)-data(abc)\r\n"
                          "[bv_notifier_kernel:0139]type(3)-len(0)-data()\r\n");
}

TEST_F(Netlink, PrintsNoPayloadAsEmptyTextAndLargeNumbersAsSigned)
{
    char text[] = "abc";
    CaptureStdout out;
    bv_notifier_kernel(10, nullptr, 50);
    bv_notifier_kernel(0xffffffff, text, 0xffffffff);
    bv_notifier_kernel(11, text, 0x7fffffff);
    EXPECT_EQ(out.stop(), "[bv_notifier_kernel:0139]type(10)-len(50)-data()\r\n"
                          "[bv_notifier_kernel:0139]type(-1)-len(-1)-data(abc)\r\n"
                          "[bv_notifier_kernel:0139]type(11)-len(2147483647)-data(abc)\r\n");
}

TEST_F(Netlink, TranslatesACallersMessageToo)
{
    char text[] = "direct";
    bv_notifier_kernel(6, text, 6);
    bv_notifier_kernel(8, nullptr, 2);
    bv_notifier_kernel(1, text, 6);
    EXPECT_EQ(settle(), (Events{{8, "direct"}, {12, std::string(2, '\0')}}));
}
