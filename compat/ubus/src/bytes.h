// Numbers as they stand on the wire, for client library and daemon alike.
#ifndef UBUS_BYTES_H
#define UBUS_BYTES_H

#include <stdint.h>

static inline uint32_t get_be32(const uint8_t *from)
{
    return (uint32_t)from[0] << 24 | (uint32_t)from[1] << 16 | (uint32_t)from[2] << 8 | from[3];
}

// Returns where the next number goes.
static inline uint8_t *put_be32(uint8_t *to, uint32_t value)
{
    to[0] = (uint8_t)(value >> 24);
    to[1] = (uint8_t)(value >> 16);
    to[2] = (uint8_t)(value >> 8);
    to[3] = (uint8_t)value;
    return to + sizeof(value);
}

#endif
