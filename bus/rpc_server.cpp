// The owner's side of remote calls: a registry of functions by name and one bus object whose only
// method runs them.
//
// A loop that has ended leaves its connection and its object behind; nothing is torn down on the
// way out, since most services exit then. The next start tidies up after it, because the object
// left behind would make the new one a duplicate.

#include <bv/ubus.h>

#include "bus/rpc_message.h"

#include <bv/hash.h>
#include <bv/os.h>
#include <bv/status.h>

namespace {

// Not 8192: with this count the table's mask spreads names over eight buckets only, which a
// gateway's few dozen functions never notice.
constexpr uint32_t kRegistrySize = 8196;
constexpr uint32_t kKeySize = 256;
constexpr uint32_t kObjectNameSize = 128;

static_assert(sizeof(void *) != 4 || sizeof(bv_ubus_handler) == 4, "the registry's record");

bv_hash *g_registry;        // name, zero-filled to kKeySize -> bv_ubus_handler
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

struct Key {
    char bytes[kKeySize];
};

const uint8_t *key_bytes(const Key &key)
{
    return reinterpret_cast<const uint8_t *>(key.bytes);
}

// A name that does not fit means the empty name. The print that refuses it leaves text behind the
// terminator, so the key, which is compared whole, is cleared again.
void make_key(Key &key, const char *name)
{
    key = Key{};
    if (bv_os_sprintf(key.bytes, sizeof(key.bytes), "%s", name) < 0)
        key = Key{};
}

// The function called last. Callers repeat themselves (a page that polls), and making and hashing
// a whole key is the dearest step of a small call. Any change of the registry empties it. A name
// that does not fit equals no key's text, so it never hits by mistake.
struct LastCalled {
    Key key;
    bv_ubus_handler handler;
};
LastCalled g_last_called;

void forget_last_called()
{
    g_last_called.handler = nullptr;
}

bv_ubus_handler find_handler(const char *name)
{
    if (g_last_called.handler != nullptr && bv_os_strcmp(name, g_last_called.key.bytes) == 0)
        return g_last_called.handler;

    Key key;
    make_key(key, name);
    const void *found = bv_hash_find(g_registry, key_bytes(key));
    if (found == nullptr)
        return nullptr;
    bv_os_memcpy(&g_last_called.handler, sizeof(g_last_called.handler), found,
                 sizeof(g_last_called.handler));
    g_last_called.key = key;
    return g_last_called.handler;
}

// The bytes that a handler works on: the message's own, or, when the caller declared more than it
// sent, a block that starts with them and goes on with zeros. Handlers trust the length they get.
class HandlerBytes {
public:
    explicit HandlerBytes(const bv::RpcRequest &request) : data_(request.data)
    {
        if (request.length > request.available)
            data_ = block_ = make_block(request);
    }
    ~HandlerBytes()
    {
        if (block_ != nullptr)
            bv_os_free(block_);
    }
    HandlerBytes(const HandlerBytes &) = delete;
    HandlerBytes &operator=(const HandlerBytes &) = delete;

    uint8_t *get() const { return data_; } // null when there was no memory for a block

private:
    static uint8_t *make_block(const bv::RpcRequest &request)
    {
        uint8_t *block = static_cast<uint8_t *>(bv_os_malloc(request.length));
        if (block == nullptr)
            return nullptr;
        const uint32_t missing = request.length - request.available;
        if (request.available != 0)
            bv_os_memcpy(block, request.length, request.data, request.available);
        bv_os_memset(block + request.available, missing, 0, missing);
        return block;
    }

    uint8_t *data_;
    uint8_t *block_ = nullptr;
};

// Runs the function that a request names and fills the reply buffer; false when the request is
// not one that can be answered.
bool serve(blob_attr *message)
{
    bv::RpcRequest request;
    if (!bv::rpc_parse_request(message, request))
        return false;
    const bv_ubus_handler handler = find_handler(request.func);
    if (handler == nullptr)
        return false;

    // A handler changes the owner's state, so whatever could keep its reply back is found before.
    if (!bv::rpc_reserve_reply(g_reply, request.length))
        return false;
    const HandlerBytes bytes(request);
    if (bytes.get() == nullptr)
        return false;

    const uint32_t result = handler(bytes.get(), request.length);
    return bv::rpc_build_reply(g_reply, result, bytes.get(), request.length);
}

// Every request is completed here. The mark keeps the bus library from making a second status out
// of what this returns.
int dispatch(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
             blob_attr *message)
{
    req->deferred = true;
    if (!serve(message)) {
        bv_ubus_complete_deferred_request(ctx, req, UBUS_STATUS_INVALID_ARGUMENT);
        return UBUS_STATUS_OK;
    }
    bv_ubus_send_reply(ctx, req, g_reply.head);
    bv_ubus_complete_deferred_request(ctx, req, UBUS_STATUS_OK);
    return UBUS_STATUS_OK;
}

// The loop drops a socket that was hung up before the library gets to see it, and would sleep on
// without a bus for ever.
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
    // Fresh records: with the ids of an earlier connection in them the bus would take the object
    // and show it to nobody.
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
    Key key;
    make_key(key, name);
    return bv_hash_insert(g_registry, key_bytes(key), &handler);
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
