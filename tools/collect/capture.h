/*
 * Capture files in the classic pcap format, which Wireshark and tcpdump open.
 *
 * Written: packets that begin with their IPv4 header (link type 228), little-endian, time in
 * microseconds. Read: the same in either byte order, with microseconds or nanoseconds, and what
 * tcpdump writes on Ethernet or on all interfaces at once.
 */
#ifndef TOOLS_COLLECT_CAPTURE_H
#define TOOLS_COLLECT_CAPTURE_H

#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>

#include "collect/packet.h"

/* Writes the file's head; false when it cannot be written. */
bool capture_begin(FILE *file);

/* Appends a packet and hands it to the system at once, so that a crash loses none. */
bool capture_append(FILE *file, const struct packet *packet);

struct capture {
    FILE *file;
    bool swapped;
    bool nanoseconds;
    size_t link_head; /* bytes in front of the IP header */
    unsigned skipped; /* packets that are no UDP over IPv4, or not whole */
    uint8_t bytes[65536 + 256];
};

/* Reads the file's head. Gives back what is wrong with it, or NULL. */
const char *capture_open(struct capture *capture, FILE *file);

enum capture_result { CAPTURE_PACKET, CAPTURE_END, CAPTURE_DAMAGED };

/* Reads on to the next UDP datagram; its data stays where it is until the next call. */
enum capture_result capture_next(struct capture *capture, struct packet *packet);

#endif
