// SPDX-License-Identifier: ISC
// Taking a message's body apart, for client library and daemon alike.

#ifndef UBUS_ATTRIBUTES_H
#define UBUS_ATTRIBUTES_H

#include <string.h>

#include "wire.h"

// Sorts the attributes of a body by id. What is absent or of the wrong shape becomes null. `attrs`
// has UBUS_ATTR_MAX entries.
static inline void parse_attrs(const uint8_t *body, size_t length, struct blob_attr **attrs)
{
    static const struct blob_attr_info kShapes[UBUS_ATTR_MAX] = {
        [UBUS_ATTR_STATUS] = {.type = BLOB_ATTR_INT32},
        [UBUS_ATTR_OBJPATH] = {.type = BLOB_ATTR_STRING},
        [UBUS_ATTR_OBJID] = {.type = BLOB_ATTR_INT32},
        [UBUS_ATTR_METHOD] = {.type = BLOB_ATTR_STRING},
        [UBUS_ATTR_OBJTYPE] = {.type = BLOB_ATTR_INT32},
        [UBUS_ATTR_SIGNATURE] = {.type = BLOB_ATTR_NESTED},
        [UBUS_ATTR_DATA] = {.type = BLOB_ATTR_NESTED},
        [UBUS_ATTR_TARGET] = {.type = BLOB_ATTR_INT32},
        [UBUS_ATTR_ACTIVE] = {.type = BLOB_ATTR_INT8},
        [UBUS_ATTR_NO_REPLY] = {.type = BLOB_ATTR_INT8},
        [UBUS_ATTR_SUBSCRIBERS] = {.type = BLOB_ATTR_NESTED},
        [UBUS_ATTR_USER] = {.type = BLOB_ATTR_STRING},
        [UBUS_ATTR_GROUP] = {.type = BLOB_ATTR_STRING},
    };
    memset(attrs, 0, UBUS_ATTR_MAX * sizeof(*attrs));
    blob_parse_untrusted((struct blob_attr *)(uintptr_t)body, length, attrs, kShapes,
                         UBUS_ATTR_MAX);
}

#endif
