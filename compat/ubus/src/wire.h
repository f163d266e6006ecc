// SPDX-License-Identifier: ISC
// The bytes of the bus protocol, for client library and daemon alike. Numbers are big-endian.

#ifndef UBUS_WIRE_H
#define UBUS_WIRE_H

#include <stddef.h>
#include <stdint.h>

#include <ubusmsg.h>

enum {
    kHeaderLength = sizeof(struct ubus_msghdr),
    kWordLength = 4, // of a body or attribute
    kMessageMinimum = kHeaderLength + kWordLength,
};

static inline uint16_t get_be16(const uint8_t *from)
{
    return (uint16_t)(from[0] << 8 | from[1]);
}

static inline uint32_t get_be32(const uint8_t *from)
{
    return (uint32_t)from[0] << 24 | (uint32_t)from[1] << 16 | (uint32_t)from[2] << 8 | from[3];
}

// Each put function returns where the next byte goes.

static inline uint8_t *put_be32(uint8_t *to, uint32_t value)
{
    to[0] = (uint8_t)(value >> 24);
    to[1] = (uint8_t)(value >> 16);
    to[2] = (uint8_t)(value >> 8);
    to[3] = (uint8_t)value;
    return to + sizeof(value);
}

// A message's header. Its body follows, with its length in the first word.
static inline uint8_t *put_header(uint8_t *to, uint8_t type, uint16_t seq, uint32_t peer)
{
    to[0] = 0;
    to[1] = type;
    to[2] = (uint8_t)(seq >> 8);
    to[3] = (uint8_t)seq;
    return put_be32(to + 4, peer);
}

// The first word of an attribute.
static inline uint8_t *put_attr(uint8_t *to, uint32_t id, size_t payload)
{
    return put_be32(to, id << BLOB_ATTR_ID_SHIFT | (uint32_t)(kWordLength + payload));
}

static inline uint8_t *put_u32(uint8_t *to, uint32_t id, uint32_t value)
{
    return put_be32(put_attr(to, id, sizeof(value)), value);
}

// The length of a message's body, which is in its first kMessageMinimum bytes.
static inline size_t body_length(const uint8_t *bytes)
{
    return get_be32(bytes + kHeaderLength) & BLOB_ATTR_LEN_MASK;
}

// How many zero bytes follow so many bytes of payload.
static inline size_t padding(size_t length)
{
    return -length & (BLOB_ATTR_ALIGN - 1);
}

static inline size_t padded(size_t length)
{
    return length + padding(length);
}

// The order of a tree whose keys are 32-bit ids.
static inline int compare_ids(const void *left, const void *right, void *unused)
{
    uint32_t a = *(const uint32_t *)left;
    uint32_t b = *(const uint32_t *)right;
    (void)unused;
    return (a > b) - (a < b);
}

#endif
