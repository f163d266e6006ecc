// SPDX-License-Identifier: ISC
// Numbered events from any thread to registered callbacks, through one dispatch thread; and the
// translation of the driver's messages into such events.
//
// The lock guards the list of events and their count. It is never held while a callback runs:
// callbacks post events themselves. An event stays linked and counted until its callbacks have
// returned. Only the dispatch thread unlinks, so its position in the list stays valid.
//
// The table of callbacks has no lock: services register during start-up, from one thread at a time.
// The driver may already send then, so a callback is linked in a way that lets the dispatch thread
// walk the list at the same moment.
//
// A forked child inherits all of this except the threads, and perhaps a lock that one of them held.
// A fork handler resets the child's state, so that no call has to ask which process it is in.

#include <bv/notifier.h>

#include "core/list.h"
#include "core/lock.h"
#include "core/netlink.h"
#include "os/alloc.h"
#include "os/atomic.h"
#include "os/checked.h"
#include "os/inline.h"

#include <bv/status.h>

#include <algorithm>

sem_t g_st_notifier_sem;

namespace {

constexpr uint32_t kTypes = 14;

struct Callback {
    bv_list_head link;
    bv_notifier_cb function;
};

// An event is one allocation: this header, `length` bytes of payload and a zero byte.
struct Event {
    bv_list_head link;
    uint32_t type;
    uint32_t length;

    uint8_t *payload() { return reinterpret_cast<uint8_t *>(this + 1); }
};

static_assert(sizeof(void *) != 4 || (sizeof(Event) == 16 && offsetof(Event, length) == 12),
              "the payload follows, 8-byte aligned");
static_assert(sizeof(void *) != 4 || (sizeof(Callback) == 12 && offsetof(Callback, function) == 8),
              "a callback has two links and a function, without padding");
static_assert(sizeof(Event) % 8 == 0, "the payload follows, 8-byte aligned");

struct Notifier {
    bv_list_head callbacks[kTypes]; // in order of registration
    bv_list_head events;            // oldest first
    int32_t count;                  // events linked
    pthread_mutex_t lock;           // guards events and count
    uint32_t started;               // set once a dispatch thread of this process runs
};

Notifier g_notifier;

bool started()
{
    return bv::load_acquire(g_notifier.started) != 0;
}

// An event with a copy of data, not linked yet; null if memory is short.
Event *make_event(uint32_t type, const void *data, uint32_t length)
{
    auto *event = bv::allocate<Event>(sizeof(Event) + uint64_t{length} + 1);
    if (event == nullptr)
        return nullptr;

    event->type = type;
    event->length = length;
    if (length != 0 && data != nullptr)
        bv_os_memcpy(event->payload(), length, data, length);
    else
        bv_os_memset(event->payload(), length + 1, 0, length + 1);
    event->payload()[length] = 0; // callbacks get terminated text
    return event;
}

void append_event(Event &event)
{
    const bv::MutexGuard guard(g_notifier.lock);
    bv::list_append(g_notifier.events, event.link);
    g_notifier.count = bv::checked_add(g_notifier.count, 1);
}

// Calls every callback of the event's type. An event of an unknown type has none.
void deliver(Event &event)
{
    if (event.type >= kTypes)
        return;
    for (const Callback &callback : bv::each_published<Callback>(g_notifier.callbacks[event.type]))
        callback.function(event.payload(), event.length);
}

// The dispatch thread's position: the event at hand, and the one that followed it before its
// callbacks ran. Either may be the list's head, which ends the round.
struct Round {
    bv_list_head *link;
    bv_list_head *next;
};

Round begin_round()
{
    const bv::MutexGuard guard(g_notifier.lock);
    bv_list_head *first = g_notifier.events.next;
    return {first, first->next};
}

// Takes the event at hand out and moves to the next one, under one hold of the lock.
void finish_event(Round &round)
{
    const bv::Block<Event> event(&bv::record_of<Event>(round.link));
    const bv::MutexGuard guard(g_notifier.lock);
    bv::list_unlink(event->link);
    g_notifier.count = bv::checked_sub(g_notifier.count, 1);
    round = {round.next, round.next->next};
}

// Handles the events from the first to the last one of this moment. Events that callbacks post
// during the last one wait for their own post, so a callback that always posts another event still
// leaves the loop in between.
void dispatch_pending()
{
    for (Round round = begin_round(); round.link != &g_notifier.events; finish_event(round))
        deliver(bv::record_of<Event>(round.link));
}

// A wait that a signal ended looks at the list too, and the post of an event that an earlier round
// handled finds it empty: both are harmless.
void *dispatch_forever(void *)
{
    for (;;) {
        bv_os_sem_wait(&g_st_notifier_sem);
        dispatch_pending();
    }
}

void reset()
{
    for (bv_list_head &head : g_notifier.callbacks)
        bv::list_init(head);
    bv::list_init(g_notifier.events);
    g_notifier.count = 0;
    bv_os_pthread_mutex_init(&g_notifier.lock, nullptr);
    bv_os_sem_init(&g_st_notifier_sem, 0, 0);
}

// The parent's registrations and events are not freed: the lists may be half changed, and the child
// of a process with threads should not free memory.
void after_fork_in_child()
{
    bv::store_release(g_notifier.started, uint32_t{0});
    reset();
    bv::netlink_after_fork();
}

void handle_forks()
{
    static bool handled = false; // children inherit the handler
    if (!handled)
        handled = pthread_atfork(nullptr, nullptr, after_fork_in_child) == 0;
}

// The mark is set last: until then no event is posted, since no thread would fetch it, and the next
// bv_notifier_init() tries again.
void start_dispatcher()
{
    pthread_t thread;
    if (bv_os_pthread_create(&thread, nullptr, dispatch_forever, nullptr) != 0)
        return;
    bv_os_pthread_detach(thread); // it never ends, so no thread waits for it
    bv::store_release(g_notifier.started, uint32_t{1});
}

// Driver message types and the event type that each one becomes.
struct EventMapping {
    uint16_t driver_type;
    uint8_t event_type;
};
constexpr EventMapping kEventMap[] = {{2, 4}, {4, 5}, {5, 6}, {6, 8}, {7, 11}, {8, 12}, {9, 13}};
constexpr uint32_t kIgnoredType = 1; // of no use to any service

// People search a gateway's console for this origin, so it does not follow the lines of this file.
constexpr char kPrintedFunction[] = "bv_notifier_kernel";
constexpr int kPrintedLine = 139;

const EventMapping *find_mapping(uint32_t driver_type)
{
    for (const EventMapping &mapping : kEventMap)
        if (mapping.driver_type == driver_type)
            return &mapping;
    return nullptr;
}

// A payload straight from a caller is not terminated, so the precision bounds it.
void print_unknown(uint32_t driver_type, const void *data, uint32_t length)
{
    const char *text = data == nullptr ? "" : static_cast<const char *>(data);
    const int limit = static_cast<int>(std::min<uint32_t>(length, INT32_MAX));
    bv_os_printf("[%s:%04d]type(%d)-len(%d)-data(%.*s)\r\n", kPrintedFunction, kPrintedLine,
                 static_cast<int>(driver_type), static_cast<int>(length), limit, text);
}

} // namespace

