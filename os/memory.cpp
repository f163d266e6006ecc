// SPDX-License-Identifier: ISC
// Memory: one limit for every allocation, and copies that know the size of their destination.

#include <bv/os.h>

#include <securec.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kLargestAllocation = 0x140000;

} // namespace

void *bv_os_malloc(uint32_t size)
{
    // One comparison for both ends: 0 - 1 wraps to the largest number.
    if (size - 1 >= kLargestAllocation) {
        bv_os_printf("data size out of rang ui_size = %d malloc fail\n", static_cast<int>(size));
        return nullptr;
    }

    void *block = malloc(size);
    if (block == nullptr)
        bv_os_printf("malloc fail\n");
    return block;
}

void bv_os_free(void *ptr)
{
    free(ptr);
}

int32_t bv_os_memcpy(void *dst, uint32_t dstsize, const void *src, uint32_t count)
{
    return memcpy_s(dst, dstsize, src, count);
}

int32_t bv_os_memmove(void *dst, uint32_t dstsize, const void *src, uint32_t count)
{
    return memmove_s(dst, dstsize, src, count);
}

int32_t bv_os_memset(void *dst, uint32_t dstsize, int value, uint32_t count)
{
    return memset_s(dst, dstsize, value, count);
}

int bv_os_memcmp(const void *a, const void *b, uint32_t n)
{
    return memcmp(a, b, n);
}
