// Flash partitions: names, ranges, chunks, erasing, and every way in which a device can fail.

#include "dev/devices.h"

#include <bv/mtd.h>
#include <bv/os.h>

#include "support/capture.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <algorithm>
#include <cstring>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kConfigSize = 0x80000;
constexpr uint32_t kBlock = devices::kEraseSize;

// Each test has the five partitions, and leaves no descriptor open.
class Flash : public testing::Test {
protected:
    void SetUp() override
    {
        devices::flash_attach();
        descriptors_ = open_descriptors();
    }
    void TearDown() override { EXPECT_EQ(open_descriptors(), descriptors_); }

    std::vector<int> descriptors_;
};

Bytes pattern(size_t size)
{
    Bytes bytes(size);
    uint32_t value = 12345;
    for (uint8_t &byte : bytes) {
        value = value * 1103515245 + 12345;
        byte = static_cast<uint8_t>(value >> 16);
    }
    return bytes;
}

Bytes slice(const Bytes &bytes, size_t offset, size_t size)
{
    return Bytes(bytes.begin() + offset, bytes.begin() + offset + size);
}

TEST_F(Flash, InfoIsTheKernelsRecordOfTheNamedPartition)
{
    mtd_info_user info = {};
    ASSERT_EQ(bv_mtd_get_info("config", &info), BV_OK);
    EXPECT_EQ(info.size, kConfigSize);
    EXPECT_EQ(info.erasesize, kBlock);
    EXPECT_EQ(info.type, MTD_NORFLASH);
}

TEST_F(Flash, ANameIsFoundAsASubstringAndAsARegularExpression)
{
    mtd_info_user info = {};
    EXPECT_EQ(bv_mtd_get_info("cras", &info), BV_OK);
    EXPECT_EQ(info.size, 0x10000u);
    EXPECT_EQ(bv_mtd_get_info("^mtd0", &info), BV_OK);
    EXPECT_EQ(info.size, kConfigSize);
}

TEST_F(Flash, ANameInSeveralLinesOrNoneFindsNothing)
{
    mtd_info_user info = {};
    uint8_t byte = 0;
    for (const char *name : {"rootfs", "bootloader"}) {
        EXPECT_EQ(bv_mtd_get_info(name, &info), BV_ERR_FAILED) << name;
        EXPECT_EQ(bv_mtd_read(name, &byte, 0, 1), BV_ERR_FAILED) << name;
        EXPECT_EQ(bv_mtd_write(name, &byte, 0, 1), BV_ERR_FAILED) << name;
        EXPECT_EQ(bv_mtd_erase(name, 0, kBlock), BV_ERR_FAILED) << name;
    }
    EXPECT_EQ(bv_mtd_get_info("rootfs_data", &info), BV_OK);
}

TEST_F(Flash, WhatFailsBeforeTheTransferLeavesTheCallersMemoryAlone)
{
    mtd_info_user info, before;
    memset(&info, 0x5a, sizeof info);
    memset(&before, 0x5a, sizeof before);
    EXPECT_EQ(bv_mtd_get_info("bootloader", &info), BV_ERR_FAILED);
    EXPECT_EQ(bv_mtd_get_info("factory", &info), BV_ERR_FAILED);
    EXPECT_EQ(memcmp(&info, &before, sizeof info), 0);

    Bytes data(4, 0x5a);
    EXPECT_EQ(bv_mtd_read("bootloader", data.data(), 0, 4), BV_ERR_FAILED);
    EXPECT_EQ(bv_mtd_read("config", data.data(), kConfigSize - 3, 4), BV_ERR_RANGE);
    EXPECT_EQ(bv_mtd_read("config", data.data(), 0, 0), BV_ERR_INVALID);
    EXPECT_EQ(data, Bytes(4, 0x5a));
    EXPECT_EQ(bv_mtd_write("config", data.data(), kConfigSize - 3, 4), BV_ERR_RANGE);
    EXPECT_EQ(devices::flash_contents("config"), Bytes(kConfigSize, 0xff));
}

TEST_F(Flash, APathThatExceedsItsSixteenBytesIsEmptied)
{
    NEEDS_MADE_UP_DEVICES();
    FILE *file = fopen("/scratch/proc-mtd", "a");
    fputs("mtd0123456789: 00001000 00001000 \"far\"\n", file); // "/dev/mtd0123456789" is too long
    fclose(file);
    mtd_info_user info = {};
    EXPECT_EQ(bv_mtd_get_info("far", &info), BV_ERR_FAILED);
}

