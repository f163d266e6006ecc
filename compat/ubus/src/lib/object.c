// SPDX-License-Identifier: ISC
// Publishing, withdrawing and finding objects.

#include "internal.h"

#include <limits.h>
#include <string.h>

void objects_init(struct connection *connection)
{
    avl_init(&connection->ctx.objects, compare_ids, false, NULL);
    INIT_LIST_HEAD(&connection->unpublished);
}

struct ubus_object *object_find(struct connection *connection, uint32_t id)
{
    struct avl_node *node = avl_find(&connection->ctx.objects, &id);
    return node != NULL ? container_of(node, struct ubus_object, avl) : NULL;
}

// A program's records keep stale links after ubus_free(), so only the lists themselves tell whether
// an object is in them.
static void unlink_object(struct connection *connection, struct ubus_object *object)
{
    struct list_head *entry;
    if (object_find(connection, object->id) == object) {
        avl_delete(&connection->ctx.objects, &object->avl);
        return;
    }
    list_for_each(entry, &connection->unpublished)
    {
        if (entry == &object->avl.list) {
            list_del(entry);
            return;
        }
    }
}

static bool is_published_parameter(const struct ubus_method *method, int index)
{
    const int bits = (int)(sizeof(method->mask) * CHAR_BIT);
    return method->mask == 0 || (index < bits && (method->mask >> index & 1) != 0);
}

// These are false when memory is short: a body with a part left out would mean something else.
static bool put_method(struct blob_buf *body, const struct ubus_method *method)
{
    void *table = blobmsg_open_table(body, method->name);

    if (table == NULL)
        return false;
    for (int i = 0; i < method->n_policy; i++) {
        const struct blobmsg_policy *parameter = &method->policy[i];
        if (is_published_parameter(method, i) &&
            blobmsg_add_u32(body, parameter->name, (uint32_t)parameter->type) != 0)
            return false;
    }
    blobmsg_close_table(body, table);
    return true;
}

static bool put_type(struct blob_buf *body, const struct ubus_object_type *type)
{
    if (type->id != 0)
        return blob_put_u32(body, UBUS_ATTR_OBJTYPE, type->id) != NULL;

    void *signature = blob_nest_start(body, UBUS_ATTR_SIGNATURE);
    if (signature == NULL)
        return false;
    for (int i = 0; i < type->n_methods; i++) {
        if (!put_method(body, &type->methods[i]))
            return false;
    }
    blob_nest_end(body, signature);
    return true;
}

static bool put_object(struct blob_buf *body, const struct ubus_object *object)
{
    if (blob_buf_init(body, 0) != 0)
        return false;
    if (object->name == NULL || object->type == NULL)
        return true;
    return blob_put_string(body, UBUS_ATTR_OBJPATH, object->name) != NULL &&
           put_type(body, object->type);
}

// As message_attrs(), for a handler that gets the body only.
static void body_attrs(struct blob_attr *body, struct blob_attr **attrs)
{
    struct message message = {.body = body, .body_size = blob_raw_len(body)};
    message_attrs(&message, attrs);
}

struct added {
    uint32_t id;
    uint32_t type_id;
};

static void added(struct ubus_request *request, int type, struct blob_attr *body)
{
    struct blob_attr *attrs[UBUS_ATTR_MAX];
    struct added *result = request->priv;

    (void)type;
    body_attrs(body, attrs);
    if (attrs[UBUS_ATTR_OBJID] != NULL)
        result->id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
    if (attrs[UBUS_ATTR_OBJTYPE] != NULL)
        result->type_id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]);
}

static int publish(struct connection *connection, struct ubus_object *object)
{
    struct added result = {0, 0};
    struct ubus_request request = {.raw_data_cb = added, .priv = &result};
    if (!put_object(&connection->body, object))
        return UBUS_STATUS_NO_MEMORY;
    int status = request_body(connection, &request, UBUS_MSG_ADD_OBJECT);
    if (status != UBUS_STATUS_OK)
        return status;
    if (result.id == 0)
        return UBUS_STATUS_NO_DATA;

    unlink_object(connection, object);
    object->id = result.id;
    if (result.type_id != 0 && object->type != NULL)
        object->type->id = result.type_id;
    object->avl.key = &object->id;
    avl_insert(&connection->ctx.objects, &object->avl);
    return UBUS_STATUS_OK;
}

