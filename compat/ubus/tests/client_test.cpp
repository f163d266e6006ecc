// SPDX-License-Identifier: ISC
// Client library and daemon together: owner and caller in processes of their own.

#include <functional>
#include <memory>

#include <gtest/gtest.h>
#include <libubus.h>

#include "fake_bus.h"
#include "support/bus.h"
#include "support/shared.h"

namespace {

struct blob_buf g_buf;

struct blob_attr *number(uint32_t value)
{
    blob_buf_init(&g_buf, 0);
    blobmsg_add_u32(&g_buf, "n", value);
    return g_buf.head;
}

uint32_t number_in(struct blob_attr *msg)
{
    static const struct blobmsg_policy policy = {"n", BLOBMSG_TYPE_INT32};
    struct blob_attr *found = nullptr;
    blobmsg_parse(&policy, 1, &found, blob_data(msg), unsigned(blob_len(msg)));
    return found != nullptr ? blobmsg_get_u32(found) : 0;
}

// ---- an owner whose methods answer in every possible way

int reply_and_complete(struct ubus_context *ctx, struct ubus_object *,
                       struct ubus_request_data *req, const char *, struct blob_attr *)
{
    ubus_send_reply(ctx, req, number(1));
    ubus_complete_deferred_request(ctx, req, 0);
    return 0;
}

int complete_2(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
               const char *, struct blob_attr *)
{
    ubus_complete_deferred_request(ctx, req, 2);
    return 0;
}

int complete_0_return_5(struct ubus_context *ctx, struct ubus_object *,
                        struct ubus_request_data *req, const char *, struct blob_attr *)
{
    ubus_complete_deferred_request(ctx, req, 0);
    return 5;
}

int reply_return(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                 const char *, struct blob_attr *msg)
{
    ubus_send_reply(ctx, req, number(1));
    return int(number_in(msg));
}

int just_return(struct ubus_context *, struct ubus_object *, struct ubus_request_data *,
                const char *, struct blob_attr *msg)
{
    return int(number_in(msg));
}

int complete_then_reply(struct ubus_context *ctx, struct ubus_object *,
                        struct ubus_request_data *req, const char *, struct blob_attr *)
{
    ubus_complete_deferred_request(ctx, req, 0);
    ubus_send_reply(ctx, req, number(1));
    return 0;
}

int reply_twice(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                const char *, struct blob_attr *)
{
    ubus_send_reply(ctx, req, number(1));
    ubus_send_reply(ctx, req, number(2));
    return 0;
}

struct ubus_context *g_owner;
struct ubus_request_data g_deferred;

void answer_deferred(struct uloop_timeout *)
{
    ubus_send_reply(g_owner, &g_deferred, number(1));
    ubus_complete_deferred_request(g_owner, &g_deferred, 0);
}

int defer(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
          const char *, struct blob_attr *)
{
    static struct uloop_timeout later = {{}, false, answer_deferred, {}};
    ubus_defer_request(ctx, req, &g_deferred);
    uloop_timeout_set(&later, 20);
    return 9;
}

int defer_for_ever(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                   const char *, struct blob_attr *)
{
    ubus_defer_request(ctx, req, &g_deferred);
    return 9;
}

int sleep_300(struct ubus_context *, struct ubus_object *, struct ubus_request_data *, const char *,
              struct blob_attr *)
{
    usleep(300000);
    return 0;
}

int vanish(struct ubus_context *, struct ubus_object *, struct ubus_request_data *, const char *,
           struct blob_attr *)
{
    _exit(0);
}

// Calls the method `back` of the object whose id came with the call, and returns the outcome.
int call_back(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *,
              const char *, struct blob_attr *msg)
{
    return 100 + ubus_invoke(ctx, number_in(msg), "back", nullptr, nullptr, nullptr, 200);
}

const struct ubus_method kOwnerMethods[] = {
    UBUS_METHOD_NOARG("reply_and_complete", reply_and_complete),
    UBUS_METHOD_NOARG("complete_2", complete_2),
    UBUS_METHOD_NOARG("complete_0_return_5", complete_0_return_5),
    UBUS_METHOD_NOARG("reply_return", reply_return),
    UBUS_METHOD_NOARG("just_return", just_return),
    UBUS_METHOD_NOARG("complete_then_reply", complete_then_reply),
    UBUS_METHOD_NOARG("reply_twice", reply_twice),
    UBUS_METHOD_NOARG("defer", defer),
    UBUS_METHOD_NOARG("defer_for_ever", defer_for_ever),
    UBUS_METHOD_NOARG("sleep_300", sleep_300),
    UBUS_METHOD_NOARG("vanish", vanish),
    UBUS_METHOD_NOARG("call_back", call_back),
};
struct ubus_object_type g_owner_type = UBUS_OBJECT_TYPE("owner", kOwnerMethods);

int own()
{
    static struct ubus_object object;
    g_owner = ubus_connect(nullptr);
    object.name = "owner";
    object.type = &g_owner_type;
    object.methods = kOwnerMethods;
    object.n_methods = ARRAY_SIZE(kOwnerMethods);
    if (g_owner == nullptr || ubus_add_object(g_owner, &object) != 0)
        return 1;
    ubus_add_uloop(g_owner);
    return uloop_run();
}

void count(struct ubus_request *req, int, struct blob_attr *)
{
    ++*static_cast<int *>(req->priv);
}

class Rpc : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(wait_for_object("owner"));
        ctx = ubus_connect(nullptr);
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(ubus_lookup_id(ctx, "owner", &id), 0);
    }
    void TearDown() override { ubus_free(ctx); }

    // Status and number of answers, as "status/answers".
    std::string call(const char *method, uint32_t value, int timeout = 5000)
    {
        int answers = 0;
        int status = ubus_invoke(ctx, id, method, number(value), count, &answers, timeout);
        return std::to_string(status) + "/" + std::to_string(answers);
    }

    BusDaemon daemon;
    Service owner{own};
    struct ubus_context *ctx = nullptr;
    uint32_t id = 0;
};

