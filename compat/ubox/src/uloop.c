// SPDX-License-Identifier: ISC
// Life cycle of the loop and the order of things within one turn: timers, children, then one
// descriptor. One descriptor only, so that a timer or a child never waits for a long row of busy
// sockets.

#include "uloop_internal.h"

#include <errno.h>
#include <pthread.h>

bool uloop_cancelled;

// Connecting to the bus opens the loop too, so a process whose server and client start on threads
// of their own opens it from both at once. The second opening would replace the descriptor that the
// server's socket was just added to, and the server would wait forever.
static pthread_mutex_t life = PTHREAD_MUTEX_INITIALIZER;

// Runs in progress: callbacks may run the loop again.
static unsigned int run_depth;

// The flag is also set by signal handlers and, through uloop_end(), by other threads.
static bool is_cancelled(void)
{
    return __atomic_load_n(&uloop_cancelled, __ATOMIC_RELAXED);
}

static int open_locked(void)
{
    if (poll_is_open())
        return 0;
    if (poll_open() < 0)
        return -1;

    if (signals_open() < 0) {
        int error = errno;
        poll_close();
        errno = error;
        return -1;
    }
    return 0;
}

int uloop_init(void)
{
    pthread_mutex_lock(&life);
    int status = open_locked();
    pthread_mutex_unlock(&life);
    return status;
}

void uloop_done(void)
{
    pthread_mutex_lock(&life);
    // The poll object goes before anything is removed from it: in a forked child it is still the
    // parent's too, and a removal would be felt there.
    signals_restore();
    poll_close();
    signals_close();
    timeouts_forget();
    processes_forget();
    pthread_mutex_unlock(&life);
}

bool uloop_cancelling(void)
{
    return run_depth > 0 && is_cancelled();
}

static int time_to_wait(int timeout)
{
    int next = uloop_get_next_timeout();
    if (timeout < 0)
        return next;
    return next < 0 || next > timeout ? timeout : next;
}

int uloop_run_timeout(int timeout)
{
    // In this order: a signal between the two still ends the run.
    __atomic_store_n(&uloop_cancelled, false, __ATOMIC_RELAXED);
    __atomic_store_n(&uloop_status, 0, __ATOMIC_RELAXED);

    run_depth++;
    do {
        timeouts_run();
        processes_reap();
        if (is_cancelled())
            break;
        poll_dispatch(time_to_wait(timeout));
    } while (timeout < 0 && !is_cancelled());
    run_depth--;
    return __atomic_load_n(&uloop_status, __ATOMIC_RELAXED);
}
