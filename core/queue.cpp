// Bounded message queue. The lock covers linking and counting only; messages are built, copied
// out and freed outside it, so a large one never holds up the other threads.

#include <bv/queue.h>

#include "core/list.h"
#include "core/lock.h"
#include "os/alloc.h"
#include "os/atomic.h"
#include "os/checked.h"

#include <bv/status.h>

namespace {

// A message is one allocation: this header, then `length` bytes of payload.
struct Message {
    bv_list_head link;
    uint32_t length;

    uint8_t *payload() { return reinterpret_cast<uint8_t *>(this + 1); }
};

static_assert(sizeof(void *) != 4 || (sizeof(Message) == 12 && offsetof(Message, length) == 8),
              "two links and the length");
static_assert(offsetof(bv_queue, lock) == sizeof(bv_list_head) &&
                  offsetof(bv_queue, count) == sizeof(bv_list_head) + sizeof(pthread_mutex_t) &&
                  offsetof(bv_queue, max) == offsetof(bv_queue, count) + 4 &&
                  offsetof(bv_queue, dropped) == offsetof(bv_queue, count) + 8,
              "public record");

Message *message_of(bv_list_head *link)
{
    return bv::list_record<Message>(link, offsetof(Message, link));
}

// A message with a copy of data, not linked yet; null if memory is short.
Message *make_message(const void *data, uint32_t length)
{
    auto *message = static_cast<Message *>(bv::allocate(sizeof(Message) + uint64_t{length}));
    if (message == nullptr)
        return nullptr;

    message->length = length;
    bv_os_memcpy(message->payload(), length, data, length);
    return message;
}

// Takes the oldest message out; null when there is none.
Message *take_first(bv_queue &queue)
{
    bv::MutexGuard guard(queue.lock);
    if (bv::list_empty(queue.messages))
        return nullptr;

    Message *message = message_of(queue.messages.next);
    bv::list_unlink(message->link);
    bv::store_relaxed(queue.count, bv::checked_sub(queue.count, 1));
    return message;
}

// One more refused send. A statistic that wrapped to 0 would report a queue that overflowed for
// years as a healthy one, so it stops at the top.
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

    bv_queue *queue = static_cast<bv_queue *>(bv_os_malloc(sizeof(bv_queue)));
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

    // Tested without the lock on purpose: refusing stays cheap while the queue is busy, and the
    // price, a depth that passes max by the number of racing senders, is a small one.
    if (bv::load_relaxed(q->count) >= q->max) {
        count_dropped(q->dropped);
        return BV_ERR_FULL;
    }

    Message *message = make_message(data, length);
    if (message == nullptr)
        return BV_ERR_MEMORY;

    bv::MutexGuard guard(q->lock);
    bv::list_append(q->messages, message->link);
    bv::store_relaxed(q->count, bv::checked_add(q->count, 1));
    return BV_OK;
}

uint32_t bv_queue_recv(bv_queue *q, void *buffer, uint32_t size)
{
    if (q == nullptr || buffer == nullptr || size == 0)
        return BV_ERR_INVALID;

    Message *message = take_first(*q);
    if (message == nullptr)
        return BV_ERR_EMPTY;

    // The message's own length bounds the copy, not size: services pass sizes of all kinds for
    // the fixed-size records that they exchange, and rely on getting them whole.
    bv_os_memcpy(buffer, message->length, message->payload(), message->length);
    bv_os_free(message);
    return BV_OK;
}

uint32_t bv_queue_free(bv_queue **q)
{
    if (q == nullptr || *q == nullptr)
        return BV_ERR_NULL;

    // Waiting messages are abandoned, as the header warns: draining is the services' business.
    // The lock is made anew rather than destroyed, since destroying one that a thread still
    // holds is undefined.
    bv_queue *queue = *q;
    queue->count = 0;
    queue->max = 0;
    queue->dropped = 0;
    bv_os_pthread_mutex_init(&queue->lock, nullptr);
    bv_os_free(queue);
    *q = nullptr;
    return BV_OK;
}
