// SPDX-License-Identifier: ISC
// The netlink socket to the gateway's driver, and the thread that reads it.

#include <bv/notifier.h>

#include "core/netlink.h"
#include "os/alloc.h"
#include "os/atomic.h"
#include "os/descriptor.h"

#include <bv/os.h>
#include <bv/status.h>

#include <algorithm>
#include <cstdint>
#include <linux/netlink.h>

namespace {

constexpr int kDriverProtocol = 26;
constexpr uint32_t kHeaderSize = 16;
constexpr uint32_t kPayloadSize = 1024;

// In the machine's byte order, like all netlink messages. The socket cuts longer ones.
struct DriverMessage {
    nlmsghdr header;
    uint8_t payload[kPayloadSize];
};

static_assert(sizeof(nlmsghdr) == kHeaderSize && offsetof(nlmsghdr, nlmsg_type) == 4 &&
                  offsetof(nlmsghdr, nlmsg_pid) == 12,
              "the kernel reads this header");
static_assert(sizeof(DriverMessage) == 1040 && offsetof(DriverMessage, payload) == kHeaderSize,
              "the driver expects a registration of this size");
static_assert(sizeof(sockaddr_nl) == 12, "the kernel reads this address");

// The socket of this process's receive thread, -1 while there is none. Only one socket can be bound
// to the process id, and only its opener, and then its thread, write this.
int g_socket = -1;

sockaddr_nl make_address(uint32_t port)
{
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = port;
    return address;
}

uint32_t own_port()
{
    return static_cast<uint32_t>(bv_os_getpid());
}

// Tells the driver the port id to send to. The driver expects a whole buffer and does not answer. A
// failure does not matter: the driver may send without being told.
void register_port(int fd, DriverMessage &message)
{
    message = {};
    message.header.nlmsg_len = sizeof(message);
    message.header.nlmsg_pid = own_port();

    sockaddr_nl driver = make_address(0);
    iovec part = {&message, sizeof(message)};
    msghdr request = {};
    request.msg_name = &driver;
    request.msg_namelen = sizeof(driver);
    request.msg_iov = &part;
    request.msg_iovlen = 1;
    bv_os_sendmsg(fd, &request, 0);
}

ssize_t receive(int fd, DriverMessage &message)
{
    iovec part = {&message, sizeof(message)};
    msghdr request = {};
    request.msg_iov = &part;
    request.msg_iovlen = 1;
    return bv_os_recvmsg(fd, &request, 0);
}

// Passes one datagram on. Any program on the machine may send one, so its length field counts only
// as far as bytes arrived.
void forward(DriverMessage &message, size_t received)
{
    if (received < kHeaderSize || message.header.nlmsg_len < kHeaderSize)
        return;

    const size_t length = std::min<size_t>(received, message.header.nlmsg_len);
    bv_notifier_kernel(message.header.nlmsg_type, message.payload,
                       static_cast<uint32_t>(length) - kHeaderSize);
}

// The mark is cleared first: as soon as the socket is closed, another may be opened and marked.
void close_socket(int fd)
{
    bv::store_release(g_socket, -1);
    bv_os_close(fd);
}

// Owns the socket, whose number it gets in place of a pointer. After a failed receive (the socket's
// queue overflowed, a signal) it goes on at once: the next messages still count.
void *receive_forever(void *argument)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(argument));
    auto *message = bv::allocate<DriverMessage>();
    if (message == nullptr) {
        close_socket(fd);
        return nullptr;
    }

    register_port(fd, *message);
    for (;;) {
        const ssize_t received = receive(fd, *message);
        if (received >= 0)
            forward(*message, static_cast<size_t>(received));
    }
}

bool start_receiver(int fd)
{
    pthread_t thread;
    void *argument = reinterpret_cast<void *>(static_cast<intptr_t>(fd));
    if (bv_os_pthread_create(&thread, nullptr, receive_forever, argument) != 0)
        return false;
    bv_os_pthread_detach(thread); // it never ends, so no thread waits for it
    return true;
}

} // namespace

int32_t bv_netlink_init(void)
{
    bv::Descriptor fd(bv::keep_descriptor(bv_os_socket(AF_NETLINK, SOCK_RAW, kDriverProtocol)));
    if (!fd)
        return BV_ERR_FAILED;

    const sockaddr_nl self = make_address(own_port());
    if (bv_os_bind(fd.get(), reinterpret_cast<const sockaddr *>(&self), sizeof(self)) != 0)
        return BV_ERR_CHANNEL;

    const int bound = fd.release();
    bv::store_release(g_socket, bound);
    if (!start_receiver(bound)) {
        close_socket(bound);
        return BV_ERR_FAILED;
    }
    return BV_OK;
}

bool bv::netlink_runs()
{
    return load_acquire(g_socket) >= 0;
}

void bv::netlink_after_fork()
{
    const int fd = load_acquire(g_socket);
    if (fd >= 0)
        close_socket(fd);
}
