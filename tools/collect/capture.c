/* Capture files: a head of 24 bytes, then for each packet 16 bytes and the packet. */
#include "collect/capture.h"

#include <string.h>

enum { FILE_HEAD = 24, PACKET_RECORD = 16, LINK_IPV4 = 228, LONGEST = 65535 };

static const uint32_t magic_microseconds = 0xa1b2c3d4;
static const uint32_t magic_nanoseconds = 0xa1b23c4d;
static const uint32_t magic_next_generation = 0x0a0d0d0a;

/* What comes in front of the IP header. */
static const struct {
    uint32_t type;
    size_t head;
} links[] = {
    {1, 14},        /* Ethernet */
    {101, 0},       /* IP, either version */
    {113, 16},      /* all interfaces of a Linux machine */
    {LINK_IPV4, 0}, /* IPv4 */
    {276, 20},      /* all interfaces, newer form */
};

static void put_le32(uint8_t *at, uint32_t value)
{
    at[0] = (uint8_t)value;
    at[1] = (uint8_t)(value >> 8);
    at[2] = (uint8_t)(value >> 16);
    at[3] = (uint8_t)(value >> 24);
}

static uint32_t get_le32(const uint8_t *at)
{
    return at[0] | (uint32_t)at[1] << 8 | (uint32_t)at[2] << 16 | (uint32_t)at[3] << 24;
}

static uint32_t swap32(uint32_t value)
{
    return value >> 24 | (value >> 8 & 0xff00) | (value << 8 & 0xff0000) | value << 24;
}

/* ---- writing ---- */

bool capture_begin(FILE *file)
{
    uint8_t head[FILE_HEAD];

    memset(head, 0, sizeof(head));
    put_le32(head, magic_microseconds);
    head[4] = 2; /* format 2.4 */
    head[6] = 4;
    put_le32(head + 16, LONGEST);
    put_le32(head + 20, LINK_IPV4);
    return fwrite(head, sizeof(head), 1, file) == 1 && fflush(file) == 0;
}

bool capture_append(FILE *file, const struct packet *packet)
{
    static uint16_t id;
    uint8_t head[PACKET_RECORD + PACKET_HEAD];
    uint32_t length = (uint32_t)(PACKET_HEAD + packet->length);

    put_le32(head, (uint32_t)packet->time.tv_sec);
    put_le32(head + 4, (uint32_t)(packet->time.tv_nsec / 1000));
    put_le32(head + 8, length);
    put_le32(head + 12, length);
    packet_build_head(head + PACKET_RECORD, packet, ++id);
    return fwrite(head, sizeof(head), 1, file) == 1 &&
           fwrite(packet->data, 1, packet->length, file) == packet->length && fflush(file) == 0;
}

/* ---- reading ---- */

static uint32_t number_at(const struct capture *capture, const uint8_t *at)
{
    return capture->swapped ? swap32(get_le32(at)) : get_le32(at);
}

/* Finds out byte order and unit of time from the first word. */
static const char *read_magic(struct capture *capture, uint32_t magic)
{
    if (magic == magic_next_generation)
        return "a pcapng file; save it as pcap";
    capture->swapped = magic == swap32(magic_microseconds) || magic == swap32(magic_nanoseconds);
    if (capture->swapped)
        magic = swap32(magic);
    capture->nanoseconds = magic == magic_nanoseconds;
    return capture->nanoseconds || magic == magic_microseconds ? NULL : "not a capture file";
}

const char *capture_open(struct capture *capture, FILE *file)
{
    uint8_t head[FILE_HEAD];
    const char *fault;
    uint32_t type;
    size_t i;

    capture->file = file;
    capture->skipped = 0;
    if (fread(head, sizeof(head), 1, file) != 1)
        return "not a capture file";
    fault = read_magic(capture, get_le32(head));
    if (fault != NULL)
        return fault;
    type = number_at(capture, head + 20) & 0xffff; /* above: notes on checksums */
    for (i = 0; i < sizeof(links) / sizeof(links[0]); i++) {
        if (links[i].type == type) {
            capture->link_head = links[i].head;
            return NULL;
        }
    }
    return "captured on a kind of network that is not known here";
}

/* Reads one packet whole. */
static enum capture_result read_packet(struct capture *capture, struct packet *packet,
                                       size_t *length)
{
    uint8_t head[PACKET_RECORD];
    size_t got = fread(head, 1, sizeof(head), capture->file);

    if (got == 0 && feof(capture->file))
        return CAPTURE_END;
    *length = number_at(capture, head + 8);
    if (got != sizeof(head) || *length > sizeof(capture->bytes) ||
        fread(capture->bytes, 1, *length, capture->file) != *length)
        return CAPTURE_DAMAGED;
    packet->time.tv_sec = (time_t)number_at(capture, head);
    packet->time.tv_nsec = (long)(number_at(capture, head + 4) % 1000000000);
    if (!capture->nanoseconds)
        packet->time.tv_nsec = packet->time.tv_nsec % 1000000 * 1000;
    return CAPTURE_PACKET;
}

enum capture_result capture_next(struct capture *capture, struct packet *packet)
{
    enum capture_result result;
    size_t length;

    while ((result = read_packet(capture, packet, &length)) == CAPTURE_PACKET) {
        if (length >= capture->link_head &&
            packet_parse(packet, capture->bytes + capture->link_head, length - capture->link_head))
            return CAPTURE_PACKET;
        capture->skipped++;
    }
    return result;
}
