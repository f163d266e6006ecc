// bv-call against services on a real bus.

#include "support/bus.h"
#include "support/process.h"
#include "tools/tool.h"

#include <bv/os.h>
#include <bv/status.h>
#include <bv/ubus.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <csignal>

namespace {

using namespace std::string_literals;

const char kObject[] = "brovan.gateway.server";

// ---- the functions of a service ----

uint32_t reverse(void *data, uint32_t length)
{
    auto *bytes = static_cast<uint8_t *>(data);
    std::reverse(bytes, bytes + length);
    return BV_OK;
}

template <uint32_t Result>
uint32_t give(void *, uint32_t)
{
    return Result;
}

uint32_t sleep_long(void *, uint32_t)
{
    write_file("/scratch/asleep", "");
    sleep(20);
    return BV_OK;
}

// Longer than a call waits unless told to.
uint32_t take_time(void *, uint32_t)
{
    usleep(3300000);
    return BV_OK;
}

uint32_t leave_trace(void *, uint32_t)
{
    write_file("/scratch/trace", "called");
    return BV_OK;
}

int register_functions()
{
    bv_ubus_server_reg("reverse", reverse);
    bv_ubus_server_reg("echo", give<BV_OK>);
    bv_ubus_server_reg("seven", give<7>);
    bv_ubus_server_reg("no_instance", give<BV_ERR_NO_INSTANCE>);
    bv_ubus_server_reg("sleep", sleep_long);
    bv_ubus_server_reg("take_time", take_time);
    bv_ubus_server_reg("trace", leave_trace);
    return 0;
}

class Call : public ::testing::Test {
protected:
    Call() : service_([] { return bv_ubus_server_init(nullptr, register_functions); })
    {
        EXPECT_TRUE(wait_for_object(kObject));
    }

    BusDaemon bus_;
    Service service_;
};

std::string result(const std::string &code, size_t length)
{
    return "bv-call: result " + code + ", " + std::to_string(length) +
           (length == 1 ? " byte\n" : " bytes\n");
}

// A call that succeeded.
Outcome returned(const std::string &output, size_t length)
{
    return {0, output, result("0x00000000", length)};
}

// A call without an answer.
Outcome unanswered(const std::string &call, const std::string &why)
{
    return {1, "", "bv-call: " + call + ": " + why + "\n"};
}

// ---- bytes ----

TEST_F(Call, SendsHexAndPrintsHexDump)
{
    EXPECT_EQ(run_tool({"--hex", "00 01:fF 7e41", "reverse"}),
              returned("00000000  41 7e ff 01 00" + std::string(34, ' ') + "  |A~...|\n", 5));
}

TEST_F(Call, PrintsSixteenBytesPerLine)
{
    EXPECT_EQ(run_line("-t 0123456789abcdef| echo").output,
              "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
              "00000010  7c                                                |||\n");
}

TEST_F(Call, SendsPartsInTheirOrder)
{
    write_file("/scratch/part", "file\0"s);
    EXPECT_EQ(run_tool(words("-t a -f /scratch/part -x 62 -f - --size=12 -w - echo"), "input"),
              returned("afile\0binput"s, 12));
    EXPECT_EQ(run_line("-t abc -n 5 -w - echo").output, "abc\0\0"s);
}

TEST_F(Call, SendsNoBytesWhenNoneAreGiven)
{
    EXPECT_EQ(run_line("echo"), returned("", 0));
}

TEST_F(Call, PrintsTextUpToZeroByteWithEscapes)
{
    EXPECT_EQ(run_tool({"-p", "text", "-x", "61 1b 0a 00 62", "echo"}).output, "a\\x1b\\n\n");
    EXPECT_EQ(run_tool({"--print=text", "-t", "no end", "echo"}).output, "no end\n");
    EXPECT_EQ(run_line("--print=nothing -t x echo").output, "");
}

TEST_F(Call, WritesBytesUnchanged)
{
    EXPECT_EQ(run_line("-x 000102 -w /scratch/raw reverse"), returned("", 3));
    EXPECT_EQ(read_file("/scratch/raw"), "\2\1\0"s);
    const Outcome outcome = run_line("-x 00 -w /nowhere/raw echo");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.errors, "/nowhere/raw: No such file or directory"));
    EXPECT_EQ(
        run_line("-x 00 -w /dev/full echo"),
        (Outcome{1, "",
                 result("0x00000000", 1) + "bv-call: /dev/full: " + strerror(ENOSPC) + "\n"}));
}

