#include "sweep/faults.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <linux/netlink.h>
#include <poll.h>
#include <pthread.h>
#include <regex.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

// Called before a sanitizer has set itself up.
#define UNINSTRUMENTED __attribute__((no_sanitize("address", "thread", "undefined")))

namespace sweep {

namespace {

// Built-in atomics here and where the real functions are noted: the library's are functions, which
// a sanitizer instruments.
bool g_armed;
std::atomic<bool> g_happened{false};
std::atomic<const Fault *> g_chosen{nullptr};
std::atomic<int> g_nth{0};

// Blocks of our own code that were not given back yet. By address: the last free() of another
// library's function seems to come from us when it is a tail call.
constexpr size_t kMostBlocks = 16384;
const void *g_blocks[kMostBlocks];
size_t g_block_count;
std::atomic_flag g_blocks_lock = ATOMIC_FLAG_INIT;

struct Range {
    uintptr_t start;
    uintptr_t end;
};
Range g_ours[16];
size_t g_ours_count;

// The program itself has no name with some C libraries, with others its path.
bool is_program(const dl_phdr_info &info, const ElfW(Phdr) & header)
{
    const auto here = reinterpret_cast<uintptr_t>(&all_faults);
    return here - (info.dlpi_addr + header.p_vaddr) < header.p_memsz;
}

bool is_library(const char *object)
{
    for (const char *name : {"libbv.so", "libubox.so", "libubus.so", "libboundscheck.so"}) {
        if (strstr(object, name) != nullptr)
            return true;
    }
    return false;
}

int note_range(dl_phdr_info *info, size_t, void *)
{
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const auto &header = info->dlpi_phdr[i];
        if (header.p_type != PT_LOAD || (header.p_flags & PF_X) == 0)
            continue;
        if (!is_library(info->dlpi_name) && !is_program(*info, header))
            continue;
        const uintptr_t start = info->dlpi_addr + header.p_vaddr;
        g_ours[g_ours_count++] = {start, start + header.p_memsz};
    }
    return g_ours_count >= 16;
}

bool called_by_us(const void *caller)
{
    const auto address = reinterpret_cast<uintptr_t>(caller);
    for (size_t i = 0; i < g_ours_count; i++) {
        if (address >= g_ours[i].start && address < g_ours[i].end)
            return true;
    }
    return false;
}

// Faults are made while the program starts, in one thread.
std::vector<Fault *> &fault_list()
{
    static std::vector<Fault *> list;
    return list;
}

} // namespace

int (*g_ioctl_answer)(int, unsigned long, void *);
bool g_redirect_netlink;

Fault::Fault(const char *name) : name_(name)
{
    fault_list().push_back(this);
}

UNINSTRUMENTED bool Fault::hits(const void *caller)
{
    if (!called_by_us(caller))
        return false;
    const int call = ++calls_;
    if (g_chosen != this || call != g_nth)
        return false;
    g_happened = true;
    return true;
}

const std::vector<Fault *> &all_faults()
{
    return fault_list();
}

void arm(const Fault *fault, int nth)
{
    if (g_ours_count == 0)
        dl_iterate_phdr(note_range, nullptr);
    g_chosen = fault;
    g_nth = nth;
    g_happened = false;
    g_block_count = 0;
    __atomic_store_n(&g_armed, true, __ATOMIC_SEQ_CST);
}

void disarm()
{
    g_chosen = nullptr; // blocks are counted on until the next arm()
}

bool happened()
{
    return g_happened;
}

int blocks_in_use()
{
    return static_cast<int>(g_block_count);
}

void give_back(int fd)
{
    if (fd >= 0)
        syscall(SYS_close, fd);
}

} // namespace sweep

using sweep::Fault;

namespace {

UNINSTRUMENTED bool armed()
{
    return __atomic_load_n(&sweep::g_armed, __ATOMIC_SEQ_CST);
}

template <typename Function>
UNINSTRUMENTED Function *next_of(Function *&known, const char *symbol)
{
    Function *next = __atomic_load_n(&known, __ATOMIC_ACQUIRE);
    if (next == nullptr) {
        next = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, symbol));
        __atomic_store_n(&known, next, __ATOMIC_RELEASE);
    }
    return next;
}