TEST_F(Flash, APathMayHaveFifteenCharactersAndNoMore)
{
    NEEDS_MADE_UP_DEVICES();
    FILE *file = fopen("/scratch/proc-mtd", "a");
    for (const char *device : {"mtd0000000", "mtd00000000"}) { // other names of the first one
        fprintf(file, "%s: 00080000 00010000 \"%zu digits\"\n", device, strlen(device) - 3);
        ASSERT_EQ(symlink("mtd0", (std::string("/dev/") + device).c_str()), 0);
    }
    fclose(file);
    mtd_info_user info = {};
    EXPECT_EQ(bv_mtd_get_info("7.digits", &info), BV_OK);
    EXPECT_EQ(info.size, kConfigSize);
    EXPECT_EQ(bv_mtd_get_info("8.digits", &info), BV_ERR_FAILED);
}

TEST_F(Flash, ADescriptorOfZeroIsAsGoodAsAnyOther)
{
    WithoutStdin closed;
    mtd_info_user info = {};
    EXPECT_EQ(bv_mtd_get_info("config", &info), BV_OK);
    uint8_t byte = 0x5a;
    EXPECT_EQ(bv_mtd_write("config", &byte, 0, 1), BV_OK);
    byte = 0;
    EXPECT_EQ(bv_mtd_read("config", &byte, 0, 1), BV_OK);
    EXPECT_EQ(byte, 0x5a);
    EXPECT_EQ(bv_mtd_erase("config", 0, kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 1u);
}

TEST_F(Flash, ANameTooLongForTheCommandFindsNothing)
{
    mtd_info_user info = {};
    std::string name(300, 'c');
    EXPECT_EQ(bv_mtd_get_info(name.c_str(), &info), BV_ERR_FAILED);
}

TEST_F(Flash, NullArgumentsAndLengthZeroAreInvalid)
{
    mtd_info_user info = {};
    uint8_t byte = 0;
    EXPECT_EQ(bv_mtd_get_info(nullptr, &info), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_get_info("config", nullptr), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_read(nullptr, &byte, 0, 1), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_read("config", nullptr, 0, 1), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_read("config", &byte, 0, 0), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_write(nullptr, &byte, 0, 1), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_write("config", nullptr, 0, 1), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_write("config", &byte, 0, 0), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_erase(nullptr, 0, kBlock), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_erase("config", 0, 0), BV_ERR_INVALID);
    // Arguments are looked at before the partition: a missing one does not matter yet.
    EXPECT_EQ(bv_mtd_read("bootloader", &byte, 0, 0), BV_ERR_INVALID);
}

TEST_F(Flash, WhatIsWrittenIsReadBackInEverySizeAroundAChunk)
{
    for (uint32_t size : {1u, 8191u, 8192u, 8193u, 100000u}) {
        SCOPED_TRACE(size);
        devices::flash_attach();
        Bytes data = pattern(size);
        constexpr uint32_t kOffset = 4097;
        ASSERT_EQ(bv_mtd_write("config", data.data(), kOffset, size), BV_OK);

        Bytes contents = devices::flash_contents("config");
        EXPECT_EQ(slice(contents, kOffset, size), data);
        EXPECT_EQ(contents[kOffset - 1], 0xff);
        EXPECT_EQ(contents[kOffset + size], 0xff);

        Bytes back(size + 1, 0x77);
        ASSERT_EQ(bv_mtd_read("config", back.data(), kOffset, size), BV_OK);
        EXPECT_EQ(slice(back, 0, size), data);
        EXPECT_EQ(back[size], 0x77);
    }
}

TEST_F(Flash, TransfersMoveAtMost8192BytesASystemCall)
{
    Bytes data = pattern(100000);
    ASSERT_EQ(bv_mtd_write("config", data.data(), 0, 100000), BV_OK);
    EXPECT_EQ(devices::system_calls_on_flash(), 13u);
    ASSERT_EQ(bv_mtd_read("config", data.data(), 0, 100000), BV_OK);
    EXPECT_EQ(devices::system_calls_on_flash(), 26u);
    EXPECT_EQ(devices::erase_requests(), 0u); // writing erases nothing
}

TEST_F(Flash, AChunkIsExactly8192Bytes)
{
    Bytes data = pattern(8193);
    ASSERT_EQ(bv_mtd_write("config", data.data(), 0, 8192), BV_OK);
    EXPECT_EQ(devices::system_calls_on_flash(), 1u);
    ASSERT_EQ(bv_mtd_write("config", data.data(), 0, 8193), BV_OK);
    EXPECT_EQ(devices::system_calls_on_flash(), 3u);
    ASSERT_EQ(bv_mtd_read("config", data.data(), 0, 8192), BV_OK);
    EXPECT_EQ(devices::system_calls_on_flash(), 4u);
    ASSERT_EQ(bv_mtd_read("config", data.data(), 0, 8193), BV_OK);
    EXPECT_EQ(devices::system_calls_on_flash(), 6u);
}

TEST_F(Flash, IsWrittenAndErasedSynchronously)
{
    NEEDS_MADE_UP_DEVICES();
    uint8_t byte = 0;
    ASSERT_EQ(bv_mtd_write("config", &byte, 0, 1), BV_OK);
    EXPECT_EQ(devices::open_flags(), (std::vector<int>{O_RDWR | O_SYNC, O_RDWR | O_SYNC}));
    devices::flash_attach();
    ASSERT_EQ(bv_mtd_read("config", &byte, 0, 1), BV_OK);
    EXPECT_EQ(devices::open_flags(), (std::vector<int>{O_RDWR | O_SYNC, O_RDONLY}));
    devices::flash_attach();
    ASSERT_EQ(bv_mtd_erase("config", 0, kBlock), BV_OK); // with a look at the block in between
    EXPECT_EQ(devices::open_flags(),
              (std::vector<int>{O_RDWR | O_SYNC, O_RDWR | O_SYNC, O_RDWR | O_SYNC, O_RDONLY}));
}

TEST_F(Flash, ARangeMayEndExactlyAtTheEndButNotOnePast)
{
    devices::flash_fill("config", 0x5a);
    uint8_t bytes[2] = {};
    EXPECT_EQ(bv_mtd_read("config", bytes, kConfigSize - 1, 1), BV_OK);
    EXPECT_EQ(bytes[0], 0x5a);
    EXPECT_EQ(bv_mtd_read("config", bytes, kConfigSize, 1), BV_ERR_RANGE);
    EXPECT_EQ(bv_mtd_read("config", bytes, kConfigSize - 1, 2), BV_ERR_RANGE);
    EXPECT_EQ(bv_mtd_write("config", bytes, kConfigSize - 2, 2), BV_OK);
    EXPECT_EQ(bv_mtd_write("config", bytes, kConfigSize - 1, 2), BV_ERR_RANGE);
    EXPECT_EQ(bv_mtd_erase("config", kConfigSize - kBlock, kBlock), BV_OK);
    EXPECT_EQ(bv_mtd_erase("config", kConfigSize, kBlock), BV_ERR_RANGE);
}

TEST_F(Flash, ARangeWhoseEndDoesNotFit32BitsIsBeyondTheEnd)
{
    uint8_t byte = 0;
    EXPECT_EQ(bv_mtd_read("config", &byte, 0xffffffff, 1), BV_ERR_RANGE);
    EXPECT_EQ(bv_mtd_write("config", &byte, 1, 0xffffffff), BV_ERR_RANGE);
    EXPECT_EQ(bv_mtd_erase("config", 0xffff0000, 0x10000), BV_ERR_RANGE);
    // The range is looked at before the alignment.
    EXPECT_EQ(bv_mtd_erase("config", 0xffffffff, 3), BV_ERR_RANGE);
}

TEST_F(Flash, AnOffsetFrom2GiBOnCannotBeReached)
{
    NEEDS_MADE_UP_DEVICES();
    uint8_t byte = 0;
    devices::report_size(0xffffffff);
    for (uint32_t offset : {0x80000000u, 0xfffffffeu}) {
        EXPECT_EQ(bv_mtd_read("config", &byte, offset, 1), BV_ERR_FAILED) << offset;
        EXPECT_EQ(bv_mtd_write("config", &byte, offset, 1), BV_ERR_FAILED) << offset;
    }
    EXPECT_EQ(devices::system_calls_on_flash(), 0u);
}

TEST_F(Flash, APartitionThatRefusesWritingCannotEvenBeAskedOrRead)
{
    mtd_info_user info = {};
    uint8_t byte = 0;
    EXPECT_EQ(bv_mtd_get_info("factory", &info), BV_ERR_FAILED);
    EXPECT_EQ(bv_mtd_read("factory", &byte, 0, 1), BV_ERR_FAILED);
    EXPECT_EQ(bv_mtd_write("factory", &byte, 0, 1), BV_ERR_FAILED);
    EXPECT_EQ(bv_mtd_erase("factory", 0, kBlock), BV_ERR_FAILED);
}

TEST_F(Flash, ADeviceWithoutAGeometryIsAFailure)
{
    NEEDS_MADE_UP_DEVICES();
    devices::fail_geometry();
    mtd_info_user info = {};
    uint8_t byte = 0;
    EXPECT_EQ(bv_mtd_get_info("config", &info), BV_ERR_FAILED);
    EXPECT_EQ(bv_mtd_read("config", &byte, 0, 1), BV_ERR_FAILED);
    EXPECT_EQ(bv_mtd_write("config", &byte, 0, 1), BV_ERR_FAILED);
    EXPECT_EQ(bv_mtd_erase("config", 0, kBlock), BV_ERR_FAILED);
}

TEST_F(Flash, OnlyAnEraseReportsADeviceThatDoesNotCloseCleanly)
{
    NEEDS_MADE_UP_DEVICES();
    devices::fail_closes();
    mtd_info_user info = {};
    uint8_t byte = 0;
    EXPECT_EQ(bv_mtd_get_info("config", &info), BV_OK);
    EXPECT_EQ(bv_mtd_write("config", &byte, 0, 1), BV_OK);
    EXPECT_EQ(bv_mtd_read("config", &byte, 0, 1), BV_OK);
    EXPECT_EQ(bv_mtd_erase("config", 0, kBlock), BV_ERR_FAILED);
    EXPECT_EQ(devices::flash_contents("config")[0], 0xff); // erased all the same
}

TEST_F(Flash, ADeviceThatCannotBeOpenedAfterTheQueryHasItsOwnCode)
{
    NEEDS_MADE_UP_DEVICES();
    uint8_t byte = 0;
    devices::refuse_reading(true);
    EXPECT_EQ(bv_mtd_read("config", &byte, 0, 1), BV_ERR_OPEN);
    devices::refuse_writing_at(2); // the first opening is the query's
    EXPECT_EQ(bv_mtd_write("config", &byte, 0, 1), BV_ERR_OPEN);
    devices::refuse_writing_at(2);
    EXPECT_EQ(bv_mtd_erase("config", 0, kBlock), BV_ERR_OPEN);
}

TEST_F(Flash, ADeviceThatCannotSeekIsAFailure)
{
    NEEDS_MADE_UP_DEVICES();
    uint8_t byte = 0;
    devices::fail_seeks();
    EXPECT_EQ(bv_mtd_read("config", &byte, 8, 1), BV_ERR_FAILED);
    EXPECT_EQ(bv_mtd_write("config", &byte, 8, 1), BV_ERR_FAILED);
    EXPECT_EQ(devices::system_calls_on_flash(), 0u);
}

TEST_F(Flash, ADeviceThatStopsEarlyIsAShortReadOrWrite)
{
    const Bytes before = pattern(20000);
    Bytes data = before;
    devices::stop_transfers_after(10000);
    EXPECT_EQ(bv_mtd_read("config", data.data(), 0, 20000), BV_ERR_SHORT_READ);
    EXPECT_EQ(slice(data, 0, 10000), Bytes(10000, 0xff)) << "what came before it is in there";
    EXPECT_EQ(slice(data, 10000, 10000), slice(before, 10000, 10000)) << "and no more";

    data = before;
    devices::stop_transfers_after(10000);
    EXPECT_EQ(bv_mtd_write("config", data.data(), 0, 20000), BV_ERR_SHORT_WRITE);
    devices::stop_transfers_after(UINT64_MAX);
    Bytes contents = devices::flash_contents("config");
    EXPECT_EQ(slice(contents, 0, 10000), slice(before, 0, 10000));
    EXPECT_EQ(slice(contents, 10000, 10000), Bytes(10000, 0xff));
}

TEST_F(Flash, EraseTakesWholeBlocksOnly)
{
    devices::flash_fill("config", 0);
    EXPECT_EQ(bv_mtd_erase("config", 1, kBlock), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_erase("config", 0, kBlock + 1), BV_ERR_INVALID);
    EXPECT_EQ(bv_mtd_erase("config", kBlock / 2, kBlock / 2), BV_ERR_INVALID);
    EXPECT_EQ(devices::erase_requests(), 0u);
    EXPECT_EQ(devices::flash_contents("config"), Bytes(kConfigSize, 0));
}

TEST_F(Flash, EraseSetsTheBlocksOfTheRangeAndNoOthers)
{
    devices::flash_fill("config", 0);
    ASSERT_EQ(bv_mtd_erase("config", kBlock, 2 * kBlock), BV_OK);
    Bytes want(kConfigSize, 0);
    std::fill(want.begin() + kBlock, want.begin() + 3 * kBlock, 0xff);
    EXPECT_EQ(devices::flash_contents("config"), want);
    EXPECT_EQ(devices::erase_requests(), 2u);
    EXPECT_EQ(devices::system_calls_on_flash(), 2u * kBlock / 8192); // one look at each block
}

TEST_F(Flash, ABlockThatIsBlankIsNotErasedAgain)
{
    ASSERT_EQ(bv_mtd_erase("config", 0, 2 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 0u);

    uint8_t zero = 0;
    ASSERT_EQ(bv_mtd_write("config", &zero, 2 * kBlock - 1, 1), BV_OK);
    ASSERT_EQ(bv_mtd_erase("config", 0, 2 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 1u);
    EXPECT_EQ(devices::flash_contents("config"), Bytes(kConfigSize, 0xff));
}

TEST_F(Flash, AFailedEraseUsesUpTheRoundOfALaterBlock)
{
    devices::flash_fill("config", 0);
    devices::fail_erases(1);
    EXPECT_EQ(bv_mtd_erase("config", 0, 3 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 3u);
    Bytes want(kConfigSize, 0);
    std::fill(want.begin(), want.begin() + 2 * kBlock, 0xff); // the third never had its turn
    EXPECT_EQ(devices::flash_contents("config"), want);
}

TEST_F(Flash, ABlockThatNeverErasesUsesUpAllRoundsAndIsNotReported)
{
    devices::flash_fill("config", 0);
    devices::fail_erases(3);
    EXPECT_EQ(bv_mtd_erase("config", 0, 3 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 3u);
    EXPECT_EQ(devices::flash_contents("config"), Bytes(kConfigSize, 0));
}

TEST_F(Flash, ABlockThatCannotBeReadIsErasedAllTheSame)
{
    NEEDS_MADE_UP_DEVICES();
    devices::refuse_reading(true);
    ASSERT_EQ(bv_mtd_erase("config", 0, 2 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 2u);
}

TEST_F(Flash, AnEraseSizeOfZeroIsRefused)
{
    devices::report_erase_size(0);
    EXPECT_EQ(bv_mtd_erase("config", 0, kBlock), BV_ERR_INVALID);
    EXPECT_EQ(devices::erase_requests(), 0u);
}

TEST_F(Flash, TheMemoryForTheLookIsGivenBack)
{
    if (kSanitized)
        GTEST_SKIP() << "the sanitiser finds leaks";
    devices::report_erase_size(kConfigSize); // one block, and a megabyte for the look at it
    ASSERT_EQ(bv_mtd_erase("config", 0, kConfigSize), BV_OK);
    const size_t before = address_space();
    for (int i = 0; i < 16; ++i)
        ASSERT_EQ(bv_mtd_erase("config", 0, kConfigSize), BV_OK);
    EXPECT_LT(address_space(), before + (8 << 20));
    EXPECT_EQ(devices::erase_requests(), 0u);
}

TEST_F(Flash, ABlockOf655360BytesIsTheLargestThatIsLookedAt)
{
    NEEDS_MADE_UP_DEVICES();
    devices::report_erase_size(655360); // two of them are one allocation of the largest size
    ASSERT_EQ(bv_mtd_erase("rootfs_data", 0, 0x100000), BV_OK); // one round
    EXPECT_EQ(devices::erase_requests(), 0u);
    EXPECT_EQ(devices::system_calls_on_flash(), 80u);
    devices::report_erase_size(655361);
    ASSERT_EQ(bv_mtd_erase("rootfs_data", 0, 0x100000), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 1u);
    EXPECT_EQ(devices::system_calls_on_flash(), 80u);
}

TEST_F(Flash, BlocksTooLargeForOneAllocationAreErasedWithoutALook)
{
    devices::report_erase_size(0x100000); // two of them exceed the allocation limit
    CaptureStdout output;
    ASSERT_EQ(bv_mtd_erase("rootfs_data", 0, 0x100000), BV_OK);
    EXPECT_EQ(output.stop(), "data size out of rang ui_size = 2097152 malloc fail\n");
    EXPECT_EQ(devices::erase_requests(), 1u);
    EXPECT_EQ(devices::system_calls_on_flash(), 0u);
}

} // namespace
