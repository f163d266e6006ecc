// SPDX-License-Identifier: ISC
// The library's own sums stop the process instead of wrapping; its byte helpers are big-endian.

#include "os/bytes.h"
#include "os/checked.h"

#include <gtest/gtest.h>

#include <cstdint>

TEST(Checked, SumsThatFitAreTheSums)
{
    EXPECT_EQ(bv::checked_add(0x10000040, 0), 0x10000040);
    EXPECT_EQ(bv::checked_add(INT32_MAX - 1, 1), INT32_MAX);
    EXPECT_EQ(bv::checked_add(INT32_MIN, INT32_MAX), -1);
    EXPECT_EQ(bv::checked_sub(INT32_MIN + 1, 1), INT32_MIN);
    EXPECT_EQ(bv::checked_add(0xfffffffeu, 1u), 0xffffffffu);
}

TEST(CheckedDeathTest, OverflowAborts)
{
    volatile int32_t top = INT32_MAX;
    volatile int32_t bottom = INT32_MIN;
    volatile uint32_t all = 0xffffffff;
    EXPECT_EXIT(bv::checked_add<int32_t>(top, 1), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(bv::checked_add<int32_t>(bottom, bottom), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(bv::checked_sub<int32_t>(bottom, 1), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(bv::checked_add<uint32_t>(all, 1), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(bv::checked_sub<uint32_t>(0, 1), testing::KilledBySignal(SIGABRT), "");
}

// Several start-up failures at once are still a failure; too many stop the process.
TEST(CheckedDeathTest, StatusCodesAddUpOnlyAsFarAsTheyFit)
{
    auto add_up = [](int count) {
        int32_t sum = 0;
        for (int i = 0; i < count; ++i)
            sum = bv::checked_add<int32_t>(sum, 0x10000040);
        return sum;
    };
    EXPECT_EQ(add_up(7), 0x700001c0);
    EXPECT_EXIT(add_up(8), testing::KilledBySignal(SIGABRT), "");
}

TEST(Bytes, ArePutAndGotBigEndianAtAnyAddress)
{
    uint8_t bytes[8] = {};
    bv::put_be32(bytes + 1, 0x01020304);
    bv::put_be16(bytes + 5, 0xa0b0);
    const uint8_t expected[8] = {0, 1, 2, 3, 4, 0xa0, 0xb0, 0};
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(bytes[i], expected[i]) << i;
    EXPECT_EQ(bv::get_be32(bytes + 1), 0x01020304u);
    EXPECT_EQ(bv::get_be16(bytes + 5), 0xa0b0u);
}