UNINSTRUMENTED void note_block(const void *caller, const void *block)
{
    if (block == nullptr || !armed() || !sweep::called_by_us(caller))
        return;
    while (sweep::g_blocks_lock.test_and_set()) {
    }
    if (sweep::g_block_count < sweep::kMostBlocks)
        sweep::g_blocks[sweep::g_block_count++] = block;
    sweep::g_blocks_lock.clear();
}

UNINSTRUMENTED void forget_block(const void *block)
{
    if (block == nullptr || !armed())
        return;
    while (sweep::g_blocks_lock.test_and_set()) {
    }
    for (size_t i = 0; i < sweep::g_block_count; i++) {
        if (sweep::g_blocks[i] == block) {
            sweep::g_blocks[i] = sweep::g_blocks[--sweep::g_block_count];
            break;
        }
    }
    sweep::g_blocks_lock.clear();
}

} // namespace

// The names behind 64-bit offsets (glibc) and 64-bit times (musl) on 32-bit machines.
#if defined(__GLIBC__) && !defined(__LP64__)
#define LARGE(name) name "64"
#define TIMED(name, longer) name
#elif __SIZEOF_POINTER__ == 4
#define LARGE(name) name
#define TIMED(name, longer) longer
#else
#define LARGE(name) name
#define TIMED(name, longer) name
#endif

