// SPDX-License-Identifier: ISC
// The calls, besides allocations, that the library makes of the C library, libcrypto and json-c and
// that can fail; each has a fault point. For programs that interpose libc.
#ifndef BV_TESTS_SUPPORT_LIBC_H
#define BV_TESTS_SUPPORT_LIBC_H

#include "support/faults.h"

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <regex.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

// Where a machine lacks what the gateway has. An ioctl goes to the answer first, which says with
// kNotAnswered that it is another's; a netlink socket becomes one of the kernel's user-to-user
// protocol.
constexpr int kNotAnswered = -2;
extern int (*g_ioctl_answer)(int fd, unsigned long request, void *argument);
extern bool g_redirect_netlink;

// The last socket() that went through, as it was asked for; fd is -1 when the system refused it.
struct LastSocket {
    int domain, type, protocol, fd;
};
extern LastSocket g_last_socket;

// FAULT(name, symbol, result, (parameters), (arguments), failure, usual errno); libcrypto's and
// json-c's objects are opaque here.
// clang-format off
#define BV_LIBC_CALLS(FAULT) \
    /* files and descriptors */ \
    FAULT(open, BV_LARGE("open"), int, (const char *path, int flags, mode_t mode), (path, flags, mode), -1, EMFILE) \
    FAULT(creat, BV_LARGE("creat"), int, (const char *path, mode_t mode), (path, mode), -1, EACCES) \
    FAULT(lseek, BV_LARGE("lseek"), off_t, (int fd, off_t at, int whence), (fd, at, whence), -1, EINVAL) \
    FAULT(flock, "flock", int, (int fd, int operation), (fd, operation), -1, EINTR) \
    FAULT(access, "access", int, (const char *path, int mode), (path, mode), -1, EACCES) \
    FAULT(stat, BV_TIMED("stat", "__stat_time64", "__stat64_time64"), int, (const char *path, struct stat *to), (path, to), -1, EACCES) \
    FAULT(fstat, BV_TIMED("fstat", "__fstat_time64", "__fstat64_time64"), int, (int fd, struct stat *to), (fd, to), -1, EIO) \
    FAULT(remove, "remove", int, (const char *path), (path), -1, EACCES) \
    FAULT(rename, "rename", int, (const char *from, const char *to), (from, to), -1, EACCES) \
    FAULT(mkfifo, "mkfifo", int, (const char *path, mode_t mode), (path, mode), -1, ENOSPC) \
    FAULT(chdir, "chdir", int, (const char *path), (path), -1, EACCES) \
    FAULT(pipe, "pipe", int, (int *fds), (fds), -1, EMFILE) \
    FAULT(pipe2, "pipe2", int, (int *fds, int flags), (fds, flags), -1, EMFILE) \
    /* streams and the shell */ \
    FAULT(fopen, BV_LARGE("fopen"), FILE *, (const char *path, const char *mode), (path, mode), nullptr, EMFILE) \
    FAULT(fread, "fread", size_t, (void *to, size_t size, size_t n, FILE *file), (to, size, n, file), 0, EIO) \
    FAULT(fwrite, "fwrite", size_t, (const void *from, size_t size, size_t n, FILE *file), (from, size, n, file), 0, ENOSPC) \
    FAULT(fseek, "fseek", int, (FILE *file, long at, int whence), (file, at, whence), -1, EINVAL) \
    FAULT(fgets, "fgets", char *, (char *to, int size, FILE *file), (to, size, file), nullptr, EIO) \
    FAULT(vfprintf, "vfprintf", int, (FILE *file, const char *format, va_list args), (file, format, args), -1, EIO) \
    FAULT(vprintf, "vprintf", int, (const char *format, va_list args), (format, args), -1, EIO) \
    FAULT(popen, "popen", FILE *, (const char *command, const char *type), (command, type), nullptr, EMFILE) \
    FAULT(system, "system", int, (const char *command), (command), -1, ENOMEM) \
    FAULT(regcomp, "regcomp", int, (regex_t *to, const char *pattern, int flags), (to, pattern, flags), REG_ESPACE, ENOMEM) \
    /* sockets and waiting */ \
    FAULT(bind, "bind", int, (int fd, const sockaddr *to, socklen_t size), (fd, to, size), -1, EADDRINUSE) \
    FAULT(listen, "listen", int, (int fd, int backlog), (fd, backlog), -1, EADDRINUSE) \
    FAULT(accept, "accept", int, (int fd, sockaddr *from, socklen_t *size), (fd, from, size), -1, EMFILE) \
    FAULT(connect, "connect", int, (int fd, const sockaddr *to, socklen_t size), (fd, to, size), -1, ECONNREFUSED) \
    FAULT(shutdown, "shutdown", int, (int fd, int how), (fd, how), -1, ENOTCONN) \
    FAULT(send, "send", ssize_t, (int fd, const void *from, size_t n, int flags), (fd, from, n, flags), -1, EPIPE) \
    FAULT(sendto, "sendto", ssize_t, (int fd, const void *from, size_t n, int flags, const sockaddr *to, socklen_t size), (fd, from, n, flags, to, size), -1, ENETUNREACH) \
    FAULT(sendmsg, BV_TIMED("sendmsg", "sendmsg", "__sendmsg64"), ssize_t, (int fd, const msghdr *message, int flags), (fd, message, flags), -1, EPIPE) \
    FAULT(recvfrom, "recvfrom", ssize_t, (int fd, void *to, size_t n, int flags, sockaddr *from, socklen_t *size), (fd, to, n, flags, from, size), -1, ECONNREFUSED) \
    FAULT(recvmsg, BV_TIMED("recvmsg", "recvmsg", "__recvmsg64"), ssize_t, (int fd, msghdr *message, int flags), (fd, message, flags), -1, ENOBUFS) \
    FAULT(setsockopt, BV_TIMED("setsockopt", "setsockopt", "__setsockopt64"), int, (int fd, int level, int option, const void *value, socklen_t size), (fd, level, option, value, size), -1, ENOPROTOOPT) \
    FAULT(getsockopt, BV_TIMED("getsockopt", "getsockopt", "__getsockopt64"), int, (int fd, int level, int option, void *value, socklen_t *size), (fd, level, option, value, size), -1, ENOPROTOOPT) \
    FAULT(select, BV_TIMED("select", "__select_time64", "__select64"), int, (int n, fd_set *r, fd_set *w, fd_set *e, timeval *timeout), (n, r, w, e, timeout), -1, EINTR) \
    FAULT(poll, "poll", int, (pollfd *fds, nfds_t n, int timeout), (fds, n, timeout), -1, ENOMEM) \
    FAULT(epoll_create, "epoll_create", int, (int size), (size), -1, EMFILE) \
    FAULT(epoll_create1, "epoll_create1", int, (int flags), (flags), -1, EMFILE) \
    FAULT(epoll_ctl, "epoll_ctl", int, (int epfd, int op, int fd, epoll_event *event), (epfd, op, fd, event), -1, ENOSPC) \
    FAULT(epoll_wait, "epoll_wait", int, (int epfd, epoll_event *events, int n, int timeout), (epfd, events, n, timeout), -1, EINTR) \
    /* threads, semaphores, memory that is shared */ \
    FAULT(pthread_create, "pthread_create", int, (pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *), void *argument), (thread, attr, start, argument), EAGAIN, EAGAIN) \
    FAULT(pthread_detach, "pthread_detach", int, (pthread_t thread), (thread), ESRCH, ESRCH) \
    FAULT(pthread_join, "pthread_join", int, (pthread_t thread, void **result), (thread, result), EDEADLK, EDEADLK) \
    FAULT(pthread_kill, "pthread_kill", int, (pthread_t thread, int number), (thread, number), ESRCH, ESRCH) \
    FAULT(pthread_sigmask, "pthread_sigmask", int, (int how, const sigset_t *set, sigset_t *old), (how, set, old), EINVAL, EINVAL) \
    FAULT(sem_init, "sem_init", int, (sem_t *sem, int shared, unsigned value), (sem, shared, value), -1, ENOSPC) \
    FAULT(sem_destroy, "sem_destroy", int, (sem_t *sem), (sem), -1, EINVAL) \
    FAULT(sem_open, "sem_open", sem_t *, (const char *name, int flags, mode_t mode, unsigned value), (name, flags, mode, value), SEM_FAILED, EMFILE) \
    FAULT(sem_close, "sem_close", int, (sem_t *sem), (sem), -1, EINVAL) \
    FAULT(sem_unlink, "sem_unlink", int, (const char *name), (name), -1, EACCES) \
    FAULT(sem_wait, "sem_wait", int, (sem_t *sem), (sem), -1, EINTR) \
    FAULT(sem_trywait, "sem_trywait", int, (sem_t *sem), (sem), -1, EAGAIN) \
    FAULT(sem_post, "sem_post", int, (sem_t *sem), (sem), -1, EOVERFLOW) \
    FAULT(semget, "semget", int, (key_t key, int n, int flags), (key, n, flags), -1, ENOSPC) \
    FAULT(semop, "semop", int, (int id, sembuf *operations, size_t n), (id, operations, n), -1, EIDRM) \
    FAULT(shmat, "shmat", void *, (int id, const void *address, int flags), (id, address, flags), reinterpret_cast<void *>(-1), ENOMEM) \
    FAULT(shmdt, "shmdt", int, (const void *address), (address), -1, EINVAL) \
    /* signals and time */ \
    FAULT(sigaction, "sigaction", int, (int number, const struct sigaction *act, struct sigaction *old), (number, act, old), -1, EINVAL) \
    FAULT(sigprocmask, "sigprocmask", int, (int how, const sigset_t *set, sigset_t *old), (how, set, old), -1, EINVAL) \
    FAULT(sigpending, "sigpending", int, (sigset_t *set), (set), -1, EFAULT) \
    FAULT(sigwait, "sigwait", int, (const sigset_t *set, int *number), (set, number), EINVAL, EINVAL) \
    FAULT(sigwaitinfo, "sigwaitinfo", int, (const sigset_t *set, siginfo_t *info), (set, info), -1, EINTR) \
    FAULT(sigtimedwait, BV_TIMED("sigtimedwait", "__sigtimedwait_time64", "__sigtimedwait64"), int, (const sigset_t *set, siginfo_t *info, const timespec *timeout), (set, info, timeout), -1, EAGAIN) \
    FAULT(usleep, "usleep", int, (useconds_t usec), (usec), -1, EINTR) \
    FAULT(setitimer, BV_TIMED("setitimer", "__setitimer_time64", "__setitimer64"), int, (int which, const itimerval *value, itimerval *old), (which, value, old), -1, EINVAL) \
    FAULT(timer_settime, BV_TIMED("timer_settime", "__timer_settime64", "__timer_settime64"), int, (timer_t timer, int flags, const itimerspec *value, itimerspec *old), (timer, flags, value, old), -1, EINVAL) \
    /* libcrypto, whose objects are opaque here, and json-c */ \
    FAULT(cipher_context, "EVP_CIPHER_CTX_new", void *, (), (), nullptr, ENOMEM) \
    FAULT(cipher_init, "EVP_CipherInit_ex", int, (void *context, const void *type, void *engine, const uint8_t *key, const uint8_t *vector, int encrypt), (context, type, engine, key, vector, encrypt), 0, 0) \
    FAULT(cipher_update, "EVP_CipherUpdate", int, (void *context, uint8_t *out, int *written, const uint8_t *in, int length), (context, out, written, in, length), 0, 0) \
    FAULT(cipher_final, "EVP_CipherFinal_ex", int, (void *context, uint8_t *out, int *written), (context, out, written), 0, 0) \
    FAULT(digest_context, "EVP_MD_CTX_new", void *, (), (), nullptr, ENOMEM) \
    FAULT(digest_init, "EVP_DigestInit_ex", int, (void *context, const void *type, void *engine), (context, type, engine), 0, 0) \
    FAULT(digest_update, "EVP_DigestUpdate", int, (void *context, const void *data, size_t length), (context, data, length), 0, 0) \
    FAULT(digest_final, "EVP_DigestFinal_ex", int, (void *context, uint8_t *out, unsigned *length), (context, out, length), 0, 0) \
    FAULT(random_bytes, "RAND_bytes", int, (uint8_t *to, int count), (to, count), 0, 0) \
    FAULT(json_from_file, "json_object_from_file", void *, (const char *path), (path), nullptr, ENOMEM) \
    FAULT(json_parse, "json_tokener_parse", void *, (const char *text), (text), nullptr, ENOMEM)

#define BV_DECLARE(name, ...) extern FaultPoint fault_##name;
BV_LIBC_CALLS(BV_DECLARE)
#undef BV_DECLARE
// clang-format on

// Those that fail after doing their work, or in several ways.
extern FaultPoint fault_close, fault_fclose, fault_pclose, fault_read, fault_read_end,
    fault_read_half, fault_write, fault_write_half, fault_recv, fault_recv_end, fault_socket,
    fault_ioctl, fault_fcntl, fault_semctl, fault_shmctl, fault_signal;

#endif
