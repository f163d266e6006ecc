// SPDX-License-Identifier: ISC
// The client library against a daemon played by the test: what it sends, and how it handles what
// arrives.

#include <algorithm>
#include <chrono>
#include <csignal>

#include <fcntl.h>
#include <gtest/gtest.h>

#include "fake_bus.h"
#include "support/child.h"
#include "support/faults.h"

// Sees whether the library touches the loop's descriptors.
int g_loop_deletions;
extern "C" int uloop_fd_delete(struct uloop_fd *sock)
{
    g_loop_deletions++;
    return next_function<int(struct uloop_fd *)>("uloop_fd_delete")(sock);
}

using namespace wire;

namespace {

constexpr uint32_t kObject = 0x11223344;
constexpr uint32_t kCaller = 0x55667788;

struct blob_buf g_buf;

struct blob_attr *payload(size_t length)
{
    std::string bytes(length, 'x');
    blob_buf_init(&g_buf, 0);
    blob_put_raw(&g_buf, attribute(5, Bytes(length - 4, 7)).data(), unsigned(length));
    return g_buf.head;
}

long elapsed_ms(std::chrono::steady_clock::time_point since)
{
    return long(std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::steady_clock::now() - since)
                    .count());
}

// ---- connecting

TEST(Connect, GivesUpWithoutADaemon)
{
    EXPECT_EQ(ubus_connect("/scratch/nothing.sock"), nullptr);
    EXPECT_EQ(ubus_connect(nullptr), nullptr);
    EXPECT_EQ(ubus_connect(("/scratch/" + std::string(120, 'x')).c_str()), nullptr);
    // The loop is set up nevertheless.
    struct sigaction action;
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST(Connect, LeavesASocketThatNeitherBlocksNorIsInherited)
{
    FakeBus bus;
    struct ubus_context *ctx = bus.connect();
    ASSERT_NE(ctx, nullptr);
    EXPECT_NE(fcntl(ctx->sock.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(ctx->sock.fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(ctx->sock.cb, nullptr);
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_EQ(ctx->request_seq, 0);
    ubus_add_uloop(ctx);
    EXPECT_TRUE(ctx->sock.registered);

    ubus_free(ctx);
    EXPECT_TRUE(bus.stream().ends()); // and nothing was sent
    ubus_free(nullptr);
}

// A program's output must go neither to the bus nor to the loop.
TEST(Connect, LeavesClosedStandardDescriptorsClosed)
{
    FakeBus bus;
    for (bool loop_is_open : {false, true}) {
        Child child([&] {
            if (loop_is_open)
                uloop_init();
            for (int fd = 0; fd < 3; fd++)
                close(fd);
            struct ubus_context *ctx = ubus_connect(FakeBus::kPath);
            bool fine = ctx != nullptr && (fcntl(ctx->sock.fd, F_GETFD) & FD_CLOEXEC) != 0;
            for (int fd = 0; fd < 3; fd++)
                fine = fine && fcntl(fd, F_GETFD) == -1;
            return fine ? 0 : 1;
        });
        bus.accept_and_greet();
        EXPECT_EQ(child.wait(), 0) << loop_is_open;
    }
}

// It may belong to another thread than the loop.
TEST(Connect, ConnectionOutsideTheLoopKeepsOutOfIt)
{
    FakeBus bus;
    struct ubus_context *ctx = bus.connect();
    ASSERT_NE(ctx, nullptr);
    uint32_t id = 0;
    bus.send(Bytes(12, 0xff)); // not a message: the library ends the connection
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 10);
    ubus_free(ctx);
    EXPECT_EQ(g_loop_deletions, 0);

    ctx = bus.connect();
    ASSERT_NE(ctx, nullptr);
    ubus_add_uloop(ctx);
    ubus_free(ctx);
    EXPECT_EQ(g_loop_deletions, 1);
}

TEST(Connect, RefusesMalformedGreetings)
{
    FakeBus bus;
    Bytes wrong_version = message(kHello, 0, 0x12345678);
    wrong_version[0] = 1;
    EXPECT_EQ(bus.greet({wrong_version}), nullptr);
    EXPECT_EQ(bus.greet({message(kPing, 0, 0x12345678)}), nullptr);
    EXPECT_EQ(bus.greet({message(kHello, 0, 0)}), nullptr);
    EXPECT_EQ(bus.greet({Bytes{0, kHello, 0, 0, 9, 9, 9, 9, 0, 0, 0, 3}}), nullptr);
}

TEST(Connect, TakesAGreetingInPiecesAndWithABody)
{
    FakeBus bus;
    Bytes hello = message(kHello, 0, 0x12345678, attribute(kAttrUser, text("somebody")));
    struct ubus_context *ctx =
        bus.greet({Bytes(hello.begin(), hello.begin() + 5), Bytes(hello.begin() + 5, hello.end())});
    ASSERT_NE(ctx, nullptr);
    bus.send_status(1, 0, 4);
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 4);
    ubus_free(ctx);
}

// ---- requests

class Request : public testing::Test {
protected:
    void SetUp() override
    {
        ctx = bus.connect();
        ASSERT_NE(ctx, nullptr);
    }
    void TearDown() override
    {
        if (ctx != nullptr)
            ubus_free(ctx);
        blob_buf_free(&g_buf);
    }

    int call(int timeout = 5000, ubus_data_handler_t cb = nullptr, void *priv = nullptr)
    {
        return ubus_invoke(ctx, kObject, "m", nullptr, cb, priv, timeout);
    }
    bool send_data(uint16_t seq, const Bytes &fields)
    {
        return bus.send(message(kData, seq, kObject, attribute(kAttrData, fields)));
    }

    FakeBus bus;
    struct ubus_context *ctx = nullptr;
};

void collect(struct ubus_request *req, int, struct blob_attr *msg)
{
    auto *data = static_cast<const uint8_t *>(blob_data(msg));
    static_cast<std::vector<Bytes> *>(req->priv)->emplace_back(data, data + blob_len(msg));
}

TEST_F(Request, MatchesAnswersByNumberAndPeer)
{
    std::vector<Bytes> got;
    bus.send_status(2, kObject, 1);     // another number
    bus.send_status(1, kObject + 1, 1); // another object
    send_data(9, {1, 2, 3, 4});
    bus.send(message(kPing, 1, kObject) + message(77, 1, kObject) + message(kHello, 1, kObject) +
             message(kMonitor, 1, kObject));
    send_data(1, {5, 6, 7, 8});
    bus.send_status(1, kObject, 99);
    EXPECT_EQ(call(5000, collect, &got), 99);
    EXPECT_EQ(got, std::vector<Bytes>({{5, 6, 7, 8}}));
}

// Daemons pass the version byte on as the other service wrote it: that must not end a connection.
TEST_F(Request, VersionByteOfAnAnswerIsIgnored)
{
    std::vector<Bytes> got;
    Bytes data = message(kData, 1, kObject, attribute(kAttrData, {5, 6, 7, 8}));
    Bytes status = message(kStatus, 1, kObject, attribute(kAttrStatus, word(99)));
    data[0] = 1;
    status[0] = 255;
    bus.send(data + status);
    EXPECT_EQ(call(5000, collect, &got), 99);
    EXPECT_EQ(got.size(), 1u);
}

TEST_F(Request, PassesAnyStatusNumberUnchanged)
{
    bus.send_status(1, kObject, 0xffffffff);
    EXPECT_EQ(call(), -1);
    bus.send_status(2, kObject, 0x80000000);
    EXPECT_EQ(call(), INT32_MIN);
    bus.send(message(kStatus, 3, kObject)); // none at all
    EXPECT_EQ(call(), 2);
}

TEST_F(Request, ToleratesASecondStatusAndLateData)
{
    std::vector<Bytes> got;
    bus.send_status(1, kObject, 0);
    bus.send_status(1, kObject, 5);
    send_data(1, {1, 2, 3, 4});
    EXPECT_EQ(call(5000, collect, &got), 0);
    send_data(1, {1, 2, 3, 4});
    bus.send_status(1, kObject, 5);
    bus.send_status(2, kObject, 3);
    EXPECT_EQ(call(5000, collect, &got), 3);
    EXPECT_TRUE(got.empty());
}

TEST_F(Request, RunsTheDataHandlerForEveryPiece)
{
    std::vector<Bytes> got;
    send_data(1, {});
    send_data(1, {1, 2, 3, 4});
    bus.send(message(kData, 1, kObject)); // nothing in it
    send_data(1, Bytes(100000, 9));
    bus.send_status(1, kObject, 4);
    EXPECT_EQ(call(5000, collect, &got), 4);
    EXPECT_EQ(got, std::vector<Bytes>({{}, {1, 2, 3, 4}, Bytes(100000, 9)}));
    send_data(2, {1, 2, 3, 4});
    bus.send_status(2, kObject, 0);
    EXPECT_EQ(call(), 0); // without a handler
}

TEST_F(Request, TakesAnAnswerByteByByte)
{
    std::vector<Bytes> got;
    std::thread daemon([&] {
        Bytes all = message(kData, 1, kObject, attribute(kAttrData, {1, 2, 3, 4})) +
                    message(kStatus, 1, kObject, attribute(kAttrStatus, word(6)));
        for (uint8_t byte : all)
            bus.send({byte});
    });
    EXPECT_EQ(call(5000, collect, &got), 6);
    daemon.join();
    EXPECT_EQ(got.size(), 1u);
}

TEST_F(Request, NumbersWrapFrom65535To0)
{
    ctx->request_seq = 65534;
    for (uint16_t seq : {65535, 0, 1}) {
        bus.send_status(seq, kObject, 0);
        EXPECT_EQ(call(), 0);
        EXPECT_EQ(bus.read().sequence, seq);
    }
}

TEST_F(Request, TooLargeARequestIsNotSentAndTakesNoNumber)
{
    // Body word, object id, method "m" and the first word of the fields around the payload.
    constexpr size_t kRoom = 1048576 - 4 - 8 - 8 - 4;
    EXPECT_EQ(ubus_invoke(ctx, kObject, "m", payload(kRoom + 4), nullptr, nullptr, 5000), 2);
    EXPECT_TRUE(bus.stream().is_silent(20));

    std::thread daemon([&] {
        Message got = bus.read();
        EXPECT_EQ(got.sequence, 1u);
        EXPECT_EQ(got.bytes().size(), 1048576u + 8);
        bus.send_status(1, kObject, 0);
    });
    EXPECT_EQ(ubus_invoke(ctx, kObject, "m", payload(kRoom), nullptr, nullptr, 5000), 0);
    daemon.join();
}

TEST_F(Request, PadsNameAndFieldsWithZeros)
{
    for (size_t length = 1; length <= 9; length++) {
        std::string method(length, 'm');
        Bytes fields(length, 0xee);
        blob_buf_init(&g_buf, 3);
        blob_put_raw(&g_buf, attribute(1, fields).data(), unsigned(4 + length));
        bus.send_status(uint16_t(length), kObject, 0);
        EXPECT_EQ(ubus_invoke(ctx, kObject, method.c_str(), g_buf.head, nullptr, nullptr, 0), 0);
        Bytes raw = attribute(1, fields);
        raw.resize(4 + length);
        EXPECT_EQ(to_hex(bus.read().bytes()),
                  to_hex(invoke(uint16_t(length), kObject, method, raw)));
    }
}

TEST_F(Request, EndsAtItsTimeOutAndTheConnectionGoesOn)
{
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call(100), 7);
    EXPECT_GE(elapsed_ms(start), 100);
    EXPECT_LT(elapsed_ms(start), 5000);
    bus.read();
    EXPECT_TRUE(bus.stream().is_silent(20)); // nothing is sent on expiry
    bus.send_status(1, kObject, 0);          // late
    bus.send_status(2, kObject, 3);
    EXPECT_EQ(call(), 3);
}

TEST_F(Request, HalfMessageDoesNotHoldUpATimeOut)
{
    Bytes status = message(kStatus, 2, kObject, attribute(kAttrStatus, word(3)));
    bus.send(Bytes(status.begin(), status.begin() + 14));
    EXPECT_EQ(call(50), 7);
    bus.send(Bytes(status.begin() + 14, status.end()));
    EXPECT_EQ(call(), 3); // still in step
}

TEST_F(Request, NegativeTimeOutSendsAndLeaves)
{
    EXPECT_EQ(call(-1), 7);
    EXPECT_EQ(bus.read().type, kInvoke);
}

TEST_F(Request, NoTimeOutWaitsAndLargeOnesDoNotOverflow)
{
    for (int timeout : {0, INT32_MAX}) {
        const auto sequence = static_cast<uint16_t>(ctx->request_seq + 1);
        std::thread daemon([&] {
            usleep(150000);
            bus.send_status(sequence, kObject, 8);
        });
        EXPECT_EQ(call(timeout), 8);
        daemon.join();
    }
}

TEST_F(Request, SignalsDoNotEndAWait)
{
    uloop_init();
    pthread_t waiter = pthread_self();
    std::thread daemon([&] {
        for (int number : {SIGTERM, SIGINT}) {
            usleep(30000);
            pthread_kill(waiter, number);
        }
        usleep(30000);
        bus.send_status(1, kObject, 8);
    });
    EXPECT_EQ(call(0), 8);
    daemon.join();
}

TEST_F(Request, WaitsForADaemonThatDoesNotRead)
{
    std::thread daemon([&] {
        usleep(200000);
        EXPECT_EQ(bus.read().bytes().size() % 4, 0u);
        bus.send_status(1, kObject, 0);
    });
    EXPECT_EQ(ubus_invoke(ctx, kObject, "m", payload(1000000), nullptr, nullptr, 5000), 0);
    daemon.join();
}

int g_broken;

TEST_F(Request, DaemonThatNeverReadsEndsACallInTimeAndTheConnection)
{
    ctx->connection_lost = [](struct ubus_context *) { g_broken++; };
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ubus_invoke(ctx, kObject, "m", payload(1000000), nullptr, nullptr, 200), 7);
    EXPECT_GE(elapsed_ms(start), 200);
    EXPECT_LT(elapsed_ms(start), 10000);
    EXPECT_EQ(g_broken, 1);
    EXPECT_TRUE(bus.stream().ends()); // after half a message
    EXPECT_EQ(call(), 2);
    EXPECT_EQ(g_broken, 1);
}

