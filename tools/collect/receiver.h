/* The socket that debug messages arrive at. */
#ifndef TOOLS_COLLECT_RECEIVER_H
#define TOOLS_COLLECT_RECEIVER_H

#include "collect/packet.h"

struct receiver {
    int fd;
    struct in_addr address; /* that it listens on; may be all */
    uint16_t port;          /* host order */
    uint32_t dropped; /* datagrams that the system had no room for, up to the last one taken */
};

/* Opens the socket; port 0 takes any free one, which is then in `port`. False with errno. */
bool receiver_open(struct receiver *receiver, struct in_addr address, uint16_t port);

/* Takes the next datagram, which stays where it is until the next call. False when there is none
 * yet. */
bool receiver_take(struct receiver *receiver, struct packet *packet);

#endif
