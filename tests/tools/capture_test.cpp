// Capture files of bv-collect: written from real datagrams, compared byte by byte, read back.

#include "tools/collector.h"

#include <csignal>
#include <cstring>

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

Outcome read_back(const Bytes &content, const std::string &options = "")
{
    write_file(kFile, content);
    return run_line(options + " -r " + kFile);
}

const char kLine[] = " 10.1.2.3:4000 category=5 module=2 level=3 tag=0x1234 abc\n";

TEST(Capture, HoldsDatagramsInIpPacketsWithRightLengthsAndChecksums)
{
    uint16_t port;
    ASSERT_EQ(capture_three("-w "s + kFile, port).status, 0);
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
    const Outcome live = capture_three("-w "s + kFile, port);
    EXPECT_TRUE(contains(live.output, "odd length!\n"));
    EXPECT_EQ(run_line("-r "s + kFile),
              (Outcome{0, live.output, "bv-collect: 3 datagrams, 3 selected, 0 malformed\n"}));
}

TEST(Capture, HoldsWhatFilterDidNotPrint)
{
    uint16_t port;
    const Outcome live = capture_three("-m 4 -w "s + kFile, port);
    EXPECT_TRUE(contains(live.errors, "3 datagrams, 1 selected"));
    EXPECT_EQ(run_line("-m 4 -r "s + kFile).output, live.output);

    const Outcome by_level = run_line("-m 0-3 -l 7 -r "s + kFile);
    EXPECT_TRUE(contains(by_level.output, "module=2 level=7 tag=0x1234 \n"));
    EXPECT_EQ(by_level.errors, "bv-collect: 3 datagrams, 1 selected, 0 malformed\n");
}

// The options of a collector on all addresses and the usual port, so that both are known.
Words on_all(const std::string &more)
{
    return words("-a 0.0.0.0 -p 5344 -w "s + kFile + " " + more);
}

TEST(Capture, HoldsAddressesAndPortsOfDatagram)
{
    Collector collector(on_all("-c 1"));
    collector.send(kMessage, "127.0.0.2", 40000);
    ASSERT_EQ(collector.wait(), 0);
    EXPECT_TRUE(contains(collector.output(), " 127.0.0.1:40000 category=5 "));
    const Bytes file = read_file(kFile);
    ASSERT_GE(file.size(), 64u);
    EXPECT_EQ(file.substr(40 + 12, 12), "\x7f\0\0\1\x7f\0\0\2\x9c\x40\x14\xe0"s);
}

// 0 in the place of a checksum means that there is none; a sum of 0 is sent in its other form.
TEST(Capture, NeverHoldsChecksumOfZero)
{
    Collector collector(on_all("-c 1"));
    const Bytes rest = "\x7f\0\0\1\x7f\0\0\1\0\x11\0\x0a\x9c\x40\x14\xe0\0\x0a"s;
    const unsigned missing = 0xffff - sum(rest);
    collector.send(be(missing).substr(2), "127.0.0.1", 40000);
    ASSERT_EQ(collector.wait(), 0);
    const Bytes file = read_file(kFile);
    ASSERT_EQ(file.size(), 40u + 30u);
    EXPECT_EQ(be16(file, 40 + 26), 0xffffu);
}

TEST(Capture, HoldsDatagramBeforeTheNextOne)
{
    Collector collector(on_all(""));
    collector.send(kMessage);
    EXPECT_TRUE(eventually([] { return read_file(kFile).size() == 40 + 28 + kMessage.size(); }));
    collector.end(SIGKILL);
    EXPECT_TRUE(contains(run_line("-r "s + kFile).output, "abc\n"));
}

TEST(Capture, OnStandardOutputReplacesLines)
{
    uint16_t port;
    const Outcome live = capture_three("-w -", port);
    EXPECT_EQ(live.status, 0);
    EXPECT_EQ(live.output.substr(0, 24), file_head(0xa1b2c3d4, 228));
    EXPECT_FALSE(contains(live.output, "category="));

    const Outcome again = run_tool({"-r", "-"}, live.output);
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.errors, "bv-collect: 3 datagrams, 3 selected, 0 malformed\n");
}