TEST_F(Request, CallThatExpiresBeforeAnyOfItIsSentLeavesTheConnectionUsable)
{
    ctx->connection_lost = [](struct ubus_context *) { g_broken++; };
    const Bytes ping = message(kPing, 1, 2);
    unsigned sent = 0;
    while (send(ctx->sock.fd, ping.data(), ping.size(), MSG_DONTWAIT) > 0)
        sent++;
    EXPECT_EQ(call(50), 7);
    EXPECT_EQ(g_broken, 0);
    for (unsigned i = 0; i < sent; i++)
        ASSERT_EQ(bus.read().bytes(), ping);
    bus.send_status(2, kObject, 3);
    EXPECT_EQ(call(), 3);
}

TEST_F(Request, LookUpWritesTheIdOnlyWhenThereIsOne)
{
    uint32_t id = 77;
    bus.send_status(1, 0, 0); // hidden: found, but not described
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 0);
    EXPECT_EQ(id, 77u);
    bus.send_status(2, 0, 4);
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 4);
    EXPECT_EQ(id, 77u);
    bus.send(message(kData, 3, 0, attribute(kAttrObjectId, word(1111))));
    bus.send(message(kData, 3, 0, attribute(kAttrObjectId, word(2222))));
    bus.send_status(3, 0, 0);
    EXPECT_EQ(ubus_lookup_id(ctx, "x*", &id), 0);
    EXPECT_EQ(id, 2222u);
}

