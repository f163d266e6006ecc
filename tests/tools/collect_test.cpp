// bv-collect with datagrams of the library itself, over loopback.

#include "support/shared.h"
#include "tools/collector.h"

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

// 2026-11-20 11:02:21.123456 127.0.0.1:40112, which every line begins with.
std::string without_origin(const std::string &line)
{
    int length = 0;
    unsigned n;
    sscanf(line.c_str(), "%4u-%2u-%2u %2u:%2u:%2u.%6u 127.0.0.1:%u %n", &n, &n, &n, &n, &n, &n, &n,
           &n, &length);
    EXPECT_GT(length, 38) << line;
    return line.substr(static_cast<size_t>(length));
}

using Lines = std::vector<std::string>;

Lines lines_of(const std::string &text)
{
    Lines all;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        all.push_back(without_origin(text.substr(at, end - at)));
    return all;
}

// Waits until a collector printed so many lines.
Lines lines(const Collector &collector, size_t count)
{
    eventually([&] { return lines_of(collector.output()).size() >= count; });
    return lines_of(collector.output());
}

const std::string kHead = "category=1 module=1 level=1 tag=0x0000 ";

void send(const char *text)
{
    bv_debug_remote(1, 0, 1, 1, "%s", text);
}

TEST(Collect, PrintsEveryPartOfMessage)
{
    Collector collector;
    bv_debug_remote(0x25, 0x1234, 2, 3, "abc");
    EXPECT_EQ(lines(collector, 1), (Lines{"category=5 module=2 level=3 tag=0x1234 abc"}));

    bv_debug_set_switch(9, 7, 1);
    bv_debug_remote(31, 0xffff, 9, 7, "%s %d", "link", 7);
    EXPECT_EQ(lines(collector, 2).back(), "category=31 module=9 level=7 tag=0xffff link 7");
}

TEST(Collect, PrintsTimeOfThisMachine)
{
    Collector collector;
    char before[32], after[32];
    time_t now = time(nullptr);
    strftime(before, sizeof(before), "%Y-%m-%d %H:%M:%S", localtime(&now));
    send("now");
    lines(collector, 1);
    now = time(nullptr);
    strftime(after, sizeof(after), "%Y-%m-%d %H:%M:%S.", localtime(&now));
    EXPECT_GE(collector.output().substr(0, 19), before);
    EXPECT_LE(collector.output().substr(0, 19), after);
}

TEST(Collect, EscapesControlCharactersAndBrokenUtf8)
{
    Collector collector;
    const char *const rows[][2] = {
        {"a\nb\tc\r\x1b[2J\x7f\\", R"(a\nb\tc\r\x1b[2J\x7f\\)"},
        {"caf\xc3\xa9 \xe7\xbd\x91\xe5\x85\xb3 \xf0\x9f\x93\xb6",
         "caf\xc3\xa9 \xe7\xbd\x91\xe5\x85\xb3 \xf0\x9f\x93\xb6"},
        {"\xc2\x9b[2J \xff \xc3 \xe7\xbd \xc0\x8a \xed\xa0\x80 \xf4\x90\x80\x80.",
         R"(\xc2\x9b[2J \xff \xc3 \xe7\xbd \xc0\x8a \xed\xa0\x80 \xf4\x90\x80\x80.)"}};
    Lines expected;
    for (const auto &[text, shown] : rows) {
        send(text);
        expected.push_back(kHead + shown);
    }
    EXPECT_EQ(lines(collector, expected.size()), expected);
}

