// SPDX-License-Identifier: ISC
// A run of bytes that belongs to someone else: where it starts and how long it is.
//
// Nothing here needs the library: it compiles into any program.
#ifndef BV_OS_SPAN_H
#define BV_OS_SPAN_H

#include <cstdint>

namespace bv {

struct Bytes {
    const uint8_t *data;
    uint32_t length;
};

struct MutableBytes {
    uint8_t *data;
    uint32_t length;

    Bytes read_only() const { return {data, length}; }
};

// From the untyped pointers of the interface.
inline Bytes bytes_of(const void *data, uint32_t length)
{
    return {static_cast<const uint8_t *>(data), length};
}

inline MutableBytes bytes_of(void *data, uint32_t length)
{
    return {static_cast<uint8_t *>(data), length};
}

} // namespace bv

#endif
