// Numbered events from any thread to registered callbacks, through one dispatch thread.
//
// The lock guards the list of events and their number, and is never held while a callback runs:
// callbacks post events themselves. An event stays linked and counted until its callbacks are
// done. Only the dispatch thread unlinks, so what it knows about the list stays true meanwhile.
//
// The table of callbacks has no lock: registrations are made during start-up, from one thread at
// a time. The driver may talk already then, so a new callback is linked in such a way that the
// dispatch thread may walk past it at the same moment.
//
// A forked child inherits all of this but the threads, and perhaps a lock that one of them held.
// It starts from nothing: a handler of the fork makes the state anew, so that no call has to ask
// which process it is in.

#include <bv/notifier.h>

#include "core/list.h"
#include "core/lock.h"
#include "core/netlink.h"
#include "os/alloc.h"
#include "os/atomic.h"
#include "os/checked.h"

#include <bv/status.h>

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
              "two links and the function");
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

Event *event_of(bv_list_head *link)
{
    return bv::list_record<Event>(link, offsetof(Event, link));
}

// An event with a copy of data, not linked yet; null if memory is short.
Event *make_event(uint32_t type, const void *data, uint32_t length)
{
    Event *event = static_cast<Event *>(bv::allocate(sizeof(Event) + uint64_t{length} + 1));
    if (event == nullptr)
        return nullptr;

    event->type = type;
    event->length = length;
    if (length != 0 && data != nullptr)
        bv_os_memcpy(event->payload(), length, data, length);
    else
        bv_os_memset(event->payload(), length + 1, 0, length + 1);
    event->payload()[length] = 0; // text arrives terminated
    return event;
}

void append_event(Event &event)
{
    bv::MutexGuard guard(g_notifier.lock);
    bv::list_append(g_notifier.events, event.link);
    g_notifier.count = bv::checked_add(g_notifier.count, 1);
}

// Calls every callback of the event's type. Events of other types are nobody's.
void deliver(Event &event)
{
    if (event.type >= kTypes)
        return;

    bv_list_head &callbacks = g_notifier.callbacks[event.type];
    for (bv_list_head *link = bv::list_next(callbacks); link != &callbacks;
         link = bv::list_next(*link))
        bv::list_record<Callback>(link, offsetof(Callback, link))
            ->function(event.payload(), event.length);
}

// Where the dispatch thread stands: the event at hand, and what followed it before its callbacks
// ran. Either may be the list's head, which ends the round.
struct Round {
    bv_list_head *link;
    bv_list_head *next;
};

Round begin_round()
{
    bv::MutexGuard guard(g_notifier.lock);
    bv_list_head *first = g_notifier.events.next;
    return {first, first->next};
}

// Takes the event at hand out and goes to the next one, all in one turn of the lock.
void finish_event(Round &round)
{
    Event *event = event_of(round.link);
    {
        bv::MutexGuard guard(g_notifier.lock);
        bv::list_unlink(event->link);
        g_notifier.count = bv::checked_sub(g_notifier.count, 1);
        round = {round.next, round.next->next};
    }
    bv_os_free(event);
}

// Handles the events from the first to the present last one. What callbacks post during the last
// event waits for its own post, so that a callback that always posts another event leaves the
// loop in between.
void dispatch_pending()
{
    for (Round round = begin_round(); round.link != &g_notifier.events; finish_event(round))
        deliver(*event_of(round.link));
}

// A wait that a signal ended looks at the list as well, and a post whose event went with an
// earlier round finds it empty: both are harmless.
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

// What the parent had registered and posted is left where it is: the lists may be half changed,
// and a child of a process with threads had better not give back memory.
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

// The mark comes last: while it is missing the next bv_notifier_init() tries again, and nothing is
// posted that no one would fetch.
void start_dispatcher()
{
    pthread_t thread;
    if (bv_os_pthread_create(&thread, nullptr, dispatch_forever, nullptr) != 0)
        return;
    bv_os_pthread_detach(thread); // it never ends, so no one waits for it
    bv::store_release(g_notifier.started, uint32_t{1});
}

} // namespace

int32_t bv_notifier_init(void)
{
    // Registrations are permanent, and a second dispatch thread would tear events out of the
    // first one's hands.
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

    Callback *node = static_cast<Callback *>(bv_os_malloc(sizeof(Callback)));
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
