// The caller's side of remote calls against a scripted bus: the bytes it sends, and what it makes
// of replies that other processes got wrong or never sent.

#include <bv/os.h>
#include <bv/ubus.h>

#include "bus/scripted_bus.h"
#include "support/faults.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <random>

using wire::Bytes;
using wire::Message;

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

// A client connected to a bus that treats its calls with one replier after the other.
class Client {
public:
    explicit Client(std::vector<Replier> repliers)
        : bus_([repliers](Peer &peer) {
              peer.hello();
              peer.answer_lookup();
              for (const Replier &replier : repliers)
                  replier(peer, peer.receive());
              EXPECT_TRUE(wire::closed_by_peer(peer.fd()));
          })
    {
        EXPECT_EQ(bv_ubus_client_init(nullptr), 0);
    }
    explicit Client(Replier replier) : Client(std::vector<Replier>{std::move(replier)}) {}
    ~Client() { bv_ubus_client_exit(); }

    uint32_t call() { return bv_ubus_client_call("get", buffer.data(), length()); }
    uint32_t length() const { return static_cast<uint32_t>(buffer.size()); }

    Bytes buffer = kCallerBytes;

private:
    ScriptedBus bus_;
};

Replier reply_with(const Bytes &fields)
{
    return [fields](Peer &peer, const Message &invoke) {
        peer.send_reply(invoke, fields);
        peer.send_status(invoke, 0);
    };
}

Replier status_only(uint32_t status)
{
    return [status](Peer &peer, const Message &invoke) { peer.send_status(invoke, status); };
}

uint32_t status_of(int status)
{
    return static_cast<uint32_t>(status);
}

} // namespace

TEST(RpcClient, LooksItsObjectUpAndCallsItWithTheseBytes)
{
    Message lookup;
    Message invoke;
    ScriptedBus bus([&](Peer &peer) {
        peer.hello();
        lookup = peer.answer_lookup();
        invoke = peer.receive();
        peer.send_status(invoke, 0);
    });
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    Bytes data = {0xaa, 0xbb, 0xcc, 0x00, 0xff};
    EXPECT_EQ(bv_ubus_client_call("get_info", data.data(), 5), 0u);
    bv_ubus_client_exit();
    bus.join();

    EXPECT_EQ(wire::to_hex(lookup.bytes()),
              wire::to_hex(wire::hex("00 04 00 01 00 00 00 00  00 00 00 20"
                                     "02 00 00 1a 62 72 6f 76 61 6e 2e 67 61 74 65 77 61 79 2e 73"
                                     "65 72 76 65 72 00 00 00")));
    EXPECT_EQ(
        wire::to_hex(invoke.bytes()),
        wire::to_hex(wire::hex("00 05 00 02 5e a6 c7 3d  00 00 00 58"
                               "03 00 00 08 5e a6 c7 3d"
                               "04 00 00 0b 6d 65 74 68 6f 64 00 00"
                               "07 00 00 40"
                               "83 00 00 15 00 04 66 75 6e 63 00 00"
                               "67 65 74 5f 69 6e 66 6f 00 00 00 00"
                               "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 05"
                               "80 00 00 11 00 04 64 61 74 61 00 00 aa bb cc 00 ff 00 00 00")));
}

TEST(RpcClient, ACallOfNoBytesSendsAnEmptyField)
{
    for (bool null_data : {false, true}) {
        Message invoke;
        Client client([&](Peer &peer, const Message &message) {
            invoke = message;
            peer.send_reply(message, wire::reply(3, 0, {}));
            peer.send_status(message, 0);
        });
        uint8_t byte = 0x5a;
        EXPECT_EQ(bv_ubus_client_call("get", null_data ? nullptr : &byte, 0), 3u);
        EXPECT_EQ(byte, 0x5a);
        EXPECT_EQ(wire::to_hex(invoke.payload(wire::kAttrData)),
                  wire::to_hex(wire::hex("83 00 00 10 00 04 66 75 6e 63 00 00 67 65 74 00"
                                         "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 00"
                                         "80 00 00 0c 00 04 64 61 74 61 00 00")));
    }
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
    EXPECT_EQ(lookup.payload(wire::kAttrObjectPath), wire::text("another.object"));
}