// They would break the line on some terminals, or show its text in another order than it has.
TEST(Collect, EscapesSeparatorsAndDirectionMarksButNotTheirNeighbours)
{
    Collector collector;
    const Lines hidden = words("\xd8\x9c \xe2\x80\x8e \xe2\x80\x8f \xe2\x80\xa8 \xe2\x80\xa9 "
                               "\xe2\x80\xaa \xe2\x80\xae \xe2\x81\xa6 \xe2\x81\xa9");
    const Lines shown = words(R"(\xd8\x9c \xe2\x80\x8e \xe2\x80\x8f \xe2\x80\xa8 \xe2\x80\xa9
                 \xe2\x80\xaa \xe2\x80\xae \xe2\x81\xa6 \xe2\x81\xa9)");
    Lines expected;
    for (size_t i = 0; i < hidden.size(); ++i) {
        send(("a" + hidden[i] + "b").c_str());
        expected.push_back(kHead + "a" + shown[i] + "b");
    }
    const std::string harmless = "\xd8\x9b \xd8\x9d \xe2\x80\x8d \xe2\x80\x90 \xe2\x80\xa7 "
                                 "\xe2\x80\xaf \xe2\x81\xa5 \xe2\x81\xaa";
    send(harmless.c_str());
    expected.push_back(kHead + harmless);
    EXPECT_EQ(lines(collector, expected.size()), expected);
}

TEST(Collect, FiltersByModuleAndLevel)
{
    Collector collector(words("--module 0,2-4 -m 8 --level=5-7,1"));
    for (uint32_t module = 0; module < 10; ++module)
        for (uint32_t level = 0; level < 8; ++level)
            bv_debug_remote(1, 0, module, level, "%u.%u", module, level);
    Lines expected;
    for (uint32_t module : {0, 2, 3, 4, 8})
        for (uint32_t level : {1, 5, 6, 7}) {
            const std::string m = std::to_string(module), l = std::to_string(level);
            expected.push_back("category=1 module=" + m + " level=" + l + " tag=0x0000 " + m + "." +
                               l);
        }
    EXPECT_EQ(lines(collector, expected.size()), expected);
    EXPECT_EQ(collector.end(), 0);
    EXPECT_TRUE(contains(collector.errors(), "80 datagrams, 20 selected, 0 malformed\n"))
        << collector.errors();
}

TEST(Collect, SaysWhatIsWrongWithMalformedDatagramAndCountsIt)
{
    Collector collector;
    collector.send("");
    collector.send("x");
    collector.send("\5\3\0\2\0\x09\x12\x34\0"s);
    collector.send("\x25\3\0\2\0\x0a\x12\x34\0\4"s);
    collector.send("\5\3\0\2\0\x0b\x12\x34\0\4"s);
    collector.send("\5\3\0\2\0\x0b\x12\x34\0\4x"s);
    collector.send("\5\3\0\2\0\x0b\x12\x34\0\5x"s);
    EXPECT_EQ(lines(collector, 7),
              (Lines{"malformed: 0 bytes, shorter than its header",
                     "malformed: 1 byte, shorter than its header",
                     "malformed: 9 bytes, shorter than its header",
                     "malformed: 10 bytes, a category above 31",
                     "malformed: 10 bytes, the total length does not match its size",
                     "malformed: 11 bytes, the element length does not match its size",
                     "category=5 module=2 level=3 tag=0x1234 x"}));
    EXPECT_EQ(collector.end(), 0);
    EXPECT_TRUE(contains(collector.errors(), "7 datagrams, 1 selected, 6 malformed\n"))
        << collector.errors();
}

TEST(Collect, CountsMalformedDatagramsThatFilterHides)
{
    Collector collector({"-m", "2"});
    collector.send("garbage");
    collector.send("\5\3\0\2\0\x0b\x12\x34\0\5x"s);
    EXPECT_EQ(lines(collector, 1), (Lines{"category=5 module=2 level=3 tag=0x1234 x"}));
    EXPECT_EQ(collector.end(), 0);
    EXPECT_TRUE(contains(collector.errors(), "2 datagrams, 1 selected, 1 malformed\n"))
        << collector.errors();
}

TEST(Collect, TakesLargestDatagram)
{
    Collector collector;
    const std::string text(65507 - 10, 'x');
    const bv_debug_header header = {0, 1, 2, 3, 0, 4, 0};
    ASSERT_EQ(bv_debug_sendmsg(&header, text.data(), static_cast<uint16_t>(text.size())), 65507);
    EXPECT_EQ(lines(collector, 1), (Lines{"category=3 module=2 level=1 tag=0x0004 " + text}));
}

