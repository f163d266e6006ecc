// SPDX-License-Identifier: ISC
// Datagrams on the driver's socket, through the library's own receive thread.
//
// The socket is ours: recvmsg() hands the thread one datagram after the other. Input: datagrams,
// each after its length in two bytes.

#include <bv/notifier.h>
#include <bv/status.h>

#include "fuzz/input.h"

#include <cerrno>
#include <dlfcn.h>
#include <semaphore.h>
#include <sys/socket.h>

#ifndef __THROW // the C library's header may declare the functions defined here with it
#define __THROW
#endif

namespace {

constexpr int kSocket = 987; // a descriptor that is never open

struct Hand {
    sem_t given;
    sem_t taken;
    std::string datagram;
};
Hand g_hand;
sem_t g_marked;

constexpr uint32_t kTypes = 14;
constexpr uint32_t kMarkType = 1; // no message of the driver becomes an event of this type

void take_event(void *data, uint32_t length)
{
    if (data != nullptr)
        fuzz::touch(data, length);
}

void take_mark(void *, uint32_t)
{
    sem_post(&g_marked);
}

void wait_for(sem_t &semaphore)
{
    while (sem_wait(&semaphore) != 0)
        FUZZ_CHECK(errno == EINTR);
}

// Hands one datagram over and waits until the thread wants the next.
void deliver(const std::string &datagram)
{
    g_hand.datagram = datagram;
    sem_post(&g_hand.given);
    wait_for(g_hand.taken);
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::silence_output();
    sem_init(&g_hand.given, 0, 0);
    sem_init(&g_hand.taken, 0, 0);
    sem_init(&g_marked, 0, 0);
    FUZZ_CHECK(bv_notifier_init() == BV_OK);
    for (uint32_t type = 0; type < kTypes; ++type)
        bv_notifier_reg(type, type == kMarkType ? take_mark : take_event);
    wait_for(g_hand.taken); // the thread asks for its first datagram
    return 0;
}

extern "C" {

int socket(int domain, int type, int protocol) __THROW
{
    if (domain == AF_NETLINK)
        return kSocket;
    static const auto next = reinterpret_cast<int (*)(int, int, int)>(dlsym(RTLD_NEXT, "socket"));
    return next(domain, type, protocol);
}

int bind(int, const sockaddr *, socklen_t) __THROW
{
    return 0;
}

ssize_t sendmsg(int, const msghdr *message, int)
{
    return static_cast<ssize_t>(message->msg_iov[0].iov_len);
}

ssize_t recvmsg(int fd, msghdr *message, int)
{
    FUZZ_CHECK(fd == kSocket);
    sem_post(&g_hand.taken);
    wait_for(g_hand.given);
    const iovec &part = message->msg_iov[0];
    const size_t length = std::min(g_hand.datagram.size(), part.iov_len);
    if (length > 0)
        memcpy(part.iov_base, g_hand.datagram.data(), length);
    return static_cast<ssize_t>(length);
}

} // extern "C"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    while (!input.empty()) {
        const size_t length = static_cast<size_t>(input.byte()) << 8;
        deliver(input.take(length | input.byte()));
    }

    // Our own event comes last: when it has arrived, all others have.
    FUZZ_CHECK(bv_notifier_send(kMarkType, nullptr, 0) == BV_OK);
    wait_for(g_marked);
    return 0;
}