TEST_F(Request, ObjectWithoutAnIdInTheAnswerIsNotPublished)
{
    struct ubus_object object = {};
    bus.send_status(1, 0, 0);
    EXPECT_EQ(ubus_add_object(ctx, &object), 5);
    EXPECT_EQ(object.id, 0u);
}

// ---- what is published

int nothing(struct ubus_context *, struct ubus_object *, struct ubus_request_data *, const char *,
            struct blob_attr *)
{
    return 0;
}

TEST_F(Request, PublishesNoNameWithoutAType)
{
    struct ubus_object object = {};
    object.name = "x";
    bus.send(message(kData, 1, 0, attribute(kAttrObjectId, word(kObject))));
    bus.send_status(1, 0, 0);
    EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    EXPECT_EQ(bus.read().bytes(), message(kAddObject, 1, 0));
}

TEST_F(Request, PublishesMaskedParametersAndATypeOnlyOnce)
{
    static const struct blobmsg_policy policy[] = {
        {"a", BLOBMSG_TYPE_STRING}, {"b", BLOBMSG_TYPE_INT32}, {"c", BLOBMSG_TYPE_BOOL}};
    static const struct ubus_method methods[] = {
        UBUS_METHOD_MASK("some", nothing, policy, 5),
        UBUS_METHOD_NOARG("none", nothing),
        UBUS_METHOD_TAG("tagged", nothing, policy, UBUS_TAG_ADMIN),
        UBUS_METHOD_TAG_NOARG("short", nothing, UBUS_TAG_PRIVATE),
    };
    struct ubus_object_type type = UBUS_OBJECT_TYPE("type", methods);
    struct ubus_object one = {}, two = {};
    one.name = "one";
    two.name = "two";
    one.type = two.type = &type;

    Bytes a = field(5, "a", word(3)), b = field(5, "b", word(5)), c = field(5, "c", word(7));
    bus.send(message(kData, 1, 0,
                     attribute(kAttrObjectId, word(1)) + attribute(kAttrObjectType, word(0x4321))));
    bus.send_status(1, 0, 0);
    EXPECT_EQ(ubus_add_object(ctx, &one), 0);
    EXPECT_EQ(to_hex(bus.read().bytes()),
              to_hex(add_object(1, "one",
                                field(2, "some", a + c) + field(2, "none", {}) +
                                    field(2, "tagged", a + b + c) + field(2, "short", {}))));
    EXPECT_EQ(type.id, 0x4321u);

    EXPECT_EQ(bus.publish(ctx, &two, 2, 2), 0);
    EXPECT_EQ(two.id, 2u);
    ubus_free(ctx);
    ctx = bus.connect(); // the type's id is stale now, and used
    bus.send(message(kData, 1, 0, attribute(kAttrObjectId, word(2))));
    bus.send_status(1, 0, 0);
    EXPECT_EQ(ubus_add_object(ctx, &two), 0);
    EXPECT_EQ(bus.read().bytes(), message(kAddObject, 1, 0,
                                          attribute(kAttrObjectPath, text("two")) +
                                              attribute(kAttrObjectType, word(0x4321))));
}

