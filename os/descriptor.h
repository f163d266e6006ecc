// SPDX-License-Identifier: ISC
// Descriptors and streams that the library opens for itself, and their owners.
//
// Services start programs, through the library's shell functions among others. Those programs must
// not inherit the library's sockets and files. The mark is set after the call that made the
// descriptor, so that the call's arguments stay simple.
#ifndef BV_OS_DESCRIPTOR_H
#define BV_OS_DESCRIPTOR_H

#include <bv/os.h>

#include "os/owned.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace bv {

// Closing is tidying up: errno still says why the call before it failed.
__attribute__((noinline)) inline void close_keeping_errno(int fd)
{
    const int error = errno;
    bv_os_close(fd);
    errno = error;
}

using Descriptor = Owned<int, -1, close_keeping_errno>;
using Stream = Owned<FILE *, nullptr, bv_os_fclose>;

// Keeps a descriptor out of the programs that the service starts, and returns it. -1 is ignored;
// errno does not change.
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

// As close_on_exec(), for a descriptor that stays open. A service started without standard input,
// output or error would get one of these numbers here, and the descriptor would then receive what
// the service prints. So 0 to 2 are exchanged for a higher number. Returns the descriptor to use,
// or -1 for -1 and when no higher one is free (errno is set, nothing stays open).
inline int keep_descriptor(int fd)
{
    constexpr int kFirstAboveStandard = STDERR_FILENO + 1;
    if (fd < 0 || fd >= kFirstAboveStandard)
        return close_on_exec(fd);

    const int higher = fcntl(fd, F_DUPFD_CLOEXEC, kFirstAboveStandard);
    close_keeping_errno(fd);
    return higher;
}

} // namespace bv

#endif
