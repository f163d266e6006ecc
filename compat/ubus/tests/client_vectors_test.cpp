// SPDX-License-Identifier: ISC
// The recorded exchanges, with the test in the daemon's place: the recorded programs act again, and
// the client library must send the same bytes.

#include <mutex>
#include <thread>

#include <gtest/gtest.h>
#include <libubus.h>

#include "fake_bus.h"
#include "vectors.h"

namespace {

using vectors::Item;

constexpr char kSocket[] = "/scratch/bus.sock";
constexpr char kPath[] = "brovan.gateway.server";

// The daemon's side of one connection of the record.
class RecordedBus {
public:
    explicit RecordedBus(const std::string &peer) : peer_(peer), file_(vectors::read())
    {
        unlink(kSocket);
        listener_ = usock(USOCK_UNIX | USOCK_SERVER, kSocket, nullptr);
        EXPECT_GE(listener_, 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~RecordedBus() { finish(); }

    // Waits for the end of the connection's record. Returns the number of messages compared.
    int finish()
    {
        if (thread_.joinable())
            thread_.join();
        if (listener_ >= 0)
            close(listener_);
        listener_ = -1;
        EXPECT_EQ(problems_, "");
        return compared_;
    }

    std::string group()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return group_;
    }
    uint32_t id(const std::string &name) const { return wire::get_word(file_.ids.at(name).data()); }

private:
    void serve()
    {
        wire::Stream stream(accept(listener_, nullptr, nullptr));
        for (const Item &item : file_.items) {
            if (item.peer != peer_)
                continue;
            enter(item.group);
            if (item.kind == Item::kFromBus)
                send(stream, item);
            else if (item.kind == Item::kToBus)
                compare(stream, item);
            else if (!stream.ends())
                problems_ += item.group + ": the client does not hang up\n";
        }
    }

    void enter(const std::string &group)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        group_ = group;
    }

    void send(const wire::Stream &stream, const Item &item)
    {
        // The answer that comes after the caller has given up.
        if (item.group == "invoke_timeout" && peer_ == "C" && item.type == "DATA")
            usleep(250000);
        stream.send(vectors::bytes_of(item, file_.ids));
    }

    void compare(const wire::Stream &stream, const Item &item)
    {
        wire::Bytes got = stream.read().bytes();
        wire::Bytes expected = vectors::bytes_of(item, file_.ids);
        compared_++;
        if (got != expected)
            problems_ += item.group + " " + item.type + ":\n  got      " + to_hex(got) +
                         "\n  expected " + to_hex(expected) + "\n";
    }

