// SPDX-License-Identifier: ISC
// What the cases of the sweep expect of the test kit, without its interposed functions,
// whose stack would count.

#include "sweep/sweep.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

int (*g_ioctl_answer)(int, unsigned long, void *);
bool g_redirect_netlink;

namespace sweep {

void give_back(int fd)
{
    if (fd >= 0)
        close(fd);
}

} // namespace sweep

extern "C" int in_front_socket(int domain, int type, int protocol) __asm__("socket");
extern "C" int in_front_socket(int domain, int type, int protocol)
{
    if (g_redirect_netlink && domain == AF_NETLINK)
        protocol = NETLINK_USERSOCK;
    return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

extern "C" int in_front_ioctl(int fd, unsigned long request, void *argument) __asm__("ioctl");
extern "C" int in_front_ioctl(int fd, unsigned long request, void *argument)
{
    const int answer = g_ioctl_answer != nullptr ? g_ioctl_answer(fd, request, argument) : -2;
    return answer != -2 ? answer : static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
