// SPDX-License-Identifier: ISC
// The caller's side of remote calls against a scripted bus: the bytes it sends, and what it makes
// of replies that other processes got wrong or never sent.

#include <bv/os.h>
#include <bv/ubus.h>

#include "bus/scripted_bus.h"
#include "support/faults.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <random>

using namespace wire;

// Sees how long the library lets the bus wait for an answer and what the answer's handler is given,
// and may keep that from it.
int g_timeout_ms;
void *g_priv;
bool g_keep_priv;
bool g_answer_nothing; // a reply without a message
extern "C" int ubus_invoke_fd(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                              ubus_data_handler_t cb, void *priv, int timeout, int fd)
{
    g_timeout_ms = timeout;
    g_priv = priv;
    if (g_answer_nothing) {
        ubus_request request = {};
        request.priv = priv;
        cb(&request, 0, nullptr);
        return UBUS_STATUS_OK;
    }
    return next_function<decltype(ubus_invoke_fd)>("ubus_invoke_fd")(
        ctx, obj, method, msg, cb, g_keep_priv ? nullptr : priv, timeout, fd);
}

namespace {

// What the bus does with one invocation.
using Replier = std::function<void(Peer &, const Message &invoke)>;

const Bytes kCallerBytes = {1, 2, 3, 4, 5, 6};
const Bytes kNines(6, 9);

uint32_t call(const std::string &func, Bytes &data)
{
    return bv_ubus_client_call(func.c_str(), data.data(), static_cast<uint32_t>(data.size()));
}

// A caller connected to a bus that treats its calls with one replier after the other.
class Caller {
public:
    explicit Caller(std::vector<Replier> repliers)
        : bus_([repliers](Peer &peer) {
              peer.hello();
              peer.answer_lookup();
              for (const Replier &replier : repliers)
                  replier(peer, peer.receive());
              EXPECT_TRUE(closed_by_peer(peer.fd()));
          })
    {
        EXPECT_EQ(bv_ubus_client_init(nullptr), 0);
    }
    explicit Caller(Replier replier) : Caller(std::vector<Replier>{std::move(replier)}) {}
    ~Caller() { bv_ubus_client_exit(); }

    uint32_t call() { return ::call("get", buffer); }

    Bytes buffer = kCallerBytes;

private:
    ScriptedBus bus_;
};

void answer(Peer &peer, const Message &invoke, const Bytes &fields, uint32_t status = 0)
{
    peer.send_reply(invoke, fields);
    peer.send_status(invoke, status);
}

Replier reply_with(const Bytes &fields)
{
    return [fields](Peer &peer, const Message &invoke) { answer(peer, invoke, fields); };
}

Replier status_only(uint32_t status)
{
    return [status](Peer &peer, const Message &invoke) { peer.send_status(invoke, status); };
}

// Notes the invocation, then answers.
Replier note(Message &invoke, const Bytes &fields)
{
    return [&invoke, fields](Peer &peer, const Message &message) {
        invoke = message;
        answer(peer, message, fields);
    };
}

const Replier kSeven = reply_with(reply(7, 6, kNines));

// Calls of one client, each with the same bytes, and what they return.
struct Row {
    std::string what;
    Replier replier;
    uint32_t result;
    Bytes buffer;
};

void expect_calls(const std::vector<Row> &rows)
{
    std::vector<Replier> repliers;
    for (const Row &row : rows)
        repliers.push_back(row.replier);
    Caller client(repliers);
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        client.buffer = kCallerBytes;
        EXPECT_EQ(client.call(), row.result);
        EXPECT_EQ(client.buffer, row.buffer);
    }
}

} // namespace

