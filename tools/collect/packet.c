/* IPv4 and UDP headers, written and read byte by byte. */
#include "collect/packet.h"

#include <string.h>

enum { IP_HEAD = 20, UDP_HEAD = 8, TIME_TO_LIVE = 64, VERSION_4 = 4, FRAGMENT = 0x3fff };

static unsigned get_be16(const uint8_t *at)
{
    return (unsigned)at[0] << 8 | at[1];
}

static void put_be16(uint8_t *at, size_t value)
{
    at[0] = (uint8_t)(value >> 8);
    at[1] = (uint8_t)value;
}

/* Adds bytes as 16-bit words to the sum of a checksum, the last one filled up with zero. */
static uint32_t add_words(uint32_t sum, const uint8_t *bytes, size_t length)
{
    size_t i;

    for (i = 0; i + 1 < length; i += 2)
        sum += get_be16(bytes + i);
    if (i < length)
        sum += (uint32_t)bytes[i] << 8;
    return sum;
}

static uint16_t finish_sum(uint32_t sum)
{
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return (uint16_t)~sum;
}

static void build_ip_head(uint8_t *ip, const struct packet *packet, uint16_t id)
{
    memset(ip, 0, IP_HEAD);
    ip[0] = VERSION_4 << 4 | IP_HEAD / 4;
    put_be16(ip + 2, PACKET_HEAD + packet->length);
    put_be16(ip + 4, id);
    ip[8] = TIME_TO_LIVE;
    ip[9] = IPPROTO_UDP;
    memcpy(ip + 12, &packet->source, 4);
    memcpy(ip + 16, &packet->destination, 4);
    put_be16(ip + 10, finish_sum(add_words(0, ip, IP_HEAD)));
}

/* The UDP checksum covers the addresses, the protocol and the length besides the datagram. */
static uint16_t udp_checksum(const uint8_t *ip, const uint8_t *udp, const struct packet *packet)
{
    uint32_t sum = add_words(IPPROTO_UDP, ip + 12, 8);
    uint16_t checksum;

    sum = add_words(sum + (uint32_t)(UDP_HEAD + packet->length), udp, UDP_HEAD);
    checksum = finish_sum(add_words(sum, packet->data, packet->length));
    return checksum != 0 ? checksum : 0xffff; /* 0 would say that there is none */
}

void packet_build_head(uint8_t head[PACKET_HEAD], const struct packet *packet, uint16_t id)
{
    uint8_t *udp = head + IP_HEAD;

    build_ip_head(head, packet, id);
    put_be16(udp, packet->source_port);
    put_be16(udp + 2, packet->destination_port);
    put_be16(udp + 4, UDP_HEAD + packet->length);
    put_be16(udp + 6, 0);
    put_be16(udp + 6, udp_checksum(head, udp, packet));
}

bool packet_parse(struct packet *packet, const uint8_t *bytes, size_t length)
{
    const uint8_t *udp;
    size_t head, total, carried;

    if (length < IP_HEAD || bytes[0] >> 4 != VERSION_4 || bytes[9] != IPPROTO_UDP ||
        (get_be16(bytes + 6) & FRAGMENT) != 0)
        return false;
    head = (size_t)(bytes[0] & 0x0f) * 4;
    total = get_be16(bytes + 2);
    if (head < IP_HEAD || total > length || total < head + UDP_HEAD)
        return false;
    udp = bytes + head;
    carried = get_be16(udp + 4);
    if (carried < UDP_HEAD || carried > total - head)
        return false;

    memcpy(&packet->source, bytes + 12, 4);
    memcpy(&packet->destination, bytes + 16, 4);
    packet->source_port = (uint16_t)get_be16(udp);
    packet->destination_port = (uint16_t)get_be16(udp + 2);
    packet->data = udp + UDP_HEAD;
    packet->length = carried - UDP_HEAD;
    return true;
}
