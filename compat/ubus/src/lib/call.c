// SPDX-License-Identifier: ISC
// Calling methods of others.

#include "internal.h"

#include <string.h>

UBUS_EXPORT int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
                               struct blob_attr *msg, ubus_data_handler_t cb, void *priv,
                               int timeout, int fd)
{
    size_t name_size = strlen(method) + 1;
    size_t length = msg != NULL ? blob_len(msg) : 0;
    struct ubus_request request = {.peer = obj, .data_cb = cb, .priv = priv};
    uint8_t head[3 * kWordLength];
    uint8_t data[4 + kWordLength]; // padding of the name, then the first word of the fields
    size_t name_padding = padding(name_size);

    put_attr(put_u32(head, UBUS_ATTR_OBJID, obj), UBUS_ATTR_METHOD, name_size);
    memset(data, 0, name_padding);
    put_attr(data + name_padding, UBUS_ATTR_DATA, length);
    struct iovec parts[] = {
        {NULL, 0},
        {head, sizeof(head)},
        {(void *)(uintptr_t)method, name_size},
        {data, name_padding + kWordLength},
        {msg != NULL ? blob_data(msg) : NULL, length},
        {(void *)(uintptr_t)kZeros, padding(length)},
    };
    return request_run(connection_of(ctx), &request, UBUS_MSG_INVOKE, parts, (int)ARRAY_SIZE(parts),
                       fd, timeout);
}
