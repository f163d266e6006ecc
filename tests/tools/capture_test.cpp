// Capture files of bv-collect: written from real datagrams, compared byte by byte, read back.

#include "tools/capture.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <sys/socket.h>

namespace {

uint32_t le32(const Bytes &bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = 4; i-- > 0;)
        value = value << 8 | static_cast<uint8_t>(bytes.at(at + i));
    return value;
}

unsigned be16(const Bytes &bytes, size_t at)
{
    return static_cast<unsigned>(static_cast<uint8_t>(bytes.at(at)) << 8 |
                                 static_cast<uint8_t>(bytes.at(at + 1)));
}

// The ones' complement sum that receivers compute: 0xffff over everything, its checksum included.
unsigned sum(Bytes bytes)
{
    if (bytes.size() % 2 != 0)
        bytes += '\0';
    unsigned total = 0;
    for (size_t at = 0; at < bytes.size(); at += 2) {
        total += be16(bytes, at);
        total = (total & 0xffff) + (total >> 16);
    }
    return total;
}

Outcome read_back(const Bytes &content, std::vector<std::string> options = {})
{
    write_file(kFile, content);
    options.insert(options.end(), {"-r", kFile});
    return run_tool(options);
}

const char kLine[] = " 10.1.2.3:4000 category=5 module=2 level=3 tag=0x1234 abc\n";

TEST(Capture, HoldsTheDatagramsInIpPacketsWithRightLengthsAndChecksums)
{
    uint16_t port;
    ASSERT_EQ(capture({"-w", kFile, "-c", "3"}, port, send_three).status, 0);
    const Bytes file = read_file(kFile);
    ASSERT_GE(file.size(), 24u);
    EXPECT_EQ(file.substr(0, 24), file_head(0xa1b2c3d4, 228));

    size_t at = 24;
    for (const char *text : {"abc", "odd length!", ""}) {
        SCOPED_TRACE(text);
        const size_t length = 28 + 10 + strlen(text);
        EXPECT_NEAR(le32(file, at), time(nullptr), 60);
        EXPECT_LT(le32(file, at + 4), 1000000u);
        ASSERT_EQ(le32(file, at + 8), length);
        ASSERT_EQ(le32(file, at + 12), length);

        const Bytes ip = file.substr(at + 16, length);
        ASSERT_EQ(ip.size(), length);
        EXPECT_EQ(ip[0], 0x45);
        EXPECT_EQ(be16(ip, 2), length);
        EXPECT_EQ(ip[9], 17);
        EXPECT_EQ(ip.substr(12, 8), "\x7f\0\0\1\x7f\0\0\1"s);
        EXPECT_EQ(sum(ip.substr(0, 20)), 0xffffu);

        const Bytes udp = ip.substr(20);
        EXPECT_EQ(be16(udp, 2), port);
        EXPECT_EQ(be16(udp, 4), udp.size());
        EXPECT_NE(be16(udp, 6), 0u);
        const Bytes pseudo = ip.substr(12, 8) + "\0\x11"s + udp.substr(4, 2);
        EXPECT_EQ(sum(pseudo + udp), 0xffffu);
        EXPECT_EQ(udp.substr(18), text);
        at += 16 + length;
    }
    EXPECT_EQ(at, file.size());
}

TEST(Capture, ReadsBackAsItWasPrinted)
{
    uint16_t port;
    Outcome live = capture({"-w", kFile, "-c", "3"}, port, send_three);
    Outcome again = run_tool({"-r", kFile});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.output, live.output);
    EXPECT_NE(live.output.find("odd length!\n"), std::string::npos);
    EXPECT_EQ(again.errors, "bv-collect: 3 datagrams, 3 selected, 0 malformed\n");
}

TEST(Capture, HoldsWhatAFilterDidNotPrint)
{
    uint16_t port;
    Outcome live = capture({"-w", kFile, "-c", "3", "-m", "4"}, port, send_three);
    EXPECT_NE(live.errors.find("3 datagrams, 1 selected"), std::string::npos);

    Outcome by_module = run_tool({"-r", kFile, "-m", "4"});
    EXPECT_EQ(by_module.output, live.output);
    Outcome by_level = run_tool({"-r", kFile, "-m", "0-3", "-l", "7"});
    EXPECT_NE(by_level.output.find("module=2 level=7 tag=0x1234 \n"), std::string::npos);
    EXPECT_EQ(by_level.errors, "bv-collect: 3 datagrams, 1 selected, 0 malformed\n");
}

