// SPDX-License-Identifier: ISC
// IPv4 and UDP headers, written and read byte by byte.

#include "tools/collect/packet.h"

#include "os/bytes.h"

#include <cstring>

namespace {

using bv::get_be16;
using bv::put_be16;
using tools::kPacketHeader;
using tools::Packet;

constexpr uint32_t kIpHeader = 20;
constexpr uint32_t kUdpHeader = 8;
constexpr uint8_t kVersion4 = 4;
constexpr uint8_t kTimeToLive = 64;
constexpr unsigned kFragment = 0x3fff; // offset, or more to come

// Adds bytes as 16-bit words to the sum of a checksum. An odd last byte is followed by a zero.
uint32_t add_words(uint32_t sum, bv::Bytes bytes)
{
    uint32_t i = 0;
    for (; i + 1 < bytes.length; i += 2)
        sum += get_be16(bytes.data + i);
    return i < bytes.length ? sum + (uint32_t{bytes.data[i]} << 8) : sum;
}

uint16_t finish_sum(uint32_t sum)
{
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

void put_size(uint8_t *to, uint32_t size)
{
    put_be16(to, static_cast<uint16_t>(size));
}

void build_ip_header(uint8_t *ip, const Packet &packet, uint16_t id)
{
    memset(ip, 0, kIpHeader);
    ip[0] = kVersion4 << 4 | kIpHeader / 4;
    put_size(ip + 2, kPacketHeader + packet.payload.length);
    put_be16(ip + 4, id);
    ip[8] = kTimeToLive;
    ip[9] = IPPROTO_UDP;
    memcpy(ip + 12, &packet.source, 4);
    memcpy(ip + 16, &packet.destination, 4);
    put_be16(ip + 10, finish_sum(add_words(0, {ip, kIpHeader})));
}

// The UDP checksum also covers the addresses, the protocol and the length.
uint16_t udp_checksum(const uint8_t *ip, const uint8_t *udp, const Packet &packet)
{
    uint32_t sum = add_words(IPPROTO_UDP, {ip + 12, 8});
    sum += kUdpHeader + packet.payload.length;
    sum = add_words(sum, {udp, kUdpHeader});
    const uint16_t checksum = finish_sum(add_words(sum, packet.payload));
    return checksum != 0 ? checksum : 0xffff; // 0 would mean that there is none
}

} // namespace

void tools::build_packet_header(uint8_t (&header)[kPacketHeader], const Packet &packet, uint16_t id)
{
    build_ip_header(header, packet, id);
    uint8_t *udp = header + kIpHeader;
    put_be16(udp, packet.source_port);
    put_be16(udp + 2, packet.destination_port);
    put_size(udp + 4, kUdpHeader + packet.payload.length);
    put_be16(udp + 6, 0);
    put_be16(udp + 6, udp_checksum(header, udp, packet));
}

bool tools::parse_packet(Packet &packet, bv::Bytes bytes)
{
    const uint8_t *ip = bytes.data;
    if (bytes.length < kIpHeader || ip[0] >> 4 != kVersion4 || ip[9] != IPPROTO_UDP ||
        (get_be16(ip + 6) & kFragment) != 0)
        return false;
    const uint32_t header = (ip[0] & 0x0fU) * 4;
    const uint32_t total = get_be16(ip + 2);
    if (header < kIpHeader || total > bytes.length || total < header + kUdpHeader)
        return false;
    const uint8_t *udp = ip + header;
    const uint32_t udp_length = get_be16(udp + 4);
    if (udp_length < kUdpHeader || udp_length > total - header)
        return false;

    memcpy(&packet.source, ip + 12, 4);
    memcpy(&packet.destination, ip + 16, 4);
    packet.source_port = get_be16(udp);
    packet.destination_port = get_be16(udp + 2);
    packet.payload = {udp + kUdpHeader, udp_length - kUdpHeader};
    return true;
}
