/* Datagrams with where they came from and where they were sent to: a capture needs both, and the
 * socket's own address may be "all". */
#include "collect/receiver.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

bool receiver_open(struct receiver *receiver, struct in_addr address, uint16_t port)
{
    struct sockaddr_in own = {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = address};
    socklen_t length = sizeof(own);
    int on = 1;

    receiver->fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (receiver->fd < 0 ||
        setsockopt(receiver->fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof(on)) != 0 ||
        bind(receiver->fd, (const struct sockaddr *)&own, sizeof(own)) != 0 ||
        getsockname(receiver->fd, (struct sockaddr *)&own, &length) != 0)
        return false;
    /* Where the system does not tell what it drops, nothing is said about it. */
    setsockopt(receiver->fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof(on));
    receiver->dropped = 0;
    receiver->address = address;
    receiver->port = ntohs(own.sin_port);
    return true;
}

/* The gateway's C library mixes signs in this macro. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-conversion"
static struct cmsghdr *next_control(struct msghdr *message, struct cmsghdr *control)
{
    return CMSG_NXTHDR(message, control);
}
#pragma GCC diagnostic pop

/* What comes with a datagram: where it was sent to, and how many were dropped before it. */
static void read_controls(struct receiver *receiver, struct packet *packet, struct msghdr *message)
{
    struct in_pktinfo info = {.ipi_addr = receiver->address};
    struct cmsghdr *control;

    for (control = CMSG_FIRSTHDR(message); control != NULL;
         control = next_control(message, control)) {
        if (control->cmsg_level == IPPROTO_IP && control->cmsg_type == IP_PKTINFO)
            memcpy(&info, CMSG_DATA(control), sizeof(info));
        if (control->cmsg_level == SOL_SOCKET && control->cmsg_type == SO_RXQ_OVFL)
            memcpy(&receiver->dropped, CMSG_DATA(control), sizeof(receiver->dropped));
    }
    packet->destination = info.ipi_addr;
}

bool receiver_take(struct receiver *receiver, struct packet *packet)
{
    static uint8_t bytes[65536];
    union {
        struct cmsghdr aligned;
        uint8_t room[CMSG_SPACE(sizeof(struct in_pktinfo)) + CMSG_SPACE(sizeof(uint32_t))];
    } control;
    struct sockaddr_in from = {.sin_family = AF_INET};
    struct iovec data = {bytes, sizeof(bytes)};
    struct msghdr message = {.msg_name = &from,
                             .msg_namelen = sizeof(from),
                             .msg_iov = &data,
                             .msg_iovlen = 1,
                             .msg_control = &control,
                             .msg_controllen = sizeof(control)};
    ssize_t length = recvmsg(receiver->fd, &message, MSG_DONTWAIT);

    if (length < 0)
        return false;
    clock_gettime(CLOCK_REALTIME, &packet->time);
    packet->source = from.sin_addr;
    packet->source_port = ntohs(from.sin_port);
    read_controls(receiver, packet, &message);
    packet->destination_port = receiver->port;
    packet->data = bytes;
    packet->length = (size_t)length;
    return true;
}
