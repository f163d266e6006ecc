// SPDX-License-Identifier: ISC
// The header of a blob attribute, read byte by byte: a received attribute may be at any address,
// and the byte order is the wire's, not the machine's.
#ifndef BV_BUS_ATTR_H
#define BV_BUS_ATTR_H

#include <bv/ubus.h>

#include "os/bytes.h"

namespace bv {

constexpr size_t kAttrHeader = 4;
constexpr uint32_t kAttrLengthMask = 0x00ffffff;
constexpr uint8_t kAttrIdMask = 0x7f;
constexpr uint8_t kAttrExtended = 0x80;

inline const uint8_t *attr_bytes(const blob_attr *attr)
{
    return reinterpret_cast<const uint8_t *>(attr);
}

inline unsigned int attr_id(const blob_attr *attr)
{
    return attr_bytes(attr)[0] & kAttrIdMask;
}

inline bool attr_is_extended(const blob_attr *attr)
{
    return (attr_bytes(attr)[0] & kAttrExtended) != 0;
}

inline size_t attr_raw_length(const blob_attr *attr)
{
    return get_be32(attr_bytes(attr)) & kAttrLengthMask;
}

// A raw length below the header's 4 bytes wraps, as it does in the library underneath.
inline size_t attr_length(const blob_attr *attr)
{
    return attr_raw_length(attr) - kAttrHeader;
}

inline const uint8_t *attr_payload(const blob_attr *attr)
{
    return attr_bytes(attr) + kAttrHeader;
}

// Getters take an attribute as const and return a writable address inside it.
inline void *writable(const uint8_t *bytes)
{
    return const_cast<uint8_t *>(bytes);
}

} // namespace bv

#endif
