// A run of bytes that belongs to someone else: where it starts and how long it is.
#ifndef BV_OS_SPAN_H
#define BV_OS_SPAN_H

#include <cstdint>

namespace bv {

template <typename Byte>
struct Span {
    Byte *data;
    uint32_t length;
};

using Bytes = Span<const uint8_t>;
using MutableBytes = Span<uint8_t>;

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
