// Objects and their types: publishing and withdrawing.

#include "ubusd.h"

#include <stdlib.h>
#include <string.h>

#include <libubox/avl-cmp.h>
#include <libubox/blobmsg.h>

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

// The daemon's own objects exist, though no record stands for them and nobody may touch them.
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

// A new type, referred to by nobody yet; null for a signature that makes no sense.
static struct object_type *type_create(const struct blob_attr *signature)
{
    size_t length = blob_len(signature);

    if (!signature_is_sound(signature))
        return NULL;
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

// The type a new object asks for. An unknown one is no error: the object goes without.
static struct object_type *type_wanted(const struct message *message)
{
    if (message->attr[UBUS_ATTR_OBJTYPE] != NULL) {
        uint32_t id = message_u32(message, UBUS_ATTR_OBJTYPE);
        struct object_type *type;
        return avl_find_element(&types, &id, type, by_id);
    }
    if (message->attr[UBUS_ATTR_SIGNATURE] != NULL)
        return type_create(message->attr[UBUS_ATTR_SIGNATURE]);
    return NULL;
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
    INIT_LIST_HEAD(&object->watchers);
    INIT_LIST_HEAD(&object->watched);
    INIT_LIST_HEAD(&object->patterns);
    INIT_LIST_HEAD(&object->of_listener);

    if (path != NULL && (object->path = strdup(path)) == NULL)
        goto fail;
    if (!ids_insert(&objects, &object->by_id, &object->id))
        goto fail;
    list_add_tail(&object->of_owner, &owner->objects);
    if (path != NULL) {
        object->by_path.key = object->path;
        avl_insert(&objects_by_path, &object->by_path);
    }
    return object;

fail:
    free(object->path);
    free(object);
    return NULL;
}

// DATA {OBJID, [OBJTYPE]}
static void answer_object(struct client *client, const struct message *message,
                          const struct object *object, bool with_type)
{
    struct blob_buf *answer = answer_begin();

    if (answer == NULL)
        return;
    blob_put_u32(answer, UBUS_ATTR_OBJID, object->id);
    if (with_type)
        blob_put_u32(answer, UBUS_ATTR_OBJTYPE, object->type->id);
    send_blob(client, UBUS_MSG_DATA, message->seq, message->peer, answer->head);
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
    object->type = type_wanted(message);
    if (object->type != NULL)
        object->type->objects++;

    // Listeners hear of it first, the new owner too if it is one.
    event_object_added(object);
    answer_object(client, message, object,
                  object->type != NULL && message->attr[UBUS_ATTR_SIGNATURE] != NULL);
    send_status(client, message, UBUS_STATUS_OK);
}

void object_remove(struct object *object)
{
    avl_delete(&objects, &object->by_id);
    if (object->path != NULL)
        avl_delete(&objects_by_path, &object->by_path);
    list_del(&object->of_owner);

    subscriptions_forget(object);
    event_forget_listener(object);
    event_object_removed(object);

    type_release(object->type);
    free(object->path);
    free(object);
}

void objects_remove_all_of(struct client *client)
{
    while (!list_empty(&client->objects))
        object_remove(list_first_entry(&client->objects, struct object, of_owner));
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
