// Sending. Short messages to one client are collected while one batch of input is worked off and
// leave in one write: an owner's answer and its status wake the caller once. What a socket does not
// take waits in the client's queue; when that is full, whole messages are dropped and the stream
// stays in step.

#include "ubusd.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

enum {
    kQueueMaximum = 1048576,
    kCollectMessage = 4096, // longer ones are not worth copying
    kCollectSize = 16384,
};

static struct {
    struct client *to;
    size_t length;
    uint8_t bytes[kCollectSize];
} collected;

static size_t queue_length(const struct queue *queue)
{
    return queue->end - queue->start;
}

bool output_is_stalled(const struct client *client)
{
    return queue_length(&client->queue) > 0;
}

static void watch(struct client *client, unsigned int events)
{
    // ULOOP_BLOCKING only says that the descriptor's mode is our own affair.
    uloop_fd_add(&client->sock, events | ULOOP_BLOCKING);
}

// Room for `more` bytes at the end of the queue.
static bool queue_reserve(struct queue *queue, size_t more)
{
    size_t length = queue_length(queue);

    if (queue->size - queue->end >= more)
        return true;
    if (queue->start > 0) {
        memmove(queue->bytes, queue->bytes + queue->start, length);
        queue->start = 0;
        queue->end = length;
    }

    // Doubling keeps the number of moves low; compaction alone would move on every message.
    size_t size = queue->size > 0 ? queue->size : kCollectSize;
    while (size < length + more || size < 2 * length)
        size *= 2;
    if (size <= queue->size)
        return true;

    uint8_t *bytes = realloc(queue->bytes, size);
    if (bytes == NULL)
        return queue->size - queue->end >= more;
    queue->bytes = bytes;
    queue->size = size;
    return true;
}

static void queue_free(struct queue *queue)
{
    free(queue->bytes);
    memset(queue, 0, sizeof(*queue));
}

// Queues the rest of one message of which `sent` bytes are out. A message that has begun, or that
// meets an empty queue, is always taken.
static void queue_message(struct client *client, const struct iovec *parts, int count, size_t sent,
                          size_t total)
{
    struct queue *queue = &client->queue;
    size_t rest = total - sent;
    bool was_empty = queue_length(queue) == 0;

    if (!was_empty && queue_length(queue) + rest > kQueueMaximum)
        return;
    if (!queue_reserve(queue, rest)) {
        // Half a message is out and the rest cannot be kept: this stream is beyond help.
        if (sent > 0) {
            client->broken = true;
            shutdown(client->sock.fd, SHUT_RDWR);
        }
        return;
    }

    for (int i = 0; i < count; i++) {
        size_t skip = sent < parts[i].iov_len ? sent : parts[i].iov_len;
        size_t length = parts[i].iov_len - skip;

        sent -= skip;
        if (length == 0)
            continue;
        memcpy(queue->bytes + queue->end, (const uint8_t *)parts[i].iov_base + skip, length);
        queue->end += length;
    }
    if (was_empty)
        watch(client, ULOOP_READ | ULOOP_WRITE);
}

// How many bytes the socket took. A dead one takes everything from now on.
static size_t write_now(struct client *client, const struct iovec *parts, int count, size_t total)
{
    struct msghdr header = {
        .msg_iov = (struct iovec *)(uintptr_t)parts,
        .msg_iovlen = (__typeof__(header.msg_iovlen))count,
    };
    ssize_t sent;

    do
        sent = sendmsg(client->sock.fd, &header, MSG_NOSIGNAL | MSG_DONTWAIT);
    while (sent < 0 && errno == EINTR);

    if (sent >= 0)
        return (size_t)sent;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == ENOMEM)
        return 0;
    client->broken = true;
    return total;
}

static size_t write_or_stall(struct client *client, const struct iovec *parts, int count,
                             size_t total)
{
    return output_is_stalled(client) ? 0 : write_now(client, parts, count, total);
}

void output_flush(void)
{
    struct client *client = collected.to;
    size_t length = collected.length;
    struct iovec all = {collected.bytes, length};

    collected.to = NULL;
    collected.length = 0;
    if (client == NULL || client->broken)
        return;

    size_t sent = write_or_stall(client, &all, 1, length);
    for (size_t at = 0; at < length && !client->broken;) {
        size_t size =
            kHeaderLength + (get_be32(collected.bytes + at + kHeaderLength) & BLOB_ATTR_LEN_MASK);
        struct iovec one = {collected.bytes + at, size};
        size_t done = sent > at ? sent - at : 0;

        if (done < size)
            queue_message(client, &one, 1, done, size);
        at += size;
    }
}

static void collect(struct client *to, const struct iovec *parts, int count, size_t total)
{
    if (collected.to != to || kCollectSize - collected.length < total)
        output_flush();
    collected.to = to;
    for (int i = 0; i < count; i++) {
        if (parts[i].iov_len == 0)
            continue;
        memcpy(collected.bytes + collected.length, parts[i].iov_base, parts[i].iov_len);
        collected.length += parts[i].iov_len;
    }
}

// `parts` together are one message.
void output_send(struct client *to, const struct iovec *parts, int count)
{
    size_t total = 0;

    if (to->broken)
        return;
    for (int i = 0; i < count; i++)
        total += parts[i].iov_len;
    if (total <= kCollectMessage) {
        collect(to, parts, count, total);
        return;
    }

    if (collected.to == to)
        output_flush();
    if (to->broken)
        return;
    size_t sent = write_or_stall(to, parts, count, total);
    if (sent < total)
        queue_message(to, parts, count, sent, total);
}

// The socket has room again.
void output_resume(struct client *client)
{
    struct queue *queue = &client->queue;

    if (queue_length(queue) == 0)
        return;
    struct iovec all = {queue->bytes + queue->start, queue_length(queue)};
    queue->start += write_now(client, &all, 1, all.iov_len);
    if (queue_length(queue) > 0)
        return;

    queue_free(queue);
    watch(client, ULOOP_READ);
}

void output_forget(struct client *client)
{
    if (collected.to == client) {
        collected.to = NULL;
        collected.length = 0;
    }
    queue_free(&client->queue);
}
