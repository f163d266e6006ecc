// SPDX-License-Identifier: ISC
// Integers as bytes, and bytes as digits. Wire formats are big-endian and written byte by byte, so
// neither the machine's order nor a field's alignment matters.
#ifndef BV_OS_BYTES_H
#define BV_OS_BYTES_H

#include <cstdint>

namespace bv {

inline void put_be16(uint8_t *to, uint16_t value)
{
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

inline void put_be32(uint8_t *to, uint32_t value)
{
    put_be16(to, static_cast<uint16_t>(value >> 16));
    put_be16(to + 2, static_cast<uint16_t>(value));
}

inline uint16_t get_be16(const uint8_t *from)
{
    return static_cast<uint16_t>(from[0] << 8 | from[1]);
}

inline uint32_t get_be32(const uint8_t *from)
{
    return static_cast<uint32_t>(get_be16(from)) << 16 | get_be16(from + 2);
}

constexpr char kHexDigits[] = "0123456789abcdef";

inline void put_hex(char *to, uint8_t byte)
{
    to[0] = kHexDigits[byte >> 4];
    to[1] = kHexDigits[byte & 15];
}

} // namespace bv

#endif
