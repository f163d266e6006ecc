/* SPDX-License-Identifier: ISC */
/* The public headers under a strict compiler; built twice, as C11 and as C++17. */
#include <libubus.h>

static int answer(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                  const char *method, struct blob_attr *msg)
{
    struct ubus_request_data later;

    (void)obj;
    (void)method;
    ubus_defer_request(ctx, req, &later);
    return ubus_invoke(ctx, 1, "m", msg, NULL, NULL, 1);
}

static const struct blobmsg_policy policy[] = {{"a", BLOBMSG_TYPE_STRING}};

static const struct ubus_method methods[] = {
    UBUS_METHOD("a", answer, policy),
    UBUS_METHOD_TAG("b", answer, policy, UBUS_TAG_STATUS),
    UBUS_METHOD_MASK("c", answer, policy, 1),
    UBUS_METHOD_NOARG("d", answer),
    UBUS_METHOD_TAG_NOARG("e", answer, UBUS_TAG_ADMIN),
};

struct ubus_object_type headers_type(void);

struct ubus_object_type headers_type(void)
{
    struct ubus_object_type type = UBUS_OBJECT_TYPE("type", methods);

    return type;
}