TEST_F(Rpc, EveryWayOfAnsweringGivesTheCallerTheFirstStatus)
{
    for (int round = 0; round < 3; round++) {
        EXPECT_EQ(call("reply_and_complete", 0), "0/1");
        EXPECT_EQ(call("complete_2", 0), "2/0");
        EXPECT_EQ(call("complete_0_return_5", 0), "0/0");
        EXPECT_EQ(call("reply_return", 0), "0/1");
        EXPECT_EQ(call("reply_return", 4), "4/1");
        EXPECT_EQ(call("just_return", 8), "8/0");
        EXPECT_EQ(call("just_return", 0xffffffff), "-1/0");
        EXPECT_EQ(call("just_return", 99), "99/0");
        EXPECT_EQ(call("complete_then_reply", 0), "0/0");
        EXPECT_EQ(call("reply_twice", 0), "0/2");
        EXPECT_EQ(call("defer", 0), "0/1");
        EXPECT_EQ(call("no such method", 0), "3/0");
    }
    EXPECT_EQ(call("defer_for_ever", 0, 50), "7/0");
}

TEST_F(Rpc, LateAnswerDoesNotDisturbTheNextCall)
{
    EXPECT_EQ(call("sleep_300", 0, 50), "7/0");
    EXPECT_EQ(call("just_return", 12), "12/0");
}

TEST_F(Rpc, OwnerThatVanishesLeavesTheCallerToItsTimeOut)
{
    EXPECT_EQ(call("vanish", 0, 200), "7/0");
    EXPECT_EQ(call("just_return", 0), "4/0");
    uint32_t again = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "owner", &again), 4);
}

int g_back_calls;

int back(struct ubus_context *, struct ubus_object *, struct ubus_request_data *, const char *,
         struct blob_attr *)
{
    g_back_calls++;
    return 5;
}

const struct ubus_method kBackMethods[] = {UBUS_METHOD_NOARG("back", back)};

TEST_F(Rpc, CallingBackIntoAWaitingCallerTimesOut)
{
    struct ubus_object object = {};
    object.methods = kBackMethods;
    object.n_methods = 1;
    ASSERT_EQ(ubus_add_object(ctx, &object), 0);
    EXPECT_EQ(call("call_back", object.id), "107/0"); // 7 for the owner
    EXPECT_EQ(g_back_calls, 1);                       // served after the time-out
}

TEST_F(Rpc, CallToAnOwnObjectIsServedAfterItsTimeOut)
{
    struct ubus_object object = {};
    object.methods = kBackMethods;
    object.n_methods = 1;
    ASSERT_EQ(ubus_add_object(ctx, &object), 0);
    g_back_calls = 0;
    EXPECT_EQ(ubus_invoke(ctx, object.id, "back", nullptr, nullptr, nullptr, 50), 7);
    EXPECT_EQ(g_back_calls, 1);

    ubus_add_uloop(ctx);
    EXPECT_EQ(ubus_invoke(ctx, object.id, "back", nullptr, nullptr, nullptr, 50), 7);
    EXPECT_EQ(g_back_calls, 1);
    while (g_back_calls < 2)
        uloop_run_timeout(10);
}

