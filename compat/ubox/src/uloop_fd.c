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

#define BATCH_SIZE 10

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
static struct ready batch[BATCH_SIZE];
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
    for (struct running *run = innermost; run; run = run->outer)
        run->missed = 0;
}

static uint32_t kernel_events(unsigned int flags)
{
    uint32_t events = 0;

    if (flags & ULOOP_READ)
        events |= EPOLLIN | EPOLLRDHUP;
    if (flags & ULOOP_WRITE)
        events |= EPOLLOUT;
    if (flags & ULOOP_EDGE_TRIGGER)
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
    if (!(flags & ULOOP_EVENT_MASK))
        return uloop_fd_delete(sock);

    if (!sock->registered && !(flags & ULOOP_BLOCKING))
        make_nonblocking(sock->fd);

    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = kernel_events(flags);
    ev.data.ptr = sock;
    if (epoll_ctl(poll_fd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &ev) < 0)
        return -1;

    if (uloop_fd_set_cb)
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
    for (struct running *run = innermost; run; run = run->outer) {
        if (run->fd == sock)
            run->fd = NULL;
    }
}

int uloop_fd_delete(struct uloop_fd *sock)
{
    drop_events(sock);
    if (!sock->registered)
        return 0;

    if (uloop_fd_set_cb)
        uloop_fd_set_cb(sock, 0);

    sock->registered = false;
    sock->flags = 0;
    return epoll_ctl(poll_fd, EPOLL_CTL_DEL, sock->fd, NULL) < 0 ? -1 : 0;
}

static void fetch(int timeout_ms)
{
    struct epoll_event events[BATCH_SIZE];
    int count = epoll_wait(poll_fd, events, BATCH_SIZE, timeout_ms);

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

    if (reported & EPOLLIN)
        events |= ULOOP_READ;
    if (reported & EPOLLOUT)
        events |= ULOOP_WRITE;
    if (reported & EPOLLRDHUP)
        sock->eof = true;

    // A hang-up is reported for as long as it lasts, which is for ever: unless the owner wants
    // to deal with that, it is told once.
    if (reported & (EPOLLERR | EPOLLHUP)) {
        sock->error = true;
        if (!(sock->flags & ULOOP_ERROR_CB))
            uloop_fd_delete(sock);
    }

    sock->cb(sock, events);
}

// Whether the descriptor's callback is running; the events are then kept for it.
static bool kept_for_running(const struct uloop_fd *sock, uint32_t reported)
{
    for (struct running *run = innermost; run; run = run->outer) {
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
    while (self.fd && self.missed && sock->cb) {
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

        if (!sock || !sock->cb)
            continue;

        if (!(sock->flags & ULOOP_EDGE_TRIGGER)) {
            call_back(sock, ready.events);
            return;
        }
        if (!kept_for_running(sock, ready.events)) {
            call_back_once_at_a_time(sock, ready.events);
            return;
        }
    }
}