// A look-up without its path would ask for everything, and an object without its name would be
// hidden, so neither is sent when memory is short.
TEST_F(Request, RequestIsNotSentInPartWhenMemoryIsShort)
{
    static const struct blobmsg_policy policy[] = {{"parameter", BLOBMSG_TYPE_STRING}};
    static const struct ubus_method methods[] = {UBUS_METHOD("method", nothing, policy)};
    struct ubus_object_type type = UBUS_OBJECT_TYPE("type", methods);
    struct ubus_object object = {};
    EXPECT_EQ(bus.publish(ctx, &object, 1, kObject), 0);
    object.type = &type;
    {
        FailReallocations failing; // a request's first 256 bytes are there, it cannot grow
        // In turn the name, the signature, a table and a parameter do not fit.
        for (size_t length : {1000, 244, 232, 224}) {
            SCOPED_TRACE(length);
            std::string name(length, 'n');
            object.name = name.c_str();
            EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_NO_MEMORY);
        }
        EXPECT_EQ(failing.happened(), 4);
        uint32_t id = 7;
        EXPECT_EQ(ubus_lookup_id(ctx, std::string(1000, 'n').c_str(), &id), UBUS_STATUS_NO_MEMORY);
        EXPECT_EQ(id, 7u);
    }
    object.name = "x";
    EXPECT_EQ(bus.publish(ctx, &object, 2, kObject), 0) << "the next that goes out";
}

