// SPDX-License-Identifier: ISC
// The socket that debug messages arrive at.
#ifndef TOOLS_COLLECT_RECEIVER_H
#define TOOLS_COLLECT_RECEIVER_H

#include "tools/collect/packet.h"

namespace tools {

struct Receiver {
    int fd;
    in_addr address;  // the one it listens on; may be all
    uint16_t port;    // host order
    uint32_t dropped; // datagrams that the system had no room for, up to the last one taken
};

// Opens the socket. Port 0 takes any free one, which is then in `port`. False with errno.
bool open_receiver(Receiver &receiver, in_addr address, uint16_t port);

// Takes the next datagram, which is valid until the next call. False when there is none yet.
bool take_packet(Receiver &receiver, Packet &packet);

} // namespace tools

#endif
