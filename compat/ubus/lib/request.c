// Requests: numbering, waiting for the answer, and matching what arrives with who waits.

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <time.h>

#include "internal.h"

// Of several open requests the answer's sequence number and peer tell which one is meant. What
// fits none is a late answer, or the second status of a call: no harm.
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

static int64_t now_ms(void)
{
    struct timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// Waits for input. False when the deadline passed (-1: there is none).
static bool wait_readable(int fd, int64_t deadline)
{
    struct pollfd poll_fd = {.fd = fd, .events = POLLIN};

    for (;;) {
        int64_t left = deadline < 0 ? -1 : deadline - now_ms();

        if (deadline >= 0 && left <= 0)
            return false;
        int ready = poll(&poll_fd, 1, left > INT_MAX ? INT_MAX : (int)left);
        if (ready > 0 || (ready < 0 && errno != EINTR))
            return true;
    }
}

static int wait_status(struct connection *connection, struct ubus_request *request, int timeout)
{
    // One more, so that a wait measured in fractions is never short.
    int64_t deadline = timeout > 0 ? now_ms() + timeout + 1 : -1;
    unsigned int generation = connection->generation;

    if (timeout < 0)
        return UBUS_STATUS_TIMEOUT;
    while (!request->status_msg) {
        if (connection->freed || connection->lost || generation != connection->generation)
            return UBUS_STATUS_CONNECTION_FAILED;
        if (!wait_readable(connection->ctx.sock.fd, deadline))
            return UBUS_STATUS_TIMEOUT;
        if (input_read(connection) == kInputEnd)
            connection_end(connection);
        else
            input_serve(connection);
    }
    return request->status_code;
}

// Sends the request and waits for its status. The caller has set peer and handlers; parts[0] is
// left for the header.
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
    if (message_send(connection, type, request->seq, request->peer, parts, count, fd) != 0)
        return UBUS_STATUS_INVALID_ARGUMENT;

    connection_enter(connection);
    list_add(&request->list, &ctx->requests);
    status = wait_status(connection, request, timeout);
    list_del_init(&request->list);
    // With nothing whole left in the buffer the socket alone tells when there is more.
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
