/* SPDX-License-Identifier: ISC */
#include "support/guarded.h"

#include <gtest/gtest.h>
#include <securec.h>

#include <cstdint>
#include <vector>

namespace {

constexpr size_t kMemoryLimit = SECUREC_MEM_MAX_LEN;

std::string numbered_bytes(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 7 + 1);
    return bytes;
}

} // namespace

TEST(BoundscheckMemory, CopiesEverySizeBetweenBuffersThatEndAtUnmappedPages)
{
    for (size_t size : {1u, 2u, 7u, 8u, 63u, 64u, 65u, 1024u, 4095u, 4096u, 65536u}) {
        SCOPED_TRACE(size);
        Guarded source(numbered_bytes(size));
        Guarded copy(size), moved(size);
        EXPECT_EQ(memcpy_s(copy.data(), size, source.data(), size), EOK);
        EXPECT_EQ(memmove_s(moved.data(), size, source.data(), size), EOK);
        EXPECT_EQ(copy.bytes(), source.bytes());
        EXPECT_EQ(moved.bytes(), source.bytes());
    }
}

TEST(BoundscheckMemory, RefusedCopyDoesNotReadTheSource)
{
    Guarded dest(16);
    Guarded nothing(0);
    EXPECT_EQ(memcpy_s(dest.data(), 16, nothing.data(), 17), ERANGE_AND_RESET);
    EXPECT_EQ(dest.bytes(), std::string(16, '\0'));
    EXPECT_EQ(memcpy_s(dest.data(), 0, nothing.data(), 4), ERANGE);
    EXPECT_EQ(memmove_s(dest.data(), 16, nothing.data(), SIZE_MAX), ERANGE_AND_RESET);
}

TEST(BoundscheckMemory, CountZeroCopiesNothingFromOrToUnmappedPlaces)
{
    Guarded nothing(0), dest(4);
    EXPECT_EQ(memcpy_s(dest.data(), 4, nothing.data(), 0), EOK);
    EXPECT_EQ(memmove_s(nothing.data(), 4, dest.data(), 0), EOK);
    EXPECT_EQ(dest.bytes(), std::string(4, '\xee'));
}

TEST(BoundscheckMemory, EveryOverlapByOneByteOrMoreIsRefusedAndEveryGapIsNot)
{
    constexpr size_t kCount = 8;
    for (size_t to = 0; to <= 24; ++to) {
        for (size_t from = 0; from <= 24; ++from) {
            std::string arena = numbered_bytes(48);
            std::string before = arena;
            size_t gap = to > from ? to - from : from - to;
            errno_t expected = gap == 0 || gap >= kCount ? EOK : EOVERLAP_AND_RESET;
            EXPECT_EQ(memcpy_s(&arena[to], 16, &arena[from], kCount), expected)
                << to << " " << from;

            std::string wanted = before;
            if (expected == EOK)
                wanted.replace(to, kCount, before, from, kCount);
            else
                wanted.replace(to, 16, 16, '\0');
            EXPECT_EQ(arena, wanted) << to << " " << from;

            std::string moved = before;
            EXPECT_EQ(memmove_s(&moved[to], 16, &moved[from], kCount), EOK);
            EXPECT_EQ(moved, std::string(before).replace(to, kCount, before, from, kCount));
        }
    }
}

TEST(BoundscheckMemory, NullSourceWipesTheWholeDestinationEvenWithNothingToCopy)
{
    Guarded dest(64);
    EXPECT_EQ(memcpy_s(dest.data(), 64, nullptr, 0), EINVAL_AND_RESET);
    EXPECT_EQ(dest.bytes(), std::string(64, '\0'));
    Guarded other(64);
    EXPECT_EQ(memmove_s(other.data(), 64, nullptr, 0), EINVAL_AND_RESET);
    EXPECT_EQ(other.bytes(), std::string(64, '\0'));
}

TEST(BoundscheckMemory, SizeIsCheckedBeforePointers)
{
    for (size_t bad : {size_t{0}, kMemoryLimit + 1, SIZE_MAX}) {
        EXPECT_EQ(memcpy_s(nullptr, bad, nullptr, 1), ERANGE);
        EXPECT_EQ(memmove_s(nullptr, bad, nullptr, 1), ERANGE);
        EXPECT_EQ(memset_s(nullptr, bad, 0, 1), ERANGE);
    }
    EXPECT_EQ(memcpy_s(nullptr, kMemoryLimit, nullptr, 1), EINVAL);
    EXPECT_EQ(memmove_s(nullptr, kMemoryLimit, nullptr, 1), EINVAL);
    EXPECT_EQ(memset_s(nullptr, kMemoryLimit, 0, 1), EINVAL);
}

TEST(BoundscheckMemory, SetWritesCountBytesAndFillsTheWholeDestinationWhenCountIsTooLarge)
{
    Guarded dest(32);
    EXPECT_EQ(memset_s(dest.data(), 32, 'x', 10), EOK);
    EXPECT_EQ(dest.bytes(), std::string(10, 'x') + std::string(22, '\xee'));
    EXPECT_EQ(memset_s(dest.data(), 32, 'y' + 256, 33), ERANGE_AND_RESET);
    EXPECT_EQ(dest.bytes(), std::string(32, 'y'));
    EXPECT_EQ(memset_s(dest.data(), 32, -1, 32), EOK);
    EXPECT_EQ(dest.bytes(), std::string(32, '\xff'));
}

TEST(BoundscheckMemory, SetWithSizeAndCountZeroSucceedsUnlessTheDestinationIsNull)
{
    Guarded nothing(0);
    EXPECT_EQ(memset_s(nothing.data(), 0, 'x', 0), EOK);
    EXPECT_EQ(memset_s(nothing.data(), 0, 'x', 1), ERANGE);
    EXPECT_EQ(memset_s(nullptr, 0, 'x', 0), ERANGE);
}