TEST(RpcClient, LooksItsObjectUpAndCallsItWithTheseBytes)
{
    Message lookup, invoke;
    ScriptedBus bus([&](Peer &peer) {
        peer.hello();
        lookup = peer.answer_lookup();
        invoke = peer.receive();
        peer.send_status(invoke, 0);
    });
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    Bytes data = {0xaa, 0xbb, 0xcc, 0x00, 0xff};
    EXPECT_EQ(call("get_info", data), 0u);
    bv_ubus_client_exit();
    bus.join();
    expect_bytes(lookup.bytes(), "00 04 00 01 00 00 00 00  00 00 00 20"
                                 "02 00 00 1a 62 72 6f 76 61 6e 2e 67 61 74 65 77 61 79 2e 73"
                                 "65 72 76 65 72 00 00 00");
    expect_bytes(invoke.bytes(), "00 05 00 02 5e a6 c7 3d  00 00 00 58"
                                 "03 00 00 08 5e a6 c7 3d"
                                 "04 00 00 0b 6d 65 74 68 6f 64 00 00"
                                 "07 00 00 40"
                                 "83 00 00 15 00 04 66 75 6e 63 00 00"
                                 "67 65 74 5f 69 6e 66 6f 00 00 00 00"
                                 "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 05"
                                 "80 00 00 11 00 04 64 61 74 61 00 00 aa bb cc 00 ff 00 00 00");
}

TEST(RpcClient, CallOfNoBytesSendsAnEmptyField)
{
    Message with_pointer, with_null;
    Caller client({note(with_pointer, reply(3, 0, {})), note(with_null, reply(4, 0, {}))});
    uint8_t byte = 0x5a;
    EXPECT_EQ(bv_ubus_client_call("get", &byte, 0), 3u);
    EXPECT_EQ(bv_ubus_client_call("get", nullptr, 0), 4u);
    EXPECT_EQ(byte, 0x5a);
    for (const Message &invoke : {with_pointer, with_null})
        expect_bytes(invoke.payload(kAttrData), "83 00 00 10 00 04 66 75 6e 63 00 00 67 65 74 00"
                                                "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 00"
                                                "80 00 00 0c 00 04 64 61 74 61 00 00");
}

TEST(RpcClient, AnotherObjectNameIsLookedUpAsGiven)
{
    Message lookup;
    ScriptedBus bus([&](Peer &peer) {
        peer.hello();
        lookup = peer.answer_lookup();
    });
    EXPECT_EQ(bv_ubus_client_init("another.object"), 0);
    bus.join();
    EXPECT_EQ(lookup.payload(kAttrObjectPath), text("another.object"));
}

TEST(RpcClient, ReplyReplacesOnlyTheBytesThatArrivedAndWereDeclared)
{
    std::vector<Row> rows = {
        {"all of them", reply_with(reply(7, 6, {9, 8, 7, 6, 5, 4})), 7, {9, 8, 7, 6, 5, 4}},
        {"two declared", reply_with(reply(7, 2, {9, 8, 7, 6, 5, 4})), 7, {9, 8, 3, 4, 5, 6}},
        {"none declared", reply_with(reply(8, 0, kNines)), 8, kCallerBytes},
        {"one declared", reply_with(reply(9, 1, {7, 3, 3, 3, 3, 3})), 9, {7, 2, 3, 4, 5, 6}},
        {"another order, data as text",
         reply_with(join({field(3, "data", text("abc")), field(5, "len", word(4)),
                          field(5, "return", word(2))})),
         2,
         {'a', 'b', 'c', 0, 5, 6}},
        {"last of two replies",
         [](Peer &peer, const Message &invoke) {
             peer.send_reply(invoke, reply(7, 6, kNines));
             answer(peer, invoke, reply(8, 2, Bytes(6, 1)));
         },
         8,
         {1, 1, 9, 9, 9, 9}},
        {"answers to other calls are ignored",
         [](Peer &peer, const Message &invoke) {
             Message stranger = invoke;
             stranger.sequence++;
             answer(peer, stranger, reply(1, 6, Bytes(6, 1)), 6);
             stranger = invoke;
             stranger.peer++;
             answer(peer, stranger, reply(1, 6, Bytes(6, 1)), 6);
             answer(peer, invoke, reply(7, 6, kNines));
         },
         7, kNines},
    };
    for (uint32_t declared : {3u, 6u, 100u, 0xffffffffu})
        rows.push_back({"three came, declared " + std::to_string(declared),
                        reply_with(reply(7, declared, {9, 8, 7})),
                        7,
                        {9, 8, 7, 4, 5, 6}});
    for (uint32_t result : {0u, 1u, 0x10000014u, 0x7fffffffu, 0xffffffffu})
        rows.push_back({"result " + std::to_string(result), reply_with(reply(result, 6, kNines)),
                        result, kNines});
    expect_calls(rows);
}

