// SPDX-License-Identifier: ISC
// strcpy_s, strncpy_s and strcat_s. A length is only looked for within the destination's size, so
// an unterminated source is never read further than needed.

#include "securec.h"

#include <stdbool.h>
#include <stdint.h>

static errno_t emptied(char *dest, errno_t code)
{
    dest[0] = '\0';
    return code;
}

// The checks that all three begin with.
static errno_t check_pointers(char *dest, size_t destMax, const char *src)
{
    if (destMax == 0 || destMax > SECUREC_STRING_MAX_LEN)
        return ERANGE;
    if (dest == NULL)
        return EINVAL;
    if (src == NULL)
        return emptied(dest, EINVAL_AND_RESET);
    return EOK;
}

static size_t distance(const char *a, const char *b)
{
    return a < b ? (size_t)((uintptr_t)b - (uintptr_t)a) : (size_t)((uintptr_t)a - (uintptr_t)b);
}

errno_t strcpy_s(char *strDest, size_t destMax, const char *strSrc)
{
    errno_t code = check_pointers(strDest, destMax, strSrc);
    if (code != EOK)
        return code;

    size_t length = strnlen(strSrc, destMax);
    if (length == destMax)
        return emptied(strDest, ERANGE_AND_RESET);
    if (strDest == strSrc)
        return EOK;
    if (distance(strDest, strSrc) <= length)
        return emptied(strDest, EOVERLAP_AND_RESET);
    memcpy(strDest, strSrc, length + 1);
    return EOK;
}

errno_t strncpy_s(char *strDest, size_t destMax, const char *strSrc, size_t count)
{
    errno_t code = check_pointers(strDest, destMax, strSrc);
    if (code != EOK)
        return code;
    if (count > SECUREC_STRING_MAX_LEN)
        return emptied(strDest, ERANGE_AND_RESET);
    if (count == 0)
        return emptied(strDest, EOK);

    size_t length = strnlen(strSrc, count < destMax ? count : destMax);
    if (length == destMax)
        return emptied(strDest, ERANGE_AND_RESET);
    if (strDest != strSrc) {
        // One test for both directions. If strSrc comes after strDest, the NUL would overwrite its
        // first byte. If it comes before and is cut by count, nothing would be lost, but that is
        // refused too.
        if (distance(strDest, strSrc) <= length)
            return emptied(strDest, EOVERLAP_AND_RESET);
        memcpy(strDest, strSrc, length);
    }
    strDest[length] = '\0';
    return EOK;
}

errno_t strcat_s(char *strDest, size_t destMax, const char *strSrc)
{
    errno_t code = check_pointers(strDest, destMax, strSrc);
    if (code != EOK)
        return code;

    size_t used = strnlen(strDest, destMax);
    size_t room = destMax - used;
    size_t added = strnlen(strSrc, room);
    bool terminated = room != 0;

    uintptr_t dest = (uintptr_t)strDest;
    uintptr_t src = (uintptr_t)strSrc;
    bool src_inside = dest < src && src - dest <= used + added;
    bool dest_inside = src < dest && dest - src <= added;
    // A source right after an unterminated destination seems to touch it only because the
    // destination has no end: the missing NUL is the error, not an overlap.
    bool is_next = !terminated && src - dest == destMax;
    if ((src_inside || dest_inside) && !is_next)
        return emptied(strDest, EOVERLAP_AND_RESET);
    if (!terminated)
        return emptied(strDest, EINVAL_AND_RESET);
    if (added >= room || strDest == strSrc)
        return emptied(strDest, ERANGE_AND_RESET);
    memcpy(strDest + used, strSrc, added + 1);
    return EOK;
}
