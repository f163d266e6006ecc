/* SPDX-License-Identifier: ISC */
#include "support/libc.h"

#include <linux/netlink.h>
#include <sys/shm.h>

int (*g_ioctl_answer)(int, unsigned long, void *);
bool g_redirect_netlink;
LastSocket g_last_socket;

// Weak, so that a program's own function of that name comes first.
#undef BV_INTERPOSE
#define BV_INTERPOSE(name, symbol, result, parameters)                                             \
    namespace {                                                                                    \
    result(*g_next_##name) parameters;                                                             \
    constexpr char kSymbol_##name[] = symbol;                                                      \
    }                                                                                              \
    extern "C" result bv_in_front_##name parameters __asm__(symbol) __attribute__((weak));         \
    extern "C" BV_UNINSTRUMENTED result bv_in_front_##name parameters

#define BV_DEFINE(...) BV_FAULT_POINT_AS(__VA_ARGS__);
BV_LIBC_CALLS(BV_DEFINE)

FaultPoint fault_close("close");
FaultPoint fault_fclose("fclose", ENOSPC);
FaultPoint fault_pclose("pclose", ECHILD);
FaultPoint fault_read("read");
FaultPoint fault_read_end("read that ends early");
FaultPoint fault_read_half("read of half");
FaultPoint fault_write("write", ENOSPC);
FaultPoint fault_write_half("write of half");
FaultPoint fault_recv("recv", ECONNRESET);
FaultPoint fault_recv_end("recv from a closed peer");
FaultPoint fault_socket("socket", EMFILE);
FaultPoint fault_ioctl("ioctl");
FaultPoint fault_fcntl("fcntl", EBADF);
FaultPoint fault_semctl("semctl", EIDRM);
FaultPoint fault_shmctl("shmctl", EIDRM);
FaultPoint fault_signal("signal", EINVAL);

// A descriptor or stream is gone whatever closing it reports.
#define CLOSES(name, parameters, arguments, failure)                                               \
    BV_INTERPOSE(name, #name, int, parameters)                                                     \
    {                                                                                              \
        const bool fails = fault_##name.fails(BV_CALLER);                                          \
        const int error = errno;                                                                   \
        const int result = BV_NEXT(name) arguments;                                                \
        if (!fails)                                                                                \
            return result;                                                                         \
        errno = error;                                                                             \
        return failure;                                                                            \
    }                                                                                              \
    static_assert(true, "")
CLOSES(close, (int fd), (fd), -1);
CLOSES(fclose, (FILE * file), (file), EOF);
CLOSES(pclose, (FILE * file), (file), -1);

BV_INTERPOSE(read, "read", ssize_t, (int fd, void *to, size_t n))
{
    if (fault_read.fails(BV_CALLER))
        return -1;
    if (fault_read_end.fails(BV_CALLER))
        return 0;
    return BV_NEXT(read)(fd, to, fault_read_half.fails(BV_CALLER) && n > 1 ? n / 2 : n);
}

BV_INTERPOSE(write, "write", ssize_t, (int fd, const void *from, size_t n))
{
    if (fault_write.fails(BV_CALLER))
        return -1;
    return BV_NEXT(write)(fd, from, fault_write_half.fails(BV_CALLER) && n > 1 ? n / 2 : n);
}

BV_INTERPOSE(recv, "recv", ssize_t, (int fd, void *to, size_t n, int flags))
{
    if (fault_recv.fails(BV_CALLER))
        return -1;
    return fault_recv_end.fails(BV_CALLER) ? 0 : BV_NEXT(recv)(fd, to, n, flags);
}

BV_INTERPOSE(socket, "socket", int, (int domain, int type, int protocol))
{
    if (fault_socket.fails(BV_CALLER))
        return -1;
    const bool redirected = g_redirect_netlink && domain == AF_NETLINK;
    const int fd = BV_NEXT(socket)(domain, type, redirected ? NETLINK_USERSOCK : protocol);
    g_last_socket = {domain, type, protocol, fd};
    return fd;
}

BV_INTERPOSE(ioctl, BV_TIMED("ioctl", "ioctl", "__ioctl_time64"), int,
             (int fd, unsigned long request, void *argument))
{
    if (fault_ioctl.fails(BV_CALLER))
        return -1;
    const int answer =
        g_ioctl_answer != nullptr ? g_ioctl_answer(fd, request, argument) : kNotAnswered;
    return answer != kNotAnswered ? answer : BV_NEXT(ioctl)(fd, request, argument);
}

BV_INTERPOSE(fcntl, BV_TIMED("fcntl", "fcntl", "__fcntl_time64"), int,
             (int fd, int command, void *argument))
{
    return fault_fcntl.fails(BV_CALLER) ? -1 : BV_NEXT(fcntl)(fd, command, argument);
}

BV_INTERPOSE(semctl, BV_TIMED("semctl", "semctl", "__semctl64"), int,
             (int id, int n, int command, void *argument))
{
    return fault_semctl.fails(BV_CALLER) ? -1 : BV_NEXT(semctl)(id, n, command, argument);
}

BV_INTERPOSE(shmctl, BV_TIMED("shmctl", "shmctl", "__shmctl64"), int,
             (int id, int command, shmid_ds *to))
{
    return fault_shmctl.fails(BV_CALLER) ? -1 : BV_NEXT(shmctl)(id, command, to);
}

using Handler = void (*)(int);
BV_INTERPOSE(signal, "signal", Handler, (int number, Handler handler))
{
    return fault_signal.fails(BV_CALLER) ? SIG_ERR : BV_NEXT(signal)(number, handler);
}