// ---- calls from others

struct Seen {
    std::vector<std::string> methods;
    struct ubus_request_data request;
    int depth;
    int deepest;
    int result;
    bool call_out;
};
Seen g_seen;

int serve(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
          const char *method, struct blob_attr *msg)
{
    g_seen.depth++;
    g_seen.deepest = std::max(g_seen.deepest, g_seen.depth);
    g_seen.request = *req;
    if (g_seen.call_out && g_seen.methods.empty()) {
        Bytes before(static_cast<uint8_t *>(blob_data(msg)),
                     static_cast<uint8_t *>(blob_data(msg)) + blob_len(msg));
        g_seen.methods.push_back(method);
        EXPECT_EQ(ubus_invoke(ctx, 99, "other", nullptr, nullptr, nullptr, 5000), 44);
        EXPECT_EQ(method, g_seen.methods[0]); // still there
        EXPECT_EQ(memcmp(before.data(), blob_data(msg), before.size()), 0);
    } else {
        g_seen.methods.push_back(method);
    }
    g_seen.depth--;
    return g_seen.result;
}

int g_lost;
bool g_lost_eof, g_lost_error, g_lost_registered;

class Owner : public Request {
protected:
    void SetUp() override
    {
        Request::SetUp();
        g_lost = 0;
        g_seen = {};
        g_seen.result = 33;
        any.handler = serve;
        object.name = "name";
        object.methods = &any;
        object.n_methods = 1;
        ASSERT_EQ(bus.publish(ctx, &object, 1, kObject), 0);
    }

    // What the library says to one message.
    Message react(const Bytes &bytes)
    {
        bus.send(bytes);
        ubus_handle_event(ctx);
        return bus.stream().is_silent(20) ? Message{} : bus.read();
    }
    static Bytes status(uint16_t seq, uint32_t peer, uint32_t value, uint32_t id)
    {
        return message(kStatus, seq, peer,
                       attribute(kAttrStatus, word(value)) + attribute(kAttrObjectId, word(id)));
    }
    static Bytes incoming(uint16_t seq, const std::string &method, const Bytes &fields = {})
    {
        Bytes bytes = invoke(seq, kObject, method, fields);
        Bytes peer = word(kCaller);
        std::copy(peer.begin(), peer.end(), bytes.begin() + 4);
        return bytes;
    }

    struct ubus_method any = {};
    struct ubus_object object = {};
};

