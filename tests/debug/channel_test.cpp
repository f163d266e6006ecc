// SPDX-License-Identifier: ISC
// The debug channel: its destination, its socket, and its datagrams byte by byte.

#include <bv/debug.h>
#include <bv/os.h>

#include "support/capture_stdout.h"
#include "support/dirty_heap.h"
#include "support/hex.h"
#include "support/libc.h"
#include "support/loopback.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// What the library handed to sendto() last.
struct Sent {
    int count;
    int fd;
    size_t length;
    int flags;
    sockaddr_in to;
    socklen_t to_length;
    std::string block; // 2048 bytes of what the datagram was in
} g_sent;
bool g_watch; // otherwise calls just go through

using Bytes = std::string;
using Datagrams = std::vector<Bytes>;

// A collector on loopback.
class Collector {
public:
    Collector()
    {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        int room = 1 << 20; // or as much as the system allows
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        timeval lost = {10, 0}; // a test that lost a datagram fails, it does not hang
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &lost, sizeof lost);
        sockaddr_in address = loopback();
        EXPECT_EQ(bind(fd_, generic(address), sizeof address), 0);
        socklen_t length = sizeof address;
        getsockname(fd_, generic(address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~Collector()
    {
        close(fd_);
        close(sender_);
    }

    bv_debug_cfg address() const { return {htonl(INADDR_LOOPBACK), port_, 0}; }

    // Everything sent until now. A busy kernel may deliver later than the send returns, so the
    // collector sends a datagram of its own after the others and waits for it.
    Datagrams datagrams()
    {
        const Bytes end = "that was all";
        sockaddr_in address = loopback(port_);
        connect(sender_, generic(address), sizeof address);
        EXPECT_EQ(send(sender_, end.data(), end.size(), 0), static_cast<ssize_t>(end.size()));

        Datagrams all;
        char buffer[65536];
        ssize_t got;
        while ((got = recv(fd_, buffer, sizeof buffer, 0)) >= 0) {
            Bytes datagram(buffer, static_cast<size_t>(got));
            if (datagram == end)
                break;
            all.push_back(datagram);
        }
        return all;
    }

private:
    int sender_ = socket(AF_INET, SOCK_DGRAM, 0);
    int fd_;
    uint16_t port_;
};

int32_t send_message(const bv_debug_header &header = {}, const Bytes &text = "x")
{
    return bv_debug_sendmsg(&header, text.data(), static_cast<uint16_t>(text.size()));
}

// The channel started, with a collector listening.
class Channel : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(bv_debug_init(), 0);
        bv_debug_cfg address = collector_.address();
        ASSERT_EQ(bv_debug_set_cfg(&address), 0);
    }
    static void on(uint32_t module, uint32_t level) { bv_debug_set_switch(module, level, 1); }

    Collector collector_;
};

const Datagrams kNone;

} // namespace

BV_INTERPOSE(sendto, "sendto", ssize_t,
             (int fd, const void *data, size_t length, int flags, const sockaddr *to,
              socklen_t to_length))
{
    if (!g_watch)
        return BV_NEXT(sendto)(fd, data, length, flags, to, to_length);
    sockaddr_in address;
    memcpy(&address, to, sizeof address);
    g_sent = {g_sent.count + 1,
              fd,
              length,
              flags,
              address,
              to_length,
              Bytes(static_cast<const char *>(data), 2048)};
    return static_cast<ssize_t>(length);
}

TEST(DebugDestination, IsTheDefaultAfterInit)
{
    ASSERT_EQ(bv_debug_init(), 0);
    uint8_t record[8];
    EXPECT_EQ(bv_debug_get_cfg(record, sizeof record), 0);
    bv_debug_cfg expected = {0xC0A80A0A, 5344, 7364}; // the machine's own order throughout
    EXPECT_EQ(memcmp(record, &expected, 8), 0);
    if (htonl(1) != 1) {
        EXPECT_EQ(Bytes(reinterpret_cast<char *>(record), 8), from_hex("0A 0A A8 C0 E0 14 C4 1C"));
    }
}

TEST(DebugDestination, DefaultIsUsedUnconverted)
{
    ASSERT_EQ(bv_debug_init(), 0);
    g_watch = true;
    EXPECT_EQ(send_message(), 11);
    EXPECT_EQ(g_sent.to.sin_family, AF_INET);
    EXPECT_EQ(g_sent.to.sin_addr.s_addr, 0xC0A80A0Au);
    EXPECT_EQ(g_sent.to.sin_port, htons(5344));
    EXPECT_EQ(memcmp(g_sent.to.sin_zero, "\0\0\0\0\0\0\0\0", 8), 0);
    EXPECT_EQ(g_sent.to_length, 16u);
    EXPECT_EQ(g_sent.flags, 0);
    if (htonl(1) != 1) {
        EXPECT_STREQ(inet_ntoa(g_sent.to.sin_addr), "10.10.168.192");
    }
}

