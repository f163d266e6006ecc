// SPDX-License-Identifier: ISC
// memcpy_s, memmove_s and memset_s. A valid call costs only a few comparisons more than the C
// library's function; everything else is handled in a function of its own, off the fast path.

#include "securec.h"

#include <stdbool.h>
#include <stdint.h>

static errno_t cleared(void *dest, size_t destMax, errno_t code)
{
    memset(dest, 0, destMax);
    return code;
}

static bool size_is_good(size_t destMax)
{
    return destMax != 0 && destMax <= SECUREC_MEM_MAX_LEN;
}

// The checks that copying and moving share; EOK means that only overlap is left to check.
static errno_t check_copy(void *dest, size_t destMax, const void *src, size_t count)
{
    if (!size_is_good(destMax))
        return ERANGE;
    if (dest == NULL)
        return EINVAL;
    if (src == NULL)
        return cleared(dest, destMax, EINVAL_AND_RESET);
    if (count > destMax)
        return cleared(dest, destMax, ERANGE_AND_RESET);
    return EOK;
}

__attribute__((noinline, cold)) static errno_t copy_unusual(void *dest, size_t destMax,
                                                            const void *src, size_t count)
{
    errno_t code = check_copy(dest, destMax, src, count);
    if (code != EOK || count == 0 || dest == src)
        return code;
    return cleared(dest, destMax, EOVERLAP_AND_RESET);
}

errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count)
{
    // Two ranges of count bytes are apart if the distance between them is at least count both ways
    // round the address space. With count subtracted from both sides that is one comparison.
    // dest == src fails it too and is told apart from overlap later. Twice the count cannot
    // overflow, because count fits the destination.
    uintptr_t distance = (uintptr_t)dest - (uintptr_t)src;

    if (!size_is_good(destMax) || dest == NULL || src == NULL || count > destMax ||
        distance - count > (uintptr_t)0 - 2 * count)
        return copy_unusual(dest, destMax, src, count);
    memcpy(dest, src, count);
    return EOK;
}

errno_t memmove_s(void *dest, size_t destMax, const void *src, size_t count)
{
    errno_t code = check_copy(dest, destMax, src, count);
    if (code != EOK)
        return code;
    memmove(dest, src, count);
    return EOK;
}

// The barrier makes the compiler assume that the bytes are read, so that link-time optimisation
// cannot drop the wiping of a buffer that is never used again.
static errno_t filled(void *dest, int c, size_t count, errno_t code)
{
    memset(dest, (unsigned char)c, count);
    __asm__ volatile("" : : "r"(dest) : "memory");
    return code;
}

errno_t memset_s(void *dest, size_t destMax, int c, size_t count)
{
    if (dest != NULL && destMax <= SECUREC_MEM_MAX_LEN && count <= destMax)
        return filled(dest, c, count, EOK);
    if (!size_is_good(destMax))
        return ERANGE;
    if (dest == NULL)
        return EINVAL;
    return filled(dest, c, destMax, ERANGE_AND_RESET);
}
