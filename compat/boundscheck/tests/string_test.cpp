/* SPDX-License-Identifier: ISC */
#include "support/guarded.h"

#include <gtest/gtest.h>
#include <securec.h>

#include <cstdint>

namespace {

constexpr size_t kStringLimit = SECUREC_STRING_MAX_LEN;

// What a failed call leaves of 0xee bytes: only the first one is cleared.
std::string emptied(size_t size)
{
    return std::string(1, '\0') + std::string(size - 1, '\xee');
}

} // namespace

TEST(BoundscheckString, CopyReadsNoFurtherThanTheSizeOfTheDestination)
{
    Guarded source(std::string(8, 'a')); // no NUL before the unmapped page
    Guarded dest(8);
    EXPECT_EQ(strcpy_s(dest.data(), 8, source.data()), ERANGE_AND_RESET);
    EXPECT_EQ(dest.bytes(), emptied(8));
    EXPECT_EQ(strncpy_s(dest.data(), 8, source.data(), 8), ERANGE_AND_RESET);
    EXPECT_EQ(strncpy_s(dest.data(), 8, source.data(), size_t{1} << 20), ERANGE_AND_RESET);
    EXPECT_EQ(strncpy_s(dest.data(), 8, source.data() + 1, 7), EOK);
    EXPECT_STREQ(dest.data(), "aaaaaaa");
}

TEST(BoundscheckString, CopyNeedNotFindANulWithinCountCharacters)
{
    Guarded source(std::string(5, 'a'));
    Guarded dest(64);
    EXPECT_EQ(strncpy_s(dest.data(), 64, source.data(), 5), EOK);
    EXPECT_EQ(dest.bytes(), std::string("aaaaa\0", 6) + std::string(58, '\xee'));
}

TEST(BoundscheckString, StringsOf64KiBAreCopiedAndAppendedWhole)
{
    constexpr size_t kLength = 65536;
    GuardedString source(std::string(kLength, 'q'));
    Guarded exact(kLength + 1), short_by_one(kLength), twice(2 * kLength + 1);

    EXPECT_EQ(strcpy_s(exact.data(), exact.size(), source.c_str()), EOK);
    EXPECT_EQ(exact.bytes(), source.bytes());
    EXPECT_EQ(strcpy_s(short_by_one.data(), kLength, source.c_str()), ERANGE_AND_RESET);
    EXPECT_EQ(short_by_one.bytes(), emptied(kLength));

    EXPECT_EQ(strncpy_s(twice.data(), twice.size(), source.c_str(), kLength), EOK);
    EXPECT_EQ(strcat_s(twice.data(), twice.size(), source.c_str()), EOK);
    EXPECT_EQ(strlen(twice.data()), 2 * kLength);
    EXPECT_EQ(strcat_s(twice.data(), twice.size(), "x"), ERANGE_AND_RESET);
    EXPECT_EQ(twice.data()[0], '\0');
    EXPECT_EQ(twice.data()[1], 'q');
}

TEST(BoundscheckString, SizeIsCheckedBeforePointers)
{
    for (size_t bad : {size_t{0}, kStringLimit + 1, SIZE_MAX}) {
        EXPECT_EQ(strcpy_s(nullptr, bad, nullptr), ERANGE);
        EXPECT_EQ(strncpy_s(nullptr, bad, nullptr, 1), ERANGE);
        EXPECT_EQ(strcat_s(nullptr, bad, nullptr), ERANGE);
    }
    EXPECT_EQ(strcpy_s(nullptr, kStringLimit, nullptr), EINVAL);
    EXPECT_EQ(strncpy_s(nullptr, kStringLimit, nullptr, 1), EINVAL);
    EXPECT_EQ(strcat_s(nullptr, kStringLimit, nullptr), EINVAL);
}

TEST(BoundscheckString, NullSourceIsReportedBeforeACountOutOfRange)
{
    Guarded dest(8);
    EXPECT_EQ(strncpy_s(dest.data(), 8, nullptr, SIZE_MAX), EINVAL_AND_RESET);
    EXPECT_EQ(strncpy_s(dest.data(), 8, nullptr, 0), EINVAL_AND_RESET);
    EXPECT_EQ(strncpy_s(dest.data(), 8, "a", kStringLimit + 1), ERANGE_AND_RESET);
    EXPECT_EQ(strncpy_s(dest.data(), 8, "a", kStringLimit), EOK);
    EXPECT_STREQ(dest.data(), "a");
}

TEST(BoundscheckString, CopyOverlapsAreFoundOnBothSidesAndTheirLimitsIncludeTheNul)
{
    for (size_t to = 0; to <= 16; ++to) {
        for (size_t from = 0; from <= 16; ++from) {
            SCOPED_TRACE(std::to_string(to) + " <- " + std::to_string(from));
            std::string arena(48, '#');
            arena.replace(from, 6, std::string("hello\0", 6));
            size_t gap = to > from ? to - from : from - to;
            errno_t expected = gap == 0 || gap > 5 ? EOK : EOVERLAP_AND_RESET;
            EXPECT_EQ(strcpy_s(&arena[to], 32, &arena[from]), expected);
            EXPECT_STREQ(&arena[to], expected == EOK ? "hello" : "");
        }
    }
}

TEST(BoundscheckString, CountedCopyAtADistanceOfItsLengthIsRefusedInBothDirections)
{
    char after[] = "abcdefgh";
    EXPECT_EQ(strncpy_s(after + 3, 6, after, 3), EOVERLAP_AND_RESET);
    char before[] = "abcdefgh";
    EXPECT_EQ(strncpy_s(before, 9, before + 3, 3), EOVERLAP_AND_RESET);
    char apart[] = "abcdefgh";
    EXPECT_EQ(strncpy_s(apart, 9, apart + 4, 3), EOK);
    EXPECT_STREQ(apart, "efg");
}

TEST(BoundscheckString, AppendStopsLookingForTheEndsAtTheLastByteOfTheDestination)
{
    Guarded dest(std::string(8, 'd')); // not terminated
    EXPECT_EQ(strcat_s(dest.data(), 8, "x"), EINVAL_AND_RESET);
    EXPECT_EQ(dest.bytes(), std::string(1, '\0') + std::string(7, 'd'));

    Guarded source(std::string(5, 's')); // not terminated either, but 5 bytes decide
    Guarded room(std::string("abc\0eeee", 8));
    EXPECT_EQ(strcat_s(room.data(), 8, source.data()), ERANGE_AND_RESET);
    EXPECT_EQ(room.bytes(), std::string("\0bc\0eeee", 8));
}

TEST(BoundscheckString, AppendingAStringToItselfIsARangeErrorEvenIfItIsEmpty)
{
    char text[16] = "ab";
    EXPECT_EQ(strcat_s(text, sizeof(text), text), ERANGE_AND_RESET);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(strcat_s(text, sizeof(text), text), ERANGE_AND_RESET);
}

TEST(BoundscheckString, AppendTakesASourceAfterTheNulOfTheSameBuffer)
{
    char text[16] = "ab\0......xy";
    EXPECT_EQ(strcat_s(text, sizeof(text), text + 9), EOK);
    EXPECT_STREQ(text, "abxy");
    char close[16] = "ab\0.xy";
    EXPECT_EQ(strcat_s(close, sizeof(close), close + 4), EOVERLAP_AND_RESET);
}