TEST_F(Call, CarriesMillionBytesAndNoMore)
{
    std::string content(1000000, 'x');
    content.front() = 'a';
    content.back() = 'z';
    write_file("/scratch/million", content);
    EXPECT_EQ(run_line("-f /scratch/million -w /scratch/back reverse"), returned("", 1000000));
    expect_refused(words("-f /scratch/million -x 00 echo"), "--hex: '00' is not");
    const std::string too_long = ": a call carries at most 1000000 bytes\n";
    expect_refused(words("-f /scratch/million -t x echo"), "--text" + too_long);
    write_file("/scratch/million", content + "x");
    expect_refused(words("-f /scratch/million echo"), "/scratch/million" + too_long);
    std::reverse(content.begin(), content.end());
    EXPECT_TRUE(read_file("/scratch/back") == content);
}

// ---- results ----

TEST_F(Call, ReportsTheFunctionsResult)
{
    EXPECT_EQ(run_line("-t x -p text seven"), (Outcome{3, "x\n", result("0x00000007", 1)}));
    EXPECT_EQ(run_line("no_instance"),
              (Outcome{3, "", result("0x10000014 (no such instance)", 0)}));
}

TEST_F(Call, SaysWhyThereIsNoAnswer)
{
    EXPECT_EQ(run_line("nonsense"), unanswered("nonsense on brovan.gateway.server",
                                               "unknown function or invalid argument"));
    EXPECT_EQ(run_line("-o nobody echo"), unanswered("echo on nobody", "no such object"));
    EXPECT_EQ(run_line("--socket=/scratch/none echo"),
              unanswered("echo on brovan.gateway.server", "cannot connect to the bus"));
}

TEST_F(Call, GivesUpAfterTheTimeout)
{
    EXPECT_EQ(run_line("-m 100 sleep"),
              unanswered("sleep on brovan.gateway.server", "no answer in time"));
}

TEST_F(Call, GivesUpOnSilentBus)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, "/scratch/silent.sock"};
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    EXPECT_EQ(run_line("-s /scratch/silent.sock -m 100 echo"),
              (Outcome{1, "", "bv-call: the bus does not answer\n"}));
    close(fd);
}

TEST_F(Call, WaitsAsLongAsItIsTold)
{
    EXPECT_EQ(run_line("--timeout=60000 take_time").status, 0);
}

TEST_F(Call, EndsBySignalWhileItWaits)
{
    Program program({BV_TOOL, "-m", "20000", "sleep"});
    ASSERT_TRUE(eventually([] { return file_exists("/scratch/asleep"); }));
    program.signal(SIGINT);
    EXPECT_EQ(program.wait(), 128 + SIGINT);
}

TEST_F(Call, ReachesAnotherObjectOnAnotherBus)
{
    BusDaemon other("/scratch/other.sock");
    EXPECT_EQ(run_line("-s /scratch/other.sock echo"),
              unanswered("echo on brovan.gateway.server", "no such object"));

    Service named([] { return bv_ubus_server_init("second", register_functions); });
    ASSERT_TRUE(wait_for_object("second"));
    EXPECT_EQ(run_line("--object=second -t abc -p text reverse").output, "cba\n");
}

// ---- services that answer otherwise ----

// What the object "odd" replies with.
enum class Odd { Nothing, NoData, TooLittle, Short };
Odd g_odd;

