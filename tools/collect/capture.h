// SPDX-License-Identifier: ISC
// Capture files in the classic pcap format, which Wireshark and tcpdump open.
//
// Written: packets that begin with their IPv4 header (link type 228), little-endian, time in
// microseconds. Read: the same in either byte order, with microseconds or nanoseconds, and what
// tcpdump writes on Ethernet or on all interfaces at once.
#ifndef TOOLS_COLLECT_CAPTURE_H
#define TOOLS_COLLECT_CAPTURE_H

#include "tools/collect/packet.h"

#include <cstdio>

namespace tools {

// Writes the file's header. False when it cannot be written.
bool begin_capture(FILE *file);

// Appends a packet and hands it to the system at once, so that a crash loses none.
bool append_packet(FILE *file, const Packet &packet);

// A capture that is read. Large: 64 KiB for a packet.
class Capture {
public:
    // Reads the file's header. Returns what is wrong with it, or null.
    const char *open(FILE *file);

    enum class Result { Packet, End, Damaged };

    // Reads on to the next UDP datagram; its data is valid until the next call.
    Result next(Packet &packet);

    unsigned skipped = 0; // packets that are not UDP over IPv4, or not whole

private:
    uint32_t number_at(const uint8_t *at) const;
    const char *read_magic(uint32_t magic);
    Result read_packet(Packet &packet, uint32_t &length);

    FILE *file_ = nullptr;
    bool swapped_ = false;
    bool nanoseconds_ = false;
    uint32_t link_header_ = 0; // bytes before the IP header
    uint8_t bytes_[65536 + 256] = {};
};

} // namespace tools

#endif
