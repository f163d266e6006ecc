// SPDX-License-Identifier: ISC
// Calls from others: finding object and method, running the handler, sending its status. While a
// handler or call of the context is running, calls are postponed; see the head of libubus.h.

#include "internal.h"

#include <stdlib.h>
#include <string.h>

enum {
    kPendingDelayMs = 1,
    // Postponed calls share one room. When it is full, every caller may still have a limited number
    // of calls and bytes, and always one, so that a flood does not push out others. The rest is
    // lost.
    kPendingRoom = 1048576,
    kPendingCalls = 32,
    kPendingShare = 131072,
};

// A postponed call: a copy of the whole message.
struct pending {
    struct list_head list;
    size_t size;
    uint8_t bytes[];
};

static void send_status(struct connection *connection, const struct ubus_request_data *call,
                        int status)
{
    uint8_t attrs[4 * kWordLength];
    struct iovec parts[] = {{NULL, 0}, {attrs, sizeof(attrs)}};
    put_u32(put_u32(attrs, UBUS_ATTR_STATUS, (uint32_t)status), UBUS_ATTR_OBJID, call->object);
    message_send(connection, UBUS_MSG_STATUS, call->seq, call->peer, parts, 2, -1, kNever);
}

UBUS_EXPORT void ubus_complete_deferred_request(struct ubus_context *ctx,
                                                struct ubus_request_data *req, int ret)
{
    send_status(connection_of(ctx), req, ret);
}

UBUS_EXPORT int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req,
                                struct blob_attr *msg)
{
    size_t length = msg != NULL ? blob_len(msg) : 0;
    uint8_t attrs[3 * kWordLength];
    struct iovec parts[] = {
        {NULL, 0},
        {attrs, sizeof(attrs)},
        {msg != NULL ? blob_data(msg) : NULL, length},
        {(void *)(uintptr_t)kZeros, padding(length)},
    };

    put_attr(put_u32(attrs, UBUS_ATTR_OBJID, req->object), UBUS_ATTR_DATA, length);
    if (message_send(connection_of(ctx), UBUS_MSG_DATA, req->seq, req->peer, parts, 4, -1,
                     kNever) != 0)
        return UBUS_STATUS_NO_DATA;
    return UBUS_STATUS_OK;
}

static const struct ubus_method *find_method(const struct ubus_object *object, const char *name)
{
    for (int i = 0; i < object->n_methods; i++) {
        const struct ubus_method *method = &object->methods[i];
        if (method->name == NULL || strcmp(method->name, name) == 0)
            return method;
    }
    return NULL;
}

static void fill_accounts(struct ubus_request_data *call, const struct ubus_object *object,
                          struct blob_attr *const *attrs)
{
    if (attrs[UBUS_ATTR_USER] == NULL || attrs[UBUS_ATTR_GROUP] == NULL)
        return;
    call->acl.user = blob_data(attrs[UBUS_ATTR_USER]);
    call->acl.group = blob_data(attrs[UBUS_ATTR_GROUP]);
    call->acl.object = object->name;
}

// Runs the handler. The result is meant for the caller unless the handler deferred the call.
static int run_method(struct connection *connection, struct ubus_object *object,
                      struct ubus_request_data *call, struct blob_attr *const *attrs)
{
    const char *name = blob_data(attrs[UBUS_ATTR_METHOD]);
    const struct ubus_method *method = find_method(object, name);
    if (method == NULL)
        return UBUS_STATUS_METHOD_NOT_FOUND;
    if (attrs[UBUS_ATTR_DATA] == NULL)
        return UBUS_STATUS_INVALID_ARGUMENT;
    fill_accounts(call, object, attrs);
    return method->handler(&connection->ctx, object, call, name, attrs[UBUS_ATTR_DATA]);
}

static void serve_invoke(struct connection *connection, const struct message *message,
                         struct blob_attr *const *attrs)
{
    // An answer to no call. It reaches no client, but daemons are used to it.
    static const struct ubus_request_data kNobody;
    struct ubus_object *object = object_find(connection, blob_get_u32(attrs[UBUS_ATTR_OBJID]));
    struct blob_attr *no_reply = attrs[UBUS_ATTR_NO_REPLY];