int reply_oddly(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                blob_attr *)
{
    static blob_buf reply;
    if (g_odd == Odd::Nothing)
        return UBUS_STATUS_OK;
    bv_blobmsg_buf_init(&reply);
    bv_blobmsg_add_u32(&reply, "return", 0);
    bv_blobmsg_add_u32(&reply, "len", g_odd == Odd::Short ? 2 : 3);
    if (g_odd != Odd::NoData)
        bv_blobmsg_add_field(&reply, BLOBMSG_TYPE_UNSPEC, "data", "ab", 2);
    bv_ubus_send_reply(bus, request, reply.head);
    return UBUS_STATUS_OK;
}

int serve_oddly(Odd odd)
{
    static const ubus_method methods[] = {{"method", reply_oddly, 0, 0, nullptr, 0}};
    static ubus_object_type type = {"obj", 0, methods, 1};
    static ubus_object object = {};
    g_odd = odd;
    object.name = "odd";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 1;
    bv_uloop_init();
    ubus_context *bus = bv_ubus_connect(nullptr);
    bv_uloop_fd_add(&bus->sock, ULOOP_READ | ULOOP_BLOCKING);
    bv_ubus_add_object(bus, &object);
    return bv_uloop_run();
}

TEST_F(Call, SaysWhatIsWrongWithReply)
{
    struct {
        Odd odd;
        const char *message;
    } rows[] = {{Odd::Nothing, "the function was run, but did not answer"},
                {Odd::NoData, "the reply lacks \"return\", \"len\" or \"data\""},
                {Odd::TooLittle, "the reply has less data than it says"}};
    for (const auto &row : rows) {
        Service odd([&] { return serve_oddly(row.odd); });
        ASSERT_TRUE(wait_for_object("odd"));
        EXPECT_EQ(run_line("-o odd echo"), unanswered("echo on odd", row.message));
    }
}

TEST_F(Call, PrintsNoParametersOfShortReply)
{
    Service odd([] { return serve_oddly(Odd::Short); });
    ASSERT_TRUE(wait_for_object("odd"));
    const std::string lan = kExamples + "template/lan.json";
    EXPECT_EQ(run_line("-o odd -T " + lan + " echo"),
              (Outcome{1, "",
                       result("0x00000000", 2) + "bv-call: " + lan +
                           ": the reply is shorter than the family's image\n"}));
}

// ---- the command line ----

TEST_F(Call, RefusesWhatItDoesNotUnderstandAndCallsNothing)
{
    const std::string hex =
        "' is not two hexadecimal digits a byte, of at most 1000000 bytes in all";
    expect_refused({"-x", "0 1", "trace"}, "bv-call: --hex: '0 1" + hex);
    expect_refused({std::string(256, 'f')}, "at most 255 characters");
    const std::pair<const char *, std::string> rows[] = {
        {"", "which function?"},
        {"-x 0 trace", "--hex: '0" + hex},
        {"-x 0g trace", "--hex: '0g" + hex},
        {"-f /nowhere trace", "bv-call: /nowhere: No such file or directory\n"},
        {"-f /scratch trace", "bv-call: /scratch: Is a directory\n"},
        {"-n 1000001 trace", "--size: '1000001' is not a number from 0 to 1000000\n"},
        {"-n -1 trace", "--size: '-1' is not a number from 0 to 1000000\n"},
        {"-O 1000001 trace", "--offset: '1000001' is not a number from 0 to 1000000\n"},
        {"-m 0 trace", "--timeout: '0' is not a number from 1 to 3600000\n"},
        {"-p binary trace", "--print: 'binary' is not hex, text, parameters or nothing\n"},
        {"-p parameters trace", "--print=parameters needs a template"},
        {"-O 4 trace", "--offset needs a template"},
        {"trace name=value", "NAME=VALUE needs a template"},
        {"--nonsense trace", "nonsense"}};
    for (const auto &[line, why] : rows)
        expect_refused(words(line), why);
    EXPECT_FALSE(file_exists("/scratch/trace"));
    EXPECT_EQ(run_line("trace").status, 0);
    EXPECT_TRUE(file_exists("/scratch/trace"));
}

TEST(CallUsage, IsPrintedWithoutBus)
{
    expect_help("bv-call", 1);
}

} // namespace
