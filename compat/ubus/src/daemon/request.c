// SPDX-License-Identifier: ISC
// The requests of clients, and passing on calls and answers.

#include "ubusd.h"

typedef void (*request_handler)(struct client *client, const struct message *message);

// Passes an attribute on as it came, with its padding.
static struct iovec whole_attr(struct blob_attr *attr)
{
    struct iovec part = {attr, attr != NULL ? blob_pad_len(attr) : 0};
    return part;
}

// Whether a call can be passed on with the names that the daemon adds. The largest ones cannot, and
// are refused: without the names a client would pass for one that has none.
bool call_has_room_for_names(const struct client *from, const struct message *call)
{
    return padded(call->length) + from->accounts_length <= kHeaderLength + UBUS_MAX_MSGLEN;
}

// Hands a call, which has room for the names, to the owner of an object. Beyond object, method and
// fields only what the daemon itself knows is passed on.
void forward_call(struct client *to, uint32_t object_id, struct client *from,
                  const struct message *call, bool no_reply)
{
    static const uint8_t kNoReply[] = {UBUS_ATTR_NO_REPLY, 0, 0, 5, 1, 0, 0, 0};
    uint8_t head[kMessageMinimum];
    uint8_t object[2 * kWordLength];
    struct iovec parts[] = {
        {head, sizeof(head)},
        {(void *)(uintptr_t)kNoReply, no_reply ? sizeof(kNoReply) : 0},
        {object, sizeof(object)},
        whole_attr(call->attr[UBUS_ATTR_METHOD]),
        {from->accounts, from->accounts_length},
        whole_attr(call->attr[UBUS_ATTR_DATA]),
    };
    enum { kCount = sizeof(parts) / sizeof(parts[0]) };
    size_t length = 0;

    for (int i = 0; i < kCount; i++)
        length += parts[i].iov_len;
    put_be32(put_header(head, UBUS_MSG_INVOKE, call->seq, from->id),
             (uint32_t)(length - kHeaderLength));
    put_u32(object, UBUS_ATTR_OBJID, object_id);
    output_send(to, (struct origin){from, call->type == UBUS_MSG_INVOKE}, parts, kCount);
}

static void request_invoke(struct client *client, const struct message *message)
{
    if (message->attr[UBUS_ATTR_OBJID] == NULL || message->attr[UBUS_ATTR_METHOD] == NULL) {
        send_status(client, message, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }

    uint32_t id = message_u32(message, UBUS_ATTR_OBJID);
    if (id == UBUS_SYSTEM_OBJECT_EVENT) {
        event_call(client, message);
        return;
    }
    const struct object *object = object_find(id);
    if (object == NULL) {
        send_status(client, message, UBUS_STATUS_NOT_FOUND);
        return;
    }
    if (!call_has_room_for_names(client, message)) {
        send_status(client, message, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    forward_call(object->owner, id, client, message, false);
}

// DATA or STATUS of an owner, for the caller named in peer. The daemon does not keep track of open
// calls: it passes every answer on, and silently drops those whose caller is gone.
static void forward_answer(struct client *client, const struct message *message)
{
    int needed = message->type == UBUS_MSG_STATUS ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA;
    if (message->attr[needed] == NULL || message->attr[UBUS_ATTR_OBJID] == NULL)
        return;
    const struct object *object = object_find(message_u32(message, UBUS_ATTR_OBJID));
    if (object == NULL || object->owner != client)
        return;
    struct client *caller = client_find(message->peer);
    if (caller == NULL)
        return;

    // Header and length are the daemon's own: what an owner wrote there could end the caller's
    // stream.
    uint8_t head[kMessageMinimum];
    struct iovec parts[] = {
        {head, sizeof(head)},
        {(void *)(uintptr_t)(message->bytes + kMessageMinimum), message->length - kMessageMinimum},
    };
    put_be32(put_header(head, message->type, message->seq, object->id),
             (uint32_t)(message->length - kHeaderLength));
    output_send(caller, (struct origin){.from = client}, parts, 2);
}

static void request_ping(struct client *client, const struct message *message)
{
    uint8_t header[kHeaderLength];
    struct iovec parts[] = {
        {header, sizeof(header)},
        {(void *)(uintptr_t)(message->bytes + kHeaderLength), message->length - kHeaderLength},
    };

    put_header(header, UBUS_MSG_DATA, message->seq, message->peer);
    output_send(client, (struct origin){.from = NULL}, parts, 2);
    send_status(client, message, UBUS_STATUS_OK);
}

static const request_handler kRequests[__UBUS_MSG_LAST] = {
    [UBUS_MSG_STATUS] = forward_answer,
    [UBUS_MSG_DATA] = forward_answer,
    [UBUS_MSG_PING] = request_ping,
    [UBUS_MSG_LOOKUP] = request_lookup,
    [UBUS_MSG_INVOKE] = request_invoke,
    [UBUS_MSG_ADD_OBJECT] = request_add_object,
    [UBUS_MSG_REMOVE_OBJECT] = request_remove_object,
    [UBUS_MSG_SUBSCRIBE] = request_subscribe,
    [UBUS_MSG_UNSUBSCRIBE] = request_unsubscribe,
    [UBUS_MSG_NOTIFY] = request_notify,
};

void request_handle(struct client *client, const struct message *message)
{
    if (message->type >= __UBUS_MSG_LAST || kRequests[message->type] == NULL) {
        send_status(client, message, UBUS_STATUS_INVALID_COMMAND);
        return;
    }
    kRequests[message->type](client, message);
}
