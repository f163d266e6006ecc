// SPDX-License-Identifier: ISC
// Making, losing and dropping the connection to the daemon.

#include "internal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <libubox/usock.h>

static const char kDefaultPath[] = "/var/run/ubus/ubus.sock";

static bool read_all(int fd, uint8_t *bytes, size_t size)
{
    while (size > 0) {
        ssize_t length = read(fd, bytes, size);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return false;
        bytes += length;
        size -= (size_t)length;
    }
    return true;
}

static bool skip(int fd, size_t size)
{
    uint8_t bytes[256];
    while (size > 0) {
        size_t part = size < sizeof(bytes) ? size : sizeof(bytes);
        if (!read_all(fd, bytes, part))
            return false;
        size -= part;
    }
    return true;
}

// The greeting carries the id of this client, kept as it came.
static bool read_greeting(int fd, uint32_t *id)
{
    uint8_t bytes[kMessageMinimum];
    struct ubus_msghdr header;
    if (!read_all(fd, bytes, sizeof(bytes)))
        return false;
    memcpy(&header, bytes, sizeof(header));
    size_t length = blob_raw_len((const struct blob_attr *)(bytes + kHeaderLength));
    if (header.version != 0 || header.type != UBUS_MSG_HELLO || length < kWordLength ||
        length > UBUS_MAX_MSGLEN)
        return false;
    *id = header.peer;
    return *id > UBUS_CLIENT_ID_CHANNEL && skip(fd, length - kWordLength);
}

// If a standard descriptor is closed, the socket would get its number, and what the program prints
// would go to the bus.
static int above_standard(int fd)
{
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;

    int higher = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return higher;
}

// A greeted socket that no longer blocks, or -1.
static int dial(const char *path, uint32_t *id)
{
    int fd = above_standard(usock(USOCK_UNIX, path != NULL ? path : kDefaultPath, NULL));
    if (fd < 0)
        return -1;
    if (!read_greeting(fd, id) || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A connection outside the loop may belong to another thread, as a client's does in a process that
// also serves, so it does not touch the loop.
static void leave_loop(struct connection *connection)
{
    if (connection->ctx.sock.registered)
        uloop_fd_delete(&connection->ctx.sock);
}

static void hang_up(struct connection *connection)
{
    leave_loop(connection);
    if (connection->ctx.sock.fd >= 0)
        close(connection->ctx.sock.fd);
    connection->ctx.sock.fd = -1;
    pending_forget(connection);
}

static void destroy(struct connection *connection)
{
    blob_buf_free(&connection->body);
    free(connection->input);
    free(connection);
}

void connection_hold(struct connection *connection)
{
    connection->busy++;
}

void connection_release(struct connection *connection)
{
    if (--connection->busy == 0 && connection->freed)
        destroy(connection);
}

// Between the two, calls from others are postponed; afterwards they are due.
void connection_enter(struct connection *connection)
{
    connection_hold(connection);
    connection->ctx.stack_depth++;
}

void connection_leave(struct connection *connection)
{
    connection->ctx.stack_depth--;
    pending_schedule(connection);
    connection_release(connection);
}

// What programs get that do not set connection_lost: the loop ends if the connection was in it.
static void end_loop(struct ubus_context *ctx)
{
    if (ctx->sock.registered)
        uloop_end();
}

// The connection is gone; the program hears of it once.
void connection_end(struct connection *connection)
{
    struct ubus_context *ctx = &connection->ctx;
    if (connection->lost || connection->freed)
        return;
    connection->lost = true;
    ctx->sock.eof = true;
    connection_hold(connection);
    if (ctx->connection_lost != NULL)
        ctx->connection_lost(ctx);
    // A daemon that only stopped sending would be reported to the loop again and again.
    if (connection->lost && !connection->freed)
        leave_loop(connection);
    connection_release(connection);
}

// Ends a connection whose stream is out of step.
void connection_break(struct connection *connection)
{
    shutdown(connection->ctx.sock.fd, SHUT_RDWR);
    connection_end(connection);
}

UBUS_EXPORT struct ubus_context *ubus_connect(const char *path)
{
    struct connection *connection;
    uloop_init();
    connection = calloc(1, sizeof(*connection));
    if (connection == NULL)
        return NULL;

    struct ubus_context *ctx = &connection->ctx;
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->pending);
    INIT_LIST_HEAD(&ctx->auto_subscribers);
    objects_init(connection);
    ctx->pending_timer.cb = pending_timer_expired;
    ctx->connection_lost = end_loop;
    ctx->sock.cb = sock_event;
    connection->input = input_create(UBUS_MSG_CHUNK_SIZE);
    ctx->sock.fd = connection->input != NULL ? dial(path, &ctx->local_id) : -1;
    if (ctx->sock.fd < 0) {
        destroy(connection);
        return NULL;
    }
    return ctx;
}

UBUS_EXPORT void ubus_free(struct ubus_context *ctx)
{
    struct connection *connection = connection_of(ctx);
    if (ctx == NULL || connection->freed)
        return;
    hang_up(connection);
    // A handler may free the very context it runs on.
    connection->freed = true;
    if (connection->busy == 0)
        destroy(connection);
}

UBUS_EXPORT int ubus_reconnect(struct ubus_context *ctx, const char *path)
{
    struct connection *connection = connection_of(ctx);
    hang_up(connection);
    input_reset(connection);
    connection->generation++;
    connection->lost = true;
    ctx->sock.fd = dial(path, &ctx->local_id);
    if (ctx->sock.fd < 0)
        return UBUS_STATUS_CONNECTION_FAILED;

    connection->lost = false;
    ctx->sock.eof = false;
    ctx->sock.error = false;
    // Calls to the first objects wait until all are published.
    connection_enter(connection);
    objects_publish_again(connection);
    connection_leave(connection);
    return UBUS_STATUS_OK;
}