TEST(RpcClient, TheReplysBytesReplaceTheCallersAndItsResultIsReturned)
{
    Client client(reply_with(wire::reply(7, 6, {9, 8, 7, 6, 5, 4})));
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(client.buffer, (Bytes{9, 8, 7, 6, 5, 4}));
}

TEST(RpcClient, TheCallersBytesAreThePrivatePointerOfTheRequest)
{
    Client client({reply_with(wire::reply(7, 6, Bytes(6, 9))), reply_with(wire::reply(8, 0, {})),
                   reply_with(wire::reply(9, 6, Bytes(6, 1)))});
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(g_priv, client.buffer.data());
    EXPECT_EQ(bv_ubus_client_call("get", nullptr, 0), 8u);
    EXPECT_EQ(g_priv, nullptr);

    g_keep_priv = true; // a reply that belongs to nobody's bytes still has a result
    EXPECT_EQ(client.call(), 9u);
    EXPECT_EQ(client.buffer, Bytes(6, 9));
    g_keep_priv = false;
}

TEST(RpcClient, EveryResultComesThrough)
{
    for (uint32_t result : {0u, 1u, 0x10000014u, 0x7fffffffu, 0xffffffffu}) {
        Client client(reply_with(wire::reply(result, 6, Bytes(6))));
        EXPECT_EQ(client.call(), result);
    }
}

TEST(RpcClient, ShortRequestMayBringLongReply)
{
    for (uint32_t sent : {0u, 6u, 64u}) {
        for (uint32_t declared : {7u, 64u, 65u, 0x7fffffffu, 0xffffffffu}) {
            SCOPED_TRACE(std::to_string(sent) + " " + std::to_string(declared));
            Client client(reply_with(wire::reply(7, declared, Bytes(64, 0x99))));
            Bytes buffer(70, 0x11);
            EXPECT_EQ(bv_ubus_client_call("get", buffer.data(), sent), 7u);
            Bytes expected(70, 0x11);
            std::fill_n(expected.begin(), std::min(declared, 64u), 0x99);
            EXPECT_EQ(buffer, expected);
        }
    }
}

TEST(RpcClient, AReplyIsNotReadPastTheBytesThatCame)
{
    for (uint32_t declared : {3u, 6u, 100u, 0xffffffffu}) {
        SCOPED_TRACE(declared);
        Client client(reply_with(wire::reply(7, declared, {9, 8, 7})));
        EXPECT_EQ(client.call(), 7u);
        EXPECT_EQ(client.buffer, (Bytes{9, 8, 7, 4, 5, 6}));
    }
}

TEST(RpcClient, ASmallerDeclaredLengthLimitsWhatIsReplaced)
{
    Client client({reply_with(wire::reply(7, 2, {9, 8, 7, 6, 5, 4})),
                   reply_with(wire::reply(8, 0, {3, 3, 3, 3, 3, 3})),
                   reply_with(wire::reply(9, 1, {7, 3, 3, 3, 3, 3}))});
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(client.buffer, (Bytes{9, 8, 3, 4, 5, 6}));
    EXPECT_EQ(client.call(), 8u);
    EXPECT_EQ(client.buffer, (Bytes{9, 8, 3, 4, 5, 6}));
    EXPECT_EQ(client.call(), 9u);
    EXPECT_EQ(client.buffer, (Bytes{7, 8, 3, 4, 5, 6}));
}

