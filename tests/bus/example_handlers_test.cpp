// SPDX-License-Identifier: ISC
// The two example handlers, and what a length other than the record's does to them.

#include <bv/ubus.h>

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes counted(size_t length)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; i++)
        bytes[i] = static_cast<uint8_t>(i + 1);
    return bytes;
}

void set(Bytes bytes)
{
    EXPECT_EQ(bv_example_set(bytes.data(), static_cast<uint32_t>(bytes.size())), 0u);
}

Bytes record()
{
    Bytes bytes(56, 0xee);
    EXPECT_EQ(bv_example_get(bytes.data(), 56), 0u);
    return bytes;
}

} // namespace

TEST(ExampleHandlers, RecordIsZeroUntilItIsSet)
{
    EXPECT_EQ(record(), Bytes(56));
    set(counted(56));
    EXPECT_EQ(record(), counted(56));
}

TEST(ExampleHandlers, ShortLengthsClearThatMuchOfTheTarget)
{
    for (uint32_t length : {0u, 1u, 20u, 55u}) {
        SCOPED_TRACE(length);
        set(counted(56));
        Bytes buffer(56, 0xee), cleared = buffer, record_cleared = counted(56);
        std::fill_n(cleared.begin(), length, 0);
        EXPECT_EQ(bv_example_get(buffer.data(), length), 0u);
        EXPECT_EQ(buffer, cleared);
        EXPECT_EQ(record(), counted(56));

        std::fill_n(record_cleared.begin(), length, 0);
        EXPECT_EQ(bv_example_set(Bytes(56, 0x77).data(), length), 0u);
        EXPECT_EQ(record(), record_cleared);
    }
}

TEST(ExampleHandlers, LongerBufferTakesAndGivesTheRecordOnly)
{
    set(counted(100));
    EXPECT_EQ(record(), counted(56));
    Bytes buffer(100, 0xee), expected = counted(56);
    EXPECT_EQ(bv_example_get(buffer.data(), 100), 0u);
    expected.resize(100, 0xee);
    EXPECT_EQ(buffer, expected);
}

TEST(ExampleHandlers, NullBufferIsHarmlessAndClearsTheRecord)
{
    EXPECT_EQ(bv_example_get(nullptr, 56), 0u);
    for (uint32_t length : {56u, 57u, 1000000u, 0xffffffffu}) {
        set(counted(56));
        EXPECT_EQ(bv_example_set(nullptr, length), 0u);
        EXPECT_EQ(record(), Bytes(56));
    }
}
