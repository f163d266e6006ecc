// SPDX-License-Identifier: ISC
// Descriptors: registration with the kernel, and calling back for what it reports.
//
// Events are fetched in small batches and dispatched one per turn. Until then a callback may
// delete, and free, any record; so deletion also looks through the batch and through the
// callbacks that are still running.

#include "uloop_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

enum { kBatchSize = 10 };

uloop_fd_handler uloop_fd_set_cb;

struct ready {
    struct uloop_fd *fd; // NULL once the record is deleted
    uint32_t events;     // as the kernel reported them
};

// A running callback of an edge-triggered descriptor. It is not entered again from a nested
// run; what is reported meanwhile waits here, because the kernel will not report it twice.
struct running {
    struct running *outer;
    struct uloop_fd *fd; // NULL once the record is deleted
    uint32_t missed;
};

static int poll_fd = -1;
static struct ready batch[kBatchSize];
static int batch_next;
static int batch_count;
static struct running *innermost;

int above_standard(int fd)
{
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;

    int higher = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int error = errno;
    close(fd);
    errno = error;
    return higher;
}

int poll_open(void)
{
    poll_fd = above_standard(epoll_create1(EPOLL_CLOEXEC));
    return poll_fd < 0 ? -1 : 0;
}

bool poll_is_open(void)
{
    return poll_fd >= 0;
}

void poll_close(void)
{
    if (poll_fd >= 0)
        close(poll_fd);
    poll_fd = -1;

    batch_next = 0;
    batch_count = 0;
    for (struct running *run = innermost; run != NULL; run = run->outer)
        run->missed = 0;
}

static uint32_t kernel_events(unsigned int flags)
{
    uint32_t events = 0;
    if ((flags & ULOOP_READ) != 0)
        events |= EPOLLIN | EPOLLRDHUP;
    if ((flags & ULOOP_WRITE) != 0)
        events |= EPOLLOUT;
    if ((flags & ULOOP_EDGE_TRIGGER) != 0)
        events |= EPOLLET;
    return events;
}

static void make_nonblocking(int fd)
{
    int mode = fcntl(fd, F_GETFL);
    if (mode >= 0)
        fcntl(fd, F_SETFL, mode | O_NONBLOCK);
}

int uloop_fd_add(struct uloop_fd *sock, unsigned int flags)
{
    if ((flags & ULOOP_EVENT_MASK) == 0)
        return uloop_fd_delete(sock);

    if (!sock->registered && (flags & ULOOP_BLOCKING) == 0)
        make_nonblocking(sock->fd);

    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = kernel_events(flags);
    ev.data.ptr = sock;
    if (epoll_ctl(poll_fd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &ev) < 0)
        return -1;

    if (uloop_fd_set_cb != NULL)
        uloop_fd_set_cb(sock, flags);

    sock->registered = true;
    sock->eof = false;
    sock->error = false;
    sock->flags = (uint8_t)flags;
    return 0;
}

static void drop_events(const struct uloop_fd *sock)
{
    for (int i = batch_next; i < batch_count; i++) {
        if (batch[i].fd == sock)
            batch[i].fd = NULL;
    }
    for (struct running *run = innermost; run != NULL; run = run->outer) {
        if (run->fd == sock)
            run->fd = NULL;
    }
}

int uloop_fd_delete(struct uloop_fd *sock)
{
    drop_events(sock);
    if (!sock->registered)
        return 0;

    if (uloop_fd_set_cb != NULL)
        uloop_fd_set_cb(sock, 0);

    sock->registered = false;
    sock->flags = 0;
    return epoll_ctl(poll_fd, EPOLL_CTL_DEL, sock->fd, NULL) < 0 ? -1 : 0;
}

static void fetch(int timeout_ms)
{
    struct epoll_event events[kBatchSize];
    int count = epoll_wait(poll_fd, events, kBatchSize, timeout_ms);
    batch_next = 0;
    batch_count = count > 0 ? count : 0;
    for (int i = 0; i < batch_count; i++) {
        batch[i].fd = events[i].data.ptr;
        batch[i].events = events[i].events;
    }
}

// Brings the record up to date with what the kernel reported, and calls back.
static void call_back(struct uloop_fd *sock, uint32_t reported)
{
    unsigned int events = 0;
    if ((reported & EPOLLIN) != 0)
        events |= ULOOP_READ;
    if ((reported & EPOLLOUT) != 0)
        events |= ULOOP_WRITE;
    if ((reported & EPOLLRDHUP) != 0)
        sock->eof = true;

    // The kernel reports a hang-up again and again. Unless the owner wants to handle that, it hears
    // of it once.
    if ((reported & (EPOLLERR | EPOLLHUP)) != 0) {
        sock->error = true;
        if ((sock->flags & ULOOP_ERROR_CB) == 0)
            uloop_fd_delete(sock);
    }

    sock->cb(sock, events);
}

// Whether the descriptor's callback is running; the events are then kept for it.
static bool kept_for_running(const struct uloop_fd *sock, uint32_t reported)
{
    for (struct running *run = innermost; run != NULL; run = run->outer) {
        if (run->fd == sock) {
            run->missed |= reported;
            return true;
        }
    }
    return false;
}

static void call_back_once_at_a_time(struct uloop_fd *sock, uint32_t reported)
{
    struct running self = {.outer = innermost, .fd = sock, .missed = reported};

    // The record is looked at only while it is known to be there: a deletion clears self.fd,
    // and nothing is reported for a record that is not registered.
    innermost = &self;
    while (self.fd != NULL && self.missed != 0 && sock->cb != NULL) {
        reported = self.missed;
        self.missed = 0;
        call_back(sock, reported);
    }
    innermost = self.outer;
}

void poll_dispatch(int timeout_ms)
{
    if (batch_next == batch_count)
        fetch(timeout_ms);

    while (batch_next < batch_count) {
        struct ready ready = batch[batch_next++];
        struct uloop_fd *sock = ready.fd;
        if (sock == NULL || sock->cb == NULL)
            continue;

        if ((sock->flags & ULOOP_EDGE_TRIGGER) == 0) {
            call_back(sock, ready.events);
            return;
        }
        if (!kept_for_running(sock, ready.events)) {
            call_back_once_at_a_time(sock, ready.events);
            return;
        }
    }
}
