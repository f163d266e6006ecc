// SPDX-License-Identifier: ISC
// Watching objects: a client's object (the watcher) subscribes to another client's (the target) and
// gets its notifications as calls.

#include "ubusd.h"

#include <stdlib.h>

// The answer to a notification names all watchers of the target, 8 bytes each.
enum { kWatchersMaximum = (UBUS_MAX_MSGLEN - 64) / 8 };

struct subscription {
    struct list_head of_target; // in target->watchers
    struct avl_node of_watcher; // in watcher->watched; key: id of the target
    struct object *target;
    struct object *watcher;
};

// Tells the owner of a target that it has its first watcher, or lost its last. Such messages count
// as those of the client that causes them: it may do so as often as it likes.
static void tell_active(struct object *target, bool active, struct client *cause)
{
    struct blob_buf *body = answer_begin();
    if (body == NULL || blob_put_u32(body, UBUS_ATTR_OBJID, target->id) == NULL ||
        blob_put_u8(body, UBUS_ATTR_ACTIVE, active) == NULL)
        return;
    send_blob(target->owner, cause, UBUS_MSG_NOTIFY, ++target->notify_seq, 0, body->head);
}

// Tells a watcher that its target is gone.
static void tell_gone(struct object *watcher, const struct object *target)
{
    struct blob_buf *body = answer_begin();
    if (body == NULL || blob_put_u32(body, UBUS_ATTR_OBJID, watcher->id) == NULL ||
        blob_put_u32(body, UBUS_ATTR_TARGET, target->id) == NULL)
        return;
    send_blob(watcher->owner, target->owner, UBUS_MSG_UNSUBSCRIBE, ++watcher->notify_seq, 0,
              body->head);
}

static void unsubscribe(struct subscription *subscription, struct client *cause)
{
    struct object *target = subscription->target;
    struct object *watcher = subscription->watcher;
    list_del(&subscription->of_target);
    target->watcher_count--;
    avl_delete(&watcher->watched, &subscription->of_watcher);
    watcher->owner->kept.subscriptions--;
    free(subscription);
    if (list_empty(&target->watchers))
        tell_active(target, false, cause);
}

// Ends all subscriptions of an object, as target and as watcher.
void subscriptions_forget(struct object *object)
{
    struct subscription *subscription, *next;
    list_for_each_entry_safe(subscription, next, &object->watchers, of_target)
    {
        object->owner->work += kWorkSend;
        tell_gone(subscription->watcher, object);
        unsubscribe(subscription, object->owner);
    }
    avl_for_each_element_safe(&object->watched, subscription, of_watcher, next)
        unsubscribe(subscription, object->owner);
}

// The two objects of a SUBSCRIBE or UNSUBSCRIBE, or what is wrong with them.
static uint32_t find_pair(struct client *client, const struct message *message,
                          struct object **watcher, struct object **target)
{
    if (message->attr[UBUS_ATTR_OBJID] == NULL || message->attr[UBUS_ATTR_TARGET] == NULL)
        return UBUS_STATUS_INVALID_ARGUMENT;

    uint32_t id = message_u32(message, UBUS_ATTR_OBJID);
    *watcher = object_find(id);
    if (*watcher == NULL && !is_system_object(id))
        return UBUS_STATUS_NOT_FOUND;
    if (*watcher == NULL || (*watcher)->owner != client)
        return UBUS_STATUS_INVALID_ARGUMENT;
    *target = object_find(message_u32(message, UBUS_ATTR_TARGET));
    return *target != NULL ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND;
}

static struct subscription *find_subscription(struct object *watcher, struct object *target)
{
    struct subscription *subscription;
    return avl_find_element(&watcher->watched, &target->id, subscription, of_watcher);
}

static uint32_t subscribe(struct client *client, struct object *watcher, struct object *target)
{
    if (target->owner == client || find_subscription(watcher, target) != NULL)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (target->watcher_count >= kWatchersMaximum)
        return UBUS_STATUS_NO_MEMORY;

    struct subscription *subscription = calloc(1, sizeof(*subscription));
    if (subscription == NULL)
        return UBUS_STATUS_NO_MEMORY;
    if (!client_keeps(client, &client->kept.subscriptions, 0)) {
        free(subscription);
        return UBUS_STATUS_NO_MEMORY;
    }
    subscription->target = target;
    subscription->watcher = watcher;
    list_add_tail(&subscription->of_target, &target->watchers);
    target->watcher_count++;
    subscription->of_watcher.key = &target->id;
    avl_insert(&watcher->watched, &subscription->of_watcher);
    return UBUS_STATUS_OK;
}

void request_subscribe(struct client *client, const struct message *message)
{
    struct object *watcher = NULL;
    struct object *target = NULL;
    uint32_t status = find_pair(client, message, &watcher, &target);

    if (status == UBUS_STATUS_OK)
        status = subscribe(client, watcher, target);
    send_status(client, message, status);
    if (status == UBUS_STATUS_OK && target->watcher_count == 1)
        tell_active(target, true, client);
}

void request_unsubscribe(struct client *client, const struct message *message)
{
    struct object *watcher = NULL;
    struct object *target = NULL;
    uint32_t status = find_pair(client, message, &watcher, &target);

    if (status == UBUS_STATUS_OK) {
        struct subscription *subscription = find_subscription(watcher, target);
        if (subscription != NULL)
            unsubscribe(subscription, client);
        else
            status = UBUS_STATUS_NOT_FOUND;
    }
    send_status(client, message, status);
}

// STATUS {OBJID, SUBSCRIBERS, STATUS}: whose answers the notifier may expect.
static void answer_watchers(struct client *client, const struct message *message,
                            const struct object *object)
{
    struct blob_buf *body = answer_begin();
    struct subscription *subscription;
    if (body == NULL || blob_put_u32(body, UBUS_ATTR_OBJID, object->id) == NULL)
        return;
    void *list = blob_nest_start(body, UBUS_ATTR_SUBSCRIBERS);
    if (list == NULL)
        return;
    list_for_each_entry(subscription, &object->watchers, of_target)
    {
        if (blob_put_u32(body, 0, subscription->watcher->id) == NULL)
            return;
    }
    blob_nest_end(body, list);
    if (blob_put_u32(body, UBUS_ATTR_STATUS, UBUS_STATUS_OK) == NULL)
        return;
    send_blob(client, NULL, UBUS_MSG_STATUS, message->seq, message->peer, body->head);
}

void request_notify(struct client *client, const struct message *message)
{
    struct blob_attr *no_reply_attr = message->attr[UBUS_ATTR_NO_REPLY];
    bool no_reply = no_reply_attr != NULL && blob_get_u8(no_reply_attr) != 0;
    struct subscription *subscription;

    if (message->attr[UBUS_ATTR_METHOD] == NULL || !call_has_room_for_names(client, message)) {
        send_status(client, message, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    struct object *object = object_of_request(client, message);
    if (object == NULL)
        return;
    if (!no_reply)
        answer_watchers(client, message, object);
    list_for_each_entry(subscription, &object->watchers, of_target)
    {
        struct object *watcher = subscription->watcher;
        client->work += kWorkSend;
        forward_call(watcher->owner, watcher->id, client, message, no_reply);
    }
}