TEST(Capture, ThatCannotBeWrittenEndsTheProgram)
{
    EXPECT_EQ(run_line("-w /nowhere/capture"),
              (Outcome{1, "", "bv-collect: /nowhere/capture: No such file or directory\n"}));
    EXPECT_EQ(run_line("-w /dev/full"),
              (Outcome{1, "", "bv-collect: /dev/full: No space left on device\n"}));
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
        const Outcome outcome = read_back(row.content);
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_EQ(outcome.output.substr(19), row.expected);
    }
}

TEST(Capture, OfWholeNetworkIsReadToo)
{
    for (auto [link, head] : {std::pair(1u, 14u), {113u, 16u}, {276u, 20u}}) {
        SCOPED_TRACE(link);
        const Outcome outcome =
            read_back(file_head(0xa1b2c3d4, link) + record(Bytes(head, '\0') + packet() + "\0\0"s));
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_EQ(outcome.output.substr(26), kLine);
    }
}

TEST(Capture, SkipsPacketsThatAreNotForTheCollector)
{
    Bytes tcp = packet(), fragment = packet(), version6 = packet(), short_head = packet();
    Bytes long_udp = packet(), cut = packet(), other_port = packet(), long_ip = packet();
    tcp[9] = 6;
    fragment[6] = 0x20; // the first of several
    version6[0] = 0x65;
    short_head[0] = 0x44; // and a length where UDP's would then be
    short_head[20] = 0;
    short_head[21] = 9;
    long_ip[0] = 0x4f; // options beyond the end, and then what looks like UDP
    long_ip += Bytes(23, '\0') + "\x08\0\0"s;
    long_udp[25] = 22;
    cut.pop_back();
    other_port[23] = '\x35';
    Bytes content = file_head(0xa1b2c3d4, 228);
    for (const Bytes &bytes :
         {tcp, fragment, version6, short_head, long_ip, long_udp, cut, ""s, other_port, packet()})
        content += record(bytes);

    const Outcome outcome = read_back(content, "-p 5344");
    EXPECT_EQ(outcome.output.substr(26), kLine);
    EXPECT_EQ(outcome.errors,
              "bv-collect: 1 datagram, 1 selected, 0 malformed, 9 other packets skipped\n");
    const Outcome any_port = read_back(content);
    EXPECT_EQ(any_port.errors,
              "bv-collect: 2 datagrams, 2 selected, 0 malformed, 8 other packets skipped\n");
}

TEST(Capture, IsReadUpToItsDamage)
{
    const Bytes good = file_head(0xa1b2c3d4, 228) + record(packet());
    for (const Bytes &rest :
         {"x"s, record(packet()).substr(0, 30),
          le(1) + le(1) + le(0xffffffff) + le(0xffffffff) + "x", record(Bytes(1000000, 'x'))}) {
        const Outcome outcome = read_back(good + rest);
        EXPECT_EQ(outcome.status, 1) << rest.size();
        EXPECT_EQ(outcome.output.substr(26), kLine) << rest.size();
        EXPECT_TRUE(contains(outcome.errors, "damaged or cut off")) << rest.size();
    }
}

TEST(Capture, IsRefusedWhenItIsSomethingElse)
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
        const Outcome outcome = read_back(row.content);
        EXPECT_EQ(outcome.status, 1) << row.content;
        EXPECT_TRUE(contains(outcome.errors, row.message)) << row.content << outcome.errors;
    }
    EXPECT_EQ(run_line("-r /nowhere/capture").errors,
              "bv-collect: /nowhere/capture: No such file or directory\n");
    EXPECT_EQ(run_line("-r /scratch").errors, "bv-collect: /scratch: Is a directory\n");
}

} // namespace