// DEFINE(id, symbol, result, parameters, arguments): the function in front, its body following.
// CALLER is who called, NEXT(...) the real one.
#define CALLER __builtin_return_address(0)
#define DEFINE(id, symbol, result, parameters)                                                     \
    namespace {                                                                                    \
    result(*g_next_##id) parameters;                                                               \
    constexpr char kSymbol_##id[] = symbol;                                                        \
    }                                                                                              \
    extern "C" result in_front_##id parameters __asm__(symbol);                                    \
    extern "C" UNINSTRUMENTED result in_front_##id parameters
#define NEXT(id) next_of(g_next_##id, kSymbol_##id)

// The usual one: fails with `error` in errno and `failure` as its result.
#define FAULT(id, symbol, result, parameters, arguments, failure, error)                           \
    namespace {                                                                                    \
    Fault &fault_##id = *new Fault(#id);                                                           \
    }                                                                                              \
    DEFINE(id, symbol, result, parameters)                                                         \
    {                                                                                              \
        if (armed() && fault_##id.hits(CALLER)) {                                                  \
            errno = error;                                                                         \
            return failure;                                                                        \
        }                                                                                          \
        return NEXT(id) arguments;                                                                 \
    }                                                                                              \
    static_assert(true, "")

// clang-format off

// ---- files and descriptors ----
FAULT(open, LARGE("open"), int, (const char *path, int flags, mode_t mode), (path, flags, mode), -1, EMFILE);
FAULT(creat, LARGE("creat"), int, (const char *path, mode_t mode), (path, mode), -1, EACCES);
FAULT(lseek, LARGE("lseek"), off_t, (int fd, off_t at, int whence), (fd, at, whence), -1, EINVAL);
FAULT(flock, "flock", int, (int fd, int operation), (fd, operation), -1, EINTR);
FAULT(access, "access", int, (const char *path, int mode), (path, mode), -1, EACCES);
FAULT(stat, TIMED(LARGE("stat"), "__stat_time64"), int, (const char *path, struct stat *to), (path, to), -1, EACCES);
FAULT(fstat, TIMED(LARGE("fstat"), "__fstat_time64"), int, (int fd, struct stat *to), (fd, to), -1, EIO);
FAULT(remove, "remove", int, (const char *path), (path), -1, EACCES);
FAULT(rename, "rename", int, (const char *from, const char *to), (from, to), -1, EACCES);
FAULT(mkfifo, "mkfifo", int, (const char *path, mode_t mode), (path, mode), -1, ENOSPC);
FAULT(chdir, "chdir", int, (const char *path), (path), -1, EACCES);
FAULT(pipe, "pipe", int, (int *fds), (fds), -1, EMFILE);
FAULT(pipe2, "pipe2", int, (int *fds, int flags), (fds, flags), -1, EMFILE);

// ---- streams and the shell ----
FAULT(fopen, LARGE("fopen"), FILE *, (const char *path, const char *mode), (path, mode), nullptr, EMFILE);
FAULT(fread, "fread", size_t, (void *to, size_t size, size_t n, FILE *file), (to, size, n, file), 0, EIO);
FAULT(fwrite, "fwrite", size_t, (const void *from, size_t size, size_t n, FILE *file), (from, size, n, file), 0, ENOSPC);
FAULT(fseek, "fseek", int, (FILE *file, long at, int whence), (file, at, whence), -1, EINVAL);
FAULT(fgets, "fgets", char *, (char *to, int size, FILE *file), (to, size, file), nullptr, EIO);
FAULT(vfprintf, "vfprintf", int, (FILE *file, const char *format, va_list args), (file, format, args), -1, EIO);
FAULT(vprintf, "vprintf", int, (const char *format, va_list args), (format, args), -1, EIO);
FAULT(popen, "popen", FILE *, (const char *command, const char *type), (command, type), nullptr, EMFILE);
FAULT(system, "system", int, (const char *command), (command), -1, ENOMEM);
FAULT(regcomp, "regcomp", int, (regex_t *to, const char *pattern, int flags), (to, pattern, flags), REG_ESPACE, ENOMEM);

// ---- sockets and waiting ----
FAULT(bind, "bind", int, (int fd, const sockaddr *to, socklen_t size), (fd, to, size), -1, EADDRINUSE);
FAULT(listen, "listen", int, (int fd, int backlog), (fd, backlog), -1, EADDRINUSE);
FAULT(accept, "accept", int, (int fd, sockaddr *from, socklen_t *size), (fd, from, size), -1, EMFILE);
FAULT(connect, "connect", int, (int fd, const sockaddr *to, socklen_t size), (fd, to, size), -1, ECONNREFUSED);
FAULT(shutdown, "shutdown", int, (int fd, int how), (fd, how), -1, ENOTCONN);
FAULT(send, "send", ssize_t, (int fd, const void *from, size_t n, int flags), (fd, from, n, flags), -1, EPIPE);
FAULT(sendto, "sendto", ssize_t, (int fd, const void *from, size_t n, int flags, const sockaddr *to, socklen_t size), (fd, from, n, flags, to, size), -1, ENETUNREACH);
FAULT(sendmsg, "sendmsg", ssize_t, (int fd, const msghdr *message, int flags), (fd, message, flags), -1, EPIPE);
FAULT(recvfrom, "recvfrom", ssize_t, (int fd, void *to, size_t n, int flags, sockaddr *from, socklen_t *size), (fd, to, n, flags, from, size), -1, ECONNREFUSED);
FAULT(recvmsg, "recvmsg", ssize_t, (int fd, msghdr *message, int flags), (fd, message, flags), -1, ENOBUFS);
FAULT(setsockopt, "setsockopt", int, (int fd, int level, int option, const void *value, socklen_t size), (fd, level, option, value, size), -1, ENOPROTOOPT);
FAULT(getsockopt, "getsockopt", int, (int fd, int level, int option, void *value, socklen_t *size), (fd, level, option, value, size), -1, ENOPROTOOPT);
FAULT(select, TIMED("select", "__select_time64"), int, (int n, fd_set *r, fd_set *w, fd_set *e, timeval *timeout), (n, r, w, e, timeout), -1, EINTR);
FAULT(poll, "poll", int, (pollfd *fds, nfds_t n, int timeout), (fds, n, timeout), -1, ENOMEM);
FAULT(epoll_create, "epoll_create", int, (int size), (size), -1, EMFILE);
FAULT(epoll_create1, "epoll_create1", int, (int flags), (flags), -1, EMFILE);
FAULT(epoll_ctl, "epoll_ctl", int, (int epfd, int op, int fd, epoll_event *event), (epfd, op, fd, event), -1, ENOSPC);
FAULT(epoll_wait, "epoll_wait", int, (int epfd, epoll_event *events, int n, int timeout), (epfd, events, n, timeout), -1, EINTR);

// ---- threads, semaphores, memory that is shared ----
FAULT(pthread_create, "pthread_create", int, (pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *), void *argument), (thread, attr, start, argument), EAGAIN, EAGAIN);
FAULT(pthread_detach, "pthread_detach", int, (pthread_t thread), (thread), ESRCH, ESRCH);
FAULT(pthread_join, "pthread_join", int, (pthread_t thread, void **result), (thread, result), EDEADLK, EDEADLK);
FAULT(pthread_kill, "pthread_kill", int, (pthread_t thread, int number), (thread, number), ESRCH, ESRCH);
FAULT(pthread_sigmask, "pthread_sigmask", int, (int how, const sigset_t *set, sigset_t *old), (how, set, old), EINVAL, EINVAL);
FAULT(sem_init, "sem_init", int, (sem_t *sem, int shared, unsigned value), (sem, shared, value), -1, ENOSPC);
FAULT(sem_destroy, "sem_destroy", int, (sem_t *sem), (sem), -1, EINVAL);
FAULT(sem_open, "sem_open", sem_t *, (const char *name, int flags, mode_t mode, unsigned value), (name, flags, mode, value), SEM_FAILED, EMFILE);
FAULT(sem_close, "sem_close", int, (sem_t *sem), (sem), -1, EINVAL);
FAULT(sem_unlink, "sem_unlink", int, (const char *name), (name), -1, EACCES);
FAULT(sem_wait, "sem_wait", int, (sem_t *sem), (sem), -1, EINTR);
FAULT(sem_trywait, "sem_trywait", int, (sem_t *sem), (sem), -1, EAGAIN);
FAULT(sem_post, "sem_post", int, (sem_t *sem), (sem), -1, EOVERFLOW);
FAULT(semget, "semget", int, (key_t key, int n, int flags), (key, n, flags), -1, ENOSPC);
FAULT(semop, "semop", int, (int id, sembuf *operations, size_t n), (id, operations, n), -1, EIDRM);
FAULT(shmat, "shmat", void *, (int id, const void *address, int flags), (id, address, flags), reinterpret_cast<void *>(-1), ENOMEM);
FAULT(shmdt, "shmdt", int, (const void *address), (address), -1, EINVAL);