// Sends from 127.0.0.1:40000 to an address of this machine.
void send_to(const char *address, uint16_t port, const Bytes &data)
{
    sockaddr_in from = {}, to = {};
    from.sin_family = to.sin_family = AF_INET;
    from.sin_port = htons(40000);
    to.sin_port = htons(port);
    inet_pton(AF_INET, "127.0.0.1", &from.sin_addr);
    inet_pton(AF_INET, address, &to.sin_addr);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from), 0);
    sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    close(fd);
}

TEST(Capture, HoldsTheAddressesAndPortsThatADatagramTravelledBetween)
{
    Program program({BV_TOOL, "-p", "5344", "-c", "1", "-w", kFile});
    eventually([&] { return program.errors().find('\n') != std::string::npos; });
    send_to("127.0.0.2", 5344, kMessage);
    ASSERT_EQ(program.wait(), 0);
    EXPECT_NE(program.output().find(" 127.0.0.1:40000 category=5 "), std::string::npos);
    const Bytes file = read_file(kFile);
    ASSERT_GE(file.size(), 64u);
    EXPECT_EQ(file.substr(40 + 12, 12), "\x7f\0\0\1\x7f\0\0\2\x9c\x40\x14\xe0"s);
}

// 0 in the place of a checksum means that there is none; a sum that comes out as 0 is sent as
// its other form.
TEST(Capture, HoldsNoChecksumOfZero)
{
    Program program({BV_TOOL, "-p", "5344", "-c", "1", "-w", kFile});
    eventually([&] { return program.errors().find('\n') != std::string::npos; });
    const Bytes rest = "\x7f\0\0\1\x7f\0\0\1\0\x11\0\x0a\x9c\x40\x14\xe0\0\x0a"s;
    const unsigned missing = 0xffff - sum(rest);
    send_to("127.0.0.1", 5344, {static_cast<char>(missing >> 8), static_cast<char>(missing)});
    ASSERT_EQ(program.wait(), 0);
    const Bytes file = read_file(kFile);
    ASSERT_EQ(file.size(), 40u + 30u);
    EXPECT_EQ(be16(file, 40 + 26), 0xffffu);
}

TEST(Capture, HoldsADatagramBeforeTheNextOne)
{
    Program program({BV_TOOL, "-p", "5344", "-w", kFile});
    eventually([&] { return program.errors().find('\n') != std::string::npos; });
    send_to("127.0.0.1", 5344, kMessage);
    EXPECT_TRUE(eventually([] { return read_file(kFile).size() == 40 + 28 + kMessage.size(); }));
    program.signal(SIGKILL);
    program.wait();
    EXPECT_NE(run_tool({"-r", kFile}).output.find("abc\n"), std::string::npos);
}

TEST(Capture, OnStandardOutputReplacesTheLines)
{
    uint16_t port;
    Outcome live = capture({"-w", "-", "-c", "3"}, port, send_three);
    EXPECT_EQ(live.status, 0);
    EXPECT_EQ(live.output.substr(0, 24), file_head(0xa1b2c3d4, 228));
    EXPECT_EQ(live.output.find("category="), std::string::npos);

    Outcome again = run_tool({"-r", "-"}, live.output);
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.errors, "bv-collect: 3 datagrams, 3 selected, 0 malformed\n");
}