TEST(RpcClient, AReplyLackingAFieldLeavesTheBufferAlone)
{
    const Bytes result = wire::field(5, "return", wire::word(7));
    const Bytes len = wire::field(5, "len", wire::word(6));
    const Bytes data = wire::field(0, "data", Bytes(6, 9));
    const std::vector<std::pair<const char *, Bytes>> rows = {
        {"nothing", {}},
        {"no return", wire::join({len, data})},
        {"no len", wire::join({result, data})},
        {"no data", wire::join({result, len})},
        {"data without a name", wire::join({result, len, wire::attribute(0, Bytes(6, 9))})},
        {"return as string", wire::join({wire::field(3, "return", wire::text("7")), len, data})},
        {"return of 64 bits", wire::join({wire::field(4, "return", Bytes(8)), len, data})},
        {"len of 16 bits", wire::join({result, wire::field(6, "len", {0, 6}), data})},
        {"len of 2 bytes", wire::join({result, wire::field(5, "len", {0, 6}), data})},
        {"data beyond the message",
         wire::join({result, len, wire::hex("80 ff ff ff 00 04 64 61 74 61 00 00")})},
        {"name beyond the field", wire::join({result, len, wire::hex("80 00 00 08 ff ff 64 61")})},
        {"garbage", Bytes(64, 0xff)},
        {"zeros", Bytes(64, 0)},
    };
    for (const auto &[name, fields] : rows) {
        SCOPED_TRACE(name);
        Client client(reply_with(fields));
        EXPECT_EQ(client.call(), 0x10000010u);
        EXPECT_EQ(client.buffer, kCallerBytes);
    }
}

TEST(RpcClient, AReplyWithoutAMessageLacksItsFields)
{
    Client client(reply_with(wire::reply(7, 6, Bytes(6, 9))));
    g_answer_nothing = true;
    EXPECT_EQ(client.call(), status_of(BV_ERR_INVALID));
    EXPECT_EQ(client.buffer, kCallerBytes);
    g_answer_nothing = false;
    EXPECT_EQ(client.call(), 7u);
}

// Whatever the reply, no more is written than came, and the next call works. The sanitizers
// see to the rest.
TEST(RpcClient, DamagedRepliesEndTheirCallOnly)
{
    std::mt19937 random(20261120);
    std::vector<Replier> repliers;
    for (int i = 0; i < 1500; i++) {
        Bytes fields = wire::reply(7, 40, Bytes(40, 0x11));
        for (unsigned damage = random() % 4 + 1; damage > 0; damage--)
            fields[random() % fields.size()] = static_cast<uint8_t>(random());
        if (random() % 4 == 0)
            fields.resize(random() % fields.size());
        repliers.push_back(reply_with(fields));
    }
    repliers.push_back(reply_with(wire::reply(7, 6, Bytes(6, 9))));
    const size_t longest = wire::reply(7, 40, Bytes(40)).size();
    Client client(repliers);
    for (int i = 0; i < 1500; i++) {
        Bytes guarded(longest + 6, 0x77);
        bv_ubus_client_call("get", guarded.data(), 6);
        ASSERT_EQ(Bytes(guarded.end() - 6, guarded.end()), Bytes(6, 0x77));
    }
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(client.buffer, Bytes(6, 9));
}

TEST(RpcClient, DataOfAnyTypeIsTakenAsBytes)
{
    Client client(reply_with(
        wire::join({wire::field(3, "data", wire::text("abc")), wire::field(5, "len", wire::word(4)),
                    wire::field(5, "return", wire::word(2))})));
    EXPECT_EQ(client.call(), 2u);
    EXPECT_EQ(client.buffer, (Bytes{'a', 'b', 'c', 0, 5, 6}));
}

TEST(RpcClient, ABusStatusIsReturnedAndLeavesTheBufferAlone)
{
    for (uint32_t status : {2u, 3u, 4u, 6u, 99u, status_of(-1)}) {
        SCOPED_TRACE(status);
        Client client(status_only(status));
        EXPECT_EQ(client.call(), status);
        EXPECT_EQ(client.buffer, kCallerBytes);
    }
}