// ---- signals and time ----
FAULT(sigaction, "sigaction", int, (int number, const struct sigaction *act, struct sigaction *old), (number, act, old), -1, EINVAL);
FAULT(sigprocmask, "sigprocmask", int, (int how, const sigset_t *set, sigset_t *old), (how, set, old), -1, EINVAL);
FAULT(sigpending, "sigpending", int, (sigset_t *set), (set), -1, EFAULT);
FAULT(sigwait, "sigwait", int, (const sigset_t *set, int *number), (set, number), EINVAL, EINVAL);
FAULT(sigwaitinfo, "sigwaitinfo", int, (const sigset_t *set, siginfo_t *info), (set, info), -1, EINTR);
FAULT(sigtimedwait, TIMED("sigtimedwait", "__sigtimedwait_time64"), int, (const sigset_t *set, siginfo_t *info, const timespec *timeout), (set, info, timeout), -1, EAGAIN);
FAULT(usleep, "usleep", int, (useconds_t usec), (usec), -1, EINTR);
FAULT(setitimer, TIMED("setitimer", "__setitimer_time64"), int, (int which, const itimerval *value, itimerval *old), (which, value, old), -1, EINVAL);
FAULT(timer_settime, TIMED("timer_settime", "__timer_settime64"), int, (timer_t timer, int flags, const itimerspec *value, itimerspec *old), (timer, flags, value, old), -1, EINVAL);

