// SPDX-License-Identifier: ISC
// Memory that does not come clear by chance: a test that wants to see something cleared would
// otherwise pass on pages fresh from the system.
#ifndef BV_TESTS_SUPPORT_DIRTY_HEAP_H
#define BV_TESTS_SUPPORT_DIRTY_HEAP_H

#include <cstdlib>
#include <cstring>
#include <malloc.h>

// From now on malloc() hands out garbage, in all threads, where the C library can be told so.
// Blocks that this thread has freed, and would get again as they are, are filled here.
inline void dirty_heap()
{
    constexpr size_t kCount = 8, kMostBytes = 2560;
    for (size_t size = 3 * sizeof(void *); size <= kMostBytes; size += 2 * sizeof(void *)) {
        void *blocks[kCount];
        for (void *&block : blocks) {
            block = malloc(size);
            if (block != nullptr)
                memset(block, 0x5a, size);
            __asm__ volatile("" : : "r"(block) : "memory"); // not to be optimised away
        }
        for (void *block : blocks)
            free(block);
    }
#ifdef M_PERTURB
    mallopt(M_PERTURB, 0x5a);
#endif
}

#endif
