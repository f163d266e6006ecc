// SPDX-License-Identifier: ISC
// Event loop wrappers: arguments and results pass through unchanged.

#include <bv/ubus.h>

int bv_uloop_init(void)
{
    return uloop_init();
}

int bv_uloop_run(void)
{
    return uloop_run_timeout(-1);
}

void bv_uloop_done(void)
{
    uloop_done();
}

int bv_uloop_fd_add(uloop_fd *sock, unsigned int flags)
{
    return uloop_fd_add(sock, flags);
}

int bv_uloop_fd_delete(uloop_fd *sock)
{
    return uloop_fd_delete(sock);
}

int bv_uloop_timeout_set(uloop_timeout *timeout, int msecs)
{
    return uloop_timeout_set(timeout, msecs);
}

int bv_uloop_timeout_cancel(uloop_timeout *timeout)
{
    return uloop_timeout_cancel(timeout);
}

// The library marks this function as deprecated in favour of a 64-bit one, which its old versions
// lack. Our result is an int whatever the version underneath returns.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
int bv_uloop_timeout_remaining(uloop_timeout *timeout)
{
    return static_cast<int>(uloop_timeout_remaining(timeout));
}
#pragma GCC diagnostic pop

int bv_uloop_process_add(uloop_process *p)
{
    return uloop_process_add(p);
}

int bv_uloop_process_delete(uloop_process *p)
{
    return uloop_process_delete(p);
}