// ---- libcrypto, whose objects are opaque here, and json-c ----
FAULT(cipher_context, "EVP_CIPHER_CTX_new", void *, (), (), nullptr, ENOMEM);
FAULT(cipher_init, "EVP_CipherInit_ex", int, (void *context, const void *type, void *engine, const uint8_t *key, const uint8_t *vector, int encrypt), (context, type, engine, key, vector, encrypt), 0, 0);
FAULT(cipher_update, "EVP_CipherUpdate", int, (void *context, uint8_t *out, int *written, const uint8_t *in, int length), (context, out, written, in, length), 0, 0);
FAULT(cipher_final, "EVP_CipherFinal_ex", int, (void *context, uint8_t *out, int *written), (context, out, written), 0, 0);
FAULT(digest_context, "EVP_MD_CTX_new", void *, (), (), nullptr, ENOMEM);
FAULT(digest_init, "EVP_DigestInit_ex", int, (void *context, const void *type, void *engine), (context, type, engine), 0, 0);
FAULT(digest_update, "EVP_DigestUpdate", int, (void *context, const void *data, size_t length), (context, data, length), 0, 0);
FAULT(digest_final, "EVP_DigestFinal_ex", int, (void *context, uint8_t *out, unsigned *length), (context, out, length), 0, 0);
FAULT(random_bytes, "RAND_bytes", int, (uint8_t *to, int count), (to, count), 0, 0);
FAULT(json_from_file, "json_object_from_file", void *, (const char *path), (path), nullptr, ENOMEM);
FAULT(json_parse, "json_tokener_parse", void *, (const char *text), (text), nullptr, ENOMEM);

// clang-format on

// ---- those that fail after doing their work, or in several ways ----

namespace {
Fault &fault_malloc = *new Fault("malloc");
Fault &fault_calloc = *new Fault("calloc");
Fault &fault_realloc = *new Fault("realloc");
Fault &fault_close = *new Fault("close");
Fault &fault_fclose = *new Fault("fclose");
Fault &fault_pclose = *new Fault("pclose");
Fault &fault_read = *new Fault("read");
Fault &fault_read_end = *new Fault("read that ends early");
Fault &fault_read_half = *new Fault("read of half");
Fault &fault_write = *new Fault("write");
Fault &fault_write_half = *new Fault("write of half");
Fault &fault_recv = *new Fault("recv");
Fault &fault_recv_end = *new Fault("recv from a closed peer");
Fault &fault_socket = *new Fault("socket");
Fault &fault_ioctl = *new Fault("ioctl");
Fault &fault_fcntl = *new Fault("fcntl");
Fault &fault_semctl = *new Fault("semctl");
Fault &fault_shmctl = *new Fault("shmctl");
Fault &fault_signal = *new Fault("signal");

// The pointers above are null until the program's start is over; allocations come before.
UNINSTRUMENTED bool allocation_fails(Fault *fault, const void *caller)
{
    if (!armed() || !fault->hits(caller))
        return false;
    errno = ENOMEM;
    return true;
}
} // namespace

DEFINE(malloc, "malloc", void *, (size_t size))
{
    if (armed() && allocation_fails(&fault_malloc, CALLER))
        return nullptr;
    void *block = NEXT(malloc)(size);
    note_block(CALLER, block);
    return block;
}

DEFINE(realloc, "realloc", void *, (void *old, size_t size))
{
    if (armed() && allocation_fails(&fault_realloc, CALLER))
        return nullptr;
    void *block = NEXT(realloc)(old, size);
    if (block != nullptr)
        forget_block(old);
    note_block(CALLER, block);
    return block;
}

// glibc's dlsym() itself may call calloc(), and a sanitizer's start certainly does.
#ifndef BV_SANITIZED
DEFINE(calloc, "calloc", void *, (size_t n, size_t size))
{
    if (armed() && allocation_fails(&fault_calloc, CALLER))
        return nullptr;
    void *block = NEXT(calloc)(n, size);
    note_block(CALLER, block);
    return block;
}

DEFINE(free, "free", void, (void *block))
{
    forget_block(block);
    NEXT(free)(block);
}
#else
[[maybe_unused]] static Fault *const kept_for_the_table = &fault_calloc;
#endif