TEST(Collect, EndsCleanlyBySignal)
{
    for (int number : {SIGINT, SIGTERM}) {
        Collector collector;
        send("one");
        lines(collector, 1);
        EXPECT_EQ(collector.end(number), 0);
        EXPECT_TRUE(contains(collector.errors(), "1 datagram, 1 selected, 0 malformed\n"))
            << collector.errors();
    }
}

TEST(Collect, SaysHowManyDatagramsTheSystemDropped)
{
    BV_NEEDS_OWN_ROOT("a traced process cannot be stopped");
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    const int told = setsockopt(fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof(on));
    close(fd);
    if (told != 0)
        GTEST_SKIP() << "user-mode emulation refuses SO_RXQ_OVFL";

    Collector collector;
    unsigned sent = 0;
    const auto send_counted = [&](const char *text) {
        send(text);
        ++sent;
    };
    collector.signal(SIGSTOP);
    while (sent < 3000) // far more than its socket holds
        send_counted("flood");
    collector.signal(SIGCONT);
    EXPECT_TRUE(eventually([&] {
        send_counted("more");
        return contains(collector.output(), "more\n");
    }));
    // The queue has room again, and this one knows of everything dropped before it.
    send_counted("end");
    EXPECT_TRUE(eventually([&] { return contains(collector.output(), "end\n"); }));
    EXPECT_EQ(collector.end(), 0);

    unsigned received = 0, selected = 0, dropped = 0;
    const std::string errors = collector.errors();
    const size_t line = errors.rfind("bv-collect: ");
    ASSERT_EQ(sscanf(errors.c_str() + line,
                     "bv-collect: %u datagrams, %u selected, 0 malformed, %u dropped by the system",
                     &received, &selected, &dropped),
              3)
        << errors;
    EXPECT_EQ(received, lines_of(collector.output()).size());
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(received + dropped, sent);
}

TEST(Collect, EndsAfterCountOfDatagrams)
{
    Collector collector({"--count=2"});
    for (int i = 0; i < 3; ++i)
        bv_debug_remote(1, 0, 1, 1, "%d", i);
    EXPECT_EQ(collector.wait(), 0);
    EXPECT_EQ(lines(collector, 2).size(), 2u);
}

TEST(Collect, SaysWhyItCannotListenAndLeavesOlderCaptureAlone)
{
    Collector first;
    write_file("/scratch/older", "capture");
    const std::string port = std::to_string(first.port());
    EXPECT_EQ(first.errors(), "bv-collect: listening on 127.0.0.1:" + port + "\n");
    EXPECT_EQ(run_line("-a 127.0.0.1 -w /scratch/older -p " + port),
              (Outcome{1, "", "bv-collect: cannot listen: "s + strerror(EADDRINUSE) + "\n"}));
    EXPECT_EQ(read_file("/scratch/older"), "capture");
}

TEST(Collect, ListensOnPort5344UnlessToldOtherwise)
{
    Program program({BV_TOOL});
    EXPECT_TRUE(eventually([&] { return !program.errors().empty(); }));
    EXPECT_EQ(program.errors(), "bv-collect: listening on 0.0.0.0:5344\n");
}

TEST(Collect, PrintsHelpAndRefusesWhatItDoesNotUnderstand)
{
    expect_help("bv-collect", 1);
    const std::string list = " is not a list of at most 32 numbers or ranges from 0 to ";
    expect_refused({"-p", ""}, "bv-collect: --port: '' is not a number from 0 to 65535\n");
    expect_refused({"-m", ""}, "--module: ''" + list + "65535, as in 0,2-4\n");
    expect_refused({"-l", "1 2"}, "--level: '1 2'" + list + "255, as in 0,2-4\n");
    expect_refused({"-c", "1\x1b"}, "--count: '1\\x1b' is not a number from 1 to 1000000000\n");
    expect_refused({"-a", "host"}, "--address: 'host' is not an IPv4 address");
    for (const char *line :
         {"-p 65536", "-p 1x", "-p -1", "-m 1,", "-m 4-2", "-m 1-", "-m 65536", "-l 256", "-c 0",
          "--nonsense", "argument", "-w", "-r a -w b",
          "-m 1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1"})
        expect_refused(words(line));
}

} // namespace
