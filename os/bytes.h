// SPDX-License-Identifier: ISC
// Integers as bytes, and bytes as digits. Wire formats are big-endian; neither the machine's order
// nor a field's alignment matters.
#ifndef BV_OS_BYTES_H
#define BV_OS_BYTES_H

#include <cstdint>

namespace bv {

inline void put_be16(uint8_t *to, uint16_t value)
{
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

inline uint16_t get_be16(const uint8_t *from)
{
    return static_cast<uint16_t>(from[0] << 8 | from[1]);
}

// A word at any address.
struct __attribute__((packed, may_alias)) UnalignedWord {
    uint32_t value;
};

constexpr uint32_t swap_to_be(uint32_t value)
{
    return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? value : __builtin_bswap32(value);
}

// Words in one piece: the gateway loads or stores one from any address with two instructions and
// turns it round with two more, and one by one its bytes take eleven.
inline void put_be32(uint8_t *to, uint32_t value)
{
    reinterpret_cast<UnalignedWord *>(to)->value = swap_to_be(value);
}

inline uint32_t get_be32(const uint8_t *from)
{
    return swap_to_be(reinterpret_cast<const UnalignedWord *>(from)->value);
}

constexpr char kHexDigits[] = "0123456789abcdef";

inline void put_hex(char *to, uint8_t byte)
{
    to[0] = kHexDigits[byte >> 4];
    to[1] = kHexDigits[byte & 15];
}

} // namespace bv

#endif
