// SPDX-License-Identifier: ISC
// Events: object 1, with which clients send events and register for them, and the daemon's own
// events about objects that come and go.

#include "ubusd.h"

#include <stdlib.h>
#include <string.h>

#include <libubox/avl-cmp.h>
#include <libubox/blobmsg.h>

struct pattern {
    struct avl_node by_text; // key: text
    size_t length;
    char text[];
};

struct event {
    const char *name;
    size_t name_size;
    const void *fields;
    size_t length;
    struct client *cause; // charged for it
    bool is_daemons;      // sent to everyone; a client's own is not sent to itself
};

static LIST_HEAD(listeners); // objects with patterns, object.of_listener

static const char kReserved[] = "ubus."; // names of the daemon's own events

// As ubus_pattern_matches(), but patterns may be long.
static bool matches(const struct pattern *pattern, const char *name)
{
    if (pattern->text[pattern->length - 1] == '*')
        return strncmp(pattern->text, name, pattern->length - 1) == 0;
    return strcmp(pattern->text, name) == 0;
}

static bool listens_to(const struct object *object, const char *name)
{
    struct pattern *pattern;
    avl_for_each_element(&object->patterns, pattern, by_text)
    {
        if (matches(pattern, name))
            return true;
    }
    return false;
}

// Nothing is copied before it is known that there is room: there may be many listeners.
static void deliver(const struct object *object, const struct event *event)
{
    static const uint8_t kZeros[BLOB_ATTR_ALIGN];
    static uint16_t seq;
    uint8_t head[kMessageMinimum + 3 * kWordLength];
    uint8_t data[kWordLength];
    struct iovec parts[] = {
        {head, sizeof(head)},
        {(void *)(uintptr_t)event->name, event->name_size},
        {(void *)(uintptr_t)kZeros, padding(event->name_size)},
        {data, sizeof(data)},
        {(void *)(uintptr_t)event->fields, event->length},
        {(void *)(uintptr_t)kZeros, padding(event->length)},
    };
    enum { kCount = sizeof(parts) / sizeof(parts[0]) };
    size_t length = 0;

    for (int i = 0; i < kCount; i++)
        length += parts[i].iov_len;
    uint8_t *body = put_header(head, UBUS_MSG_INVOKE, ++seq, 0);
    uint8_t *attrs = put_be32(body, (uint32_t)(length - kHeaderLength));
    put_attr(put_u32(attrs, UBUS_ATTR_OBJID, object->id), UBUS_ATTR_METHOD, event->name_size);
    put_attr(data, UBUS_ATTR_DATA, event->length);
    output_send(object->owner, (struct origin){.from = event->cause}, parts, kCount);
}

// An object hears of an event once, however many of its patterns fit.
static void publish(const struct event *event)
{
    struct object *object;
    list_for_each_entry(object, &listeners, of_listener)
    {
        if ((object->owner == event->cause && !event->is_daemons) || object->owner->broken)
            continue;
        event->cause->work += kWorkLook * object->patterns.count;
        if (!listens_to(object, event->name))
            continue;
        event->cause->work += kWorkSend;
        deliver(object, event);
    }
}

static void publish_object(const char *event, const struct object *object)
{
    static struct blob_buf fields;
    if (object->path == NULL || list_empty(&listeners))
        return;
    if (blob_buf_init(&fields, 0) != 0 || blobmsg_add_u32(&fields, "id", object->id) != 0 ||
        blobmsg_add_string(&fields, "path", object->path) != 0)
        return;
    publish(&(struct event){event, strlen(event) + 1, blob_data(fields.head), blob_len(fields.head),
                            object->owner, true});
}

void event_object_added(const struct object *object)
{
    publish_object("ubus.object.add", object);
}

void event_object_removed(const struct object *object)
{
    publish_object("ubus.object.remove", object);
}

void event_init_listener(struct object *object)
{
    avl_init(&object->patterns, avl_strcmp, false, NULL);
    INIT_LIST_HEAD(&object->of_listener);
}