    if (object == NULL) {
        send_status(connection, &kNobody, UBUS_STATUS_NOT_FOUND);
        return;
    }
    if (attrs[UBUS_ATTR_METHOD] == NULL) {
        send_status(connection, &kNobody, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }

    struct ubus_request_data call = {
        .object = object->id, .peer = message->peer, .seq = message->seq, .fd = -1, .req_fd = -1};
    bool silent = no_reply != NULL && blob_get_u8(no_reply) != 0;
    int status = run_method(connection, object, &call, attrs);
    if (!connection->freed && !call.deferred && !silent)
        send_status(connection, &call, status);
}

static void serve_notify(struct connection *connection, struct blob_attr *const *attrs)
{
    struct ubus_object *object = object_find(connection, blob_get_u32(attrs[UBUS_ATTR_OBJID]));
    if (object == NULL || attrs[UBUS_ATTR_ACTIVE] == NULL)
        return;
    object->has_subscribers = blob_get_u8(attrs[UBUS_ATTR_ACTIVE]) != 0;
    if (object->subscribe_cb != NULL)
        object->subscribe_cb(&connection->ctx, object);
}

static void serve_call(struct connection *connection, const struct message *message)
{
    struct blob_attr *attrs[UBUS_ATTR_MAX];
    message_attrs(message, attrs);
    if (attrs[UBUS_ATTR_OBJID] == NULL)
        return;
    connection_hold(connection);
    connection->ctx.stack_depth++;
    if (message->type == UBUS_MSG_INVOKE)
        serve_invoke(connection, message, attrs);
    else if (message->type == UBUS_MSG_NOTIFY)
        serve_notify(connection, attrs);
    connection->ctx.stack_depth--;
    connection_release(connection);
}

// Stops at the caller's limit, which a flooding caller reaches near the front of the list.
static bool has_share_left(struct connection *connection, const struct message *message,
                           size_t size)
{
    struct pending *pending;
    unsigned int calls = 0;
    size_t bytes = size;

    list_for_each_entry(pending, &connection->ctx.pending, list)
    {
        if (message_read(pending->bytes, pending->size).peer != message->peer)
            continue;
        bytes += pending->size;
        if (++calls == kPendingCalls || bytes > kPendingShare)
            return false;
    }
    return true;
}

static void postpone(struct connection *connection, const struct message *message,
                     const uint8_t *bytes, size_t size)
{
    if (connection->pending_bytes + size > kPendingRoom &&
        !has_share_left(connection, message, size))
        return;

    struct pending *pending = malloc(sizeof(*pending) + size);
    if (pending == NULL)
        return;
    pending->size = size;
    memcpy(pending->bytes, bytes, size);
    list_add_tail(&pending->list, &connection->ctx.pending);
    connection->pending_bytes += size;
}

static void take_out(struct connection *connection, struct pending *pending)
{
    list_del(&pending->list);
    connection->pending_bytes -= pending->size;
}

void call_arrived(struct connection *connection, const struct message *message,
                  const uint8_t *bytes, size_t size)
{
    if (connection->ctx.stack_depth > 0 || !list_empty(&connection->ctx.pending))
        postpone(connection, message, bytes, size);
    else
        serve_call(connection, message);
}

// Serves the postponed calls in order, also those that arrive meanwhile.
void pending_serve(struct connection *connection)
{
    struct ubus_context *ctx = &connection->ctx;
    connection_hold(connection);
    while (!connection->freed && ctx->stack_depth == 0 && !list_empty(&ctx->pending)) {
        struct pending *pending = list_first_entry(&ctx->pending, struct pending, list);
        struct message message = message_read(pending->bytes, pending->size);
        take_out(connection, pending);
        serve_call(connection, &message);
        free(pending);
    }
    connection_release(connection);
}

// Postponed calls are due once no handler or call of the context is running any more.
void pending_schedule(struct connection *connection)
{
    struct ubus_context *ctx = &connection->ctx;
    if (connection->freed || ctx->stack_depth > 0 || list_empty(&ctx->pending))
        return;
    if (ctx->sock.registered)
        uloop_timeout_set(&ctx->pending_timer, kPendingDelayMs);
    else
        pending_serve(connection);
}

void pending_forget(struct connection *connection)
{
    struct pending *pending, *next;
    uloop_timeout_cancel(&connection->ctx.pending_timer);
    list_for_each_entry_safe(pending, next, &connection->ctx.pending, list)
    {
        take_out(connection, pending);
        free(pending);
    }
}

void pending_timer_expired(struct uloop_timeout *timer)
{
    pending_serve(connection_of(container_of(timer, struct ubus_context, pending_timer)));
}

// The loop's callback, also what ubus_handle_event() calls.
void sock_event(struct uloop_fd *sock, unsigned int events)
{
    struct connection *connection = connection_of(container_of(sock, struct ubus_context, sock));
    bool ending = sock->eof || sock->error;
    unsigned int generation = connection->generation;
    enum input_state state = kInputMore;

    (void)events;
    if (connection->lost)
        return;
    connection_hold(connection);
    // A closed socket is reported only once, so read it to its end.
    do {
        state = input_read(connection);
        input_serve(connection);
    } while (ending && state == kInputMore && !connection->freed && !connection->lost &&
             generation == connection->generation);

    pending_serve(connection);
    if (!connection->freed && generation == connection->generation &&
        (state == kInputEnd || (ending && state == kInputNone)))
        connection_end(connection);
    connection_release(connection);
}
