// Events: object 1, with which clients send events and register for them, and the daemon's own
// events about objects that come and go.

#include "ubusd.h"

#include <stdlib.h>
#include <string.h>

#include <libubox/avl-cmp.h>
#include <libubox/blobmsg.h>

#include "ubus_common.h"

struct pattern {
    struct avl_node by_text; // key: text
    char text[];
};

static LIST_HEAD(listeners); // objects with patterns, object.of_listener

static const char kReserved[] = "ubus."; // names of the daemon's own events

static bool listens_to(const struct object *object, const char *event)
{
    struct pattern *pattern;

    avl_for_each_element(&object->patterns, pattern, by_text)
    {
        if (ubus_pattern_matches(pattern->text, event))
            return true;
    }
    return false;
}

static void deliver(const struct object *object, const char *event, const void *fields,
                    size_t length, struct client *cause)
{
    static uint16_t seq;
    struct blob_buf *call = answer_begin();

    if (call == NULL || blob_put_u32(call, UBUS_ATTR_OBJID, object->id) == NULL ||
        blob_put_string(call, UBUS_ATTR_METHOD, event) == NULL ||
        blob_put(call, UBUS_ATTR_DATA, fields, (unsigned int)length) == NULL)
        return;
    send_blob(object->owner, cause, UBUS_MSG_INVOKE, ++seq, 0, call->head);
}

// An object hears of an event once, however many of its patterns fit. Events of the daemon's go to
// everybody, those of a client not to itself.
static void publish(const char *event, const void *fields, size_t length, struct client *cause,
                    bool is_daemons)
{
    struct object *object;

    list_for_each_entry(object, &listeners, of_listener)
    {
        if ((object->owner == cause && !is_daemons) || object->owner->broken)
            continue;
        cause->work += kWorkLook * object->patterns.count;
        if (!listens_to(object, event))
            continue;
        cause->work += kWorkSend;
        deliver(object, event, fields, length, cause);
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
    publish(event, blob_data(fields.head), blob_len(fields.head), object->owner, true);
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

    // The same pattern again changes nothing that anybody could see.
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
    publish(event, blobmsg_data(found[kData]), blobmsg_data_len(found[kData]), client, false);
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