void event_forget_listener(struct object *object)
{
    struct pattern *pattern, *next;
    object->owner->kept.patterns -= object->patterns.count;
    avl_remove_all_elements(&object->patterns, pattern, by_text, next) free(pattern);
    list_del_init(&object->of_listener);
}

static bool add_pattern(struct object *object, const char *text)
{
    struct client *owner = object->owner;
    size_t size = strlen(text) + 1;

    // Registering the same pattern again has no effect.
    if (avl_find(&object->patterns, text) != NULL)
        return true;

    struct pattern *pattern = malloc(sizeof(*pattern) + size);
    if (pattern == NULL)
        return false;
    if (!client_keeps(owner, &owner->kept.patterns, size)) {
        free(pattern);
        return false;
    }
    object->kept_bytes += size;
    pattern->length = size - 1;
    pattern->by_text.key = memcpy(pattern->text, text, size);
    avl_insert(&object->patterns, &pattern->by_text);
    if (list_empty(&object->of_listener))
        list_add_tail(&object->of_listener, &listeners);
    return true;
}

static uint32_t call_register(struct client *client, struct blob_attr *fields)
{
    enum { kObject, kPattern, kCount };
    static const struct blobmsg_policy policy[kCount] = {
        [kObject] = {"object", BLOBMSG_TYPE_INT32},
        [kPattern] = {"pattern", BLOBMSG_TYPE_STRING},
    };
    struct blob_attr *found[kCount];

    blobmsg_parse(policy, kCount, found, blob_data(fields), (unsigned int)blob_len(fields));
    if (found[kObject] == NULL || found[kPattern] == NULL)
        return UBUS_STATUS_INVALID_ARGUMENT;

    uint32_t id = blobmsg_get_u32(found[kObject]);
    if (id < UBUS_SYSTEM_OBJECT_MAX)
        return UBUS_STATUS_PERMISSION_DENIED;
    struct object *object = object_find(id);
    if (object == NULL)
        return UBUS_STATUS_NOT_FOUND;
    const char *text = blobmsg_get_string(found[kPattern]);
    if (object->owner != client || text[0] == '\0')
        return UBUS_STATUS_PERMISSION_DENIED;
    return add_pattern(object, text) ? UBUS_STATUS_OK : UBUS_STATUS_NO_MEMORY;
}

static uint32_t call_send(struct client *client, struct blob_attr *fields)
{
    enum { kId, kData, kCount };
    static const struct blobmsg_policy policy[kCount] = {
        [kId] = {"id", BLOBMSG_TYPE_STRING},
        [kData] = {"data", BLOBMSG_TYPE_TABLE},
    };
    struct blob_attr *found[kCount];

    blobmsg_parse(policy, kCount, found, blob_data(fields), (unsigned int)blob_len(fields));
    if (found[kId] == NULL || found[kData] == NULL)
        return UBUS_STATUS_INVALID_ARGUMENT;

    const char *event = blobmsg_get_string(found[kId]);
    if (strncmp(event, kReserved, sizeof(kReserved) - 1) == 0)
        return UBUS_STATUS_PERMISSION_DENIED;
    publish(&(struct event){event, strlen(event) + 1, blobmsg_data(found[kData]),
                            blobmsg_data_len(found[kData]), client, false});
    return UBUS_STATUS_OK;
}

void event_call(struct client *client, const struct message *message)
{
    static const struct {
        const char *name;
        uint32_t (*call)(struct client *client, struct blob_attr *fields);
    } kMethods[] = {{"register", call_register}, {"send", call_send}};
    const char *method = blob_data(message->attr[UBUS_ATTR_METHOD]);
    struct blob_attr *fields = message->attr[UBUS_ATTR_DATA];
    uint32_t status = UBUS_STATUS_INVALID_COMMAND;

    for (size_t i = 0; i < sizeof(kMethods) / sizeof(kMethods[0]); i++) {
        if (strcmp(kMethods[i].name, method) == 0)
            status = fields != NULL ? kMethods[i].call(client, fields)
                                    : (uint32_t)UBUS_STATUS_INVALID_ARGUMENT;
    }
    send_status(client, message, status);
}