TEST(DebugDestination, IsCopiedInAndOutWhole)
{
    ASSERT_EQ(bv_debug_init(), 0);
    const uint8_t record[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(bv_debug_set_cfg(record), 0);
    uint8_t out[10];
    memset(out, '.', sizeof out);
    EXPECT_EQ(bv_debug_get_cfg(out, sizeof out), 0);
    EXPECT_EQ(memcmp(out, record, 8), 0);
    EXPECT_EQ(memcmp(out + 8, "..", 2), 0); // no more is written
}

TEST(DebugDestination, BufferTooSmallIsClearedWithoutAFailure)
{
    ASSERT_EQ(bv_debug_init(), 0);
    char out[8];
    memset(out, '.', sizeof out);
    EXPECT_EQ(bv_debug_get_cfg(out, 7), 0);
    EXPECT_EQ(memcmp(out, "\0\0\0\0\0\0\0.", 8), 0);
    EXPECT_EQ(bv_debug_get_cfg(out, 0), 0);
    EXPECT_EQ(bv_debug_get_cfg(nullptr, 8), 0);
}

TEST(DebugDestination, IsZeroBeforeInitAndAfterNull)
{
    for (bool started : {false, true}) {
        if (started) {
            ASSERT_EQ(bv_debug_init(), 0);
            EXPECT_EQ(bv_debug_set_cfg(nullptr), 0);
        }
        Bytes out(8, '.');
        EXPECT_EQ(bv_debug_get_cfg(&out[0], 8), 0);
        EXPECT_EQ(out, Bytes(8, '\0'));
    }
}

TEST(DebugSocket, SetCfgBeforeInitClosesDescriptorZero)
{
    ASSERT_EQ(dup2(STDOUT_FILENO, 0), 0); // now there is one to close
    bv_debug_cfg record = {htonl(INADDR_LOOPBACK), 9, 0};
    fault_socket.fail_next(1, EMFILE); // or the new socket would take the place
    EXPECT_EQ(bv_debug_set_cfg(&record), 0);
    EXPECT_EQ(fault_socket.calls(), 1);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
}

TEST(DebugSocket, EverySetCfgReplacesIt)
{
    ASSERT_EQ(bv_debug_init(), 0);
    std::vector<int> before = open_descriptors();
    bv_debug_cfg record = {htonl(INADDR_LOOPBACK), 9, 0};
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(bv_debug_set_cfg(&record), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(DebugSocket, SecondInitLeavesTheFirstOneOpen)
{
    ASSERT_EQ(bv_debug_init(), 0);
    size_t before = open_descriptors().size();
    fault_close.pass();
    ASSERT_EQ(bv_debug_init(), 0);
    EXPECT_EQ(fault_close.calls(), 0); // not even an invalid number
    EXPECT_EQ(open_descriptors().size(), before + 1);
}

TEST(DebugSocket, IsADatagramSocketNeitherBoundNorConnectedNorInherited)
{
    WithoutStdin closed;
    ASSERT_EQ(bv_debug_init(), 0);
    g_watch = true;
    send_message();
    int type = 0;
    socklen_t length = sizeof type;
    ASSERT_EQ(getsockopt(g_sent.fd, SOL_SOCKET, SO_TYPE, &type, &length), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    sockaddr_in address = {};
    length = sizeof address;
    ASSERT_EQ(getsockname(g_sent.fd, reinterpret_cast<sockaddr *>(&address), &length), 0);
    EXPECT_EQ(address.sin_port, 0);
    EXPECT_EQ(getpeername(g_sent.fd, reinterpret_cast<sockaddr *>(&address), &length), -1);
    EXPECT_GT(g_sent.fd, STDERR_FILENO) << "above the standard streams";
    EXPECT_EQ(fcntl(g_sent.fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
}

TEST(DebugSocket, WithoutOneSendsFailSilently)
{
    fault_socket.fail_next(1, EMFILE);
    CaptureStdout output;
    EXPECT_EQ(bv_debug_init(), 0);
    EXPECT_EQ(send_message(), -1);
    bv_debug_set_switch(1, 1, 1);
    bv_debug_remote(0, 0, 1, 1, "x");

    fault_close.pass();
    bv_debug_cfg record = {htonl(INADDR_LOOPBACK), 9, 0};
    EXPECT_EQ(bv_debug_set_cfg(&record), 0); // has nothing to close, and opens one
    EXPECT_EQ(fault_close.calls(), 0);
    EXPECT_EQ(send_message(), 11);
    EXPECT_EQ(output.stop(), "");
}

TEST(DebugSocket, BeforeInitMessagesAreSentToDescriptorZero)
{
    g_watch = true;
    bv_debug_remote(1, 2, 3, 4, "%s", "early");
    EXPECT_EQ(g_sent.count, 1);
    EXPECT_EQ(g_sent.fd, 0);
    EXPECT_EQ(g_sent.length, 15u);
    EXPECT_EQ(g_sent.to.sin_addr.s_addr, 0u);
}

TEST_F(Channel, MessageIsItsHeaderAndUpTo255CharactersOfText)
{
    const Bytes longest(255, 't');
    const struct {
        const char *what;
        const char *format;
        Bytes argument, datagram;
    } rows[] = {
        {"a text", "a%s", "bc", from_hex("05 03 00 02 00 0D 12 34 00 07 61 62 63")},
        {"255 characters", "%s", longest, from_hex("05 03 00 02 01 09 12 34 01 03") + longest},
        {"256 characters: none are sent", "%s", longest + 't',
         from_hex("05 03 00 02 00 0A 12 34 00 04")},
        {"5000 characters: none either", "%s", Bytes(5000, 't'),
         from_hex("05 03 00 02 00 0A 12 34 00 04")},
        {"refused directive", "ab%m", "", from_hex("05 03 00 02 00 0A 12 34 00 04")},
        {"no format", nullptr, "", from_hex("05 03 00 02 00 0A 12 34 00 04")},
    };
    on(2, 3);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        // Numbers are cut to their widths before the switch is looked up.
        bv_debug_remote(0xffffffe5, 0xabcd1234, 0x10002, 0x103, row.format, row.argument.c_str());
        EXPECT_EQ(collector_.datagrams(), Datagrams{row.datagram});
    }
    bv_debug_remote(0x1f, 7, 2, 3, "ab%cd", 0);
    EXPECT_EQ(collector_.datagrams(), Datagrams{from_hex("1F 03 00 02 00 0C 00 07 00 06 61 62")})
        << "a text ends at its first zero byte";
}

TEST_F(Channel, AnyNumberOfArgumentsIsFormatted)
{
    on(1, 0);
    bv_debug_remote(0, 0, 1, 0, "%d %.2f %s %ld %c %5.1f %u", -1, 2.5, "three", 4L, '5', 6.0, 7u);
    Datagrams all = collector_.datagrams();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].substr(10), "-1 2.50 three 4 5   6.0 7");
}

TEST_F(Channel, OwnSwitchOrTheGlobalOneLetsAMessageOut)
{
    bv_debug_remote(0, 0, 4, 7, "off");
    EXPECT_EQ(collector_.datagrams(), kNone);

    on(0, 7);
    bv_debug_remote(0, 0, 4, 6, "other level");
    EXPECT_EQ(collector_.datagrams(), kNone);
    bv_debug_remote(0, 0, 4, 7, "global");
    EXPECT_EQ(collector_.datagrams().size(), 1u);
    bv_debug_set_switch(0, 6, 0x80); // any value but 0 is on
    bv_debug_remote(0, 0, 4, 6, "global");
    EXPECT_EQ(collector_.datagrams().size(), 1u);

    bv_debug_set_switch(5, 1, 2);
    bv_debug_remote(0, 0, 4, 1, "other module");
    EXPECT_EQ(collector_.datagrams(), kNone);
    bv_debug_remote(0, 0, 5, 1, "own");
    EXPECT_EQ(collector_.datagrams().size(), 1u);
    bv_debug_set_switch(5, 1, 0);
    bv_debug_remote(0, 0, 5, 1, "off again");
    EXPECT_EQ(collector_.datagrams(), kNone);
}

TEST_F(Channel, MessageThatIsOffIsNeitherFormattedNorAllocated)
{
    char text[] = "x";
    FailAllocation next(1);
    bv_debug_remote(0, 0, 4, 7, "%s", text);
    bv_debug_remote(0, 0, 4, 7, "%s", reinterpret_cast<const char *>(uintptr_t{1}));
    EXPECT_FALSE(next.happened());
}

TEST_F(Channel, NumbersBeyondTheTableSendNothing)
{
    bv_debug_remote(0, 0, 65535, 255, "x");
    bv_debug_remote(0, 0, 10, 0, "x");
    EXPECT_EQ(collector_.datagrams(), kNone);
}

TEST_F(Channel, SendmsgSendsTheBytesAsTheyAreWhateverTheSwitches)
{
    bv_debug_header header = {};
    header.reserved0 = header.reserved1 = 0xff;
    header.reserved2 = 0xffff;
    header.level = 0xab;
    header.module = 0x1234;
    header.category = 0xff;
    header.tag = 0x5678;
    EXPECT_EQ(bv_debug_sendmsg(&header, "a\0b", 3), 13);
    EXPECT_EQ(collector_.datagrams(),
              Datagrams{from_hex("1F AB 12 34 00 0D 56 78 00 07 61 00 62")});
    EXPECT_EQ(bv_debug_sendmsg(&header, nullptr, 0), 10);
    EXPECT_EQ(collector_.datagrams(), Datagrams{from_hex("1F AB 12 34 00 0A 56 78 00 04")});
    EXPECT_EQ(bv_debug_sendmsg(&header, nullptr, 2), 12);
    EXPECT_EQ(collector_.datagrams(), Datagrams{from_hex("1F AB 12 34 00 0C 56 78 00 06 00 00")});
}

TEST_F(Channel, MessagesMayBeAsLongAsADatagram)
{
    std::string text(65535, 't');
    bv_debug_header header = {};
    for (uint16_t length : {2037, 2038, 2039, 65497}) {
        EXPECT_EQ(bv_debug_sendmsg(&header, text.data(), length), length + 10);
        Datagrams all = collector_.datagrams();
        ASSERT_EQ(all.size(), 1u) << length;
        EXPECT_EQ(all[0].substr(10), text.substr(0, length));
    }
    EXPECT_EQ(bv_debug_sendmsg(&header, text.data(), 65498), -1);
}

TEST_F(Channel, LengthsWrapAt65536AndTheDatagramWithThem)
{
    std::string text(65535, 't');
    bv_debug_header header = {};
    EXPECT_EQ(bv_debug_sendmsg(&header, text.data(), 65526), 0);
    EXPECT_EQ(bv_debug_sendmsg(&header, text.data(), 65532), 6);
    EXPECT_EQ(bv_debug_sendmsg(&header, text.data(), 65535), 9);
    EXPECT_EQ(collector_.datagrams(), (Datagrams{"", from_hex("00 00 00 00 00 06"),
                                                 from_hex("00 00 00 00 00 09 00 00 00")}));
}

TEST_F(Channel, BlockIsClearedWholeAndHasAtLeast2048Bytes)
{
    dirty_heap();
    g_watch = true;
    EXPECT_EQ(send_message(), 11);
    EXPECT_EQ(g_sent.length, 11u);
    EXPECT_EQ(g_sent.block.substr(11), Bytes(2037, '\0'));

    CaptureStdout quiet;
    FailAllocationsOfSize small(2048);
    EXPECT_EQ(send_message(), -1);
    EXPECT_EQ(send_message({}, Bytes(2038, 't')), -1);
    EXPECT_EQ(small.happened(), 2u);
    EXPECT_EQ(send_message({}, Bytes(2039, 't')), 2049); // no longer small
}

TEST_F(Channel, WithoutMemoryNothingIsSent)
{
    on(1, 1);
    CaptureStdout output;
    int32_t result;
    {
        FailAllocation next(1);
        result = send_message();
    }
    {
        FailAllocation next(1);
        bv_debug_remote(0, 0, 1, 1, "x");
    }
    EXPECT_EQ(output.stop(), "malloc fail\nmalloc fail\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(collector_.datagrams(), kNone);
}

TEST_F(Channel, NullHeaderSendsNothing)
{
    EXPECT_EQ(bv_debug_sendmsg(nullptr, "x", 1), -1);
    EXPECT_EQ(collector_.datagrams(), kNone);
}

TEST_F(Channel, ThreadsSendAtTheSameTime)
{
    on(0, 1);
    std::vector<std::thread> threads;
    for (unsigned module = 1; module <= 4; ++module)
        threads.emplace_back([module] {
            for (int i = 0; i < 50; ++i)
                bv_debug_remote(0, 0, module, 1, "%u%u%u", module, module, module);
        });
    for (std::thread &thread : threads)
        thread.join();
    Datagrams all;
    EXPECT_TRUE(eventually([&] { // each processor delivers for itself: some may come later
        for (const Bytes &datagram : collector_.datagrams())
            all.push_back(datagram);
        return all.size() >= 200;
    }));
    EXPECT_EQ(all.size(), 200u);
    for (const Bytes &datagram : all) {
        ASSERT_EQ(datagram.size(), 13u);
        EXPECT_EQ(datagram.substr(10), Bytes(3, static_cast<char>('0' + datagram[3])));
    }
}