// A descriptor or stream is gone whatever closing it reports.
DEFINE(close, "close", int, (int fd))
{
    const bool fails = armed() && fault_close.hits(CALLER);
    const int result = NEXT(close)(fd);
    if (!fails)
        return result;
    errno = EIO;
    return -1;
}

DEFINE(fclose, "fclose", int, (FILE * file))
{
    const bool fails = armed() && fault_fclose.hits(CALLER);
    const int result = NEXT(fclose)(file);
    if (!fails)
        return result;
    errno = ENOSPC;
    return EOF;
}

DEFINE(pclose, "pclose", int, (FILE * file))
{
    const bool fails = armed() && fault_pclose.hits(CALLER);
    const int result = NEXT(pclose)(file);
    if (!fails)
        return result;
    errno = ECHILD;
    return -1;
}

DEFINE(read, "read", ssize_t, (int fd, void *to, size_t n))
{
    if (!armed())
        return NEXT(read)(fd, to, n);
    if (fault_read.hits(CALLER)) {
        errno = EIO;
        return -1;
    }
    if (fault_read_end.hits(CALLER))
        return 0;
    return NEXT(read)(fd, to, fault_read_half.hits(CALLER) && n > 1 ? n / 2 : n);
}

DEFINE(write, "write", ssize_t, (int fd, const void *from, size_t n))
{
    if (!armed())
        return NEXT(write)(fd, from, n);
    if (fault_write.hits(CALLER)) {
        errno = ENOSPC;
        return -1;
    }
    return NEXT(write)(fd, from, fault_write_half.hits(CALLER) && n > 1 ? n / 2 : n);
}

DEFINE(recv, "recv", ssize_t, (int fd, void *to, size_t n, int flags))
{
    if (armed() && fault_recv.hits(CALLER)) {
        errno = ECONNRESET;
        return -1;
    }
    if (armed() && fault_recv_end.hits(CALLER))
        return 0;
    return NEXT(recv)(fd, to, n, flags);
}

DEFINE(socket, "socket", int, (int domain, int type, int protocol))
{
    if (armed() && fault_socket.hits(CALLER)) {
        errno = EMFILE;
        return -1;
    }
    if (sweep::g_redirect_netlink && domain == AF_NETLINK)
        protocol = NETLINK_USERSOCK;
    return NEXT(socket)(domain, type, protocol);
}

DEFINE(ioctl, "ioctl", int, (int fd, unsigned long request, void *argument))
{
    if (armed() && fault_ioctl.hits(CALLER)) {
        errno = EIO;
        return -1;
    }
    if (sweep::g_ioctl_answer != nullptr) {
        const int answer = sweep::g_ioctl_answer(fd, request, argument);
        if (answer != -2)
            return answer;
    }
    return NEXT(ioctl)(fd, request, argument);
}

#if defined(__GLIBC__) && !defined(__LP64__)
#define FCNTL "fcntl64"
#else
#define FCNTL "fcntl"
#endif
DEFINE(fcntl, FCNTL, int, (int fd, int command, void *argument))
{
    if (armed() && fault_fcntl.hits(CALLER)) {
        errno = EBADF;
        return -1;
    }
    return NEXT(fcntl)(fd, command, argument);
}

DEFINE(semctl, "semctl", int, (int id, int n, int command, void *argument))
{
    if (armed() && fault_semctl.hits(CALLER)) {
        errno = EIDRM;
        return -1;
    }
    return NEXT(semctl)(id, n, command, argument);
}

DEFINE(shmctl, "shmctl", int, (int id, int command, shmid_ds *to))
{
    if (armed() && fault_shmctl.hits(CALLER)) {
        errno = EIDRM;
        return -1;
    }
    return NEXT(shmctl)(id, command, to);
}

using Handler = void (*)(int);
DEFINE(signal, "signal", Handler, (int number, Handler handler))
{
    if (armed() && fault_signal.hits(CALLER)) {
        errno = EINVAL;
        return SIG_ERR;
    }
    return NEXT(signal)(number, handler);
}
