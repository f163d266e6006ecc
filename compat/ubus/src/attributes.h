// The shapes of the bus protocol's attributes, for client library and daemon alike: one of another
// shape counts as absent.
#ifndef UBUS_ATTRIBUTES_H
#define UBUS_ATTRIBUTES_H

#include <ubusmsg.h>

static const struct blob_attr_info kAttributes[UBUS_ATTR_MAX] = {
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

#endif