TEST(RpcClient, AStatusOtherThan0BeatsTheReplyThatCameBeforeIt)
{
    Client client([](Peer &peer, const Message &invoke) {
        peer.send_reply(invoke, wire::reply(7, 6, Bytes(6, 9)));
        peer.send_status(invoke, 4);
    });
    EXPECT_EQ(client.call(), 4u);
}

TEST(RpcClient, WithoutAReplyTheResultIsThatOfTheCallBefore)
{
    Client client({status_only(0), reply_with(wire::reply(7, 6, Bytes(6, 9))), status_only(0),
                   reply_with({}), status_only(0), status_only(2), status_only(0)});
    EXPECT_EQ(client.call(), 0u) << "there was none before";
    EXPECT_EQ(client.call(), 7u);
    client.buffer = kCallerBytes;
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(client.buffer, kCallerBytes);
    EXPECT_EQ(client.call(), 0x10000010u);
    EXPECT_EQ(client.call(), 0x10000010u);
    EXPECT_EQ(client.call(), 2u);
    EXPECT_EQ(client.call(), 0x10000010u);
}

TEST(RpcClient, OfTwoStatusesTheFirstCountsAndTheSecondDisturbsNothing)
{
    const auto two = [](uint32_t first, uint32_t second) {
        return [=](Peer &peer, const Message &invoke) {
            peer.send_reply(invoke, wire::reply(first + 100, 6, Bytes(6, 9)));
            peer.send_status(invoke, first);
            peer.send_status(invoke, second);
        };
    };
    Client client({two(0, 5), two(2, 0), two(0, 0)});
    EXPECT_EQ(client.call(), 100u);
    EXPECT_EQ(client.call(), 2u);
    EXPECT_EQ(client.call(), 100u);
}

TEST(RpcClient, OfTwoRepliesTheLastOneCounts)
{
    Client client([](Peer &peer, const Message &invoke) {
        peer.send_reply(invoke, wire::reply(7, 6, Bytes(6, 9)));
        peer.send_reply(invoke, wire::reply(8, 2, Bytes(6, 1)));
        peer.send_status(invoke, 0);
    });
    EXPECT_EQ(client.call(), 8u);
    EXPECT_EQ(client.buffer, (Bytes{1, 1, 9, 9, 9, 9}));
}

TEST(RpcClient, AnswersToNobodysCallAreIgnored)
{
    Client client([](Peer &peer, const Message &invoke) {
        Message stranger = invoke;
        stranger.sequence++;
        peer.send_reply(stranger, wire::reply(1, 6, Bytes(6, 1)));
        peer.send_status(stranger, 6);
        stranger = invoke;
        stranger.peer++;
        peer.send_reply(stranger, wire::reply(1, 6, Bytes(6, 1)));
        peer.send_status(stranger, 6);
        peer.send_reply(invoke, wire::reply(7, 6, Bytes(6, 9)));
        peer.send_status(invoke, 0);
    });
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(client.buffer, Bytes(6, 9));
}

TEST(RpcClient, GivesUpAfterThreeSecondsAndIgnoresTheLateAnswer)
{
    Message late;
    Client client({[&](Peer &, const Message &invoke) { late = invoke; },
                   [&](Peer &peer, const Message &invoke) {
                       peer.send_reply(late, wire::reply(1, 6, Bytes(6, 1)));
                       peer.send_status(late, 0);
                       peer.send_reply(invoke, wire::reply(7, 6, Bytes(6, 9)));
                       peer.send_status(invoke, 0);
                   }});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(g_timeout_ms, 3000);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(2950));
    EXPECT_LT(took, std::chrono::seconds(30));
    EXPECT_EQ(client.buffer, kCallerBytes);

    Bytes second(6, 0x22);
    EXPECT_EQ(bv_ubus_client_call("get", second.data(), 6), 7u);
    EXPECT_EQ(second, Bytes(6, 9));
    EXPECT_EQ(client.buffer, kCallerBytes);
}

