// Events of the gateway's driver: the netlink socket, the thread that reads it, and the
// translation of the driver's message types into event types.

#include <bv/notifier.h>

#include "core/netlink.h"
#include "os/atomic.h"
#include "os/descriptor.h"

#include <bv/os.h>
#include <bv/status.h>

#include <cstdint>
#include <linux/netlink.h>

namespace {

constexpr int kDriverProtocol = 26;
constexpr uint32_t kHeaderSize = 16;
constexpr uint32_t kPayloadSize = 1024;

// In the machine's own byte order, like all netlink. Longer messages are cut by the socket.
struct DriverMessage {
    nlmsghdr header;
    uint8_t payload[kPayloadSize];
};

static_assert(sizeof(nlmsghdr) == kHeaderSize && offsetof(nlmsghdr, nlmsg_type) == 4 &&
                  offsetof(nlmsghdr, nlmsg_pid) == 12,
              "the kernel's header");
static_assert(sizeof(DriverMessage) == 1040 && offsetof(DriverMessage, payload) == kHeaderSize,
              "what the driver expects as registration");
static_assert(sizeof(sockaddr_nl) == 12, "the kernel's address");

// Driver message codes and the event type that each one becomes.
struct EventMapping {
    uint16_t driver_code;
    uint8_t event_type;
};
constexpr EventMapping kEventMap[] = {{2, 4}, {4, 5}, {5, 6}, {6, 8}, {7, 11}, {8, 12}, {9, 13}};
constexpr uint32_t kIgnoredCode = 1; // nothing in it for any service

// Whoever reads the console of a gateway searches for this origin, so it does not follow the
// lines of this file.
constexpr char kPrintedFunction[] = "bv_notifier_kernel";
constexpr int kPrintedLine = 139;

// The socket of this process's receive thread, -1 while there is none. One socket at a time can be
// bound to the process id, and only its opener and then its thread write this.
int g_socket = -1;

const EventMapping *find_mapping(uint32_t driver_code)
{
    for (const EventMapping &mapping : kEventMap) {
        if (mapping.driver_code == driver_code)
            return &mapping;
    }
    return nullptr;
}

// The payload is not terminated when it comes straight from a caller, so the precision bounds it.
void print_unknown(uint32_t driver_code, const void *data, uint32_t length)
{
    const char *text = data == nullptr ? "" : static_cast<const char *>(data);
    const int limit = length > INT32_MAX ? INT32_MAX : static_cast<int>(length);
    bv_os_printf("[%s:%04d]type(%d)-len(%d)-data(%.*s)\r\n", kPrintedFunction, kPrintedLine,
                 static_cast<int>(driver_code), static_cast<int>(length), limit, text);
}

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

// Tells the driver the port id to send to. The driver takes a whole buffer and answers nothing;
// one that is not there yet is no reason to stop, since it may send without.
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

// Hands one datagram on. Anybody on the machine may send one, so its length field is believed
// only as far as bytes came.
void forward(DriverMessage &message, size_t received)
{
    if (received < kHeaderSize || message.header.nlmsg_len < kHeaderSize)
        return;

    const size_t length = received < message.header.nlmsg_len ? received : message.header.nlmsg_len;
    bv_notifier_kernel(message.header.nlmsg_type, message.payload,
                       static_cast<uint32_t>(length) - kHeaderSize);
}

// The mark goes first: as soon as the socket is closed, the next one may be opened and marked.
void close_socket(int fd)
{
    bv::store_release(g_socket, -1);
    bv_os_close(fd);
}

// Owns the socket, whose number it gets in place of a pointer. A failed receive (the socket's
// queue ran over, a signal) is tried again at once: the messages after it still count.
void *receive_forever(void *argument)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(argument));
    DriverMessage *message = static_cast<DriverMessage *>(bv_os_malloc(sizeof(DriverMessage)));
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
    bv_os_pthread_detach(thread); // nobody waits for it
    return true;
}

} // namespace

int32_t bv_netlink_init(void)
{
    const int fd = bv::keep_descriptor(bv_os_socket(AF_NETLINK, SOCK_RAW, kDriverProtocol));
    if (fd < 0)
        return BV_ERR_FAILED;

    const sockaddr_nl self = make_address(own_port());
    if (bv_os_bind(fd, reinterpret_cast<const sockaddr *>(&self), sizeof(self)) != 0) {
        bv_os_close(fd);
        return BV_ERR_CHANNEL;
    }

    bv::store_release(g_socket, fd);
    if (!start_receiver(fd)) {
        close_socket(fd);
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

void bv_notifier_kernel(uint32_t kernel_type, void *data, uint32_t length)
{
    if (kernel_type == kIgnoredCode)
        return;

    const EventMapping *mapping = find_mapping(kernel_type);
    if (mapping != nullptr)
        bv_notifier_send(mapping->event_type, data, length);
    else
        print_unknown(kernel_type, data, length);
}
