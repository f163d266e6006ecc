// Descriptors that the library holds for itself.
//
// Services start programs, through the library's shell functions among others, and those are not
// to find the library's sockets and files among their own descriptors. The mark is set after the
// call that made the descriptor, whose arguments stay as simple as they are.
#ifndef BV_OS_DESCRIPTOR_H
#define BV_OS_DESCRIPTOR_H

#include <bv/os.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace bv {

// Keeps a descriptor out of the programs that the service starts, and returns it. -1 is ignored;
// errno stays.
inline int close_on_exec(int fd)
{
    const int error = errno;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    errno = error;
    return fd;
}

// The same for the descriptor of a stream; null is ignored.
inline FILE *close_on_exec(FILE *stream)
{
    if (stream != nullptr)
        close_on_exec(fileno(stream));
    return stream;
}

// As close_on_exec(), for a descriptor that is kept. In a service that was started without standard
// input, output or error, the descriptor may get one of these numbers, and would then receive what
// the service prints: 0 to 2 are exchanged for a higher one. Returns the descriptor to use. Returns
// -1 for -1, and when no higher one is free (errno is set, nothing stays open).
inline int keep_descriptor(int fd)
{
    constexpr int kFirstAboveStandard = STDERR_FILENO + 1;
    if (fd < 0 || fd >= kFirstAboveStandard) {
        close_on_exec(fd);
        return fd;
    }

    const int higher = fcntl(fd, F_DUPFD_CLOEXEC, kFirstAboveStandard);
    const int error = errno;
    bv_os_close(fd);
    errno = error;
    return higher;
}

} // namespace bv

#endif