TEST(RpcClient, ShortRequestMayBringLongReply)
{
    for (uint32_t sent : {0u, 6u, 64u}) {
        for (uint32_t declared : {7u, 64u, 65u, 0x7fffffffu, 0xffffffffu}) {
            SCOPED_TRACE(std::to_string(sent) + " " + std::to_string(declared));
            Caller client(reply_with(reply(7, declared, Bytes(64, 0x99))));
            Bytes buffer(70, 0x11);
            EXPECT_EQ(bv_ubus_client_call("get", buffer.data(), sent), 7u);
            Bytes expected(70, 0x11);
            std::fill_n(expected.begin(), std::min(declared, 64u), 0x99);
            EXPECT_EQ(buffer, expected);
        }
    }
}

TEST(RpcClient, CallersBytesAreThePrivatePointerOfTheRequest)
{
    Caller client({kSeven, reply_with(reply(8, 0, {})), reply_with(reply(9, 6, Bytes(6, 1)))});
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(g_priv, client.buffer.data());
    EXPECT_EQ(bv_ubus_client_call("get", nullptr, 0), 8u);
    EXPECT_EQ(g_priv, nullptr);

    g_keep_priv = true; // a reply that belongs to no buffer still has a result
    EXPECT_EQ(client.call(), 9u);
    EXPECT_EQ(client.buffer, kNines);
    g_keep_priv = false;
}

TEST(RpcClient, ReplyLackingAFieldLeavesTheBufferAlone)
{
    const Bytes result = field(5, "return", word(7));
    const Bytes len = field(5, "len", word(6));
    const Bytes data = field(0, "data", kNines);
    const std::pair<const char *, Bytes> replies[] = {
        {"nothing", {}},
        {"no return", join({len, data})},
        {"no len", join({result, data})},
        {"no data", join({result, len})},
        {"data without a name", join({result, len, attribute(0, kNines)})},
        {"return as string", join({field(3, "return", text("7")), len, data})},
        {"return of 64 bits", join({field(4, "return", Bytes(8)), len, data})},
        {"len of 16 bits", join({result, field(6, "len", {0, 6}), data})},
        {"len of 2 bytes", join({result, field(5, "len", {0, 6}), data})},
        {"data beyond the message",
         join({result, len, hex("80 ff ff ff 00 04 64 61 74 61 00 00")})},
        {"name beyond the field", join({result, len, hex("80 00 00 08 ff ff 64 61")})},
        {"garbage", Bytes(64, 0xff)},
        {"zeros", Bytes(64, 0)},
    };
    std::vector<Row> rows;
    for (const auto &[what, fields] : replies) {
        rows.push_back({what, reply_with(fields), 0x10000010, kCallerBytes});
        rows.push_back({"a good one", kSeven, 7, kNines});
    }
    expect_calls(rows);

    Caller client(kSeven);
    g_answer_nothing = true; // a reply without a message lacks its fields
    EXPECT_EQ(client.call(), 0x10000010u);
    EXPECT_EQ(client.buffer, kCallerBytes);
    g_answer_nothing = false;
    EXPECT_EQ(client.call(), 7u);
}

// Whatever the reply, no more is written than came, and the next call works. The sanitizers check
// the rest.
TEST(RpcClient, DamagedRepliesEndTheirCallOnly)
{
    std::mt19937 random(20261120);
    std::vector<Replier> repliers;
    for (int i = 0; i < 1500; i++)
        repliers.push_back(reply_with(damaged(random, reply(7, 40, Bytes(40, 0x11)))));
    repliers.push_back(kSeven);
    const size_t longest = reply(7, 40, Bytes(40)).size();
    Caller client(repliers);
    for (int i = 0; i < 1500; i++) {
        Bytes guarded(longest + 6, 0x77);
        bv_ubus_client_call("get", guarded.data(), 6);
        ASSERT_EQ(Bytes(guarded.end() - 6, guarded.end()), Bytes(6, 0x77));
    }
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(client.buffer, kNines);
}

