// SPDX-License-Identifier: ISC
// System calls: sockets, ioctl and waiting for descriptors.

#include <bv/os.h>

#include <cstdarg>
#include <sys/ioctl.h>

namespace {

// C libraries differ in the type of ioctl()'s request: unsigned long with glibc, int with musl.
template <typename Request>
Request ioctl_request(int (*)(int, Request, ...));
using IoctlRequest = decltype(ioctl_request(ioctl));

} // namespace

int bv_os_socket(int domain, int type, int protocol)
{
    return socket(domain, type, protocol);
}

int bv_os_bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    return bind(fd, addr, len);
}

int bv_os_listen(int fd, int backlog)
{
    return listen(fd, backlog);
}

int bv_os_accept(int fd, struct sockaddr *addr, socklen_t *len)
{
    return accept(fd, addr, len);
}

int bv_os_connect(int fd, const struct sockaddr *addr, socklen_t len)
{
    return connect(fd, addr, len);
}

int bv_os_shutdown(int fd)
{
    return shutdown(fd, SHUT_RDWR);
}

ssize_t bv_os_send(int fd, const void *buf, size_t len, int flags)
{
    return send(fd, buf, len, flags);
}

ssize_t bv_os_sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *addr,
                     socklen_t addrlen)
{
    return sendto(fd, buf, len, flags, addr, addrlen);
}

ssize_t bv_os_sendmsg(int fd, const struct msghdr *msg, int flags)
{
    return sendmsg(fd, msg, flags);
}

ssize_t bv_os_recv(int fd, void *buf, size_t len, int flags)
{
    return recv(fd, buf, len, flags);
}

ssize_t bv_os_recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *addr,
                       socklen_t *addrlen)
{
    return recvfrom(fd, buf, len, flags, addr, addrlen);
}

ssize_t bv_os_recvmsg(int fd, struct msghdr *msg, int flags)
{
    return recvmsg(fd, msg, flags);
}

int bv_os_setsockopt(int fd, int level, int option, const void *value, socklen_t len)
{
    return setsockopt(fd, level, option, value, len);
}

int bv_os_ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    return ioctl(fd, static_cast<IoctlRequest>(request), argument);
}

int bv_os_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                 struct timeval *timeout)
{
    return select(nfds, readfds, writefds, exceptfds, timeout);
}

int bv_os_epoll_create(int size)
{
    return epoll_create(size);
}

int bv_os_epoll_ctl(int epfd, int op, int fd, struct epoll_event *event)
{
    return epoll_ctl(epfd, op, fd, event);
}

int bv_os_epoll_wait(int epfd, struct epoll_event *events, int maxevents, int timeout_ms)
{
    return epoll_wait(epfd, events, maxevents, timeout_ms);
}
