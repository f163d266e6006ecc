// SPDX-License-Identifier: ISC
// Flash partitions: names, ranges, chunks, erasing, and devices that fail.

#include "dev/devices.h"

#include <bv/mtd.h>
#include <bv/os.h>

#include "support/capture_stdout.h"
#include "support/faults.h"
#include "support/process.h"
#include "support/sanitized.h"

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

// All four calls on the first byte or block of a partition.
void expect_calls(const char *name, int info_status, int read_status, int write_status,
                  int erase_status)
{
    SCOPED_TRACE(name);
    mtd_info_user info = {};
    uint8_t byte = 0;
    EXPECT_EQ(bv_mtd_get_info(name, &info), info_status);
    EXPECT_EQ(bv_mtd_write(name, &byte, 0, 1), write_status);
    EXPECT_EQ(bv_mtd_read(name, &byte, 0, 1), read_status);
    if (write_status == BV_ERR_FAILED && read_status == BV_ERR_FAILED) {
        EXPECT_EQ(devices::system_calls_on_flash(), 0u);
    }
    EXPECT_EQ(bv_mtd_erase(name, 0, kBlock), erase_status);
}

void expect_failures(const char *name)
{
    expect_calls(name, BV_ERR_FAILED, BV_ERR_FAILED, BV_ERR_FAILED, BV_ERR_FAILED);
}

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

TEST_F(Flash, NameIsASubstringOrARegularExpressionOfOneLineOnly)
{
    mtd_info_user info = {};
    EXPECT_EQ(bv_mtd_get_info("cras", &info), BV_OK);
    EXPECT_EQ(info.size, 0x10000u);
    EXPECT_EQ(bv_mtd_get_info("^mtd0", &info), BV_OK);
    EXPECT_EQ(info.size, kConfigSize);
    EXPECT_EQ(bv_mtd_get_info("rootfs_data", &info), BV_OK);
    for (const char *name : {"rootfs", "bootloader"}) // two lines, none
        expect_failures(name);
    expect_failures("factory"); // one that refuses writing cannot even be read
}

TEST_F(Flash, FailuresBeforeTheTransferLeaveTheCallersMemoryAlone)
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

TEST_F(Flash, DevicesPathMayHaveFifteenCharactersAndNoMore)
{
    NEEDS_MADE_UP_DEVICES();
    std::string table = read_file("/scratch/proc-mtd");
    for (const char *device : {"mtd0000000", "mtd00000000"}) { // other names of the first one
        table += std::string(device) + ": 00080000 00010000 \"" +
                 std::to_string(strlen(device) - 3) + " digits\"\n";
        ASSERT_EQ(symlink("mtd0", (std::string("/dev/") + device).c_str()), 0);
    }
    write_file("/scratch/proc-mtd", table);
    mtd_info_user info = {};
    EXPECT_EQ(bv_mtd_get_info("7.digits", &info), BV_OK);
    EXPECT_EQ(info.size, kConfigSize);
    EXPECT_EQ(bv_mtd_get_info("8.digits", &info), BV_ERR_FAILED);
}

TEST_F(Flash, DescriptorOfZeroIsAsGoodAsAnyOther)
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

TEST_F(Flash, NameTooLongForTheCommandFindsNothing)
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

TEST_F(Flash, WrittenBytesAreReadBackInEverySizeAroundAChunk)
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

TEST_F(Flash, TransfersMove8192BytesASystemCall)
{
    unsigned calls = 0;
    for (uint32_t size : {8192u, 8193u, 100000u}) {
        SCOPED_TRACE(size);
        Bytes data = pattern(size);
        const unsigned chunks = (size + 8191) / 8192;
        ASSERT_EQ(bv_mtd_write("config", data.data(), 0, size), BV_OK);
        EXPECT_EQ(devices::system_calls_on_flash(), calls += chunks);
        ASSERT_EQ(bv_mtd_read("config", data.data(), 0, size), BV_OK);
        EXPECT_EQ(devices::system_calls_on_flash(), calls += chunks);
    }
    EXPECT_EQ(devices::erase_requests(), 0u) << "writing erases nothing";
}

TEST_F(Flash, IsWrittenAndErasedSynchronously)
{
    NEEDS_MADE_UP_DEVICES();
    uint8_t byte = 0;
    ASSERT_EQ(bv_mtd_write("config", &byte, 0, 1), BV_OK);
    EXPECT_EQ(devices::settings.flags_of_opens,
              (std::vector<int>{O_RDWR | O_SYNC, O_RDWR | O_SYNC}));
    devices::flash_attach();
    ASSERT_EQ(bv_mtd_read("config", &byte, 0, 1), BV_OK);
    EXPECT_EQ(devices::settings.flags_of_opens, (std::vector<int>{O_RDWR | O_SYNC, O_RDONLY}));
    devices::flash_attach();
    ASSERT_EQ(bv_mtd_erase("config", 0, kBlock), BV_OK); // with a look at the block in between
    EXPECT_EQ(devices::settings.flags_of_opens,
              (std::vector<int>{O_RDWR | O_SYNC, O_RDWR | O_SYNC, O_RDWR | O_SYNC, O_RDONLY}));
}

TEST_F(Flash, RangeMayEndAtTheEndButNotOnePast)
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

TEST_F(Flash, RangeWhoseEndDoesNotFit32BitsIsBeyondTheEnd)
{
    uint8_t byte = 0;
    EXPECT_EQ(bv_mtd_read("config", &byte, 0xffffffff, 1), BV_ERR_RANGE);
    EXPECT_EQ(bv_mtd_write("config", &byte, 1, 0xffffffff), BV_ERR_RANGE);
    EXPECT_EQ(bv_mtd_erase("config", 0xffff0000, 0x10000), BV_ERR_RANGE);
    // The range is looked at before the alignment.
    EXPECT_EQ(bv_mtd_erase("config", 0xffffffff, 3), BV_ERR_RANGE);
}

