// SPDX-License-Identifier: ISC
// A datagram with its addresses, and the same as an IPv4 packet.
#ifndef TOOLS_COLLECT_PACKET_H
#define TOOLS_COLLECT_PACKET_H

#include "os/span.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <netinet/in.h>

namespace tools {

struct Packet {
    timespec time;
    in_addr source;
    in_addr destination;
    uint16_t source_port; // host order
    uint16_t destination_port;
    bv::Bytes payload; // what UDP carried
};

constexpr uint32_t kPacketHeader = 28; // IPv4 without options, UDP

// Builds the headers in front of the payload. Lengths, checksums, addresses and ports are those the
// packet came with; a socket does not tell the rest.
void build_packet_header(uint8_t (&header)[kPacketHeader], const Packet &packet, uint16_t id);

// Reads an IPv4 packet; its payload then points into `bytes`. False when it is not a whole UDP
// datagram. Checksums are ignored: network cards fill them in after a capture.
bool parse_packet(Packet &packet, bv::Bytes bytes);

} // namespace tools

#endif
