/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/capture_stdout.h"
#include "support/faults.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <cstring>

#include <securec.h>

namespace {

constexpr uint32_t kLargest = 1310720;

// Arguments of the last call into the bounded-check library, and how many there were.
struct BoundedCall {
    int calls;
    const void *dst;
    size_t dstsize;
    const void *src;
    size_t count;
} g_bounded;

void note(const void *dst, size_t dstsize, const void *src, size_t count)
{
    g_bounded = {g_bounded.calls + 1, dst, dstsize, src, count};
}

} // namespace

// The bounded-check library is interposed: its calls are noted and passed on.
BV_INTERPOSE(memcpy_s, "memcpy_s", errno_t,
             (void *dst, size_t dstsize, const void *src, size_t count))
{
    note(dst, dstsize, src, count);
    return BV_NEXT(memcpy_s)(dst, dstsize, src, count);
}

BV_INTERPOSE(memmove_s, "memmove_s", errno_t,
             (void *dst, size_t dstsize, const void *src, size_t count))
{
    note(dst, dstsize, src, count);
    return BV_NEXT(memmove_s)(dst, dstsize, src, count);
}

BV_INTERPOSE(memset_s, "memset_s", errno_t, (void *dst, size_t dstsize, int value, size_t count))
{
    note(dst, dstsize, nullptr, count);
    return BV_NEXT(memset_s)(dst, dstsize, value, count);
}

TEST(Malloc, GivesWritableMemoryUpToTheLimitSilently)
{
    CaptureStdout output;
    for (uint32_t size : {1u, 8u, 65536u, kLargest}) {
        void *block = bv_os_malloc(size);
        ASSERT_NE(block, nullptr) << size;
        memset(block, 0xA5, size);
        bv_os_free(block);
    }
    bv_os_free(nullptr);
    EXPECT_EQ(output.stop(), "");
}

