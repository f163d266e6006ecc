// SPDX-License-Identifier: ISC
// Objects and their types: publishing and withdrawing.

#include "ubusd.h"

#include <stdlib.h>
#include <string.h>

#include <libubox/avl-cmp.h>
#include <libubox/blobmsg.h>

// More than the daemon's messages about an object hold besides its path and signature.
enum { kAroundObject = 128 };

struct avl_tree objects_by_path;
static struct avl_tree objects;
static struct avl_tree types;

void objects_init(void)
{
    ids_init(&objects);
    ids_init(&types);
    avl_init(&objects_by_path, avl_strcmp, false, NULL);
}

struct object *object_find(uint32_t id)
{
    struct object *object;
    return avl_find_element(&objects, &id, object, by_id);
}

// The daemon's own objects exist without a record, and no client may change them.
bool is_system_object(uint32_t id)
{
    return id >= UBUS_SYSTEM_OBJECT_EVENT && id <= UBUS_SYSTEM_OBJECT_MONITOR;
}

static bool signature_is_sound(const struct blob_attr *signature)
{
    struct blob_attr *method;
    size_t rest;
    blob_for_each_attr(method, signature, rest)
    {
        if (!blobmsg_check_attr(method, true))
            return false;
    }
    return true;
}

// A new type that no object has yet; null when memory is short.
static struct object_type *type_create(const struct blob_attr *signature)
{
    size_t length = blob_len(signature);
    struct object_type *type = calloc(1, sizeof(*type) + length);
    if (type == NULL)
        return NULL;
    type->length = (uint32_t)length;
    memcpy(type->signature, blob_data(signature), length);
    if (!ids_insert(&types, &type->by_id, &type->id)) {
        free(type);
        return NULL;
    }
    return type;
}

// Gives a new object the type it asks for. An unknown type or a malformed signature is not an
// error: the object then has no type.
static bool type_assign(struct object *object, const struct message *message)
{
    struct blob_attr *signature = message->attr[UBUS_ATTR_SIGNATURE];
    if (message->attr[UBUS_ATTR_OBJTYPE] != NULL) {
        uint32_t id = message_u32(message, UBUS_ATTR_OBJTYPE);
        struct object_type *type;
        object->type = avl_find_element(&types, &id, type, by_id);
    } else if (signature != NULL && signature_is_sound(signature)) {
        object->type = type_create(signature);
        if (object->type == NULL)
            return false;
    }
    if (object->type != NULL)
        object->type->objects++;
    return true;
}

static void type_release(struct object_type *type)
{
    if (type == NULL || --type->objects > 0)
        return;
    avl_delete(&types, &type->by_id);
    free(type);
}

static struct object *object_create(struct client *owner, const char *path)
{
    struct object *object = calloc(1, sizeof(*object));
    if (object == NULL)
        return NULL;
    object->owner = owner;
    INIT_LIST_HEAD(&object->of_owner);
    INIT_LIST_HEAD(&object->watchers);
    ids_init(&object->watched);
    event_init_listener(object);
    if ((path != NULL && (object->path = strdup(path)) == NULL) ||
        !ids_insert(&objects, &object->by_id, &object->id)) {
        free(object->path);
        free(object);
        return NULL;
    }
    return object;
}

static void object_free(struct object *object)
{
    avl_delete(&objects, &object->by_id);
    type_release(object->type);
    free(object->path);
    free(object);
}

// Charges the object to its owner. The messages about it, by the daemon itself, are held to the
// same limit as all others.
static uint32_t object_admit(struct object *object)
{
    struct client *owner = object->owner;
    size_t bytes = object->path != NULL ? strlen(object->path) + 1 : 0;
    if (object->type != NULL)
        bytes += object->type->length;
    if (object->path != NULL && bytes > UBUS_MAX_MSGLEN - kAroundObject)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (!client_keeps(owner, &owner->kept.objects, bytes))
        return UBUS_STATUS_NO_MEMORY;
    object->kept_bytes = bytes;
    return UBUS_STATUS_OK;
}

static void object_enter(struct object *object)
{
    list_add_tail(&object->of_owner, &object->owner->objects);
    if (object->path != NULL) {
        object->by_path.key = object->path;
        avl_insert(&objects_by_path, &object->by_path);
    }
}

// DATA {OBJID, [OBJTYPE]}
static void answer_object(struct client *client, const struct message *message,
                          const struct object *object, bool with_type)
{
    struct blob_buf *answer = answer_begin();
    if (answer == NULL || blob_put_u32(answer, UBUS_ATTR_OBJID, object->id) == NULL)
        return;
    if (with_type && blob_put_u32(answer, UBUS_ATTR_OBJTYPE, object->type->id) == NULL)
        return;
    send_blob(client, NULL, UBUS_MSG_DATA, message->seq, message->peer, answer->head);
}

void request_add_object(struct client *client, const struct message *message)
{
    struct blob_attr *path_attr = message->attr[UBUS_ATTR_OBJPATH];
    const char *path = path_attr != NULL ? blob_data(path_attr) : NULL;
    if (path != NULL && avl_find(&objects_by_path, path) != NULL) {
        send_status(client, message, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    struct object *object = object_create(client, path);
    if (object == NULL) {
        send_status(client, message, UBUS_STATUS_NO_MEMORY);
        return;
    }
    uint32_t status =
        type_assign(object, message) ? object_admit(object) : (uint32_t)UBUS_STATUS_NO_MEMORY;
    if (status != UBUS_STATUS_OK) {
        object_free(object);
        send_status(client, message, status);
        return;
    }

    object_enter(object);
    // Listeners hear of it first, the new owner too if it is one.
    event_object_added(object);
    answer_object(client, message, object,
                  object->type != NULL && message->attr[UBUS_ATTR_SIGNATURE] != NULL);
    send_status(client, message, UBUS_STATUS_OK);
}

void object_remove(struct object *object)
{
    if (object->path != NULL)
        avl_delete(&objects_by_path, &object->by_path);
    list_del(&object->of_owner);
    object->owner->kept.objects--;
    client_releases(object->owner, object->kept_bytes);

    subscriptions_forget(object);
    event_forget_listener(object);
    event_object_removed(object);
    object_free(object);
}

// The client's own object that a request is about; null after the request was refused.
struct object *object_of_request(struct client *client, const struct message *message)
{
    if (message->attr[UBUS_ATTR_OBJID] == NULL) {
        send_status(client, message, UBUS_STATUS_INVALID_ARGUMENT);
        return NULL;
    }

    uint32_t id = message_u32(message, UBUS_ATTR_OBJID);
    struct object *object = object_find(id);
    if (object != NULL && object->owner == client)
        return object;
    send_status(client, message,
                object != NULL || is_system_object(id) ? UBUS_STATUS_PERMISSION_DENIED
                                                       : UBUS_STATUS_NOT_FOUND);
    return NULL;
}

void request_remove_object(struct client *client, const struct message *message)
{
    struct object *object = object_of_request(client, message);
    if (object == NULL)
        return;
    answer_object(client, message, object, object->type != NULL && object->type->objects == 1);
    object_remove(object);
    send_status(client, message, UBUS_STATUS_OK);
}
