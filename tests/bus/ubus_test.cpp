// SPDX-License-Identifier: ISC
// Message bus wrappers over a real daemon: an owner with a method of its own and a caller, each a
// process.

#include <bv/ubus.h>

#include "support/bus.h"
#include "support/faults.h"
#include "support/process.h"
#include "support/shared.h"

#include <csignal>
#include <gtest/gtest.h>

// Sees the waiting time that reaches the library underneath.
int g_timeout_ms;
extern "C" int ubus_invoke_fd(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                              ubus_data_handler_t cb, void *priv, int timeout, int fd)
{
    g_timeout_ms = timeout;
    return next_function<decltype(ubus_invoke_fd)>("ubus_invoke_fd")(ctx, obj, method, msg, cb,
                                                                     priv, timeout, fd);
}

namespace {

constexpr char kName[] = "test.object";

// Replies with the fields it was given, twice; then completes with 5, which counts, and returns 6.
int echo_twice(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method,
               blob_attr *message)
{
    blob_buf reply = {};
    bv_blobmsg_buf_init(&reply);
    bv_blobmsg_add_string(&reply, "method", method);
    bv_blob_put_raw(&reply, bv_blob_data(message), static_cast<unsigned int>(bv_blob_len(message)));
    bv_ubus_send_reply(ctx, req, reply.head);
    bv_ubus_send_reply(ctx, req, reply.head);
    bv_blob_buf_free(&reply);
    bv_ubus_complete_deferred_request(ctx, req, 5);
    return 6;
}

int only_return_6(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    return 6;
}

const ubus_method kMethods[] = {{"echo", echo_twice, 0, 0, nullptr, 0},
                                {"six", only_return_6, 0, 0, nullptr, 0}};
ubus_object_type g_type = {"test", 0, kMethods, 2};
ubus_object g_object;

int publish_and_serve()
{
    bv_uloop_init();
    ubus_context *ctx = bv_ubus_connect(nullptr);
    if (ctx == nullptr)
        return 100;
    bv_uloop_fd_add(&ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
    g_object.name = kName;
    g_object.type = &g_type;
    g_object.methods = kMethods;
    g_object.n_methods = 2;
    const int status = bv_ubus_add_object(ctx, &g_object);
    if (status != 0)
        return status;
    bv_uloop_run();
    bv_ubus_free(ctx);
    bv_uloop_done();
    return 0;
}

struct Received {
    int count = 0;
    std::string method;
    uint32_t number = 0;
};

void receive(ubus_request *req, int type, blob_attr *message)
{
    EXPECT_EQ(type, 2);
    Received *received = static_cast<Received *>(req->priv);
    received->count++;
    const blobmsg_policy policy[] = {{"method", BLOBMSG_TYPE_STRING}, {"n", BLOBMSG_TYPE_INT32}};
    blob_attr *fields[2];
    bv_blobmsg_parse(policy, 2, fields, bv_blob_data(message),
                     static_cast<unsigned int>(bv_blob_len(message)));
    if (fields[0] != nullptr)
        received->method = bv_blobmsg_get_string(fields[0]);
    if (fields[1] != nullptr)
        received->number = bv_blobmsg_get_u32(fields[1]);
}

// Connects to the daemon and looks the object up.
ubus_context *connect_to_object(uint32_t &id)
{
    EXPECT_TRUE(wait_for_object(kName));
    ubus_context *ctx = bv_ubus_connect(nullptr);
    EXPECT_NE(ctx, nullptr);
    EXPECT_EQ(bv_ubus_lookup_id(ctx, kName, &id), 0);
    EXPECT_NE(id, 0u);
    return ctx;
}

int invoke(ubus_context *ctx, uint32_t id, const char *method, int timeout_ms = 10000)
{
    return bv_ubus_invoke(ctx, id, method, nullptr, nullptr, nullptr, timeout_ms);
}

} // namespace

TEST(Ubus, ConnectsOnlyWhereADaemonListens)
{
    BusDaemon daemon("/scratch/other.sock");
    EXPECT_EQ(bv_ubus_connect(nullptr), nullptr);
    EXPECT_EQ(bv_ubus_connect("/scratch/nothing"), nullptr);
    bv_ubus_free(nullptr);
    ubus_context *ctx = bv_ubus_connect("/scratch/other.sock");
    EXPECT_NE(ctx, nullptr);
    bv_ubus_free(ctx);
}

TEST(Ubus, ObjectsArePublishedFoundCalledAndGone)
{
    BusDaemon daemon;
    Service owner(publish_and_serve);
    uint32_t id = 0;
    ubus_context *ctx = connect_to_object(id);

    blob_buf arguments = {};
    bv_blobmsg_buf_init(&arguments);
    bv_blobmsg_add_u32(&arguments, "n", 1234567);
    Received received;
    EXPECT_EQ(bv_ubus_invoke(ctx, id, "echo", arguments.head, receive, &received, 10000), 5);
    EXPECT_EQ(received.count, 2);
    EXPECT_EQ(received.method, "echo");
    EXPECT_EQ(received.number, 1234567u);
    bv_blob_buf_free(&arguments);

    EXPECT_EQ(invoke(ctx, id, "six"), 6);
    EXPECT_EQ(invoke(ctx, id, "seven"), 3);
    EXPECT_EQ(invoke(ctx, 0, "six"), 4);

    Service second(publish_and_serve);
    EXPECT_EQ(second.wait(), 2) << "the name is taken";
    owner.signal(SIGTERM);
    EXPECT_EQ(owner.wait(), 0);
    uint32_t untouched = 77;
    EXPECT_TRUE(eventually([] { return !object_exists(kName); }));
    EXPECT_EQ(bv_ubus_lookup_id(ctx, kName, &untouched), 4);
    EXPECT_EQ(untouched, 77u);
    bv_ubus_free(ctx);
}

TEST(Ubus, CallTimesOutAfterTheMillisecondsGiven)
{
    BV_NEEDS_OWN_ROOT("a traced process cannot be stopped");
    BusDaemon daemon;
    Service owner(publish_and_serve);
    uint32_t id = 0;
    ubus_context *ctx = connect_to_object(id);
    owner.signal(SIGSTOP);
    EXPECT_EQ(invoke(ctx, id, "six", 50), 7);
    EXPECT_EQ(g_timeout_ms, 50);
    owner.signal(SIGCONT);
    EXPECT_EQ(invoke(ctx, id, "six"), 6);
    bv_ubus_free(ctx);
}
