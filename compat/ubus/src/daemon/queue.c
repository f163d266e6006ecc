// SPDX-License-Identifier: ISC
// What a client has not read yet, message by message.
//
// A client that floods a busy one must not push out others, so every sender has a share of the
// queue. Each caller may have a limited number of calls and of their bytes, but one call of any
// size. Everything else (answers, events, notifications) shares the rest; when that is full every
// sender may still have one message and a limited number of bytes more, such as the status after a
// long answer. What exceeds this is dropped.

#include "ubusd.h"

#include <stdlib.h>
#include <string.h>

enum {
    kCallsMaximum = 32,     // of one caller
    kShareMaximum = 131072, // bytes of calls, or of other messages, of one sender
    kOthersMaximum = 1048576,
    kLeftMaximum = 1048576, // from senders that are gone
    kDaemonId = 0,          // in place of a client's id
};

// What one sender has in one queue. Exists while there is something.
struct share {
    struct avl_node of_queue;   // key: sender
    struct list_head of_sender; // in client.sent; empty for the daemon and for those who left
    struct queue *queue;
    struct user *user; // the sender's; null for the daemon and for those who left
    uint32_t sender;
    bool left;
    unsigned int calls;
    unsigned int others;
    size_t call_bytes;
    size_t other_bytes; // less the one that came when there was none
    size_t bytes;       // of all
};

struct waiting {
    struct list_head list;
    struct share *share;
    bool is_call;
    bool is_first; // of the share's others
    size_t cost;   // in bytes, to its share and the queue
    size_t sent;   // bytes of it that are out already
    size_t length;
    uint8_t bytes[];
};

void queue_init(struct queue *queue)
{
    INIT_LIST_HEAD(&queue->messages);
    ids_init(&queue->shares);
    queue->others = 0;
    queue->left = 0;
}

static struct user *reader(const struct queue *queue)
{
    return container_of(queue, struct client, queue)->user;
}

static bool fits(const struct queue *queue, const struct share *share, bool is_call, size_t cost)
{
    if (is_call)
        return share == NULL || share->calls == 0 ||
               (share->calls < kCallsMaximum && share->call_bytes + cost <= kShareMaximum);
    return queue->others + cost <= kOthersMaximum || share == NULL || share->others == 0 ||
           share->other_bytes + cost <= kShareMaximum;
}

// Whether the users of reader and sender both stay within their limits.
static bool users_permit(const struct queue *queue, const struct client *from, size_t cost)
{
    return user_may_have(reader(queue), reader(queue)->waiting_for + cost) &&
           (from == NULL || user_may_have(from->user, from->user->waiting_from + cost));
}

static struct share *share_find(const struct queue *queue, uint32_t sender)
{
    struct share *share;
    return avl_find_element(&queue->shares, &sender, share, of_queue);
}

static struct share *share_create(struct queue *queue, struct client *from)
{
    struct share *share = calloc(1, sizeof(*share));
    if (share == NULL)
        return NULL;
    share->queue = queue;
    share->sender = from != NULL ? from->id : kDaemonId;
    share->of_queue.key = &share->sender;
    avl_insert(&queue->shares, &share->of_queue);
    INIT_LIST_HEAD(&share->of_sender);
    if (from != NULL) {
        share->user = from->user;
        list_add_tail(&share->of_sender, &from->sent);
    }
    return share;
}

static void share_release(struct share *share)
{
    if (share->calls > 0 || share->others > 0)
        return;
    avl_delete(&share->queue->shares, &share->of_queue);
    list_del(&share->of_sender);
    free(share);
}

static void charge(struct share *share, struct waiting *message)
{
    if (message->is_call) {
        share->calls++;
        share->call_bytes += message->cost;
    } else {
        message->is_first = share->others++ == 0;
        if (!message->is_first)
            share->other_bytes += message->cost;
        share->queue->others += message->cost;
    }
    share->bytes += message->cost;
    if (share->left)
        share->queue->left += message->cost;
    if (share->user != NULL)
        share->user->waiting_from += message->cost;
    reader(share->queue)->waiting_for += message->cost;
}