TEST(Malloc, RefusesSizesOutsideTheLimitsWithALine)
{
    struct {
        uint32_t size;
        const char *line;
    } const rows[] = {
        {0, "data size out of rang ui_size = 0 malloc fail\n"},
        {kLargest + 1, "data size out of rang ui_size = 1310721 malloc fail\n"},
        {0x7fffffff, "data size out of rang ui_size = 2147483647 malloc fail\n"},
        {0x80000000, "data size out of rang ui_size = -2147483648 malloc fail\n"},
        {0xffffffff, "data size out of rang ui_size = -1 malloc fail\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.size);
        CaptureStdout output;
        {
            FailAllocation next(1);
            EXPECT_EQ(bv_os_malloc(row.size), nullptr);
            EXPECT_FALSE(next.happened()) << "it reached the allocator";
        }
        EXPECT_EQ(output.stop(), row.line);
    }
}

TEST(Malloc, SaysSoWhenTheSystemHasNoMemory)
{
    CaptureStdout output;
    FailAllocation next(1);
    void *block = bv_os_malloc(16);
    EXPECT_EQ(output.stop(), "malloc fail\n");
    EXPECT_EQ(block, nullptr);
    EXPECT_TRUE(next.happened());
}

TEST(Free, GivesTheMemoryBack)
{
    if (!limit_memory(512 << 20))
        GTEST_SKIP() << "the sanitiser finds leaks";
    for (int i = 0; i < 3000; ++i) { // 3.7 GiB in all
        void *block = bv_os_malloc(kLargest);
        ASSERT_NE(block, nullptr) << i;
        bv_os_free(block);
    }
}

TEST(Memcpy, CopiesAndLeavesTheRestAlone)
{
    char dst[] = "........";
    EXPECT_EQ(bv_os_memcpy(dst, 8, "abcd", 4), 0);
    EXPECT_STREQ(dst, "abcd....");
}

TEST(Memcpy, CountAboveTheCapacityClearsTheDestinationAndFails)
{
    char src[20];
    memset(src, 's', sizeof src);
    char dst[9] = "........";
    dst[8] = '!';
    EXPECT_NE(bv_os_memcpy(dst, 8, src, 20), 0);
    EXPECT_EQ(memcmp(dst, "\0\0\0\0\0\0\0\0!", 9), 0);
}

TEST(Memcpy, OverlapFailsWhereMemmoveSucceeds)
{
    char text[] = "abcdefgh";
    EXPECT_EQ(bv_os_memmove(text + 2, 6, text, 6), 0);
    EXPECT_STREQ(text, "ababcdef");
    EXPECT_NE(bv_os_memcpy(text + 2, 6, text, 6), 0);
    EXPECT_EQ(memcmp(text, "ab\0\0\0\0\0\0", 8), 0);
}

TEST(Memcpy, NullArgumentsAreReportedByTheStatus)
{
    char dst[4] = {'a', 'b', 'c', 'd'};
    EXPECT_NE(bv_os_memcpy(nullptr, 4, "abcd", 4), 0);
    EXPECT_NE(bv_os_memmove(nullptr, 4, "abcd", 4), 0);
    EXPECT_NE(bv_os_memset(nullptr, 4, 0, 4), 0);
    EXPECT_NE(bv_os_memcpy(dst, 4, nullptr, 0), 0); // also with nothing to copy
    EXPECT_EQ(memcmp(dst, "\0\0\0\0", 4), 0);
}

TEST(Memcpy, CapacityOutsideTheLimitsLeavesTheDestinationAlone)
{
    char dst[4] = {'a', 'b', 'c', 'd'};
    EXPECT_NE(bv_os_memcpy(dst, 0, "xyz", 3), 0);
    EXPECT_NE(bv_os_memcpy(dst, 0x80000000, "xyz", 3), 0);
    EXPECT_NE(bv_os_memmove(dst, 0, "xyz", 3), 0);
    EXPECT_NE(bv_os_memset(dst, 0x80000000, 0, 3), 0);
    EXPECT_EQ(memcmp(dst, "abcd", 4), 0);
}

TEST(Memcpy, CapacityJustInsideTheLimitsIsAccepted)
{
    char dst[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(bv_os_memcpy(dst, 1, "x", 1), 0);
    EXPECT_EQ(bv_os_memmove(dst + 1, 0x7fffffff, "y", 1), 0);
    EXPECT_EQ(bv_os_memset(dst + 2, 0x7fffffff, 'z', 1), 0);
    EXPECT_EQ(memcmp(dst, "xyzd", 4), 0);
    EXPECT_EQ(bv_os_memcpy(dst, 0x7fffffff, "wxyz", 4), 0);
    EXPECT_EQ(memcmp(dst, "wxyz", 4), 0);
}

TEST(Memmove, CountAboveTheCapacityClearsTheDestinationAndFails)
{
    char dst[9] = "........";
    EXPECT_NE(bv_os_memmove(dst, 4, "abcdefgh", 8), 0);
    EXPECT_EQ(memcmp(dst, "\0\0\0\0....", 8), 0);
}

TEST(Memset, FillsWithTheLowByte)
{
    char dst[] = "........";
    EXPECT_EQ(bv_os_memset(dst, 8, 0x141, 3), 0);
    EXPECT_STREQ(dst, "AAA.....");
}

TEST(Memset, CountAboveTheCapacityFillsExactlyTheCapacityAndFails)
{
    char dst[] = "............";
    EXPECT_NE(bv_os_memset(dst, 8, 0, 20), 0);
    EXPECT_EQ(memcmp(dst, "\0\0\0\0\0\0\0\0....", 12), 0);
    EXPECT_NE(bv_os_memset(dst, 8, 'z', 20), 0);
    EXPECT_EQ(memcmp(dst, "zzzzzzzz....", 12), 0);
}

TEST(Memcmp, ComparesTheFirstBytesOnly)
{
    EXPECT_EQ(bv_os_memcmp("abcX", "abcY", 3), 0);
    EXPECT_LT(bv_os_memcmp("abcX", "abcY", 4), 0);
    EXPECT_GT(bv_os_memcmp("\xff", "\x01", 1), 0);
}

// The capacity that a caller gives is the capacity that is checked: never the count again.
TEST(BoundedMemory, EachFunctionMakesOneCallWithTheCallersOwnNumbers)
{
    char dst[16];
    const char src[16] = {};
    const auto expect = [&dst](const void *from, size_t size, size_t count) {
        EXPECT_EQ(g_bounded.calls, 1);
        EXPECT_EQ(g_bounded.dst, dst);
        EXPECT_EQ(g_bounded.dstsize, size);
        EXPECT_EQ(g_bounded.src, from);
        EXPECT_EQ(g_bounded.count, count);
        g_bounded = {};
    };
    g_bounded = {};
    bv_os_memcpy(dst, 16, src, 5);
    expect(src, 16, 5);
    bv_os_memmove(dst, 15, src, 6);
    expect(src, 15, 6);
    bv_os_memset(dst, 14, 0, 7);
    expect(nullptr, 14, 7);
}
