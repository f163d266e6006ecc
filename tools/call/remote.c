/*
 * The same messages as bv_ubus_client_call() sends, but with the bus's answers kept apart from the
 * function's: there a result of 2 may be either, and an object that is not there shows late.
 */
#include "call/remote.h"

#include <sys/time.h>

#include <bv/ubus.h>

enum { RETURN, LEN, DATA, FIELDS };

static const struct blobmsg_policy reply_policy[FIELDS] = {
    [RETURN] = {.name = "return", .type = BLOBMSG_TYPE_INT32},
    [LEN] = {.name = "len", .type = BLOBMSG_TYPE_INT32},
    [DATA] = {.name = "data", .type = BLOBMSG_TYPE_UNSPEC}};

/* What the reply brought; filled while the call waits for it. */
struct reply {
    struct bytes *bytes;
    uint32_t result;
    const char *fault;
};

static void take_reply(struct ubus_request *request, int type, struct blob_attr *message)
{
    struct reply *reply = request->priv;
    struct blob_attr *fields[FIELDS] = {NULL, NULL, NULL};
    size_t available;

    (void)type;
    if (message != NULL)
        bv_blobmsg_parse(reply_policy, FIELDS, fields, bv_blob_data(message),
                         (unsigned int)bv_blob_len(message));
    reply->fault = "the reply lacks \"return\", \"len\" or \"data\"";
    if (fields[RETURN] == NULL || fields[LEN] == NULL || fields[DATA] == NULL)
        return;
    available = bv_blobmsg_data_len(fields[DATA]);
    reply->fault = "the reply has less data than it says";
    if (bv_blobmsg_get_u32(fields[LEN]) > available)
        return;
    reply->fault = "the reply is too long";
    reply->bytes->length = 0;
    if (!bytes_add(reply->bytes, bv_blobmsg_data(fields[DATA]), bv_blobmsg_get_u32(fields[LEN])))
        return;
    reply->fault = NULL;
    reply->result = bv_blobmsg_get_u32(fields[RETURN]);
}

static const char *status_text(int status)
{
    switch (status) {
    case UBUS_STATUS_INVALID_ARGUMENT:
        return "the object has no such function, or could not take the bytes";
    case UBUS_STATUS_METHOD_NOT_FOUND:
        return "the object offers no functions to call";
    case UBUS_STATUS_NOT_FOUND:
        return "there is no such object on the bus";
    case UBUS_STATUS_PERMISSION_DENIED:
        return "the bus does not permit it";
    case UBUS_STATUS_TIMEOUT:
        return "no answer in time";
    case UBUS_STATUS_CONNECTION_FAILED:
        return "the bus is gone";
    default:
        return "the bus could not carry the call";
    }
}

static bool build_request(struct blob_buf *request, const char *function, const struct bytes *bytes)
{
    unsigned int length = (unsigned int)bytes->length;

    return bv_blobmsg_buf_init(request) == 0 &&
           bv_blobmsg_add_string(request, "func", function) == 0 &&
           bv_blobmsg_add_u32(request, "len", length) == 0 &&
           bv_blobmsg_add_field(request, BLOBMSG_TYPE_UNSPEC, "data", bytes->data, length) == 0;
}

/* SIGALRM comes after the timeout; 0: not at all. */
static void set_alarm(int timeout_ms)
{
    struct itimerval timer = {{0, 0}, {timeout_ms / 1000, timeout_ms % 1000 * 1000}};

    setitimer(ITIMER_REAL, &timer, NULL);
}

/* Calls over an open connection. */
static const char *call(struct ubus_context *bus, const struct remote *remote, struct reply *reply)
{
    static struct blob_buf request;
    uint32_t object;
    int status = bv_ubus_lookup_id(bus, remote->object, &object);

    set_alarm(0); /* the call itself has a limit */
    if (status != UBUS_STATUS_OK)
        return status_text(status);
    if (!build_request(&request, remote->function, reply->bytes))
        return "out of memory";
    reply->fault = "the function was run, but did not answer";
    status =
        bv_ubus_invoke(bus, object, "method", request.head, take_reply, reply, remote->timeout_ms);
    bv_blob_buf_free(&request);
    return status != UBUS_STATUS_OK ? status_text(status) : reply->fault;
}

const char *remote_call(const struct remote *remote, struct bytes *bytes, uint32_t *result)
{
    struct reply reply = {bytes, 0, NULL};
    struct ubus_context *bus;
    const char *fault;

    set_alarm(remote->timeout_ms);
    bus = bv_ubus_connect(remote->socket);
    if (bus == NULL)
        return "cannot connect to the bus";
    fault = call(bus, remote, &reply);
    bv_ubus_free(bus);
    *result = reply.result;
    return fault;
}