TEST_F(Owner, AnswersCallsItCannotServe)
{
    Bytes id = attribute(kAttrObjectId, word(kObject)), method = attribute(kAttrMethod, text("m"));
    Bytes data = attribute(kAttrData, {});
    // These two reach no client: they name no caller.
    EXPECT_EQ(react(invoke(5, 4711, "m")).bytes(), status(0, 0, 4, 0));
    EXPECT_EQ(react(message(kInvoke, 5, kCaller, id + data)).bytes(), status(0, 0, 2, 0));
    EXPECT_EQ(react(message(kInvoke, 5, kCaller, id + method)).bytes(),
              status(5, kCaller, 2, kObject));
    EXPECT_TRUE(react(message(kInvoke, 5, kCaller, method + data)).empty());
    EXPECT_TRUE(g_seen.methods.empty());

    any.name = "only";
    EXPECT_EQ(react(incoming(6, "m")).bytes(), status(6, kCaller, 3, kObject));
    EXPECT_EQ(react(incoming(7, "only")).bytes(), status(7, kCaller, 33, kObject));
    EXPECT_EQ(g_seen.methods, std::vector<std::string>{"only"});
}

TEST_F(Owner, DoesNotAnswerWhenNoReplyIsWanted)
{
    Bytes call = message(kInvoke, 5, kCaller,
                         attribute(kAttrNoReply, {1}) + attribute(kAttrObjectId, word(kObject)) +
                             attribute(kAttrMethod, text("m")) + attribute(kAttrData, {}));
    EXPECT_TRUE(react(call).empty());
    EXPECT_EQ(g_seen.methods.size(), 1u);
    call[16] = 0; // NO_REPLY = 0
    EXPECT_EQ(react(call).type, kStatus);
}

TEST_F(Owner, KnowsTheCallerOnlyWhenBothNamesCome)
{
    Bytes rest = attribute(kAttrObjectId, word(kObject)) + attribute(kAttrMethod, text("m")) +
                 attribute(kAttrData, {});
    react(message(kInvoke, 5, kCaller, attribute(kAttrUser, text("u")) + rest));
    EXPECT_EQ(g_seen.request.acl.user, nullptr);
    EXPECT_EQ(g_seen.request.acl.object, nullptr);
    react(message(kInvoke, 5, kCaller,
                  attribute(kAttrUser, text("u")) + attribute(kAttrGroup, text("g")) + rest));
    EXPECT_NE(g_seen.request.acl.user, nullptr);
    EXPECT_EQ(g_seen.request.acl.object, object.name);
    EXPECT_EQ(g_seen.request.peer, kCaller);
    EXPECT_EQ(g_seen.request.seq, 5);
    EXPECT_EQ(g_seen.request.object, kObject);
}

int g_state_changes;

void state_changed(struct ubus_context *, struct ubus_object *)
{
    g_state_changes++;
}

TEST_F(Owner, LearnsWhetherItIsWatched)
{
    object.subscribe_cb = state_changed;
    for (uint8_t active : {1, 0}) {
        EXPECT_TRUE(react(message(kNotify, 1, 0,
                                  attribute(kAttrObjectId, word(kObject)) +
                                      attribute(kAttrActive, {active})))
                        .empty());
        EXPECT_EQ(object.has_subscribers, active == 1);
    }
    EXPECT_EQ(g_state_changes, 2);
    EXPECT_TRUE(
        react(message(kUnsubscribe, 1, 0, attribute(kAttrObjectId, word(kObject)))).empty());
}

TEST_F(Owner, CallsArrivingDuringARequestAreServedAfterItInOrder)
{
    bus.send(incoming(1, "first") + incoming(2, "second"));
    bus.send_status(2, kObject + 1, 6);
    bus.send(incoming(3, "third"));
    EXPECT_EQ(ubus_invoke(ctx, kObject + 1, "m", nullptr, nullptr, nullptr, 5000), 6);
    // Not in the loop: served before the request returned.
    EXPECT_EQ(g_seen.methods, (std::vector<std::string>{"first", "second", "third"}));
    EXPECT_EQ(bus.read().type, kInvoke);
    for (uint16_t seq : {1, 2, 3})
        EXPECT_EQ(bus.read().bytes(), status(seq, kCaller, 33, kObject));
}

// While a handler waits for an answer of its own, any client can send it calls.
TEST_F(Owner, FloodDuringARequestIsLimitedAndEveryCallerIsServed)
{
    constexpr unsigned kCalls = 4000;
    std::thread daemon([&] {
        const Bytes flood = incoming(1, "flood", Bytes(1000, 1));
        for (unsigned i = 0; i < kCalls; i++)
            bus.send(flood);
        Bytes honest = incoming(1, "honest");
        honest[7] ^= 1; // of another caller
        bus.send(honest);
        bus.send_status(2, kObject + 1, 6);
        while (!bus.stream().is_silent(500)) // what the handlers answer
            bus.read();
    });
    EXPECT_EQ(ubus_invoke(ctx, kObject + 1, "m", nullptr, nullptr, nullptr, 50000), 6);
    daemon.join();
    EXPECT_GE(g_seen.methods.size(), 1000u);
    EXPECT_LT(g_seen.methods.size(), 1100u);
    EXPECT_EQ(g_seen.methods.back(), "honest");
}

