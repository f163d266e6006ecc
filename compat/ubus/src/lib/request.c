// SPDX-License-Identifier: ISC
// Requests: numbering, waiting for the answer, and matching what arrives with who waits.

#include "internal.h"

#include <poll.h>

// Sequence number and peer tell which open request an answer belongs to. One that fits none is
// late, or the second status of a call, and does no harm.
static struct ubus_request *find_request(struct connection *connection,
                                         const struct message *message)
{
    struct ubus_request *request;
    list_for_each_entry(request, &connection->ctx.requests, list)
    {
        if (request->seq == message->seq && request->peer == message->peer)
            return request;
    }
    return NULL;
}

static void take_status(struct ubus_request *request, const struct message *message)
{
    struct blob_attr *attrs[UBUS_ATTR_MAX];
    message_attrs(message, attrs);
    request->status_code = UBUS_STATUS_INVALID_ARGUMENT;
    if (attrs[UBUS_ATTR_STATUS] != NULL)
        request->status_code = (int)blob_get_u32(attrs[UBUS_ATTR_STATUS]);
    request->status_msg = true;
    list_del_init(&request->list);
}

static void take_data(struct ubus_request *request, const struct message *message)
{
    struct blob_attr *attrs[UBUS_ATTR_MAX];
    if (request->raw_data_cb != NULL) {
        request->raw_data_cb(request, message->type, message->body);
        return;
    }
    if (request->data_cb == NULL)
        return;
    message_attrs(message, attrs);
    if (attrs[UBUS_ATTR_DATA] != NULL)
        request->data_cb(request, message->type, attrs[UBUS_ATTR_DATA]);
}

void request_answered(struct connection *connection, const struct message *message)
{
    struct ubus_request *request = find_request(connection, message);
    if (request == NULL)
        return;
    if (message->type == UBUS_MSG_STATUS)
        take_status(request, message);
    else
        take_data(request, message);
}

static int wait_status(struct connection *connection, struct ubus_request *request,
                       int64_t deadline)
{
    unsigned int generation = connection->generation;
    while (!request->status_msg) {
        if (connection->freed || connection->lost || generation != connection->generation)
            return UBUS_STATUS_CONNECTION_FAILED;
        if (!deadline_poll(connection->ctx.sock.fd, POLLIN, deadline))
            return UBUS_STATUS_TIMEOUT;
        if (input_read(connection) == kInputEnd)
            connection_end(connection);
        else
            input_serve(connection);
    }
    return request->status_code;
}

// Sends the request and waits for its status, both together no longer than the timeout. The caller
// has set peer and handlers; parts[0] is left for the header.
int request_run(struct connection *connection, struct ubus_request *request, uint8_t type,
                struct iovec *parts, int count, int fd, int timeout)
{
    struct ubus_context *ctx = &connection->ctx;
    size_t length = kWordLength;
    int status;

    for (int i = 1; i < count; i++)
        length += parts[i].iov_len;
    if (length > UBUS_MAX_MSGLEN)
        return UBUS_STATUS_INVALID_ARGUMENT;

    request->ctx = ctx;
    request->fd = -1;
    request->seq = ++ctx->request_seq;
    int64_t deadline = deadline_after(timeout);
    int sent =
        message_send(connection, type, request->seq, request->peer, parts, count, fd, deadline);
    if (sent == kSendCutShort) {
        connection_break(connection); // half a message cannot be taken back
        return UBUS_STATUS_TIMEOUT;
    }
    if (sent != 0)
        return sent == kSendExpired ? UBUS_STATUS_TIMEOUT : UBUS_STATUS_INVALID_ARGUMENT;

    connection_enter(connection);
    list_add(&request->list, &ctx->requests);
    status = timeout >= 0 ? wait_status(connection, request, deadline) : UBUS_STATUS_TIMEOUT;
    list_del_init(&request->list);
    // With no whole message left in the buffer, the socket alone tells when there is more.
    if (!connection->lost)
        input_serve(connection);
    connection_leave(connection);
    return status;
}

// The same for a request built in connection->body.
int request_body(struct connection *connection, struct ubus_request *request, uint8_t type)
{
    struct blob_attr *body = connection->body.head;
    struct iovec parts[] = {{NULL, 0}, {blob_data(body), blob_len(body)}};
    return request_run(connection, request, type, parts, 2, -1, 0);
}
