/* SPDX-License-Identifier: ISC */
/*
 * Preloaded into a service where the running kernel has no gateway driver: a socket of the
 * driver's netlink protocol becomes one of the kernel's own user-to-user protocol, so that real
 * netlink messages from another process can stand for the driver's.
 */
#include <dlfcn.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#define DRIVER_PROTOCOL 26

int socket(int domain, int type, int protocol)
{
    int (*real)(int, int, int) = (int (*)(int, int, int))dlsym(RTLD_NEXT, "socket");

    if (domain == AF_NETLINK && protocol == DRIVER_PROTOCOL)
        protocol = NETLINK_USERSOCK;
    return real(domain, type, protocol);
}