TEST_F(Flash, OffsetFrom2GiBOnCannotBeReached)
{
    NEEDS_MADE_UP_DEVICES();
    uint8_t byte = 0;
    devices::settings.size = 0xffffffff;
    for (uint32_t offset : {0x80000000u, 0xfffffffeu}) {
        EXPECT_EQ(bv_mtd_read("config", &byte, offset, 1), BV_ERR_FAILED) << offset;
        EXPECT_EQ(bv_mtd_write("config", &byte, offset, 1), BV_ERR_FAILED) << offset;
    }
    EXPECT_EQ(devices::system_calls_on_flash(), 0u);
}

TEST_F(Flash, DeviceThatFailsHasTheCodeOfTheStepThatFailed)
{
    NEEDS_MADE_UP_DEVICES();
    const struct {
        const char *what;
        void (*fail)(devices::MadeUp &);
        int info, read, write, erase;
    } rows[] = {
        {"no geometry", [](devices::MadeUp &m) { m.geometry_fails = true; }, BV_ERR_FAILED,
         BV_ERR_FAILED, BV_ERR_FAILED, BV_ERR_FAILED},
        {"no seeking", [](devices::MadeUp &m) { m.seeks_fail = true; }, BV_OK, BV_ERR_FAILED,
         BV_ERR_FAILED, BV_OK},
        {"no reading after the query", [](devices::MadeUp &m) { m.reading_refused = true; }, BV_OK,
         BV_ERR_OPEN, BV_OK, BV_OK},
        {"only an erase reports the closing", [](devices::MadeUp &m) { m.closes_fail = true; },
         BV_OK, BV_OK, BV_OK, BV_ERR_FAILED},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        devices::settings = {};
        devices::flash_attach();
        row.fail(devices::settings);
        expect_calls("config", row.info, row.read, row.write, row.erase);
    }
    EXPECT_EQ(devices::flash_contents("config")[0], 0xff) << "erased all the same";

    uint8_t byte = 0;
    devices::settings = {};
    devices::settings.writer_refused = 2; // the first opening is the query's
    EXPECT_EQ(bv_mtd_write("config", &byte, 0, 1), BV_ERR_OPEN);
    devices::settings.writer_refused = 2;
    EXPECT_EQ(bv_mtd_erase("config", 0, kBlock), BV_ERR_OPEN);
}

TEST_F(Flash, DeviceThatStopsEarlyIsAShortReadOrWrite)
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

TEST_F(Flash, EraseSetsTheBlocksOfTheRangeOnly)
{
    devices::flash_fill("config", 0);
    ASSERT_EQ(bv_mtd_erase("config", kBlock, 2 * kBlock), BV_OK);
    Bytes want(kConfigSize, 0);
    std::fill(want.begin() + kBlock, want.begin() + 3 * kBlock, 0xff);
    EXPECT_EQ(devices::flash_contents("config"), want);
    EXPECT_EQ(devices::erase_requests(), 2u);
    EXPECT_EQ(devices::system_calls_on_flash(), 2u * kBlock / 8192); // one look at each block
}

TEST_F(Flash, BlankBlockIsNotErasedAgain)
{
    ASSERT_EQ(bv_mtd_erase("config", 0, 2 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 0u);

    uint8_t zero = 0;
    ASSERT_EQ(bv_mtd_write("config", &zero, 2 * kBlock - 1, 1), BV_OK);
    ASSERT_EQ(bv_mtd_erase("config", 0, 2 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 1u);
    EXPECT_EQ(devices::flash_contents("config"), Bytes(kConfigSize, 0xff));
}

TEST_F(Flash, FailedErasesUseUpRoundsAndAreNotReported)
{
    for (unsigned failures : {1, 3}) {
        SCOPED_TRACE(failures);
        devices::flash_attach();
        devices::flash_fill("config", 0);
        devices::fail_erases(failures);
        EXPECT_EQ(bv_mtd_erase("config", 0, 3 * kBlock), BV_OK);
        EXPECT_EQ(devices::erase_requests(), 3u);
        Bytes want(kConfigSize, 0);
        std::fill(want.begin(), want.begin() + (3 - failures) * kBlock, 0xff);
        EXPECT_EQ(devices::flash_contents("config"), want) << "the last never had a turn";
    }
}

TEST_F(Flash, BlockThatCannotBeReadIsErasedAnyway)
{
    NEEDS_MADE_UP_DEVICES();
    devices::settings.reading_refused = true;
    ASSERT_EQ(bv_mtd_erase("config", 0, 2 * kBlock), BV_OK);
    EXPECT_EQ(devices::erase_requests(), 2u);
}

// A program for the target, or with musl, contains the C++ library: its blocks would count as ours.
#if !defined(BV_NOTHING_INTERPOSED) && !defined(__mips__) && defined(__GLIBC__)
TEST_F(Flash, MemoryForTheLookIsFreed)
{
    watch_our_blocks();
    ASSERT_EQ(bv_mtd_erase("config", 0, kBlock), BV_OK);
    EXPECT_EQ(kSanitized ? 0 : our_blocks(), 0);
}
#endif

TEST_F(Flash, EraseSizeOfZeroIsRefused)
{
    devices::report_erase_size(0);
    EXPECT_EQ(bv_mtd_erase("config", 0, kBlock), BV_ERR_INVALID);
    EXPECT_EQ(devices::erase_requests(), 0u);
}

TEST_F(Flash, LargestBlockThatIsLookedAtHas655360Bytes)
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