TEST(RpcClient, ABusLostWhileWaitingIs10AndLaterCallsAre2)
{
    ScriptedBus bus([](Peer &peer) {
        peer.hello();
        peer.answer_lookup();
        peer.receive();
    });
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    Bytes data = kCallerBytes;
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), 6), 10u);
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), 6), 2u);
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), 6), 2u);
    EXPECT_EQ(data, kCallerBytes);
}

TEST(RpcClient, CallsWhileUnconnectedAre10)
{
    Bytes data = kCallerBytes;
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), 6), 10u);
    EXPECT_EQ(bv_ubus_client_init(nullptr), -1) << "there is no bus";
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), 6), 10u);
    {
        Client client(reply_with(wire::reply(7, 6, Bytes(6, 9))));
        EXPECT_EQ(client.call(), 7u);
    }
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), 6), 10u) << "after exit";
    EXPECT_EQ(data, kCallerBytes);
}

TEST(RpcClient, ExitWithoutAConnectionDoesNothing)
{
    bv_ubus_client_exit();
    bv_ubus_client_exit();
}

TEST(RpcClient, WhatCannotBeSentIs2AndNothingGoesOut)
{
    uint16_t sequence = 0;
    Client client([&](Peer &peer, const Message &invoke) {
        sequence = invoke.sequence;
        peer.send_reply(invoke, wire::reply(7, 0, {}));
        peer.send_status(invoke, 0);
    });
    Bytes data(2 * 1048576, 0x33);
    EXPECT_EQ(bv_ubus_client_call(nullptr, data.data(), 6), 2u);
    EXPECT_EQ(bv_ubus_client_call("get", nullptr, 6), 2u);
    for (uint32_t length : {1048576u, 1048577u, 2097152u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(bv_ubus_client_call("get", data.data(), length), 2u);
    }
    EXPECT_EQ(bv_ubus_client_call(std::string(1100000, 'n').c_str(), data.data(), 6), 2u);
    EXPECT_EQ(bv_ubus_client_call(std::string(17000000, 'n').c_str(), data.data(), 6), 2u);
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(sequence, 2) << "the look-up was 1";
}

// The buffer of requests never shrinks: one absurd name must not cost the process 16 MiB for good.
TEST(RpcClient, ANameLongerThanAMessageIsNotEvenBuilt)
{
    Client client(reply_with(wire::reply(7, 6, Bytes(6, 9))));
    {
        FailReallocations failing;
        for (size_t length : {1048576, 1100000, 16777180, 16777204, 17000000}) {
            SCOPED_TRACE(length);
            EXPECT_EQ(bv_ubus_client_call(std::string(length, 'n').c_str(), client.buffer.data(),
                                          client.length()),
                      2u);
        }
        EXPECT_EQ(failing.happened(), 0u);
    }
    EXPECT_EQ(client.call(), 7u);
}

TEST(RpcClient, NoMemoryForTheRequestIs2AndTheNextCallWorks)
{
    Client client(reply_with(wire::reply(7, 6, Bytes(6, 9))));
    Bytes data(5000, 0x33);
    for (uint32_t length : {1u, 5000u}) { // the buffer's first bytes, and its growth
        FailReallocations failing;
        EXPECT_EQ(bv_ubus_client_call("get", data.data(), length), 2u);
        EXPECT_GT(failing.happened(), 0u);
    }
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(client.buffer, Bytes(6, 9));
}

TEST(RpcClient, ALargeCallTravels)
{
    Bytes seen;
    Client client([&](Peer &peer, const Message &invoke) {
        seen = invoke.payload(wire::kAttrData);
        peer.send_reply(invoke, wire::reply(7, 1000000, Bytes(1000000, 0x44)));
        peer.send_status(invoke, 0);
    });
    client.buffer.assign(1000000, 0x33);
    EXPECT_EQ(client.call(), 7u);
    EXPECT_TRUE(client.buffer == Bytes(1000000, 0x44));
    EXPECT_TRUE(seen == wire::request("get", 1000000, Bytes(1000000, 0x33)));
}

// 128 bytes below what the bus takes: the daemon adds the caller's account names on the way.
TEST(RpcClient, RoomForAccountNamesIsLeftInTheLongestCall)
{
    size_t body = 0;
    uint16_t sequence = 0;
    Client client([&](Peer &peer, const Message &invoke) {
        body = invoke.attributes.size() + 4;
        sequence = invoke.sequence;
        peer.send_reply(invoke, wire::reply(7, 0, {}));
        peer.send_status(invoke, 0);
    });
    const uint32_t around =
        4 + 8 + 12 + 4 + 16 + 16 + 12; // body, object, method, arguments, fields
    const uint32_t longest = 1048576 - 128 - around;
    Bytes data(longest + 1, 0x33);
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), longest + 1), 2u);
    EXPECT_EQ(bv_ubus_client_call("get_", data.data(), longest), 2u);
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), longest), 7u);
    EXPECT_EQ(body, 1048576u - 128);
    EXPECT_EQ(sequence, 2) << "the refused ones went nowhere";
}

