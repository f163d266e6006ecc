// What the cases of the sweep expect of sweep/faults.h, without its functions in front of the C
// library, whose stack would count.

#include "sweep/faults.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace sweep {

int (*g_ioctl_answer)(int, unsigned long, void *);
bool g_redirect_netlink;

void give_back(int fd)
{
    if (fd >= 0)
        close(fd);
}

} // namespace sweep

extern "C" int in_front_socket(int domain, int type, int protocol) __asm__("socket");
extern "C" int in_front_socket(int domain, int type, int protocol)
{
    if (sweep::g_redirect_netlink && domain == AF_NETLINK)
        protocol = NETLINK_USERSOCK;
    return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

extern "C" int in_front_ioctl(int fd, unsigned long request, void *argument) __asm__("ioctl");
extern "C" int in_front_ioctl(int fd, unsigned long request, void *argument)
{
    const int answer =
        sweep::g_ioctl_answer != nullptr ? sweep::g_ioctl_answer(fd, request, argument) : -2;
    return answer != -2 ? answer : static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