TEST_F(Owner, PostponedCallsAreServedByTheLoop)
{
    ubus_add_uloop(ctx);
    bus.send(incoming(1, "first"));
    bus.send_status(2, kObject + 1, 6);
    EXPECT_EQ(ubus_invoke(ctx, kObject + 1, "m", nullptr, nullptr, nullptr, 5000), 6);
    EXPECT_TRUE(g_seen.methods.empty());
    uloop_run_timeout(50);
    uloop_run_timeout(0);
    EXPECT_EQ(g_seen.methods, std::vector<std::string>{"first"});
}

TEST_F(Owner, LaterCallDoesNotOvertakePostponedOnes)
{
    ubus_add_uloop(ctx);
    bus.send(incoming(1, "first"));
    bus.send_status(2, kObject + 1, 6);
    EXPECT_EQ(ubus_invoke(ctx, kObject + 1, "m", nullptr, nullptr, nullptr, 5000), 6);
    bus.send(incoming(2, "second"));
    ubus_handle_event(ctx);
    EXPECT_EQ(g_seen.methods, (std::vector<std::string>{"first", "second"}));
}

TEST_F(Owner, HandlersMayCallButAreNeverNested)
{
    g_seen.call_out = true;
    Bytes fields = field(3, "text", text("must stay"));
    bus.send(incoming(1, "outer", fields) + incoming(2, "inner"));
    // Much more than the buffer, so that nested reading needs another one.
    for (int i = 0; i < 3; i++)
        bus.send(message(kData, 2, 99, attribute(kAttrData, Bytes(40000, 1))));
    bus.send_status(2, 99, 44);
    ubus_handle_event(ctx);
    EXPECT_EQ(g_seen.methods, (std::vector<std::string>{"outer", "inner"}));
    EXPECT_EQ(g_seen.deepest, 1);
    EXPECT_EQ(bus.read().type, kInvoke);
    EXPECT_EQ(bus.read().bytes(), status(1, kCaller, 33, kObject));
    EXPECT_EQ(bus.read().bytes(), status(2, kCaller, 33, kObject));
}

TEST_F(Owner, ServesEverythingThatCameInOneRead)
{
    Bytes burst;
    for (uint16_t seq = 1; seq <= 200; seq++)
        burst = burst + incoming(seq, "m", Bytes(seq % 16 * 4, 0));
    bus.send(burst);
    ubus_handle_event(ctx);
    for (uint16_t seq = 1; seq <= 200; seq++)
        ASSERT_EQ(bus.read().bytes(), status(seq, kCaller, 33, kObject));
}

TEST_F(Owner, AnswersInAnyNumberOfPiecesAtOnce)
{
    struct ubus_request_data call = {};
    call.object = kObject;
    call.peer = kCaller;
    call.seq = 12;
    EXPECT_EQ(ubus_send_reply(ctx, &call, nullptr), 0);
    EXPECT_EQ(bus.read().bytes(),
              message(kData, 12, kCaller,
                      attribute(kAttrObjectId, word(kObject)) + attribute(kAttrData, {})));
    ubus_complete_deferred_request(ctx, &call, -1);
    EXPECT_EQ(bus.read().bytes(), status(12, kCaller, 0xffffffff, kObject));

    struct ubus_request_data copy = {};
    ubus_defer_request(ctx, &call, &copy);
    EXPECT_TRUE(call.deferred);
    EXPECT_FALSE(copy.deferred);
    EXPECT_EQ(copy.seq, call.seq);
}

// ---- losing the connection

void note_loss(struct ubus_context *ctx)
{
    g_lost++;
    g_lost_eof = ctx->sock.eof;
    g_lost_error = ctx->sock.error;
    g_lost_registered = ctx->sock.registered;
}

TEST_F(Owner, DeadConnectionFailsEveryRequest)
{
    struct ubus_request_data call = {};
    uint32_t id = 5;
    ctx->connection_lost = note_loss;
    bus.hang_up();
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(this->call(), 2);
        EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 2);
        EXPECT_EQ(ubus_remove_object(ctx, &object), 2);
        EXPECT_EQ(ubus_add_object(ctx, &object), 2);
        EXPECT_EQ(ubus_send_reply(ctx, &call, nullptr), 5);
    }
    EXPECT_EQ(g_lost, 0);
    EXPECT_EQ(id, 5u);
}

