// SPDX-License-Identifier: ISC
// Ready-made key orders.

#include <libubox/avl-cmp.h>

#include <stdint.h>
#include <string.h>

int avl_strcmp(const void *k1, const void *k2, void *ptr)
{
    (void)ptr;
    return strcmp(k1, k2);
}

int avl_blobcmp(const void *k1, const void *k2, void *ptr)
{
    return memcmp(k1, k2, (size_t)(uintptr_t)ptr);
}
