// SPDX-License-Identifier: ISC
// Bounded message queue. The lock covers linking and counting only. Messages are built, copied out
// and freed outside it, so a large one never holds up other threads.

#include <bv/queue.h>

#include "core/list.h"
#include "core/lock.h"
#include "os/alloc.h"
#include "os/atomic.h"
#include "os/checked.h"
#include "os/inline.h"

#include <bv/status.h>

namespace {

// A message is one allocation: this header, then `length` bytes of payload.
struct Message {
    bv_list_head link;
    uint32_t length;

    uint8_t *payload() { return reinterpret_cast<uint8_t *>(this + 1); }
};

static_assert(sizeof(void *) != 4 || (sizeof(Message) == 12 && offsetof(Message, length) == 8),
              "a message has two links and its length, without padding");
static_assert(offsetof(bv_queue, lock) == sizeof(bv_list_head) &&
                  offsetof(bv_queue, count) == sizeof(bv_list_head) + sizeof(pthread_mutex_t) &&
                  offsetof(bv_queue, max) == offsetof(bv_queue, count) + 4 &&
                  offsetof(bv_queue, dropped) == offsetof(bv_queue, count) + 8,
              "callers look into this record");

// A message with a copy of data, not linked yet; null if memory is short.
Message *make_message(const void *data, uint32_t length)
{
    auto *message = bv::allocate<Message>(sizeof(Message) + uint64_t{length});
    if (message == nullptr)
        return nullptr;

    message->length = length;
    bv_os_memcpy(message->payload(), length, data, length);
    return message;
}

// Takes the oldest message out; null when there is none.
Message *take_first(bv_queue &queue)
{
    const bv::MutexGuard guard(queue.lock);
    if (bv::list_empty(queue.messages))
        return nullptr;

    auto &message = bv::record_of<Message>(queue.messages.next);
    bv::list_unlink(message.link);
    bv::store_relaxed(queue.count, bv::checked_sub(queue.count, 1));
    return &message;
}

// Counts a refused send. The count stops at its largest value: wrapped to 0 it would make a queue
// that has overflowed for years look healthy.
void count_dropped(uint32_t &dropped)
{
    uint32_t seen = bv::load_relaxed(dropped);
    while (seen != UINT32_MAX && !bv::try_swap_relaxed(dropped, seen, seen + 1)) {
    }
}

} // namespace

uint32_t bv_queue_init(bv_queue **out, uint32_t max)
{
    if (out == nullptr)
        return BV_ERR_NULL;

    auto *queue = bv::allocate<bv_queue>();
    if (queue == nullptr)
        return BV_ERR_MEMORY;

    bv::list_init(queue->messages);
    bv_os_pthread_mutex_init(&queue->lock, nullptr);
    queue->count = 0;
    queue->max = max;
    queue->dropped = 0;
    *out = queue;
    return BV_OK;
}

uint32_t bv_queue_send(bv_queue *q, const void *data, uint32_t length)
{
    if (q == nullptr || data == nullptr || length == 0)
        return BV_ERR_NULL;

    // Tested without the lock on purpose: refusing stays cheap while the queue is busy. The price
    // is small: racing senders may all get in, and the depth passes max by as many.
    if (bv::load_relaxed(q->count) >= q->max) {
        count_dropped(q->dropped);
        return BV_ERR_FULL;
    }

    Message *message = make_message(data, length);
    if (message == nullptr)
        return BV_ERR_MEMORY;

    const bv::MutexGuard guard(q->lock);
    bv::list_append(q->messages, message->link);
    bv::store_relaxed(q->count, bv::checked_add(q->count, 1));
    return BV_OK;
}

uint32_t bv_queue_recv(bv_queue *q, void *buffer, uint32_t size)
{
    if (q == nullptr || buffer == nullptr || size == 0)
        return BV_ERR_INVALID;

    const bv::Block<Message> message(take_first(*q));
    if (!message)
        return BV_ERR_EMPTY;

    // The message's own length bounds the copy, not size: services exchange records of a fixed size
    // and pass sizes of all kinds, but rely on getting the whole record.
    bv_os_memcpy(buffer, message->length, message->payload(), message->length);
    return BV_OK;
}

uint32_t bv_queue_free(bv_queue **q)
{
    if (q == nullptr || *q == nullptr)
        return BV_ERR_NULL;

    // Waiting messages are abandoned, as the header warns: services drain the queue themselves.
    // The lock is initialised again, not destroyed: destroying one that a thread still holds is
    // undefined.
    bv_queue *queue = *q;
    queue->count = 0;
    queue->max = 0;
    queue->dropped = 0;
    bv_os_pthread_mutex_init(&queue->lock, nullptr);
    bv_os_free(queue);
    *q = nullptr;
    return BV_OK;
}
