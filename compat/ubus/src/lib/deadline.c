// SPDX-License-Identifier: ISC
// Waiting for a socket until a deadline.

#include "internal.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <time.h>

static int64_t now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// Adds a millisecond because the clock is cut to whole ones, so that no wait is too short. A
// timeout of 0 or below means no deadline.
int64_t deadline_after(int timeout)
{
    return timeout > 0 ? now_ms() + timeout + 1 : kNever;
}

// Waits until the socket is ready or has failed. False when the deadline passes first.
bool deadline_poll(int fd, short events, int64_t deadline)
{
    struct pollfd poll_fd = {.fd = fd, .events = events};
    for (;;) {
        int64_t left = deadline != kNever ? deadline - now_ms() : -1;
        if (deadline != kNever && left <= 0)
            return false;
        int ready = poll(&poll_fd, 1, left > INT_MAX ? INT_MAX : (int)left);
        if (ready > 0 || (ready < 0 && errno != EINTR))
            return true;
    }
}