int32_t bv_notifier_init(void)
{
    // Registrations are permanent, and two dispatch threads would take events from each other.
    if (started()) {
        if (!bv::netlink_runs()) // the driver may have been loaded since
            bv_netlink_init();
        return BV_OK;
    }

    handle_forks();
    reset();
    start_dispatcher();
    bv_netlink_init();
    return BV_OK;
}

int32_t bv_notifier_reg(uint32_t type, bv_notifier_cb callback)
{
    if (!started() || type >= kTypes || callback == nullptr)
        return BV_OK;

    auto *node = bv::allocate<Callback>();
    if (node == nullptr)
        return BV_OK;
    node->function = callback;
    bv::list_publish(g_notifier.callbacks[type], node->link);
    return BV_OK;
}

int32_t bv_notifier_send(uint32_t type, const void *data, uint32_t length)
{
    if (!started())
        return BV_ERR_FAILED;

    Event *event = make_event(type, data, length);
    if (event == nullptr)
        return BV_ERR_FAILED;
    append_event(*event);
    return bv_os_sem_post(&g_st_notifier_sem);
}

void bv_notifier_kernel(uint32_t kernel_type, void *data, uint32_t length)
{
    if (kernel_type == kIgnoredType)
        return;

    const EventMapping *mapping = find_mapping(kernel_type);
    if (mapping != nullptr)
        bv_notifier_send(mapping->event_type, data, length);
    else
        print_unknown(kernel_type, data, length);
}
