// bv-call against services on a real bus.

#include "support/bus.h"
#include "support/child.h"
#include "support/files.h"
#include "support/process.h"

#include <bv/os.h>
#include <bv/status.h>
#include <bv/ubus.h>

#include <gtest/gtest.h>
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

uint32_t echo(void *, uint32_t)
{
    return BV_OK;
}

uint32_t seven(void *, uint32_t)
{
    return 7;
}

uint32_t no_instance(void *, uint32_t)
{
    return BV_ERR_NO_INSTANCE;
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
    bv_ubus_server_reg("echo", echo);
    bv_ubus_server_reg("seven", seven);
    bv_ubus_server_reg("no_instance", no_instance);
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

// ---- bytes ----

TEST_F(Call, SendsHexAndPrintsAHexDump)
{
    Outcome outcome = run_tool({"--hex", "00 01:fF 7e41", "reverse"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, result("0x00000000", 5));
    EXPECT_EQ(outcome.output, "00000000  41 7e ff 01 00" + std::string(34, ' ') + "  |A~...|\n");
}

TEST_F(Call, PrintsSixteenBytesALine)
{
    Outcome outcome = run_tool({"-t", "0123456789abcdef|", "echo"});
    EXPECT_EQ(outcome.output,
              "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
              "00000010  7c                                                |||\n");
}

TEST_F(Call, PutsPartsTogetherInTheirOrder)
{
    write_file("/scratch/part", "file\0"s);
    Outcome outcome = run_tool(
        {"-t", "a", "-f", "/scratch/part", "-x", "62", "-f", "-", "--size=12", "-w", "-", "echo"},
        "input");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "afile\0binput"s);
    EXPECT_EQ(outcome.errors, result("0x00000000", 12));

    EXPECT_EQ(run_tool({"-t", "abc", "-n", "5", "-w", "-", "echo"}).output, "abc\0\0"s);
}

TEST_F(Call, SendsNoBytesWhenNoneAreGiven)
{
    Outcome outcome = run_tool({"echo"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, result("0x00000000", 0));
}

TEST_F(Call, PrintsTextUpToAZeroByteAndVisible)
{
    EXPECT_EQ(run_tool({"-p", "text", "-x", "61 1b 0a 00 62", "echo"}).output, "a\\x1b\\n\n");
    EXPECT_EQ(run_tool({"--print=text", "-t", "no end", "echo"}).output, "no end\n");
    EXPECT_EQ(run_tool({"--print=nothing", "-t", "x", "echo"}).output, "");
}

TEST_F(Call, WritesTheBytesAsTheyAre)
{
    Outcome written = run_tool({"-x", "000102", "-w", "/scratch/raw", "reverse"});
    EXPECT_EQ(written.status, 0);
    EXPECT_EQ(written.output, "");
    EXPECT_EQ(read_file("/scratch/raw"), "\2\1\0"s);
    Outcome outcome = run_tool({"-x", "00", "-w", "/nowhere/raw", "echo"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.errors.find("/nowhere/raw: No such file or directory"), std::string::npos);
    EXPECT_EQ(run_tool({"-x", "00", "-w", "/dev/full", "echo"}).status, 1);
}

TEST_F(Call, CarriesAMillionBytes)
{
    std::string content(1000000, 'x');
    content.front() = 'a';
    content.back() = 'z';
    write_file("/scratch/million", content);
    Outcome outcome = run_tool({"-f", "/scratch/million", "-w", "/scratch/back", "reverse"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    std::reverse(content.begin(), content.end());
    EXPECT_TRUE(read_file("/scratch/back") == content);

    write_file("/scratch/million", content + "x");
    EXPECT_EQ(run_tool({"-f", "/scratch/million", "echo"}).status, 2);
    write_file("/scratch/million", content);
    EXPECT_EQ(run_tool({"-f", "/scratch/million", "-x", "00", "echo"}).status, 2);
    EXPECT_EQ(run_tool({"-f", "/scratch/million", "-t", "x", "echo"}).status, 2);
}

// ---- results ----

TEST_F(Call, ReportsTheFunctionsResult)
{
    Outcome outcome = run_tool({"-t", "x", "-p", "text", "seven"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.output, "x\n");
    EXPECT_EQ(outcome.errors, result("0x00000007", 1));

    outcome = run_tool({"no_instance"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors, result("0x10000014 (BV_ERR_NO_INSTANCE)", 0));
}

TEST_F(Call, SaysWhyThereIsNoAnswer)
{
    Outcome outcome = run_tool({"nonsense"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "bv-call: nonsense on brovan.gateway.server: the object has no such "
                              "function, or could not take the bytes\n");

    outcome = run_tool({"-o", "nobody", "echo"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "bv-call: echo on nobody: there is no such object on the bus\n");

    outcome = run_tool({"--socket=/scratch/none", "echo"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors,
              "bv-call: echo on brovan.gateway.server: cannot connect to the bus\n");
}

TEST_F(Call, GivesUpAfterTheTimeout)
{
    Outcome outcome = run_tool({"-m", "100", "sleep"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "bv-call: sleep on brovan.gateway.server: no answer in time\n");
}

TEST_F(Call, GivesUpOnABusThatSaysNothing)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, "/scratch/silent.sock"};
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    Outcome outcome = run_tool({"-s", "/scratch/silent.sock", "-m", "100", "echo"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "bv-call: the bus does not answer\n");
    close(fd);
}

TEST_F(Call, WaitsAsLongAsItIsTold)
{
    EXPECT_EQ(run_tool({"--timeout=60000", "take_time"}).status, 0);
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
    Outcome outcome = run_tool({"-s", "/scratch/other.sock", "echo"});
    EXPECT_EQ(outcome.errors,
              "bv-call: echo on brovan.gateway.server: there is no such object on the bus\n");

    Service named([] { return bv_ubus_server_init("second", register_functions); });
    ASSERT_TRUE(wait_for_object("second"));
    EXPECT_EQ(run_tool({"--object=second", "-t", "abc", "-p", "text", "reverse"}).output, "cba\n");
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

TEST_F(Call, SaysWhatIsWrongWithAReply)
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
        Outcome outcome = run_tool({"-o", "odd", "echo"});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors, std::string("bv-call: echo on odd: ") + row.message + "\n");
    }
}

TEST_F(Call, PrintsNoParametersOfAShortReply)
{
    Service odd([] { return serve_oddly(Odd::Short); });
    ASSERT_TRUE(wait_for_object("odd"));
    const std::string lan = BV_TEST_SOURCE_DIR "/../examples/template/lan.json";
    Outcome outcome = run_tool({"-o", "odd", "-T", lan, "echo"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, result("0x00000000", 2) + "bv-call: " + lan +
                                  ": less came back than the family's image\n");
}

// ---- the command line ----

TEST_F(Call, RefusesWhatItDoesNotUnderstandAndCallsNothing)
{
    const std::vector<std::vector<std::string>> wrong = {{},
                                                         {"-x", "0", "trace"},
                                                         {"-x", "0g", "trace"},
                                                         {"-x", "0 1", "trace"},
                                                         {"-f", "/nowhere", "trace"},
                                                         {"-n", "1000001", "trace"},
                                                         {"-n", "-1", "trace"},
                                                         {"-m", "0", "trace"},
                                                         {"-p", "binary", "trace"},
                                                         {"-p", "parameters", "trace"},
                                                         {"-O", "4", "trace"},
                                                         {"trace", "name=value"},
                                                         {"--nonsense", "trace"},
                                                         {std::string(256, 'f')}};
    for (const auto &arguments : wrong) {
        SCOPED_TRACE(arguments.empty() ? "" : arguments[0]);
        Outcome outcome = run_tool(arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.output, "");
        EXPECT_NE(outcome.errors.find("--help"), std::string::npos);
    }
    EXPECT_FALSE(file_exists("/scratch/trace"));
    EXPECT_EQ(run_tool({"trace"}).status, 0);
    EXPECT_TRUE(file_exists("/scratch/trace"));
}

TEST(CallAlone, PrintsItsHelpWithoutABus)
{
    Outcome help = run_tool({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output.rfind("usage: bv-call", 0), 0u);
    EXPECT_EQ(help.errors, "");
    EXPECT_EQ(run({"/bin/sh", "-c", "'" BV_TOOL "' --help > /dev/full"}).status, 1);
}

} // namespace
