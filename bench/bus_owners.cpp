/* SPDX-License-Identifier: ISC */
#include "bench/bus_owners.h"

#include <bv/status.h>

#include <cstdlib>
#include <cstring>

namespace {

// ---- the library's owner ----

uint32_t echo(void *, uint32_t)
{
    return BV_OK;
}

int register_echo()
{
    return bv_ubus_server_reg("echo", echo);
}

// ---- the bare object ----

enum { kFunc, kLen, kData, kFields };
const blobmsg_policy kRequest[kFields] = {
    {"func", BLOBMSG_TYPE_STRING}, {"len", BLOBMSG_TYPE_INT32}, {"data", BLOBMSG_TYPE_UNSPEC}};
const blobmsg_policy kReply[kFields] = {
    {"return", BLOBMSG_TYPE_INT32}, {"len", BLOBMSG_TYPE_INT32}, {"data", BLOBMSG_TYPE_UNSPEC}};

int answer_bare(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                blob_attr *message)
{
    static blob_buf reply;
    blob_attr *fields[kFields];
    blobmsg_parse(kRequest, kFields, fields, blob_data(message),
                  static_cast<unsigned>(blob_len(message)));
    if (fields[kData] == nullptr)
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf_init(&reply, 0);
    blobmsg_add_u32(&reply, "return", 0);
    blobmsg_add_u32(&reply, "len", blobmsg_get_u32(fields[kLen]));
    blobmsg_add_field(&reply, BLOBMSG_TYPE_UNSPEC, "data", blobmsg_data(fields[kData]),
                      static_cast<unsigned>(blobmsg_data_len(fields[kData])));
    ubus_send_reply(ctx, req, reply.head);
    return UBUS_STATUS_OK; // the one status of the call
}

struct Bytes {
    uint8_t *data;
    uint32_t size;
};

void take_bare(ubus_request *req, int, blob_attr *message)
{
    blob_attr *fields[kFields];
    blobmsg_parse(kReply, kFields, fields, blob_data(message),
                  static_cast<unsigned>(blob_len(message)));
    const auto *to = static_cast<const Bytes *>(req->priv);
    if (fields[kData] != nullptr && blobmsg_data_len(fields[kData]) == to->size)
        memcpy(to->data, blobmsg_data(fields[kData]), to->size);
}

ubus_context *g_bus;
uint32_t g_bare_id;

} // namespace

void serve_bv()
{
    bv_ubus_server_init(nullptr, register_echo);
}

void serve_bare()
{
    static const ubus_method methods[] = {{"method", answer_bare, 0, 0, kRequest, kFields}};
    static ubus_object_type type = {"bare", 0, methods, 1};
    static ubus_object object;
    object.name = "bare";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 1;
    uloop_init();
    ubus_context *ctx = ubus_connect(nullptr);
    ubus_add_object(ctx, &object);
    ubus_add_uloop(ctx);
    uloop_run();
}

bool bare_connect()
{
    if (g_bus == nullptr)
        g_bus = ubus_connect(nullptr);
    return g_bus != nullptr && ubus_lookup_id(g_bus, "bare", &g_bare_id) == UBUS_STATUS_OK;
}

bool bare_call(uint8_t *data, uint32_t size)
{
    static blob_buf request;
    Bytes answer = {data, size};
    blob_buf_init(&request, 0);
    blobmsg_add_string(&request, "func", "echo");
    blobmsg_add_u32(&request, "len", size);
    blobmsg_add_field(&request, BLOBMSG_TYPE_UNSPEC, "data", data, size);
    return ubus_invoke(g_bus, g_bare_id, "method", request.head, take_bare, &answer, 3000) ==
           UBUS_STATUS_OK;
}
