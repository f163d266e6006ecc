// SPDX-License-Identifier: ISC
// A NAND chip, made up by the kernel's simulator. It is written in whole pages, and its erase
// blocks are far smaller than those of the NOR chip.

#include "gateway/modules.h"

#include <bv/mtd.h>
#include <bv/status.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

namespace {

const char *const kName = "'NAND simulator partition 1'"; // of two: the name goes through a shell
constexpr uint32_t kPage = 512;
constexpr uint32_t kBlock = 0x4000;

using Bytes = std::vector<uint8_t>;

TEST(Nand, IsFoundByNameWithItsOwnGeometry)
{
    mtd_info_user info = {};
    ASSERT_EQ(bv_mtd_get_info(kName, &info), BV_OK);
    EXPECT_EQ(info.type, MTD_NANDFLASH);
    EXPECT_EQ(info.writesize, kPage);
    EXPECT_EQ(info.erasesize, kBlock);
    EXPECT_EQ(bv_mtd_get_info("'NAND simulator'", &info), BV_ERR_FAILED) << "two partitions";
}

TEST(Nand, WholePagesCanBeWrittenReadBackAndErased)
{
    ASSERT_EQ(bv_mtd_erase(kName, 0, 2 * kBlock), BV_OK);
    Bytes data(kBlock + kPage);
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<uint8_t>(i * 7);
    ASSERT_EQ(bv_mtd_write(kName, data.data(), kPage, kBlock + kPage), BV_OK);

    Bytes back(data.size());
    ASSERT_EQ(bv_mtd_read(kName, back.data(), kPage, kBlock + kPage), BV_OK);
    EXPECT_EQ(back, data);

    ASSERT_EQ(bv_mtd_erase(kName, kBlock, kBlock), BV_OK);
    ASSERT_EQ(bv_mtd_read(kName, back.data(), kPage, kBlock + kPage), BV_OK);
    EXPECT_TRUE(std::equal(back.begin(), back.begin() + kBlock - kPage, data.begin()));
    EXPECT_EQ(Bytes(back.begin() + kBlock - kPage, back.end()), Bytes(2 * kPage, 0xff));
}

TEST(Nand, PartOfAPageIsAShortWrite)
{
    ASSERT_EQ(bv_mtd_erase(kName, 0, kBlock), BV_OK);
    Bytes data(kPage, 0);
    EXPECT_EQ(bv_mtd_write(kName, data.data(), 0, 100), BV_ERR_SHORT_WRITE);
    EXPECT_EQ(bv_mtd_write(kName, data.data(), 1, kPage), BV_ERR_SHORT_WRITE);
}

TEST(Nand, PartOfAPageCanBeRead)
{
    ASSERT_EQ(bv_mtd_erase(kName, 0, kBlock), BV_OK);
    uint8_t bytes[3] = {};
    EXPECT_EQ(bv_mtd_read(kName, bytes, 511, 3), BV_OK);
    EXPECT_EQ(bytes[2], 0xff);
}

} // namespace