static void drop(struct waiting *message)
{
    struct share *share = message->share;
    if (message->is_call) {
        share->calls--;
        share->call_bytes -= message->cost;
    } else {
        share->others--;
        if (!message->is_first)
            share->other_bytes -= message->cost;
        share->queue->others -= message->cost;
    }
    share->bytes -= message->cost;
    if (share->left)
        share->queue->left -= message->cost;
    if (share->user != NULL)
        share->user->waiting_from -= message->cost;
    reader(share->queue)->waiting_for -= message->cost;
    share_release(share);
    list_del(&message->list);
    free(message);
}

// Keeps a message of which `sent` bytes are out already. One that is partly out is always kept.
enum queue_result queue_add(struct queue *queue, struct origin origin, const struct iovec *parts,
                            int count, size_t sent, size_t total)
{
    struct share *share = share_find(queue, origin.from != NULL ? origin.from->id : kDaemonId);
    // The record counts too: it is larger than a short message. Calls are few.
    size_t cost = total - sent + (origin.is_call ? 0 : sizeof(struct waiting));

    if (sent == 0 &&
        (!fits(queue, share, origin.is_call, cost) || !users_permit(queue, origin.from, cost)))
        return kQueueFull;

    struct waiting *message = malloc(sizeof(*message) + total);
    if (message == NULL)
        return kQueueNoMemory;
    if (share == NULL && (share = share_create(queue, origin.from)) == NULL) {
        free(message);
        return kQueueNoMemory;
    }
    message->share = share;
    message->is_call = origin.is_call;
    message->cost = cost;
    message->sent = sent;
    message->length = total;
    for (size_t at = 0; count > 0; parts++, count--) {
        if (parts->iov_len > 0)
            memcpy(message->bytes + at, parts->iov_base, parts->iov_len);
        at += parts->iov_len;
    }
    charge(share, message);
    list_add_tail(&message->list, &queue->messages);
    return kQueueKept;
}

// The bytes to go out next, in at most `count` pieces; returns how many pieces there are.
int queue_parts(const struct queue *queue, struct iovec *parts, int count)
{
    struct waiting *message;
    int used = 0;
    list_for_each_entry(message, &queue->messages, list)
    {
        if (used == count)
            break;
        parts[used++] =
            (struct iovec){message->bytes + message->sent, message->length - message->sent};
    }
    return used;
}

// `length` bytes of them are out.
void queue_sent(struct queue *queue, size_t length)
{
    while (length > 0) {
        struct waiting *message = list_first_entry(&queue->messages, struct waiting, list);
        size_t rest = message->length - message->sent;
        if (length < rest) {
            message->sent += length;
            return;
        }
        length -= rest;
        drop(message);
    }
}

bool queue_holds_daemons(const struct queue *queue)
{
    return share_find(queue, kDaemonId) != NULL;
}

void queue_clear(struct queue *queue)
{
    while (!list_empty(&queue->messages))
        drop(list_first_entry(&queue->messages, struct waiting, list));
}

static void drop_unsent(struct queue *queue, const struct share *share)
{
    struct waiting *message, *next;
    unsigned int rest = share->calls + share->others;

    // With the last of its messages the share goes too.
    list_for_each_entry_safe(message, next, &queue->messages, list)
    {
        if (rest == 0)
            return;
        if (message->share != share)
            continue;
        rest--;
        if (message->sent == 0)
            drop(message);
    }
}

// What a client said before it left is still delivered, but there is one limit for all who left:
// otherwise coming back under another id would be a way around the limits.
void queue_sender_left(struct client *sender)
{
    struct share *share, *next;
    list_for_each_entry_safe(share, next, &sender->sent, of_sender)
    {
        struct queue *queue = share->queue;
        list_del_init(&share->of_sender);
        share->user->waiting_from -= share->bytes;
        share->user = NULL;
        share->left = true;
        queue->left += share->bytes;
        if (queue->left > kLeftMaximum)
            drop_unsent(queue, share);
    }
}
