// SPDX-License-Identifier: ISC
// Sockets made ready in one call: Unix sockets for the bus, TCP and UDP by name for the rest.

#include <libubox/usock.h>

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <stdbool.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static int open_socket(int type, int family)
{
    int kind = (type & USOCK_UDP) != 0 ? SOCK_DGRAM : SOCK_STREAM;
    if ((type & USOCK_NOCLOEXEC) == 0)
        kind |= SOCK_CLOEXEC;
    if ((type & USOCK_NONBLOCK) != 0)
        kind |= SOCK_NONBLOCK;
    return socket(family, kind, 0);
}

// A connect that a signal interrupts goes on by itself; calling it again would be an error.
static int finish_connect(int fd)
{
    struct pollfd pfd = {.fd = fd, .events = POLLOUT};
    int error = 0;
    socklen_t size = sizeof(error);

    while (poll(&pfd, 1, -1) < 0) {
        if (errno != EINTR)
            return -1;
    }
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) < 0)
        return -1;

    errno = error;
    return error == 0 ? 0 : -1;
}

static int connect_socket(int fd, const struct sockaddr *addr, socklen_t size, bool nonblock)
{
    if (connect(fd, addr, size) == 0)
        return 0;
    if (nonblock && (errno == EINPROGRESS || errno == EINTR))
        return 0;
    if (errno == EINTR)
        return finish_connect(fd);
    return -1;
}

static int bind_socket(int fd, int type, const struct sockaddr *addr, socklen_t size)
{
    int on = 1;

    // A restarted server gets its port back at once.
    if (addr->sa_family != AF_UNIX)
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(fd, addr, size) < 0)
        return -1;
    return (type & USOCK_UDP) != 0 ? 0 : listen(fd, SOMAXCONN);
}

static int open_at(int type, const struct sockaddr *addr, socklen_t size)
{
    int fd = open_socket(type, addr->sa_family);
    if (fd < 0)
        return -1;

    int result = (type & USOCK_SERVER) != 0
                     ? bind_socket(fd, type, addr, size)
                     : connect_socket(fd, addr, size, (type & USOCK_NONBLOCK) != 0);
    if (result == 0)
        return fd;

    int error = errno;
    close(fd);
    errno = error;
    return -1;
}

static int usock_unix(int type, const char *path)
{
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    size_t length = path != NULL ? strlen(path) : sizeof(addr.sun_path);
    if (length >= sizeof(addr.sun_path)) {
        errno = EINVAL;
        return -1;
    }

    memcpy(addr.sun_path, path, length);
    return open_at(type, (const struct sockaddr *)&addr, sizeof(addr));
}

static int usock_inet(int type, const char *host, const char *service)
{
    struct addrinfo hints = {.ai_socktype = (type & USOCK_UDP) != 0 ? SOCK_DGRAM : SOCK_STREAM};
    struct addrinfo *found;
    int fd = -1;

    if ((type & USOCK_IPV6ONLY) != 0)
        hints.ai_family = AF_INET6;
    else if ((type & USOCK_IPV4ONLY) != 0)
        hints.ai_family = AF_INET;
    if ((type & USOCK_SERVER) != 0)
        hints.ai_flags |= AI_PASSIVE;
    if ((type & USOCK_NUMERIC) != 0)
        hints.ai_flags |= AI_NUMERICHOST;

    int error = getaddrinfo(host, service, &hints, &found);
    if (error != 0) {
        if (error != EAI_SYSTEM)
            errno = ENOENT;
        return -1;
    }

    for (const struct addrinfo *addr = found; addr != NULL && fd < 0; addr = addr->ai_next)
        fd = open_at(type, addr->ai_addr, addr->ai_addrlen);

    error = errno;
    freeaddrinfo(found);
    errno = error;
    return fd;
}

int usock(int type, const char *host, const char *service)
{
    if ((type & USOCK_UNIX) != 0)
        return usock_unix(type, host);
    return usock_inet(type, host, service);
}