struct Nested {
    uint32_t id;
    int statuses;
    int answers;
};

void call_again(struct ubus_request *req, int, struct blob_attr *msg)
{
    auto *nested = static_cast<Nested *>(req->priv);
    uint32_t before = number_in(msg);
    nested->answers++;
    nested->statuses +=
        ubus_invoke(req->ctx, nested->id, "reply_return", number(3), count, &nested->answers, 5000);
    EXPECT_EQ(number_in(msg), before);
}

TEST_F(Rpc, DataHandlerMayCall)
{
    Nested nested = {id, 0, 0};
    EXPECT_EQ(ubus_invoke(ctx, id, "reply_twice", nullptr, call_again, &nested, 5000), 0);
    EXPECT_EQ(nested.statuses, 6);
    EXPECT_EQ(nested.answers, 4);
}

void reconnect(struct ubus_request *req, int, struct blob_attr *)
{
    auto *daemon = static_cast<BusDaemon *>(req->priv);
    daemon->kill();
    daemon->start();
    EXPECT_EQ(ubus_reconnect(req->ctx, nullptr), 0);
}

TEST_F(Rpc, CallThatOutlivesItsConnectionFails)
{
    EXPECT_EQ(ubus_invoke(ctx, id, "reply_and_complete", nullptr, reconnect, &daemon, 0), 10);
    EXPECT_EQ(call("just_return", 0), "4/0"); // the owner did not reconnect
}

// ---- publishing

const struct ubus_method kMethods[] = {UBUS_METHOD_NOARG("back", back)};

struct ubus_object object_of(struct ubus_object_type *type, const char *name)
{
    struct ubus_object object = {};
    object.name = name;
    object.type = type;
    object.methods = kMethods;
    object.n_methods = 1;
    return object;
}

uint32_t look_up(struct ubus_context *ctx, const char *path, int expected)
{
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, path, &id), expected) << path;
    return id;
}

class Publish : public testing::Test {
protected:
    ~Publish() override { ubus_free(ctx); }

    void connect_anew()
    {
        ubus_free(ctx);
        ctx = ubus_connect(nullptr);
    }
    // The object with this id is called, and this context answers.
    void expect_served(uint32_t id)
    {
        wire::Client caller;
        ASSERT_TRUE(caller.send(wire::invoke(1, id, "back")));
        handle_next(ctx);
        EXPECT_EQ(caller.read().status(), 5u);
    }

    BusDaemon daemon;
    struct ubus_context *ctx = ubus_connect(nullptr);
    struct ubus_object_type type = UBUS_OBJECT_TYPE("t", kMethods);
    struct ubus_object object = object_of(&type, "x");
};

using Restart = Publish;

TEST_F(Publish, ObjectComesAndGoes)
{
    ASSERT_EQ(ubus_add_object(ctx, &object), 0);
    uint32_t id = object.id, type_id = type.id;
    EXPECT_EQ(look_up(ctx, "x", 0), id);
    EXPECT_EQ(ubus_add_object(ctx, &object), 2); // again
    EXPECT_EQ(object.id, id);
    EXPECT_EQ(type.id, type_id);

    expect_served(id); // still

    EXPECT_EQ(ubus_remove_object(ctx, &object), 0);
    EXPECT_EQ(object.id, 0u);
    EXPECT_EQ(type.id, 0u);
    EXPECT_EQ(ubus_remove_object(ctx, &object), 4);
    look_up(ctx, "x", 4);
    look_up(ctx, "", 2);
    EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    EXPECT_NE(look_up(ctx, "x", 0), 0u);
}

TEST_F(Publish, UnnamedObjectPublishedAgainMovesToItsNewId)
{
    object = object_of(nullptr, "ignored");
    ASSERT_EQ(ubus_add_object(ctx, &object), 0);
    uint32_t first = object.id;
    ASSERT_EQ(ubus_add_object(ctx, &object), 0);
    EXPECT_NE(object.id, first);
    look_up(ctx, "ignored", 4);

    expect_served(object.id);
    EXPECT_EQ(ubus_remove_object(ctx, &object), 0);
}

TEST_F(Publish, StaleTypeIdsMakeAnObjectInvisible)
{
    ASSERT_EQ(ubus_add_object(ctx, &object), 0);
    uint32_t id = object.id;
    connect_anew();
    EXPECT_EQ(object.id, id); // left alone
    EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    EXPECT_EQ(look_up(ctx, "x", 0), 0u);

    connect_anew();
    type.id = 0;
    EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    EXPECT_EQ(look_up(ctx, "x", 0), object.id);
}

