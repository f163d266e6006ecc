// SPDX-License-Identifier: ISC
// Typed memory of bv_os_malloc(), and its owner.
#ifndef BV_OS_ALLOC_H
#define BV_OS_ALLOC_H

#include <bv/os.h>

#include "os/owned.h"

namespace bv {

template <typename T>
using Block = Owned<T *, nullptr, bv_os_free>;

// Sizes are 64 bits wide: a sum with a length from a caller or a message never wraps. One that
// does not fit in 32 bits is refused, and reported, like every other size above the limit.
template <typename T>
inline T *allocate(uint64_t size = sizeof(T))
{
    return static_cast<T *>(
        bv_os_malloc(size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size)));
}

template <typename T>
inline T *allocate_zeroed(uint64_t size = sizeof(T))
{
    T *block = allocate<T>(size);
    if (block != nullptr)
        bv_os_memset(block, static_cast<uint32_t>(size), 0, static_cast<uint32_t>(size));
    return block;
}

} // namespace bv

#endif
