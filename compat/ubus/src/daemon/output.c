// SPDX-License-Identifier: ISC
// Sending. Short messages to one client are collected while one batch of input is served and go out
// in one write: an owner's answer and its status wake the caller once. What a socket does not take
// waits in the client's queue; a message without room there is dropped as a whole, so the stream
// stays in step.

#include "ubusd.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

enum {
    kCollectMessage = 4096, // longer ones are not worth copying
    kCollectSize = 16384,
    kCollectCount = 256,
    kResumeParts = 64, // of one write
};

static struct {
    struct client *to;
    size_t length;
    unsigned int count;
    struct origin origins[kCollectCount];
    uint8_t bytes[kCollectSize];
} collected;

void output_init(struct client *client)
{
    queue_init(&client->queue);
    INIT_LIST_HEAD(&client->sent);
}

static bool is_stalled(const struct client *client)
{
    return !list_empty(&client->queue.messages);
}

// Ends a client whose stream cannot go on.
static void give_up(struct client *client)
{
    client->broken = true;
    client->ending = true;
    shutdown(client->sock.fd, SHUT_RDWR);
    client_goes_on(client);
}

// Watches for room in the socket only while something waits for it.
void output_watch(struct client *client)
{
    // Nothing is read from a client that waits for its next turn.
    unsigned int events = list_empty(&client->of_busy) ? ULOOP_READ : 0;

    if (is_stalled(client) || !list_empty(&client->lookups))
        events |= ULOOP_WRITE;
    if (events == client->events || client->ending)
        return;
    // ULOOP_BLOCKING only keeps the loop from changing the descriptor's mode.
    if (uloop_fd_add(&client->sock, events | ULOOP_BLOCKING) == 0)
        client->events = events;
    else
        give_up(client);
}

static void queue_message(struct client *client, struct origin origin, const struct iovec *parts,
                          int count, size_t sent, size_t total)
{
    enum queue_result result = queue_add(&client->queue, origin, parts, count, sent, total);
    if (result == kQueueKept)
        output_watch(client);
    else if (sent > 0)
        give_up(client); // half a message is out and the rest cannot be kept
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
    give_up(client);
    return total;
}

static size_t write_or_stall(struct client *client, const struct iovec *parts, int count,
                             size_t total)
{
    return is_stalled(client) ? 0 : write_now(client, parts, count, total);
}

static void collected_forget(void)
{
    collected.to = NULL;
    collected.length = 0;
    collected.count = 0;
}

void output_flush(void)
{
    struct client *client = collected.to;
    size_t length = collected.length;
    struct iovec all = {collected.bytes, length};

    collected_forget();
    if (client == NULL || client->broken)
        return;

    size_t sent = write_or_stall(client, &all, 1, length);
    const struct origin *origin = collected.origins;
    for (size_t at = 0; at < length && !client->broken; origin++) {
        size_t size = kHeaderLength + body_length(collected.bytes + at);
        struct iovec one = {collected.bytes + at, size};
        size_t done = sent > at ? sent - at : 0;

        if (done < size)
            queue_message(client, *origin, &one, 1, done, size);
        at += size;
    }
}

static void collect(struct client *to, struct origin origin, const struct iovec *parts, int count,
                    size_t total)
{
    if (collected.to != to || collected.count == kCollectCount ||
        kCollectSize - collected.length < total)
        output_flush();
    collected.to = to;
    collected.origins[collected.count++] = origin;
    for (int i = 0; i < count; i++) {
        if (parts[i].iov_len == 0)
            continue;
        memcpy(collected.bytes + collected.length, parts[i].iov_base, parts[i].iov_len);
        collected.length += parts[i].iov_len;
    }
}

// `parts` together are one message.
void output_send(struct client *to, struct origin origin, const struct iovec *parts, int count)
{
    size_t total = 0;
    if (to->broken)
        return;
    for (int i = 0; i < count; i++)
        total += parts[i].iov_len;
    if (total <= kCollectMessage) {
        collect(to, origin, parts, count, total);
        return;
    }

    if (collected.to == to)
        output_flush();
    if (to->broken)
        return;
    size_t sent = write_or_stall(to, parts, count, total);
    if (sent < total)
        queue_message(to, origin, parts, count, sent, total);
}

// The socket has room again.
void output_resume(struct client *client)
{
    struct iovec parts[kResumeParts];
    int count = queue_parts(&client->queue, parts, kResumeParts);
    size_t total = 0;

    if (count == 0 || client->broken)
        return;
    for (int i = 0; i < count; i++)
        total += parts[i].iov_len;
    queue_sent(&client->queue, write_now(client, parts, count, total));
}

// The client is leaving.
void output_forget(struct client *client)
{
    if (collected.to == client)
        collected_forget();
    queue_clear(&client->queue);
}