TEST(RpcClient, BusStatusIsReturnedEvenAfterAReply)
{
    std::vector<Row> rows = {
        {"after a reply",
         [](Peer &peer, const Message &invoke) { answer(peer, invoke, reply(7, 6, kNines), 4); }, 4,
         kNines}};
    for (uint32_t status : {2u, 3u, 4u, 6u, 99u, 0xffffffffu})
        rows.push_back({"status only", status_only(status), status, kCallerBytes});
    for (uint32_t status : {0u, 2u})
        rows.push_back({"first of two statuses",
                        [=](Peer &peer, const Message &invoke) {
                            answer(peer, invoke, reply(100, 6, kNines), status);
                            peer.send_status(invoke, 5);
                        },
                        status == 0 ? 100 : status, kNines});
    rows.push_back({"a good one", kSeven, 7, kNines});
    expect_calls(rows);
}

TEST(RpcClient, WithoutAReplyTheResultIsThatOfThePreviousCall)
{
    expect_calls({{"none before", status_only(0), 0, kCallerBytes},
                  {"a reply", kSeven, 7, kNines},
                  {"no reply", status_only(0), 7, kCallerBytes},
                  {"fields lacking", reply_with({}), 0x10000010, kCallerBytes},
                  {"no reply", status_only(0), 0x10000010, kCallerBytes},
                  {"a status", status_only(2), 2, kCallerBytes},
                  {"no reply", status_only(0), 0x10000010, kCallerBytes}});
}

TEST(RpcClient, GivesUpAfterThreeSecondsAndIgnoresTheLateAnswer)
{
    Message late;
    Caller client({[&](Peer &, const Message &invoke) { late = invoke; },
                   [&](Peer &peer, const Message &invoke) {
                       answer(peer, late, reply(1, 6, Bytes(6, 1)));
                       answer(peer, invoke, reply(7, 6, kNines));
                   }});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(g_timeout_ms, 3000);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2950));
    EXPECT_EQ(client.buffer, kCallerBytes);

    Bytes second(6, 0x22);
    EXPECT_EQ(call("get", second), 7u);
    EXPECT_EQ(second, kNines);
    EXPECT_EQ(client.buffer, kCallerBytes);
}

TEST(RpcClient, BusLostWhileWaitingIs10AndLaterCallsAre2)
{
    ScriptedBus bus([](Peer &peer) {
        peer.hello();
        peer.answer_lookup();
        peer.receive();
    });
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    Bytes data = kCallerBytes;
    for (uint32_t result : {10u, 2u, 2u})
        EXPECT_EQ(call("get", data), result);
    EXPECT_EQ(data, kCallerBytes);
}

TEST(RpcClient, CallsWhileUnconnectedAre10)
{
    Bytes data = kCallerBytes;
    bv_ubus_client_exit(); // does nothing
    EXPECT_EQ(call("get", data), 10u);
    EXPECT_EQ(bv_ubus_client_init(nullptr), -1) << "there is no bus";
    EXPECT_EQ(call("get", data), 10u);
    {
        Caller client(kSeven);
        EXPECT_EQ(client.call(), 7u);
    }
    EXPECT_EQ(call("get", data), 10u) << "after exit";
    {
        Caller client(kSeven);
        EXPECT_EQ(client.call(), 7u);
        EXPECT_EQ(unlink("/var/run/ubus/ubus.sock"), 0);
        EXPECT_EQ(bv_ubus_client_init(nullptr), -1);
        EXPECT_EQ(call("get", data), 10u) << "after a second init that failed";
    }
    EXPECT_EQ(data, kCallerBytes);
}

