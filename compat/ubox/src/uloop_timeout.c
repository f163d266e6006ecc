// SPDX-License-Identifier: ISC
// Timers: a list in the order of expiry. The loop looks at the front only; there are few timers
// in a service and most are set to fire late, so a walk on insertion costs less than a tree.

#include "uloop_internal.h"

#include <limits.h>
#include <time.h>

static LIST_HEAD(waiting);

// Taken out of `waiting` because they are due, and not called yet. Kept in a list of their own
// so that what callbacks set meanwhile waits for the next turn: a timer that keeps setting
// itself to 0 must not starve the descriptors.
static LIST_HEAD(due);

static struct timeval monotonic_now(void)
{
    struct timespec now;
    struct timeval result;
    clock_gettime(CLOCK_MONOTONIC, &now);
    result.tv_sec = now.tv_sec;
    result.tv_usec = now.tv_nsec / 1000;
    return result;
}

// Whole milliseconds from one time to another, kept within range: callers may have filled in
// anything. The microseconds are truncated apart from the seconds, towards zero; with this
// measure timers set within the same millisecond count as equal and run in the order of setting.
static int64_t ms_between(const struct timeval *from, const struct timeval *to)
{
    int64_t seconds, micros, ms;
    if (__builtin_sub_overflow((int64_t)to->tv_sec, (int64_t)from->tv_sec, &seconds) ||
        __builtin_sub_overflow((int64_t)to->tv_usec, (int64_t)from->tv_usec, &micros) ||
        __builtin_mul_overflow(seconds, INT64_C(1000), &ms) ||
        __builtin_add_overflow(ms, micros / 1000, &ms))
        return to->tv_sec < from->tv_sec ? INT64_MIN : INT64_MAX;
    return ms;
}

static int clamp_to_int(int64_t ms)
{
    if (ms > INT_MAX)
        return INT_MAX;
    return ms < INT_MIN ? INT_MIN : (int)ms;
}

int uloop_timeout_add(struct uloop_timeout *timeout)
{
    struct list_head *before = &waiting;
    struct uloop_timeout *pos;
    if (timeout->pending)
        return -1;

    list_for_each_entry(pos, &waiting, list)
    {
        if (ms_between(&timeout->time, &pos->time) > 0) {
            before = &pos->list;
            break;
        }
    }

    list_add_tail(&timeout->list, before);
    timeout->pending = true;
    return 0;
}

int uloop_timeout_set(struct uloop_timeout *timeout, int msecs)
{
    if (timeout->pending)
        uloop_timeout_cancel(timeout);

    struct timeval at = monotonic_now();
    at.tv_sec += msecs / 1000;
    at.tv_usec += msecs % 1000 * 1000;
    if (at.tv_usec >= 1000000) {
        at.tv_sec++;
        at.tv_usec -= 1000000;
    } else if (at.tv_usec < 0) {
        at.tv_sec--;
        at.tv_usec += 1000000;
    }

    timeout->time = at;
    return uloop_timeout_add(timeout);
}

static void take_out(struct uloop_timeout *timeout)
{
    list_del(&timeout->list);
    timeout->pending = false;
}

int uloop_timeout_cancel(struct uloop_timeout *timeout)
{
    if (!timeout->pending)
        return -1;

    take_out(timeout);
    return 0;
}

int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout)
{
    if (!timeout->pending)
        return -1;

    struct timeval now = monotonic_now();
    return ms_between(&now, &timeout->time);
}

int uloop_timeout_remaining(struct uloop_timeout *timeout)
{
    return clamp_to_int(uloop_timeout_remaining64(timeout));
}

int uloop_get_next_timeout(void)
{
    if (!list_empty(&due))
        return 0;
    if (list_empty(&waiting))
        return -1;

    struct uloop_timeout *first = list_first_entry(&waiting, struct uloop_timeout, list);
    int64_t ms = uloop_timeout_remaining64(first);
    return ms < 0 ? 0 : clamp_to_int(ms);
}

static void collect_due(void)
{
    struct timeval now = monotonic_now();
    while (!list_empty(&waiting)) {
        struct uloop_timeout *first = list_first_entry(&waiting, struct uloop_timeout, list);
        if (ms_between(&now, &first->time) > 0)
            return;
        list_move_tail(&first->list, &due);
    }
}

void timeouts_run(void)
{
    if (!list_empty(&waiting))
        collect_due();

    // A callback that runs the loop again empties this list itself.
    while (!list_empty(&due)) {
        struct uloop_timeout *first = list_first_entry(&due, struct uloop_timeout, list);
        take_out(first);
        if (first->cb != NULL)
            first->cb(first);
    }
}

void timeouts_forget(void)
{
    list_splice_init(&due, &waiting);
    while (!list_empty(&waiting))
        take_out(list_first_entry(&waiting, struct uloop_timeout, list));
}
