/* A datagram with where it came from, and the same as an IPv4 packet. */
#ifndef TOOLS_COLLECT_PACKET_H
#define TOOLS_COLLECT_PACKET_H

#include <netinet/in.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

struct packet {
    struct timespec time;
    struct in_addr source;
    struct in_addr destination;
    uint16_t source_port; /* host order */
    uint16_t destination_port;
    const uint8_t *data; /* what UDP carried */
    size_t length;
};

enum { PACKET_HEAD = 28 }; /* IPv4 without options, UDP */

/* Builds the headers that the packet travelled with, near enough: sockets hand out the addresses
 * and ports but not the rest. Lengths and checksums are right. */
void packet_build_head(uint8_t head[PACKET_HEAD], const struct packet *packet, uint16_t id);

/* Reads an IPv4 packet; `packet->data` then points into `bytes`. False when it is not a whole UDP
 * datagram. Checksums are not looked at: network cards fill them in after a capture. */
bool packet_parse(struct packet *packet, const uint8_t *bytes, size_t length);

#endif
