// Allocation of a size that was formed in 64 bits from a length of the caller's or of a message.
#ifndef BV_OS_ALLOC_H
#define BV_OS_ALLOC_H

#include <bv/os.h>

namespace bv {

// As bv_os_malloc(), without ever cutting the size: what does not fit 32 bits is refused, and
// reported, like every other size above the limit.
inline void *allocate(uint64_t size)
{
    return bv_os_malloc(size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size));
}

} // namespace bv

#endif
