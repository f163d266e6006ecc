/* SPDX-License-Identifier: ISC */
/**
 * Event loop: descriptors, timers and child processes of one thread.
 *
 * The records belong to the caller, are linked in place, and are neither copied nor freed
 * here. They must be zeroed before their first use. Only uloop_init() is thread-safe; signals
 * may be taken by any thread.
 */
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#include "list.h"

#ifdef __cplusplus
extern "C" {
#endif

struct uloop_fd;
struct uloop_timeout;
struct uloop_process;

typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);
typedef void (*uloop_process_handler)(struct uloop_process *c, int ret);

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2) /**< report a change once instead of a state repeatedly */
#define ULOOP_BLOCKING (1 << 3)     /**< do not switch the descriptor to non-blocking */

#define ULOOP_EVENT_MASK (ULOOP_READ | ULOOP_WRITE)

#define ULOOP_EVENT_BUFFERED (1 << 4) /**< internal, never given to a callback */

#define ULOOP_ERROR_CB (1 << 6) /**< stay registered after an error or a hang-up */

struct uloop_fd {
    uloop_fd_handler cb; /**< may be NULL: events are then dropped */
    int fd;
    bool eof;        /**< the peer ended its sending side; only when READ is asked for */
    bool error;      /**< error or hang-up; without ULOOP_ERROR_CB it is unregistered by then */
    bool registered; /**< kept by uloop_fd_add() and uloop_fd_delete() */
    uint8_t flags;   /**< those of the last successful add, 0 when not registered */
};

struct uloop_timeout {
    struct list_head list;
    bool pending;
    uloop_timeout_handler cb; /**< may be NULL */
    struct timeval time;      /**< absolute expiry, monotonic clock */
};

struct uloop_process {
    struct list_head list;
    bool pending;
    uloop_process_handler cb; /**< gets the status in the form of waitpid() */
    pid_t pid;
};

extern bool uloop_cancelled;             /**< end the loop after this turn */
extern bool uloop_handle_sigchld;        /**< read by uloop_init(): take SIGCHLD? */
extern uloop_fd_handler uloop_fd_set_cb; /**< told of each registration (flags) and removal (0) */

/**
 * Adds a descriptor, or changes what a registered one waits for. Without READ and WRITE in
 * flags it is uloop_fd_delete(). 0, or -1 with errno; the record is then as before.
 */
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);

/**
 * Removes a descriptor, and the events of it that wait for their callback. 0, or -1 with
 * errno when the kernel did not know it any more; the record is cleared in both cases.
 */
int uloop_fd_delete(struct uloop_fd *sock);

/** Milliseconds to the next timer, 0 when one is due, -1 when there is none. */
int uloop_get_next_timeout(void);

/** For a record whose time the caller filled in. 0, or -1 when it is pending already. */
int uloop_timeout_add(struct uloop_timeout *timeout);

/** Starts or moves a timer; 0 or less milliseconds make it due in the next turn. Always 0. */
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);

/** 0, or -1 when it was not pending. */
int uloop_timeout_cancel(struct uloop_timeout *timeout);

/** Milliseconds left, negative when overdue; -1 also when not pending. The first form keeps
 * within the range of int. */
int uloop_timeout_remaining(struct uloop_timeout *timeout)
    __attribute__((deprecated("use uloop_timeout_remaining64")));
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout);

/** 0, or -1 when it is pending already. */
int uloop_process_add(struct uloop_process *p);

/** 0, or -1 when it was not pending. The child itself is left alone. */
int uloop_process_delete(struct uloop_process *p);

/** True while a run is in progress that is about to end. */
bool uloop_cancelling(void);

/** 0, or -1 with errno. A second call without uloop_done() between them does nothing. */
int uloop_init(void);

/**
 * Runs the loop until it is ended, or for a single turn that waits at most so many
 * milliseconds when timeout is not negative. Returns 0, or the number of the SIGINT or
 * SIGTERM that ended it.
 */
int uloop_run_timeout(int timeout);

/** Closes what uloop_init() opened and forgets all timers and processes. Descriptors should
 * have been deleted before. */
void uloop_done(void);

static inline int uloop_run(void)
{
    return uloop_run_timeout(-1);
}

static inline void uloop_end(void)
{
    __atomic_store_n(&uloop_cancelled, true, __ATOMIC_RELAXED); /* any thread may */
}

#ifdef __cplusplus
}
#endif

#endif