TEST(Capture, ThatCannotBeWrittenEndsTheProgram)
{
    Outcome none = run_tool({"-w", "/nowhere/capture"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.errors, "bv-collect: /nowhere/capture: No such file or directory\n");
    EXPECT_EQ(run_tool({"-w", "/dev/full"}).status, 1);
}

TEST(Capture, IsReadInEitherByteOrderAndUnitOfTime)
{
    const Bytes expected_us = ".000005"s + kLine;
    const Bytes expected_ns = ".123456"s + kLine;
    struct {
        const char *what;
        Bytes content;
        Bytes expected;
    } rows[] = {
        {"little", file_head(0xa1b2c3d4, 228) + record(packet()), expected_us},
        {"big", file_head(0xa1b2c3d4, 228, be) + record(packet(), 5, be), expected_us},
        {"little, ns", file_head(0xa1b23c4d, 101) + record(packet(), 123456789), expected_ns},
        {"big, ns", file_head(0xa1b23c4d, 101, be) + record(packet(), 123456789, be), expected_ns}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Outcome outcome = read_back(row.content);
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_EQ(outcome.output.substr(19), row.expected);
    }
}

TEST(Capture, OfAWholeNetworkIsReadToo)
{
    for (auto [link, head] : {std::pair(1u, 14u), {113u, 16u}, {276u, 20u}}) {
        SCOPED_TRACE(link);
        Outcome outcome =
            read_back(file_head(0xa1b2c3d4, link) + record(Bytes(head, '\0') + packet() + "\0\0"s));
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_EQ(outcome.output.substr(26), kLine);
    }
}

TEST(Capture, SkipsWhatIsNoDatagramForTheCollector)
{
    Bytes tcp = packet(), fragment = packet(), version6 = packet(), short_head = packet();
    Bytes long_udp = packet(), cut = packet(), other_port = packet(), long_ip = packet();
    tcp[9] = 6;
    fragment[6] = 0x20; // the first of several
    version6[0] = 0x65;
    short_head[0] = 0x44; // and a length where UDP's would then be
    short_head[20] = 0;
    short_head[21] = 9;
    long_ip[0] = 0x4f; // options beyond the end, and behind them what looks like UDP
    long_ip += Bytes(23, '\0') + "\x08\0\0"s;
    long_udp[25] = 22;
    cut.pop_back();
    other_port[23] = '\x35';
    Bytes content = file_head(0xa1b2c3d4, 228);
    for (const Bytes &bytes :
         {tcp, fragment, version6, short_head, long_ip, long_udp, cut, ""s, other_port, packet()})
        content += record(bytes);

    Outcome outcome = read_back(content, {"-p", "5344"});
    EXPECT_EQ(outcome.output.substr(26), kLine);
    EXPECT_EQ(outcome.errors,
              "bv-collect: 1 datagram, 1 selected, 0 malformed, 9 other packets skipped\n");
    Outcome any_port = read_back(content);
    EXPECT_EQ(any_port.errors,
              "bv-collect: 2 datagrams, 2 selected, 0 malformed, 8 other packets skipped\n");
}

TEST(Capture, ThatIsDamagedIsReadUpToThere)
{
    const Bytes good = file_head(0xa1b2c3d4, 228) + record(packet());
    for (const Bytes &rest :
         {"x"s, record(packet()).substr(0, 30),
          le(1) + le(1) + le(0xffffffff) + le(0xffffffff) + "x", record(Bytes(1000000, 'x'))}) {
        Outcome outcome = read_back(good + rest);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.output.substr(26), kLine);
        EXPECT_NE(outcome.errors.find("damaged or cut off"), std::string::npos);
    }
}

TEST(Capture, ThatIsNoneIsRefused)
{
    struct {
        Bytes content;
        const char *message;
    } rows[] = {{"", "not a capture file"},
                {"{\"lan.json\":[]}, which is another kind of file", "not a capture file"},
                {file_head(0xa1b2c3d4, 228).substr(0, 23), "not a capture file"},
                {"\x0a\x0d\x0d\x0a"s + Bytes(40, '\0'), "a pcapng file; save it as pcap"},
                {file_head(0xa1b2c3d4, 105), "captured on an unknown kind of network"}};
    for (const auto &row : rows) {
        Outcome outcome = read_back(row.content);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_NE(outcome.errors.find(row.message), std::string::npos) << outcome.errors;
    }
    EXPECT_EQ(run_tool({"-r", "/nowhere/capture"}).errors,
              "bv-collect: /nowhere/capture: No such file or directory\n");
}

// Whatever stands in a capture, the program ends by itself with a status of its own.
TEST(Capture, OfGarbageDoesNoHarm)
{
    const Bytes good = file_head(0xa1b2c3d4, 228) + record(packet()) + record(packet("zz"));
    uint32_t seed = 1;
    for (int round = 0; round < 200; ++round) {
        Bytes bad = good;
        for (int i = 0; i < 4; ++i) {
            seed = seed * 1664525 + 1013904223;
            bad[(seed >> 8) % bad.size()] = static_cast<char>(seed >> 24);
        }
        int status = read_back(bad).status;
        EXPECT_TRUE(status == 0 || status == 1) << "round " << round << ": " << status;
    }
}

} // namespace
