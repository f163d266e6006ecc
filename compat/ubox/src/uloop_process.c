// SPDX-License-Identifier: ISC
// Child processes. Every child that ends is reaped, registered or not: a service that forks
// helpers and forgets them must not collect zombies.

#include "uloop_internal.h"

#include <errno.h>
#include <sys/wait.h>

static LIST_HEAD(watched);

// The records of one child that ended, until they are called. Callbacks may delete any of them,
// add them again, or run the loop, which then calls the rest before it reaps further.
struct ended {
    struct ended *outer;
    struct list_head records;
    int status;
};

static struct ended *innermost;

int uloop_process_add(struct uloop_process *p)
{
    if (p->pending)
        return -1;

    list_add_tail(&p->list, &watched);
    p->pending = true;
    return 0;
}

static void take_out(struct uloop_process *p)
{
    list_del(&p->list);
    p->pending = false;
}

int uloop_process_delete(struct uloop_process *p)
{
    if (!p->pending)
        return -1;

    take_out(p);
    return 0;
}

static void call_all(struct ended *child)
{
    while (!list_empty(&child->records)) {
        struct uloop_process *p = list_first_entry(&child->records, struct uloop_process, list);
        take_out(p);
        if (p->cb != NULL)
            p->cb(p, child->status);
    }
}

static void child_ended(pid_t pid, int status)
{
    struct ended child = {.outer = innermost, .status = status};
    struct uloop_process *p, *next;
    INIT_LIST_HEAD(&child.records);
    list_for_each_entry_safe(p, next, &watched, list)
    {
        if (p->pid == pid)
            list_move_tail(&p->list, &child.records);
    }

    innermost = &child;
    call_all(&child);
    innermost = child.outer;
}

void processes_reap(void)
{
    for (struct ended *child = innermost; child != NULL; child = child->outer)
        call_all(child);

    if (!__atomic_load_n(&uloop_child_ended, __ATOMIC_RELAXED))
        return;
    __atomic_store_n(&uloop_child_ended, 0, __ATOMIC_RELAXED);

    for (;;) {
        int status;
        pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid > 0)
            child_ended(pid, status);
        else if (pid == 0 || errno != EINTR)
            return;
    }
}

static void forget(struct list_head *records)
{
    while (!list_empty(records))
        take_out(list_first_entry(records, struct uloop_process, list));
}

void processes_forget(void)
{
    for (struct ended *child = innermost; child != NULL; child = child->outer)
        forget(&child->records);
    forget(&watched);
}