TEST(RpcClient, CallThatCannotBeSentIs2AndSendsNothing)
{
    Message invoke;
    Caller client(note(invoke, reply(7, 0, {})));
    Bytes data(2 * 1048576, 0x33);
    EXPECT_EQ(bv_ubus_client_call(nullptr, data.data(), 6), 2u);
    EXPECT_EQ(bv_ubus_client_call("get", nullptr, 6), 2u);
    for (uint32_t length : {1048576u, 1048577u, 2097152u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(bv_ubus_client_call("get", data.data(), length), 2u);
    }
    {
        // The buffer of requests never shrinks: an absurd name must not cost 16 MiB for good.
        FailReallocations failing;
        for (size_t length : {1048576, 1100000, 16777180, 16777204, 17000000}) {
            SCOPED_TRACE(length);
            EXPECT_EQ(call(std::string(length, 'n'), client.buffer), 2u);
        }
        EXPECT_EQ(failing.happened(), 0) << "not even built";
    }
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(invoke.sequence, 2) << "the look-up was 1";
}

TEST(RpcClient, WithoutMemoryForTheRequestACallIs2AndTheNextWorks)
{
    Caller client(kSeven);
    for (size_t length : {1, 5000}) { // the buffer's first bytes, and its growth
        Bytes data(length, 0x33);
        FailReallocations failing;
        EXPECT_EQ(call("get", data), 2u);
        EXPECT_GT(failing.happened(), 0);
    }
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(client.buffer, kNines);
}

TEST(RpcClient, LongCallTravelsAndAShortOneAfterItSendsNothingOfIt)
{
    Message first, second;
    Caller client(
        {note(first, reply(7, 1000000, Bytes(1000000, 0x44))), note(second, reply(8, 0, {}))});
    Bytes data(1000000, 0x33);
    EXPECT_EQ(call("a_rather_long_name_of_a_function", data), 7u);
    EXPECT_TRUE(data == Bytes(1000000, 0x44));
    EXPECT_TRUE(first.payload(kAttrData) ==
                request("a_rather_long_name_of_a_function", 1000000, Bytes(1000000, 0x33)));
    EXPECT_EQ(client.call(), 8u);
    EXPECT_EQ(to_hex(second.payload(kAttrData)), to_hex(request("get", 6, kCallerBytes)));
}

// 128 bytes below what the bus takes: the daemon adds the caller's account names on the way.
TEST(RpcClient, LongestCallLeavesRoomForAccountNames)
{
    Message invoke;
    Caller client(note(invoke, reply(7, 0, {})));
    const uint32_t around =
        4 + 8 + 12 + 4 + 16 + 16 + 12; // body, object, method, arguments, fields
    const uint32_t longest = 1048576 - 128 - around;
    Bytes data(longest + 1, 0x33);
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), longest + 1), 2u);
    EXPECT_EQ(bv_ubus_client_call("get_", data.data(), longest), 2u);
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), longest), 7u);
    EXPECT_EQ(invoke.attributes.size() + 4, 1048576u - 128);
    EXPECT_EQ(invoke.sequence, 2) << "the refused ones went nowhere";
}

TEST(RpcClient, SecondInitFreesTheFirstConnectionAndForgetsItsObject)
{
    Message invoke;
    // A look-up that fails, or succeeds without naming an object, is not a failure: calls go to 0.
    for (uint32_t looked_up : {0u, 4u}) {
        ScriptedBus bus({[&](Peer &peer) {
                             peer.hello();
                             peer.answer_lookup();
                             EXPECT_TRUE(closed_by_peer(peer.fd()));
                         },
                         [&](Peer &peer) {
                             peer.hello();
                             peer.send_status(peer.receive(), looked_up);
                             invoke = peer.receive();
                             peer.send_status(invoke, 4);
                         }});
        EXPECT_EQ(bv_ubus_client_init(nullptr), 0);
        EXPECT_EQ(bv_ubus_client_init("nobody"), 0);
        Bytes data = kCallerBytes;
        EXPECT_EQ(call("get", data), 4u);
        bv_ubus_client_exit();
        bus.join();
        EXPECT_EQ(invoke.number(kAttrObjectId), 0u);
    }
}

TEST(RpcClient, ConnectingTakesDefaultSignalsOverAndLeavesOthersAlone)
{
    signal(SIGINT, SIG_IGN);
    Caller client(status_only(0));
    EXPECT_EQ(client.call(), 0u);
    struct sigaction now = {};
    sigaction(SIGTERM, nullptr, &now);
    EXPECT_NE(now.sa_handler, SIG_DFL) << "a client has to install its own before it connects";
    sigaction(SIGINT, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN);
    sigaction(SIGPIPE, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN);
    raise(SIGTERM); // does not end the process
}
