// SPDX-License-Identifier: ISC
// Datagrams with the addresses they were sent from and to: a capture needs both, and the socket's
// own address may be "all".

#include "tools/collect/receiver.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

using tools::Packet;
using tools::Receiver;

// The gateway's C library mixes signs in this macro.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-conversion"
cmsghdr *next_control(msghdr &message, cmsghdr *control)
{
    return CMSG_NXTHDR(&message, control);
}
#pragma GCC diagnostic pop

// What comes with a datagram: where it was sent to, and how many were dropped before it.
void read_controls(Receiver &receiver, Packet &packet, msghdr &message)
{
    in_pktinfo info = {};
    info.ipi_addr = receiver.address;
    for (cmsghdr *control = CMSG_FIRSTHDR(&message); control != nullptr;
         control = next_control(message, control)) {
        if (control->cmsg_level == IPPROTO_IP && control->cmsg_type == IP_PKTINFO)
            memcpy(&info, CMSG_DATA(control), sizeof(info));
        if (control->cmsg_level == SOL_SOCKET && control->cmsg_type == SO_RXQ_OVFL)
            memcpy(&receiver.dropped, CMSG_DATA(control), sizeof(receiver.dropped));
    }
    packet.destination = info.ipi_addr;
}

} // namespace

bool tools::open_receiver(Receiver &receiver, in_addr address, uint16_t port)
{
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    own.sin_port = htons(port);
    own.sin_addr = address;
    auto *name = reinterpret_cast<sockaddr *>(&own);
    socklen_t length = sizeof(own);
    const int on = 1;

    receiver.fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (receiver.fd < 0 || setsockopt(receiver.fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof(on)) != 0 ||
        bind(receiver.fd, name, sizeof(own)) != 0 || getsockname(receiver.fd, name, &length) != 0)
        return false;
    // Where the system does not tell what it drops, the report leaves it out.
    setsockopt(receiver.fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof(on));
    receiver.dropped = 0;
    receiver.address = address;
    receiver.port = ntohs(own.sin_port);
    return true;
}

bool tools::take_packet(Receiver &receiver, Packet &packet)
{
    static uint8_t bytes[65536];
    union {
        cmsghdr aligned;
        uint8_t room[CMSG_SPACE(sizeof(in_pktinfo)) + CMSG_SPACE(sizeof(uint32_t))];
    } control;
    sockaddr_in from = {};
    iovec data = {bytes, sizeof(bytes)};
    msghdr message = {};
    message.msg_name = &from;
    message.msg_namelen = sizeof(from);
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = &control;
    message.msg_controllen = sizeof(control);
    const ssize_t length = recvmsg(receiver.fd, &message, MSG_DONTWAIT);
    if (length < 0)
        return false;

    clock_gettime(CLOCK_REALTIME, &packet.time);
    packet.source = from.sin_addr;
    packet.source_port = ntohs(from.sin_port);
    packet.destination_port = receiver.port;
    packet.payload = {bytes, static_cast<uint32_t>(length)};
    read_controls(receiver, packet, message);
    return true;
}
