// SPDX-License-Identifier: ISC
// Message bus wrappers: arguments and results pass through unchanged.

#include <bv/ubus.h>

ubus_context *bv_ubus_connect(const char *path)
{
    return ubus_connect(path);
}

void bv_ubus_free(ubus_context *ctx)
{
    ubus_free(ctx);
}

int bv_ubus_add_object(ubus_context *ctx, ubus_object *obj)
{
    return ubus_add_object(ctx, obj);
}

int bv_ubus_lookup_id(ubus_context *ctx, const char *path, uint32_t *id)
{
    return ubus_lookup_id(ctx, path, id);
}

int bv_ubus_invoke(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                   ubus_data_handler_t cb, void *priv, int timeout_ms)
{
    return ubus_invoke(ctx, obj, method, msg, cb, priv, timeout_ms);
}

int bv_ubus_send_reply(ubus_context *ctx, ubus_request_data *req, blob_attr *msg)
{
    return ubus_send_reply(ctx, req, msg);
}

void bv_ubus_complete_deferred_request(ubus_context *ctx, ubus_request_data *req, int ret)
{
    ubus_complete_deferred_request(ctx, req, ret);
}