TEST_F(Publish, ManyObjectsShareAType)
{
    struct ubus_object one = object_of(&type, "one"), two = object_of(&type, "two");
    ASSERT_EQ(ubus_add_object(ctx, &one), 0);
    uint32_t type_id = type.id;
    ASSERT_EQ(ubus_add_object(ctx, &two), 0);
    EXPECT_EQ(type.id, type_id);
    EXPECT_EQ(look_up(ctx, "two", 0), two.id);
    EXPECT_EQ(ubus_remove_object(ctx, &one), 0);
    EXPECT_EQ(type.id, type_id);
    EXPECT_EQ(ubus_remove_object(ctx, &two), 0);
    EXPECT_EQ(type.id, 0u);
}

// ---- the daemon's restart

TEST_F(Restart, LongCallToAStoppedDaemonEndsInTimeAndAReconnectionHelps)
{
    BV_NEEDS_OWN_ROOT("a traced process cannot be stopped");
    struct blob_buf buf = {};
    blob_buf_init(&buf, 0);
    ASSERT_NE(blob_new(&buf, 5, 1000000), nullptr);

    kill(daemon.pid(), SIGSTOP);
    EXPECT_EQ(ubus_invoke(ctx, 4711, "m", buf.head, nullptr, nullptr, 200), 7);
    EXPECT_EQ(ubus_invoke(ctx, 4711, "m", nullptr, nullptr, nullptr, 200), 2);
    kill(daemon.pid(), SIGCONT);
    ASSERT_EQ(ubus_reconnect(ctx, nullptr), 0);
    EXPECT_EQ(ubus_invoke(ctx, 4711, "m", buf.head, nullptr, nullptr, 5000), 4);
    blob_buf_free(&buf);
}

TEST_F(Restart, ContextsStayDeadUntilTheyReconnect)
{
    struct ubus_object one = object_of(&type, "one"), two = object_of(&type, "two");
    ASSERT_EQ(ubus_add_object(ctx, &one), 0);
    ASSERT_EQ(ubus_add_object(ctx, &two), 0);
    uint32_t old = one.id;
    ubus_add_uloop(ctx);
    uint16_t seq = ctx->request_seq;

    daemon.kill();
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "one", &id), 2);
    EXPECT_EQ(ubus_reconnect(ctx, nullptr), 10);
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_EQ(ubus_lookup_id(ctx, "one", &id), 2);

    daemon.start();
    EXPECT_EQ(ubus_lookup_id(ctx, "one", &id), 2);
    ASSERT_EQ(ubus_reconnect(ctx, nullptr), 0);
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_NE(one.id, old);
    EXPECT_EQ(look_up(ctx, "one", 0), one.id);
    EXPECT_EQ(look_up(ctx, "two", 0), two.id);
    EXPECT_GT(ctx->request_seq, seq); // numbers go on

    wire::Client caller;
    EXPECT_EQ(caller.ask(wire::invoke(1, old, "back")), 4u);
    expect_served(two.id);
}

TEST_F(Restart, ObjectWhosePathIsTakenIsPublishedNextTime)
{
    ASSERT_EQ(ubus_add_object(ctx, &object), 0);
    daemon.kill();
    daemon.start();
    {
        wire::Client thief;
        ASSERT_NE(thief.publish("x"), 0u);
        EXPECT_EQ(ubus_reconnect(ctx, nullptr), 0);
        EXPECT_EQ(object.id, 0u);
    }
    EXPECT_EQ(ubus_reconnect(ctx, nullptr), 0);
    EXPECT_EQ(look_up(ctx, "x", 0), object.id);
    EXPECT_NE(object.id, 0u);
}

TEST_F(Restart, ProgramMayReconnectWhenItHearsOfTheLoss)
{
    static int lost;
    lost = 0;
    ASSERT_EQ(ubus_add_object(ctx, &object), 0);
    ubus_add_uloop(ctx);
    ctx->connection_lost = [](struct ubus_context *context) {
        lost++;
        EXPECT_EQ(ubus_reconnect(context, nullptr), 0);
        ubus_add_uloop(context);
    };
    for (int round = 1; round <= 3; round++) {
        daemon.kill();
        daemon.start();
        while (lost < round)
            uloop_run_timeout(10);
        EXPECT_EQ(lost, round);
        EXPECT_EQ(look_up(ctx, "x", 0), object.id);
    }
}

} // namespace
