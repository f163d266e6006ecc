// SPDX-License-Identifier: ISC
// What only a real flash chip does: writing cannot set bits, and single blocks fail.

#include "dev/devices.h"
#include "gateway/modules.h"

#include <bv/mtd.h>
#include <bv/status.h>

#include <gtest/gtest.h>

namespace {

constexpr uint32_t kBlock = devices::kEraseSize;
using Bytes = std::vector<uint8_t>;

class RealFlash : public testing::Test {
protected:
    void SetUp() override { devices::flash_attach(); }

    // "config" is the first partition, so its offsets are those of the chip.
    void break_block(const char *fault, uint32_t block)
    {
        modules::set("brovan_nor", fault, std::to_string(block * kBlock));
    }
};

TEST_F(RealFlash, KernelListsThePartitionsByName)
{
    std::string table = read_file("/proc/mtd");
    EXPECT_NE(table.find("00080000 00010000 \"config\""), std::string::npos) << table;
    EXPECT_NE(table.find("00010000 00010000 \"factory\""), std::string::npos) << table;
}

TEST_F(RealFlash, WritingOnlyClearsBitsUntilTheBlockIsErased)
{
    uint8_t byte = 0x5a;
    ASSERT_EQ(bv_mtd_write("config", &byte, 100, 1), BV_OK);
    byte = 0xf0;
    ASSERT_EQ(bv_mtd_write("config", &byte, 100, 1), BV_OK);
    ASSERT_EQ(bv_mtd_read("config", &byte, 100, 1), BV_OK);
    EXPECT_EQ(byte, 0x50);

    ASSERT_EQ(bv_mtd_erase("config", 0, kBlock), BV_OK);
    ASSERT_EQ(bv_mtd_read("config", &byte, 100, 1), BV_OK);
    EXPECT_EQ(byte, 0xff);
}

TEST_F(RealFlash, ReadEndsAtABadBlock)
{
    devices::flash_fill("config", 0x33);
    break_block("bad_read", 1);
    Bytes bytes(2 * kBlock, 0);
    EXPECT_EQ(bv_mtd_read("config", bytes.data(), 0, 2 * kBlock), BV_ERR_SHORT_READ);
    EXPECT_EQ(bytes[kBlock - 1], 0x33);
    EXPECT_EQ(bytes[kBlock], 0);
    EXPECT_EQ(bv_mtd_read("config", bytes.data(), 0, kBlock), BV_OK);
}

TEST_F(RealFlash, WriteEndsAtABadBlock)
{
    break_block("bad_write", 1);
    Bytes bytes(2 * kBlock, 0);
    EXPECT_EQ(bv_mtd_write("config", bytes.data(), 0, 2 * kBlock), BV_ERR_SHORT_WRITE);
    Bytes contents = devices::flash_contents("config");
    EXPECT_EQ(contents[kBlock - 1], 0);
    EXPECT_EQ(contents[kBlock], 0xff);
}

TEST_F(RealFlash, UnreadableBlockIsErasedWithoutALook)
{
    break_block("bad_read", 0); // blank, but that cannot be seen
    ASSERT_EQ(bv_mtd_erase("config", 0, 2 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 1u); // the second block reads as blank
}

TEST_F(RealFlash, WornBlockIsTriedInEveryRoundAndNotReported)
{
    devices::flash_fill("config", 0);
    break_block("bad_erase", 1);
    EXPECT_EQ(bv_mtd_erase("config", 0, 4 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 4u);
    Bytes contents = devices::flash_contents("config");
    EXPECT_EQ(contents[0], 0xff);
    EXPECT_EQ(contents[kBlock], 0);
    EXPECT_EQ(contents[2 * kBlock], 0);
}

} // namespace
