// SPDX-License-Identifier: ISC
// The owner's side of remote calls: a registry of functions by name, and one bus object whose only
// method runs them.
//
// When the loop ends, the connection and the object stay, since most services exit then. The next
// start frees them first: the old object would make the new one a duplicate.

#include <bv/ubus.h>

#include "bus/rpc_message.h"
#include "core/hash.h"
#include "os/alloc.h"
#include "os/inline.h"
#include "os/key.h"

#include <bv/hash.h>
#include <bv/os.h>
#include <bv/status.h>

namespace {

// Not 8192: with this count the table's mask uses only eight buckets, which is enough for the few
// dozen functions of a service. The count is also how many names the registry takes.
constexpr uint32_t kRegistrySize = 8196;
constexpr uint32_t kKeySize = 256;
constexpr uint32_t kObjectNameSize = 128;

static_assert(sizeof(void *) != 4 || sizeof(bv_ubus_handler) == 4,
              "the registry stores the address of a handler as 4 bytes");

bv_hash *g_registry;        // from a Key to a bv_ubus_handler
ubus_context *g_connection; // of the run that serves, or of the last one that ended
blob_buf g_reply;           // reused for every reply
char g_object_name[kObjectNameSize];

int dispatch(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
             blob_attr *message);

const ubus_method kMethods[] = {
    {bv::kMethodName, dispatch, 0, 0, bv::kRequestPolicy, bv::kRpcFields}};
constexpr int kMethodCount = 1;

ubus_object_type g_object_type = {"obj", 0, kMethods, kMethodCount};
ubus_object g_object;

using Key = bv::Key<kKeySize>;

// The function called last. Callers often repeat a call (a page that polls), and making and hashing
// a key is the most expensive step of a small call. Any change of the registry empties this. A name
// that does not fit in a key equals no key's text, so it never matches by mistake.
struct LastCalled {
    Key key;
    bv_ubus_handler handler;
};
LastCalled g_last_called = {};

void forget_last_called()
{
    g_last_called.handler = nullptr;
}

bv_ubus_handler find_handler(const char *name)
{
    if (g_last_called.handler != nullptr && bv_os_strcmp(name, g_last_called.key.text()) == 0)
        return g_last_called.handler;

    const void *found = bv::hash_find_name(g_registry, name);
    if (found == nullptr)
        return nullptr;
    bv_os_memcpy(&g_last_called.handler, sizeof(g_last_called.handler), found,
                 sizeof(g_last_called.handler));
    g_last_called.key = Key(name);
    return g_last_called.handler;
}

// A block of the declared length with the request's bytes and zeros after them; null if memory is
// short.
uint8_t *extend_bytes(const bv::RpcRequest &request)
{
    auto *block = bv::allocate<uint8_t>(request.length);
    if (block == nullptr)
        return nullptr;
    const bv::Bytes sent = request.sent.read_only();
    const uint32_t missing = request.length - sent.length;
    if (sent.length != 0)
        bv_os_memcpy(block, request.length, sent.data, sent.length);
    bv_os_memset(block + sent.length, missing, 0, missing);
    return block;
}

// Runs a handler over `data` and returns the reply; null if that cannot be built.
blob_attr *run(bv_ubus_handler handler, bv::MutableBytes data)
{
    const uint32_t result = handler(data.data, data.length);
    return bv::rpc_build_reply(g_reply, result, data.read_only()) ? g_reply.head : nullptr;
}

// Runs the function that a request names and returns the reply; null when the request cannot be
// answered.
blob_attr *serve(blob_attr *message)
{
    bv::RpcRequest request;
    if (!bv::rpc_parse_request(message, request))
        return nullptr;
    const bv_ubus_handler handler = find_handler(request.func);
    if (handler == nullptr)
        return nullptr;

    // A handler changes the owner's state, so the room for its reply is reserved first.
    if (!bv::rpc_reserve_reply(g_reply, request.length))
        return nullptr;
    if (request.length <= request.sent.length)
        return run(handler, {request.sent.data, request.length});

    // Handlers trust the length they get, also when the caller declared more than it sent.
    const bv::Block<uint8_t> bytes(extend_bytes(request));
    return bytes ? run(handler, {bytes.get(), request.length}) : nullptr;
}

// Every request is completed here. The mark keeps the bus library from sending the result of this
// function as a second status.
int dispatch(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
             blob_attr *message)
{
    req->deferred = true;
    blob_attr *reply = serve(message);
    if (reply != nullptr)
        bv_ubus_send_reply(ctx, req, reply);
    bv_ubus_complete_deferred_request(
        ctx, req, reply != nullptr ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_ARGUMENT);
    return UBUS_STATUS_OK;
}

// The loop drops a socket that was hung up before the bus library sees it, and would then wait for
// ever without a bus.
void end_loop(ubus_context *)
{
    uloop_end();
}

void drop_connection()
{
    if (g_connection != nullptr)
        bv_ubus_free(g_connection);
    g_connection = nullptr;
}

void discard_ended_run()
{
    drop_connection();
    forget_last_called();
    bv_hash_exit(g_registry);
    g_registry = nullptr;
}

bool connect_to_bus()
{
    g_connection = bv_ubus_connect(nullptr);
    if (g_connection == nullptr)
        return false;
    g_connection->connection_lost = end_loop;
    if (bv_uloop_fd_add(&g_connection->sock, ULOOP_READ | ULOOP_BLOCKING) == 0)
        return true;
    drop_connection();
    return false;
}

int publish(const char *object_name)
{
    bv_os_strcpy(g_object_name, sizeof(g_object_name), object_name);
    // New records: with the ids of an earlier connection in them, the bus would accept the object
    // but no caller could find it.
    g_object_type.id = 0;
    g_object = ubus_object{};
    g_object.name = g_object_name;
    g_object.type = &g_object_type;
    g_object.methods = kMethods;
    g_object.n_methods = kMethodCount;
    return bv_ubus_add_object(g_connection, &g_object);
}

} // namespace

int32_t bv_ubus_server_reg(const char *name, bv_ubus_handler handler)
{
    if (g_registry == nullptr || name == nullptr || handler == nullptr)
        return BV_ERR_FAILED;
    forget_last_called();
    return bv_hash_insert(g_registry, Key(name).bytes(), &handler);
}

int32_t bv_ubus_server_init(const char *object_name, int (*register_callback)(void))
{
    discard_ended_run();
    g_registry = bv_hash_init(kRegistrySize, kKeySize, sizeof(bv_ubus_handler));
    if (g_registry == nullptr)
        return BV_ERR_FAILED;
    if (register_callback != nullptr)
        register_callback();

    // Without a loop the run below would spin instead of waiting.
    if (bv_uloop_init() != 0 || !connect_to_bus())
        return BV_ERR_FAILED;
    const int status = publish(object_name != nullptr ? object_name : bv::kDefaultObjectName);
    if (status != UBUS_STATUS_OK) {
        drop_connection();
        return status;
    }

    bv_uloop_run();
    bv_uloop_done();
    return BV_OK;
}
