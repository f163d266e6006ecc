// bv-collect with datagrams of the library itself, over loopback.

#include "support/child.h"
#include "support/files.h"
#include "support/process.h"
#include "support/shared.h"

#include <bv/debug.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using namespace std::string_literals;

// A collector on a port of its own, listening when the constructor returns; debug messages of
// this process go there.
class Collector {
public:
    explicit Collector(std::vector<std::string> options = {})
    {
        std::vector<std::string> arguments = {BV_TOOL, "-a", "127.0.0.1", "-p", "0"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        program_ = new Program(arguments);

        const std::string ready = "listening on 127.0.0.1:";
        EXPECT_TRUE(eventually([&] { return errors().find('\n') != std::string::npos; }));
        size_t at = errors().find(ready);
        EXPECT_NE(at, std::string::npos) << errors();
        if (at != std::string::npos)
            port_ = static_cast<uint16_t>(atoi(errors().c_str() + at + ready.size()));

        static const int32_t started = bv_debug_init(); // a second one would leak the first's table
        EXPECT_EQ(started, 0);
        bv_debug_cfg destination = {htonl(INADDR_LOOPBACK), port_, 0};
        bv_debug_set_cfg(&destination);
        for (uint32_t level = 0; level < 8; ++level)
            bv_debug_set_switch(0, level, 1);
    }
    ~Collector() { delete program_; }

    std::string output() const { return program_->output(); }
    std::string errors() const { return program_->errors(); }

    // Sends bytes that the library would not.
    void send(const std::string &bytes) const
    {
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(port_);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int fd = socket(AF_INET, SOCK_DGRAM, 0);
        sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        close(fd);
    }

    // Waits until so many lines are there and gives them without what differs from run to run.
    std::vector<std::string> lines(size_t count) const
    {
        eventually([&] { return split(output()).size() >= count; });
        return split(output());
    }

    int end(int number = SIGTERM)
    {
        program_->signal(number);
        return program_->wait();
    }
    int wait() { return program_->wait(); }
    void signal(int number) { program_->signal(number); }

    static std::vector<std::string> split(const std::string &text)
    {
        std::vector<std::string> all;
        for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
            all.push_back(without_origin(text.substr(at, end - at)));
        return all;
    }

    // 2026-11-20 11:02:21.123456 127.0.0.1:40112, which every line begins with.
    static std::string without_origin(const std::string &line)
    {
        int length = 0;
        unsigned n;
        sscanf(line.c_str(), "%4u-%2u-%2u %2u:%2u:%2u.%6u 127.0.0.1:%u %n", &n, &n, &n, &n, &n, &n,
               &n, &n, &length);
        EXPECT_GT(length, 38) << line;
        return line.substr(static_cast<size_t>(length));
    }

private:
    Program *program_;
    uint16_t port_ = 0;
};

using Lines = std::vector<std::string>;

TEST(Collect, PrintsEveryPartOfAMessage)
{
    Collector collector;
    bv_debug_remote(0x25, 0x1234, 2, 3, "abc");
    EXPECT_EQ(collector.lines(1), (Lines{"category=5 module=2 level=3 tag=0x1234 abc"}));

    bv_debug_set_switch(9, 7, 1);
    bv_debug_remote(31, 0xffff, 9, 7, "%s %d", "link", 7);
    EXPECT_EQ(collector.lines(2).back(), "category=31 module=9 level=7 tag=0xffff link 7");
}

TEST(Collect, PrintsTheTimeOfThisMachine)
{
    Collector collector;
    char before[32], after[32];
    time_t now = time(nullptr);
    strftime(before, sizeof before, "%Y-%m-%d %H:%M:%S", localtime(&now));
    bv_debug_remote(1, 1, 1, 1, "now");
    collector.lines(1);
    now = time(nullptr);
    strftime(after, sizeof after, "%Y-%m-%d %H:%M:%S.", localtime(&now));
    EXPECT_GE(collector.output().substr(0, 19), before);
    EXPECT_LE(collector.output().substr(0, 19), after);
}

TEST(Collect, MakesControlCharactersVisible)
{
    Collector collector;
    bv_debug_remote(1, 0, 1, 1, "%s", "a\nb\tc\r\x1b[2J\x7f\\");
    bv_debug_remote(1, 0, 1, 1, "%s", "caf\xc3\xa9 \xe7\xbd\x91\xe5\x85\xb3 \xf0\x9f\x93\xb6");
    bv_debug_remote(1, 0, 1, 1, "%s",
                    "\xc2\x9b[2J \xff \xc3 \xe7\xbd \xc0\x8a \xed\xa0\x80 \xf4\x90\x80\x80.");
    Lines lines = collector.lines(3);
    ASSERT_EQ(lines.size(), 3u);
    const std::string head = "category=1 module=1 level=1 tag=0x0000 ";
    EXPECT_EQ(lines[0], head + R"(a\nb\tc\r\x1b[2J\x7f\\)");
    EXPECT_EQ(lines[1], head + "caf\xc3\xa9 \xe7\xbd\x91\xe5\x85\xb3 \xf0\x9f\x93\xb6");
    EXPECT_EQ(lines[2],
              head + R"(\xc2\x9b[2J \xff \xc3 \xe7\xbd \xc0\x8a \xed\xa0\x80 \xf4\x90\x80\x80.)");
}

// They would break the line on some terminals, or show its text in another order than it has.
TEST(Collect, MakesSeparatorsAndDirectionMarksVisible)
{
    Collector collector;
    const Lines hidden = {"\xd8\x9c",     "\xe2\x80\x8e", "\xe2\x80\x8f",
                          "\xe2\x80\xa8", "\xe2\x80\xa9", "\xe2\x80\xaa",
                          "\xe2\x80\xae", "\xe2\x81\xa6", "\xe2\x81\xa9"};
    const Lines shown = {R"(\xd8\x9c)",     R"(\xe2\x80\x8e)", R"(\xe2\x80\x8f)",
                         R"(\xe2\x80\xa8)", R"(\xe2\x80\xa9)", R"(\xe2\x80\xaa)",
                         R"(\xe2\x80\xae)", R"(\xe2\x81\xa6)", R"(\xe2\x81\xa9)"};
    // Their neighbours, before and after.
    const std::string harmless = "\xd8\x9b \xd8\x9d \xe2\x80\x8d \xe2\x80\x90 \xe2\x80\xa7 "
                                 "\xe2\x80\xaf \xe2\x81\xa5 \xe2\x81\xaa";
    for (const std::string &text : hidden)
        bv_debug_remote(1, 0, 1, 1, "a%sb", text.c_str());
    bv_debug_remote(1, 0, 1, 1, "%s", harmless.c_str());
    const Lines lines = collector.lines(hidden.size() + 1);
    ASSERT_EQ(lines.size(), hidden.size() + 1);
    const std::string head = "category=1 module=1 level=1 tag=0x0000 ";
    for (size_t i = 0; i < hidden.size(); i++)
        EXPECT_EQ(lines[i], head + "a" + shown[i] + "b");
    EXPECT_EQ(lines.back(), head + harmless);
}

TEST(Collect, FiltersByModuleAndLevel)
{
    Collector collector({"--module", "0,2-4", "-m", "8", "--level=5-7,1"});
    for (uint32_t module = 0; module < 10; ++module)
        for (uint32_t level = 0; level < 8; ++level)
            bv_debug_remote(1, 0, module, level, "%u.%u", module, level);
    Lines expected;
    for (uint32_t module : {0, 2, 3, 4, 8})
        for (uint32_t level : {1, 5, 6, 7}) {
            std::string m = std::to_string(module), l = std::to_string(level);
            expected.push_back("category=1 module=" + m + " level=" + l + " tag=0x0000 " + m + "." +
                               l);
        }
    EXPECT_EQ(collector.lines(expected.size()), expected);
    EXPECT_EQ(collector.end(), 0);
    EXPECT_NE(collector.errors().find("80 datagrams, 20 selected, 0 malformed\n"),
              std::string::npos)
        << collector.errors();
}

TEST(Collect, SaysWhatIsWrongWithAMalformedDatagramAndCountsIt)
{
    Collector collector;
    collector.send("");
    collector.send("x");
    collector.send("\5\3\0\2\0\x09\x12\x34\0"s);
    collector.send("\x25\3\0\2\0\x0a\x12\x34\0\4"s);
    collector.send("\5\3\0\2\0\x0b\x12\x34\0\4"s);
    collector.send("\5\3\0\2\0\x0b\x12\x34\0\4x"s);
    collector.send("\5\3\0\2\0\x0b\x12\x34\0\5x"s);
    EXPECT_EQ(collector.lines(7),
              (Lines{"malformed: 0 bytes, shorter than its head",
                     "malformed: 1 byte, shorter than its head",
                     "malformed: 9 bytes, shorter than its head",
                     "malformed: 10 bytes, a category above 31",
                     "malformed: 10 bytes, a total length other than its size",
                     "malformed: 11 bytes, an element length that does not fit its size",
                     "category=5 module=2 level=3 tag=0x1234 x"}));
    EXPECT_EQ(collector.end(), 0);
    EXPECT_NE(collector.errors().find("7 datagrams, 1 selected, 6 malformed\n"), std::string::npos);
}

TEST(Collect, CountsMalformedDatagramsBehindAFilterWithoutALine)
{
    Collector collector({"-m", "2"});
    collector.send("garbage");
    collector.send(std::string("\5\3\0\2\0\x0b\x12\x34\0\5x", 11));
    EXPECT_EQ(collector.lines(1), (Lines{"category=5 module=2 level=3 tag=0x1234 x"}));
    EXPECT_EQ(collector.end(), 0);
    EXPECT_NE(collector.errors().find("2 datagrams, 1 selected, 1 malformed\n"), std::string::npos);
}

TEST(Collect, TakesTheLargestDatagram)
{
    Collector collector;
    const std::string text(65507 - 10, 'x');
    const bv_debug_header header = {0, 1, 2, 3, 0, 4, 0};
    ASSERT_EQ(bv_debug_sendmsg(&header, text.data(), static_cast<uint16_t>(text.size())), 65507);
    EXPECT_EQ(collector.lines(1), (Lines{"category=3 module=2 level=1 tag=0x0004 " + text}));
}

TEST(Collect, EndsCleanlyBySignal)
{
    for (int number : {SIGINT, SIGTERM}) {
        Collector collector;
        bv_debug_remote(1, 0, 1, 1, "one");
        collector.lines(1);
        EXPECT_EQ(collector.end(number), 0);
        EXPECT_NE(collector.errors().find("1 datagram, 1 selected, 0 malformed\n"),
                  std::string::npos);
    }
}

TEST(Collect, SaysHowManyDatagramsTheSystemDropped)
{
    BV_NEEDS_OWN_ROOT("a traced process cannot be stopped");
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    const int told = setsockopt(fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    close(fd);
    if (told != 0)
        GTEST_SKIP() << "user-mode emulation refuses SO_RXQ_OVFL";

    Collector collector;
    unsigned sent = 0;
    const auto send = [&](const char *text) {
        bv_debug_remote(1, 0, 1, 1, "%s", text);
        sent++;
    };
    collector.signal(SIGSTOP);
    while (sent < 3000) // far more than its socket holds
        send("flood");
    collector.signal(SIGCONT);
    EXPECT_TRUE(eventually([&] {
        send("more");
        return collector.output().find("more\n") != std::string::npos;
    }));
    send("end"); // the queue has room again, and this one knows of everything dropped before it
    EXPECT_TRUE(eventually([&] { return collector.output().find("end\n") != std::string::npos; }));
    EXPECT_EQ(collector.end(), 0);

    unsigned received = 0, selected = 0, dropped = 0;
    const std::string errors = collector.errors();
    const size_t line = errors.rfind("bv-collect: ");
    ASSERT_EQ(sscanf(errors.c_str() + line,
                     "bv-collect: %u datagrams, %u selected, 0 malformed, %u dropped by the system",
                     &received, &selected, &dropped),
              3)
        << errors;
    EXPECT_EQ(received, Collector::split(collector.output()).size());
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(received + dropped, sent);
}

TEST(Collect, EndsAfterACountOfDatagrams)
{
    Collector collector({"--count=2"});
    for (int i = 0; i < 3; ++i)
        bv_debug_remote(1, 0, 1, 1, "%d", i);
    EXPECT_EQ(collector.wait(), 0);
    EXPECT_EQ(collector.lines(2).size(), 2u);
}

TEST(Collect, SaysWhyItCannotListen)
{
    Collector first;
    std::string port = first.errors().substr(first.errors().rfind(':') + 1);
    port.pop_back();
    write_file("/scratch/older", "capture");
    Outcome second = run_tool({"-a", "127.0.0.1", "-p", port, "-w", "/scratch/older"});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.errors, "bv-collect: cannot listen: "s + strerror(EADDRINUSE) + "\n");
    EXPECT_EQ(read_file("/scratch/older"), "capture");
}

TEST(Collect, ListensOnPort5344UnlessToldOtherwise)
{
    Program program({BV_TOOL});
    EXPECT_TRUE(eventually([&] { return !program.errors().empty(); }));
    EXPECT_EQ(program.errors(), "bv-collect: listening on 0.0.0.0:5344\n");
}

TEST(Collect, PrintsItsHelpOnStandardOutput)
{
    Outcome help = run_tool({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output.rfind("usage: bv-collect", 0), 0u);
    EXPECT_EQ(help.errors, "");
    EXPECT_EQ(run({"/bin/sh", "-c", "'" BV_TOOL "' --help > /dev/full"}).status, 1);
}

TEST(Collect, RefusesWhatItDoesNotUnderstand)
{
    const std::vector<std::vector<std::string>> wrong = {
        {"-p", "65536"},
        {"-p", ""},
        {"-p", "1x"},
        {"-p", "-1"},
        {"-a", "host"},
        {"-m", ""},
        {"-m", "1,"},
        {"-m", "4-2"},
        {"-m", "1-"},
        {"-m", "65536"},
        {"-l", "256"},
        {"-l", "1 2"},
        {"-c", "0"},
        {"-c", "x"},
        {"--nonsense"},
        {"argument"},
        {"-w"},
        {"-r", "a", "-w", "b"},
        {"-m", "1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1"}};
    for (const auto &arguments : wrong) {
        SCOPED_TRACE(arguments[0] + " " + (arguments.size() > 1 ? arguments[1] : ""));
        Outcome outcome = run_tool(arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.output, "");
        EXPECT_NE(outcome.errors.find("--help"), std::string::npos);
    }
}

} // namespace
