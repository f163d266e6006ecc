// SPDX-License-Identifier: ISC
// The caller's side of remote calls: one connection per process, one call at a time.

#include <bv/ubus.h>

#include "bus/rpc_message.h"
#include "os/inline.h"

#include <bv/os.h>
#include <bv/status.h>

#include <algorithm>

namespace {

constexpr int kCallTimeoutMs = 3000;

ubus_context *g_connection; // null while not connected
uint32_t g_object_id;       // 0, which no object has, until it is looked up
blob_buf g_request;         // reused for every call

// Result of the newest reply. It is not reset before a call: services rely on a call that ends
// without a reply returning the result of the call before it.
uint32_t g_last_result;

// Copies as many bytes as the reply declares and really has. The request's length does not matter:
// a short request may ask for a long answer, and the buffer must hold whatever the owner sends
// back.
void copy_reply(void *data, const bv::RpcReply &reply)
{
    const uint32_t length = std::min(reply.length, reply.sent.length);
    if (data == nullptr || length == 0)
        return;
    bv_os_memcpy(data, length, reply.sent.data, length);
}

void take_reply(ubus_request *req, int, blob_attr *message)
{
    bv::RpcReply reply;
    if (!bv::rpc_parse_reply(message, reply)) {
        g_last_result = BV_ERR_INVALID;
        return;
    }
    g_last_result = reply.result;
    copy_reply(req->priv, reply);
}

} // namespace

int32_t bv_ubus_client_init(const char *object_name)
{
    bv_ubus_client_exit();
    g_connection = bv_ubus_connect(nullptr);
    if (g_connection == nullptr)
        return BV_ERR_FAILED;
    // An owner that is missing so far is not a failure here: calls report it.
    bv_ubus_lookup_id(g_connection, object_name != nullptr ? object_name : bv::kDefaultObjectName,
                      &g_object_id);
    return BV_OK;
}

uint32_t bv_ubus_client_call(const char *func_name, void *data, uint32_t len)
{
    if (func_name == nullptr || (data == nullptr && len != 0))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (g_connection == nullptr)
        return UBUS_STATUS_CONNECTION_FAILED;
    if (!bv::rpc_build_request(g_request, func_name, bv::bytes_of(data, len).read_only()))
        return UBUS_STATUS_INVALID_ARGUMENT;

    const int status = bv_ubus_invoke(g_connection, g_object_id, bv::kMethodName, g_request.head,
                                      take_reply, data, kCallTimeoutMs);
    if (status != UBUS_STATUS_OK)
        return static_cast<uint32_t>(status);
    return g_last_result;
}

void bv_ubus_client_exit(void)
{
    if (g_connection != nullptr)
        bv_ubus_free(g_connection);
    g_connection = nullptr;
    g_object_id = 0;
}