TEST_F(Owner, LossWhileWaitingIsReportedAtOnce)
{
    ctx->connection_lost = note_loss;
    std::thread daemon([&] {
        bus.read();
        usleep(20000);
        bus.hang_up();
    });
    EXPECT_EQ(call(0), 10);
    daemon.join();
    EXPECT_EQ(g_lost, 1);
    EXPECT_TRUE(g_lost_eof);
    EXPECT_EQ(call(), 2);
    EXPECT_EQ(g_lost, 1);
}

TEST_F(Owner, LossInTheLoopIsReportedOnceAfterWhatWasSaidBefore)
{
    ctx->connection_lost = note_loss;
    ubus_add_uloop(ctx);
    bus.send(incoming(1, "last words"));
    bus.hang_up();
    for (int i = 0; i < 5; i++)
        uloop_run_timeout(0);
    EXPECT_EQ(g_seen.methods, std::vector<std::string>{"last words"});
    EXPECT_EQ(g_lost, 1);
    EXPECT_TRUE(g_lost_eof);
    EXPECT_TRUE(g_lost_error);
    EXPECT_FALSE(g_lost_registered);
}

TEST_F(Owner, DaemonThatOnlyStopsSendingDoesNotSpinTheLoop)
{
    ctx->connection_lost = note_loss;
    ubus_add_uloop(ctx);
    shutdown(bus.stream().fd(), SHUT_WR);
    uloop_run_timeout(0);
    EXPECT_EQ(g_lost, 1);
    EXPECT_FALSE(ctx->sock.registered);
}

TEST_F(Owner, StreamOutOfStepIsClosed)
{
    ctx->connection_lost = note_loss;
    Bytes wrong[] = {Bytes(12, 0xff), Bytes{0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 3},
                     Bytes{0, 1, 0, 1, 0, 0, 0, 0, 0, 0xff, 0xff, 0xff}};
    int losses = 0;
    for (const Bytes &bytes : wrong) {
        bus.send(bytes);
        EXPECT_EQ(call(0), 10);
        EXPECT_EQ(g_lost, ++losses);
        bus.read();
        EXPECT_TRUE(bus.stream().ends());
        ubus_free(ctx);
        ctx = bus.connect();
        ctx->connection_lost = note_loss;
    }
}

TEST_F(Owner, DefaultLossHandlerLeavesOtherLoopsAlone)
{
    uloop_cancelled = false;
    std::thread daemon([&] {
        bus.read();
        bus.hang_up();
    });
    EXPECT_EQ(call(0), 10);
    daemon.join();
    EXPECT_FALSE(uloop_cancelled);
}

TEST_F(Owner, DefaultLossHandlerEndsTheLoopOfTheConnection)
{
    uloop_cancelled = false;
    ubus_add_uloop(ctx);
    std::thread daemon([&] {
        bus.read();
        bus.hang_up();
    });
    EXPECT_EQ(call(0), 10);
    daemon.join();
    EXPECT_TRUE(uloop_cancelled);
}

void free_in_handler(struct ubus_request *req, int, struct blob_attr *)
{
    ubus_free(req->ctx);
}

TEST_F(Owner, DataHandlerMayFreeTheContext)
{
    send_data(2, {1, 2, 3, 4});
    bus.send_status(2, kObject, 0);
    EXPECT_EQ(call(5000, free_in_handler), 10);
    ctx = nullptr;
}

TEST_F(Owner, LossHandlerMayFreeTheContext)
{
    ctx->connection_lost = ubus_free;
    std::thread daemon([&] {
        bus.read();
        bus.hang_up();
    });
    EXPECT_EQ(call(0), 10);
    daemon.join();
    ctx = nullptr;
}

// ---- texts

TEST(Text, EveryStatusHasOne)
{
    const char *const texts[] = {"Success",
                                 "Invalid command",
                                 "Invalid argument",
                                 "Method not found",
                                 "Not found",
                                 "No response",
                                 "Permission denied",
                                 "Request timed out",
                                 "Operation not supported",
                                 "Unknown error",
                                 "Connection failed",
                                 "Out of memory",
                                 "Parsing message data failed",
                                 "System error",
                                 "Unknown error: 14"};
    for (int i = 0; i < 15; i++)
        EXPECT_STREQ(ubus_strerror(i), texts[i]);
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
    EXPECT_STREQ(ubus_strerror(INT32_MIN), "Unknown error: -2147483648");
}

} // namespace