UBUS_EXPORT int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj)
{
    struct connection *connection = connection_of(ctx);

    // The first call may arrive together with the answer: none is served before the id is known.
    connection_enter(connection);
    int status = publish(connection, obj);
    connection_leave(connection);
    return status;
}

UBUS_EXPORT int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj)
{
    struct connection *connection = connection_of(ctx);
    struct added result = {0, 0};
    struct ubus_request request = {.raw_data_cb = added, .priv = &result};

    if (blob_buf_init(&connection->body, 0) != 0)
        return UBUS_STATUS_NO_MEMORY;
    blob_put_u32(&connection->body, UBUS_ATTR_OBJID, obj->id);
    int status = request_body(connection, &request, UBUS_MSG_REMOVE_OBJECT);
    if (status != UBUS_STATUS_OK)
        return status;
    if (result.id == 0)
        return UBUS_STATUS_NO_DATA;

    unlink_object(connection, obj);
    obj->id = 0;
    if (result.type_id != 0 && obj->type != NULL)
        obj->type->id = 0;
    return UBUS_STATUS_OK;
}

// After a reconnection the daemon knows none of our objects. All type ids are cleared first, so
// that no object uses an old one.
void objects_publish_again(struct connection *connection)
{
    struct ubus_context *ctx = &connection->ctx;
    struct ubus_object *object, *next;
    LIST_HEAD(all);

    avl_remove_all_elements(&ctx->objects, object, avl, next)
        list_add_tail(&object->avl.list, &connection->unpublished);
    list_for_each_entry(object, &connection->unpublished, avl.list)
    {
        object->id = 0;
        if (object->type != NULL)
            object->type->id = 0;
    }

    // Each attempt takes an object out of the list; those that fail go back for the next time.
    list_splice_init(&connection->unpublished, &all);
    while (!list_empty(&all)) {
        object = list_first_entry(&all, struct ubus_object, avl.list);
        list_del(&object->avl.list);
        if (ubus_add_object(ctx, object) != UBUS_STATUS_OK)
            list_add_tail(&object->avl.list, &connection->unpublished);
    }
}

struct lookup {
    ubus_lookup_handler_t cb;
    void *priv;
};

static void found_object(struct ubus_request *request, int type, struct blob_attr *body)
{
    struct blob_attr *attrs[UBUS_ATTR_MAX];
    const struct lookup *lookup = request->priv;

    (void)type;
    body_attrs(body, attrs);
    if (attrs[UBUS_ATTR_OBJID] == NULL || attrs[UBUS_ATTR_OBJPATH] == NULL ||
        attrs[UBUS_ATTR_OBJTYPE] == NULL || lookup->cb == NULL)
        return;

    struct ubus_object_data object = {
        .id = blob_get_u32(attrs[UBUS_ATTR_OBJID]),
        .type_id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]),
        .path = blob_data(attrs[UBUS_ATTR_OBJPATH]),
        .signature = attrs[UBUS_ATTR_SIGNATURE],
    };
    lookup->cb(request->ctx, &object, lookup->priv);
}

static void found_id(struct ubus_request *request, int type, struct blob_attr *body)
{
    struct blob_attr *attrs[UBUS_ATTR_MAX];
    (void)type;
    body_attrs(body, attrs);
    if (attrs[UBUS_ATTR_OBJID] != NULL)
        *(uint32_t *)request->priv = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
}

static int look_up(struct connection *connection, const char *path, struct ubus_request *request)
{
    if (blob_buf_init(&connection->body, 0) != 0)
        return UBUS_STATUS_NO_MEMORY;
    if (path != NULL && blob_put_string(&connection->body, UBUS_ATTR_OBJPATH, path) == NULL)
        return UBUS_STATUS_NO_MEMORY;
    return request_body(connection, request, UBUS_MSG_LOOKUP);
}

UBUS_EXPORT int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb,
                            void *priv)
{
    struct lookup lookup = {.cb = cb, .priv = priv};
    struct ubus_request request = {.raw_data_cb = found_object, .priv = &lookup};
    return look_up(connection_of(ctx), path, &request);
}

UBUS_EXPORT int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id)
{
    struct ubus_request request = {.raw_data_cb = found_id, .priv = id};
    return look_up(connection_of(ctx), path, &request);
}