TEST(RpcClient, AShortCallBehindALongOneSendsNothingOfIt)
{
    Bytes seen;
    Client client({reply_with(wire::reply(7, 0, {})), [&](Peer &peer, const Message &invoke) {
                       seen = invoke.payload(wire::kAttrData);
                       peer.send_status(invoke, 0);
                   }});
    Bytes data(3000, 0x33);
    EXPECT_EQ(bv_ubus_client_call("a_rather_long_name_of_a_function", data.data(), 3000), 7u);
    EXPECT_EQ(client.call(), 7u);
    EXPECT_EQ(wire::to_hex(seen), wire::to_hex(wire::request("get", 6, kCallerBytes)));
}

TEST(RpcClient, AFailedLookUpIsNoFailureAndCallsGoToObject0)
{
    Message invoke;
    ScriptedBus bus([&](Peer &peer) {
        peer.hello();
        peer.send_status(peer.receive(), 4);
        invoke = peer.receive();
        peer.send_status(invoke, 4);
    });
    EXPECT_EQ(bv_ubus_client_init("nobody"), 0);
    Bytes data = kCallerBytes;
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), 6), 4u);
    bv_ubus_client_exit();
    bus.join();
    EXPECT_EQ(invoke.number(wire::kAttrObjectId), 0u);
}

TEST(RpcClient, ASecondInitFreesTheFirstConnectionAndForgetsItsObject)
{
    bool closed = false;
    Message invoke;
    ScriptedBus bus({[&](Peer &peer) {
                         peer.hello();
                         peer.answer_lookup();
                         closed = wire::closed_by_peer(peer.fd());
                     },
                     [&](Peer &peer) {
                         peer.hello();
                         // Found, but invisible: success that names no object.
                         peer.send_status(peer.receive(), 0);
                         invoke = peer.receive();
                         peer.send_status(invoke, 4);
                     }});
    EXPECT_EQ(bv_ubus_client_init(nullptr), 0);
    EXPECT_EQ(bv_ubus_client_init(nullptr), 0);
    Bytes data = kCallerBytes;
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), 6), 4u);
    bv_ubus_client_exit();
    bus.join();
    EXPECT_TRUE(closed);
    EXPECT_EQ(invoke.number(wire::kAttrObjectId), 0u);
}

TEST(RpcClient, AFailedSecondInitLeavesTheClientUnconnected)
{
    {
        ScriptedBus bus([](Peer &peer) {
            peer.hello();
            peer.answer_lookup();
        });
        EXPECT_EQ(bv_ubus_client_init(nullptr), 0);
    }
    EXPECT_EQ(bv_ubus_client_init(nullptr), -1);
    Bytes data = kCallerBytes;
    EXPECT_EQ(bv_ubus_client_call("get", data.data(), 6), 10u);
}

TEST(RpcClient, ConnectingTakesDefaultSignalsOverAndLeavesOthersAlone)
{
    signal(SIGINT, SIG_IGN);
    Client client(status_only(0));
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
