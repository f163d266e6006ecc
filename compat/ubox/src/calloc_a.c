// SPDX-License-Identifier: ISC
// One zeroed allocation for several pieces, so that a record and what it points to are freed
// with one call and cannot be half there.

#include <libubox/utils.h>

#include <stdarg.h>
#include <stdlib.h>

// Adds the size of a piece to a total, rounded up so that the next piece is aligned.
static bool add_piece(size_t *total, size_t len)
{
    size_t rounded;
    if (__builtin_add_overflow(len, sizeof(size_t) - 1, &rounded))
        return false;

    rounded -= rounded % sizeof(size_t);
    return !__builtin_add_overflow(*total, rounded, total);
}

static bool total_size(size_t first, va_list pieces, size_t *total)
{
    *total = 0;
    if (!add_piece(total, first))
        return false;

    while (va_arg(pieces, void **) != NULL) {
        if (!add_piece(total, va_arg(pieces, size_t)))
            return false;
    }
    return true;
}

void *__calloc_a(size_t len, ...)
{
    va_list pieces;
    size_t total;
    va_start(pieces, len);
    bool fits = total_size(len, pieces, &total);
    va_end(pieces);
    if (!fits)
        return NULL;

    char *block = calloc(1, total);
    if (block == NULL)
        return NULL;

    size_t offset = 0;
    add_piece(&offset, len);
    va_start(pieces, len);
    for (void **piece = va_arg(pieces, void **); piece != NULL; piece = va_arg(pieces, void **)) {
        *piece = block + offset;
        add_piece(&offset, va_arg(pieces, size_t));
    }
    va_end(pieces);
    return block;
}
