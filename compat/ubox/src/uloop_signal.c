// SPDX-License-Identifier: ISC
// Signals. A handler notes what came and writes to a pipe that the loop waits on, so a signal
// ends the wait whichever thread takes it and however close it falls to the start of the wait.

#include "uloop_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

bool uloop_handle_sigchld = true;
int uloop_status;
int uloop_child_ended;

static void drain(struct uloop_fd *reader, unsigned int events);

static struct uloop_fd wake_reader = {.cb = drain, .fd = -1};
static volatile sig_atomic_t wake_writer = -1;

static void drain(struct uloop_fd *reader, unsigned int events)
{
    char bytes[64];
    ssize_t count;
    (void)events;
    do {
        count = read(reader->fd, bytes, sizeof(bytes));
    } while (count > 0 || (count < 0 && errno == EINTR));
}

static void wake(void)
{
    int error = errno;

    // A full pipe is as good: it wakes the loop too.
    while (write(wake_writer, "", 1) < 0 && errno == EINTR) {
    }
    errno = error;
}

static void on_end(int signo)
{
    __atomic_store_n(&uloop_status, signo, __ATOMIC_RELAXED);
    __atomic_store_n(&uloop_cancelled, true, __ATOMIC_RELAXED);
    wake();
}

static void on_child(int signo)
{
    (void)signo;
    __atomic_store_n(&uloop_child_ended, 1, __ATOMIC_RELAXED);
    wake();
}

typedef void (*signal_handler)(int);

// What the program set up for itself, or inherited as ignored, is left alone.
static void replace_handler(int signo, signal_handler from, signal_handler to)
{
    struct sigaction action;
    if (sigaction(signo, NULL, &action) < 0 || action.sa_handler != from)
        return;

    memset(&action, 0, sizeof(action));
    sigemptyset(&action.sa_mask);
    action.sa_handler = to;
    sigaction(signo, &action, NULL);
}

static int open_pipe(void)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) < 0)
        return -1;

    wake_reader.fd = above_standard(ends[0]);
    wake_writer = above_standard(ends[1]);
    if (wake_reader.fd < 0 || wake_writer < 0 || uloop_fd_add(&wake_reader, ULOOP_READ) < 0) {
        int error = errno;
        signals_close();
        errno = error;
        return -1;
    }
    return 0;
}

int signals_open(void)
{
    if (open_pipe() < 0)
        return -1;

    replace_handler(SIGINT, SIG_DFL, on_end);
    replace_handler(SIGTERM, SIG_DFL, on_end);
    if (uloop_handle_sigchld)
        replace_handler(SIGCHLD, SIG_DFL, on_child);
    replace_handler(SIGPIPE, SIG_DFL, SIG_IGN); // for good: writers learn from EPIPE
    return 0;
}

void signals_restore(void)
{
    replace_handler(SIGINT, on_end, SIG_DFL);
    replace_handler(SIGTERM, on_end, SIG_DFL);
    replace_handler(SIGCHLD, on_child, SIG_DFL);
}

void signals_close(void)
{
    int writer = wake_writer;
    wake_writer = -1;
    uloop_fd_delete(&wake_reader);
    if (wake_reader.fd >= 0)
        close(wake_reader.fd);
    wake_reader.fd = -1;
    if (writer >= 0)
        close(writer);
}