    std::string peer_;
    vectors::File file_;
    int listener_ = -1;
    int compared_ = 0;
    std::mutex mutex_;
    std::string group_;
    std::string problems_;
    std::thread thread_;
};

// ---- the programs of the record

struct blob_buf g_fields;

// The request that the caller of the record sends.
struct blob_attr *request(const char *func)
{
    const uint8_t data[] = {1, 2, 3, 4, 5};
    blob_buf_init(&g_fields, 0);
    blobmsg_add_string(&g_fields, "func", func);
    blobmsg_add_u32(&g_fields, "len", sizeof(data));
    blobmsg_add_field(&g_fields, BLOBMSG_TYPE_UNSPEC, "data", data, sizeof(data));
    return g_fields.head;
}

struct blob_attr *reply(const wire::Bytes &data = {0xaa, 0xbb, 0xcc})
{
    blob_buf_init(&g_fields, 0);
    blobmsg_add_u32(&g_fields, "return", 0);
    blobmsg_add_u32(&g_fields, "len", uint32_t(data.size()));
    blobmsg_add_field(&g_fields, BLOBMSG_TYPE_UNSPEC, "data", data.data(), unsigned(data.size()));
    return g_fields.head;
}

RecordedBus *g_bus;
int g_handled;
struct ubus_request_data g_deferred;
struct ubus_context *g_owner;

void answer_deferred(struct uloop_timeout *)
{
    ubus_send_reply(g_owner, &g_deferred, reply({0x11, 0x22}));
    ubus_complete_deferred_request(g_owner, &g_deferred, 0);
}

struct uloop_timeout g_later = {{}, false, answer_deferred, {}};

int serve_recorded(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                   const char *method, struct blob_attr *msg)
{
    std::string group = g_bus->group();

    g_handled++;
    EXPECT_STREQ(method, "method");
    EXPECT_STREQ(req->acl.user, "root");
    EXPECT_STREQ(req->acl.group, "root");
    EXPECT_EQ(req->acl.object, obj->name);
    EXPECT_EQ(req->object, obj->id);
    EXPECT_EQ(req->fd, -1);
    EXPECT_EQ(req->req_fd, -1);
    EXPECT_FALSE(req->deferred);

    if (group == "owner_disconnect_pending") {
        ubus_free(ctx);
        uloop_end();
        return 0;
    }
    if (blob_len(msg) == 0)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (group == "invoke_status2") {
        ubus_complete_deferred_request(ctx, req, UBUS_STATUS_INVALID_ARGUMENT);
        return 0;
    }
    if (group == "invoke_deferred") {
        ubus_defer_request(ctx, req, &g_deferred);
        uloop_timeout_set(&g_later, 50);
        return 0;
    }
    if (group == "invoke_empty_reply") {
        EXPECT_EQ(ubus_send_reply(ctx, req, nullptr), 0);
        return 0;
    }
    EXPECT_EQ(ubus_send_reply(ctx, req, reply()), 0);
    if (group != "invoke_plain")
        ubus_complete_deferred_request(ctx, req, 0);
    return 0;
}

enum { kFunc, kLen, kData, kPolicyCount };
const struct blobmsg_policy kPolicy[kPolicyCount] = {
    {"func", BLOBMSG_TYPE_STRING},
    {"len", BLOBMSG_TYPE_INT32},
    {"data", BLOBMSG_TYPE_UNSPEC},
};
const struct ubus_method kMethods[] = {UBUS_METHOD("method", serve_recorded, kPolicy)};
struct ubus_object_type g_type = UBUS_OBJECT_TYPE("obj", kMethods);

struct ubus_object make_object(const char *path)
{
    struct ubus_object object = {};
    g_type.id = 0;
    object.name = path;
    object.type = &g_type;
    object.methods = kMethods;
    object.n_methods = ARRAY_SIZE(kMethods);
    return object;
}

void end_when_removing(struct uloop_timeout *timer)
{
    if (g_bus->group() == "remove_object")
        uloop_end();
    else
        uloop_timeout_set(timer, 5);
}

TEST(ClientVectors, Owner)
{
    RecordedBus bus("A");
    g_bus = &bus;
    struct ubus_object object = make_object(kPath);
    struct ubus_context *ctx = ubus_connect(kSocket);
    ASSERT_NE(ctx, nullptr);
    g_owner = ctx;

    EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    EXPECT_EQ(object.id, bus.id("OBJ_1"));
    EXPECT_EQ(g_type.id, bus.id("TYPE_1"));
    ubus_add_uloop(ctx);
    struct uloop_timeout watch = {{}, false, end_when_removing, {}};
    uloop_timeout_set(&watch, 5);
    uloop_run();

    EXPECT_EQ(ubus_remove_object(ctx, &object), 0);
    EXPECT_EQ(object.id, 0u);
    EXPECT_EQ(g_type.id, 0u);
    EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    EXPECT_EQ(object.id, bus.id("OBJ_5"));
    EXPECT_EQ(g_type.id, bus.id("TYPE_3"));
    uloop_run();
    EXPECT_GE(bus.finish(), 20);
    EXPECT_EQ(g_handled, 9);
    uloop_done();
}

TEST(ClientVectors, SecondOwnerOfThePath)
{
    RecordedBus bus("B");
    struct ubus_object object = make_object(kPath);
    struct ubus_context *ctx = ubus_connect(kSocket);
    ASSERT_NE(ctx, nullptr);

    EXPECT_EQ(ubus_add_object(ctx, &object), 2);
    EXPECT_EQ(object.id, 0u);
    ubus_free(ctx);
    EXPECT_EQ(bus.finish(), 1);
}

struct Answers {
    int count;
    size_t length;
};

void count_answer(struct ubus_request *req, int type, struct blob_attr *msg)
{
    auto *answers = static_cast<Answers *>(req->priv);

    EXPECT_EQ(type, UBUS_MSG_DATA);
    EXPECT_EQ(blob_id(msg), unsigned(UBUS_ATTR_DATA));
    answers->count++;
    answers->length = blob_len(msg);
}

struct Expected {
    const char *func;
    const char *method;
    int status;
    int answers;
};

TEST(ClientVectors, Caller)
{
    RecordedBus bus("C");
    struct ubus_context *ctx = ubus_connect(kSocket);
    ASSERT_NE(ctx, nullptr);
    uint32_t id = 0;
    uint32_t untouched = 77;

    EXPECT_EQ(ubus_lookup_id(ctx, kPath, &id), 0);
    EXPECT_EQ(id, bus.id("OBJ_1"));
    EXPECT_EQ(ubus_lookup_id(ctx, "no.such.object", &untouched), 4);
    EXPECT_EQ(untouched, 77u);

    const Expected calls[] = {
        {"status", "method", 0, 1}, // answered and completed
        {"fail", "method", 2, 0},   {"plain", "method", 0, 1},  {"empty", "method", 0, 1},
        {"defer", "method", 0, 1},  {"status", "nosuch", 3, 0},
    };
    vectors::File file = vectors::read();
    std::vector<std::pair<std::string, std::string>> recorded; // func and method of each call
    for (const Item &item : file.items) {
        if (item.peer != "C" || item.kind != Item::kToBus || item.type != "INVOKE")
            continue;
        wire::Message message;
        message.attributes = vectors::attributes_of(item, file.ids);
        wire::Bytes fields = message.payload(wire::kAttrData);
        recorded.emplace_back(reinterpret_cast<const char *>(&fields[12]),
                              message.string(wire::kAttrMethod));
    }
    ASSERT_EQ(recorded.size(), 11u);

    size_t next = 0;
    auto invoke = [&](uint32_t object, int timeout, Answers &answers) {
        const auto &[func, method] = recorded[next++];
        return ubus_invoke(ctx, object, method.c_str(), request(func.c_str()), count_answer,
                           &answers, timeout);
    };
    for (const Expected &call : calls) {
        SCOPED_TRACE(call.func);
        Answers answers = {};
        EXPECT_EQ(invoke(id, 5000, answers), call.status);
        EXPECT_EQ(answers.count, call.answers);
    }
    Answers answers = {};
    EXPECT_EQ(invoke(0, 5000, answers), 4);
    EXPECT_EQ(invoke(0x12345678, 5000, answers), 4);
    EXPECT_EQ(invoke(id, 100, answers), 7);
    EXPECT_EQ(answers.count, 0);

    EXPECT_EQ(ubus_lookup_id(ctx, kPath, &id), 0);
    EXPECT_EQ(ubus_lookup_id(ctx, kPath, &id), 0);
    EXPECT_EQ(id, bus.id("OBJ_5"));
    EXPECT_EQ(invoke(id, 300, answers), 7);
    EXPECT_EQ(ubus_lookup_id(ctx, kPath, &id), 4);
    EXPECT_EQ(invoke(id, 300, answers), 4);
    ubus_free(ctx);
    EXPECT_EQ(bus.finish(), 16);
}

void collect_path(struct ubus_context *, struct ubus_object_data *obj, void *priv)
{
    static_cast<std::vector<std::string> *>(priv)->push_back(obj->path);
    EXPECT_NE(obj->signature, nullptr);
    EXPECT_NE(obj->id, 0u);
    EXPECT_NE(obj->type_id, 0u);
}

void list(const char *connection, const char *pattern)
{
    SCOPED_TRACE(connection);
    RecordedBus bus(connection);
    std::vector<std::string> paths;
    struct ubus_context *ctx = ubus_connect(kSocket);
    ASSERT_NE(ctx, nullptr);

    EXPECT_EQ(ubus_lookup(ctx, pattern, collect_path, &paths), 0);
    EXPECT_EQ(paths, std::vector<std::string>{kPath});
    ubus_free(ctx);
    EXPECT_EQ(bus.finish(), 1);
}

TEST(ClientVectors, Listings)
{
    list("D", nullptr);
    list("E", nullptr);
    list("F", "brovan.*");
}

TEST(ClientVectors, CallFromTheCommandLine)
{
    RecordedBus bus("G");
    struct ubus_context *ctx = ubus_connect(kSocket);
    ASSERT_NE(ctx, nullptr);
    uint32_t id = 0;
    Answers answers = {};

    EXPECT_EQ(ubus_lookup_id(ctx, kPath, &id), 0);
    blob_buf_init(&g_fields, 0);
    blobmsg_add_string(&g_fields, "func", "status");
    blobmsg_add_u32(&g_fields, "len", 2);
    blobmsg_add_string(&g_fields, "data", "xy");
    EXPECT_EQ(ubus_invoke(ctx, id, "method", g_fields.head, count_answer, &answers, 30000), 0);
    EXPECT_EQ(answers.count, 1);
    ubus_free(ctx);
    EXPECT_EQ(bus.finish(), 2);
}

TEST(ClientVectors, CallWithoutArguments)
{
    RecordedBus bus("H");
    struct ubus_context *ctx = ubus_connect(kSocket);
    ASSERT_NE(ctx, nullptr);
    uint32_t id = 0;

    EXPECT_EQ(ubus_lookup_id(ctx, kPath, &id), 0);
    EXPECT_EQ(ubus_invoke(ctx, id, "method", nullptr, nullptr, nullptr, 30000), 2);
    ubus_free(ctx);
    EXPECT_EQ(bus.finish(), 2);
}

int g_events;

int event(struct ubus_context *, struct ubus_object *, struct ubus_request_data *req,
          const char *method, struct blob_attr *)
{
    EXPECT_EQ(req->peer, 0u);
    EXPECT_EQ(req->acl.user, nullptr);
    EXPECT_NE(std::string(method), "");
    g_events++;
    return 0;
}

void listen_for(const char *connection, const char *pattern, bool with_lookup, int events,
                int messages)
{
    SCOPED_TRACE(connection);
    const struct ubus_method any = {nullptr, event, 0, 0, nullptr, 0};
    RecordedBus bus(connection);
    struct ubus_object object = {};
    struct ubus_context *ctx = ubus_connect(kSocket);
    ASSERT_NE(ctx, nullptr);

    g_events = 0;
    object.methods = &any;
    object.n_methods = 1;
    EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    blob_buf_init(&g_fields, 0);
    blobmsg_add_u32(&g_fields, "object", object.id);
    blobmsg_add_string(&g_fields, "pattern", pattern);
    EXPECT_EQ(
        ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", g_fields.head, nullptr, nullptr, 0),
        0);
    if (with_lookup) {
        std::vector<std::string> paths;
        EXPECT_EQ(ubus_lookup(ctx, nullptr, collect_path, &paths), 0);
    }
    while (g_events < events)
        ASSERT_NO_FATAL_FAILURE(handle_next(ctx));
    ubus_free(ctx);
    EXPECT_EQ(bus.finish(), messages);
}

TEST(ClientVectors, ListenersOfEvents)
{
    listen_for("I", "ubus.object.add", true, 1, 4);
    listen_for("K", "*", false, 2, 4);
}

TEST(ClientVectors, SenderOfEvents)
{
    RecordedBus bus("L");
    struct ubus_context *ctx = ubus_connect(kSocket);
    ASSERT_NE(ctx, nullptr);

    blob_buf_init(&g_fields, 0);
    blobmsg_add_string(&g_fields, "id", "my.event");
    void *data = blobmsg_open_table(&g_fields, "data");
    blobmsg_add_u32(&g_fields, "a", 1);
    blobmsg_close_table(&g_fields, data);
    EXPECT_EQ(
        ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "send", g_fields.head, nullptr, nullptr, 0), 0);
    ubus_free(ctx);
    EXPECT_EQ(bus.finish(), 1);
}

} // namespace
