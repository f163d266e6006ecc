// SPDX-License-Identifier: ISC
// The driver channel: the record byte for byte, results, and what happens to the caller's data.

#include "dev/devices.h"

#include <bv/ioctl.h>
#include <bv/os.h>

#include "support/capture_stdout.h"
#include "support/dirty_heap.h"
#include "support/faults.h"
#include "support/process.h"
#include "support/sanitized.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>

namespace {

std::vector<uint8_t> text(const char *s)
{
    return std::vector<uint8_t>(s, s + strlen(s));
}

class Driver : public testing::Test {
protected:
    void SetUp() override
    {
        devices::driver_load();
        descriptors_ = open_descriptors();
    }
    void TearDown() override { EXPECT_EQ(open_descriptors(), descriptors_); }

    std::vector<int> descriptors_;
};

TEST_F(Driver, RecordIsNameLengthResultAndData)
{
    char data[] = "hello";
    EXPECT_EQ(bv_ioctl_call("upper", data, 5), 0u);
    EXPECT_STREQ(data, "HELLO");

    const devices::DriverCall &call = devices::last_driver_call();
    std::vector<uint8_t> head(264, 0);
    memcpy(head.data(), "upper", 5);
    uint32_t len = 5;
    memcpy(head.data() + 256, &len, 4);
    EXPECT_EQ(call.head, head);
    EXPECT_EQ(call.data, text("hello"));
    EXPECT_EQ(call.open_flags & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
}

#ifndef BV_NOTHING_INTERPOSED
TEST_F(Driver, RecordHasOneByteMoreThanItsFieldsNeed)
{
    CaptureStdout output;
    FailAllocationsOfSize record(264 + 100 + 1);
    char data[100] = {'a'};
    EXPECT_EQ(bv_ioctl_call("upper", data, 100), uint32_t{BV_ERR_MEMORY});
    EXPECT_EQ(record.happened(), 1u);
    EXPECT_EQ(data[0], 'a');
    EXPECT_EQ(output.stop(), "malloc fail\n");
}
#endif

// A program for the target, or with musl, contains the C++ library: its blocks would count as ours.
#if !defined(BV_NOTHING_INTERPOSED) && !defined(__mips__) && defined(__GLIBC__)
TEST_F(Driver, RecordIsFreedWhateverBecomesOfTheCall)
{
    for (const char *name : {"result5", "reject"}) {
        watch_our_blocks();
        bv_ioctl_call(name, nullptr, 100);
        EXPECT_EQ(kSanitized ? 0 : our_blocks(), 0) << name;
    }
}
#endif

TEST_F(Driver, DriversResultIsReturnedAndItsDataTaken)
{
    uint8_t data[3] = {1, 2, 3};
    EXPECT_EQ(bv_ioctl_call("result5", data, 3), 5u);
    EXPECT_EQ(data[0], 0xa5);
    EXPECT_EQ(data[2], 0xa5);
}

TEST_F(Driver, RejectedRequestLeavesTheDataAndErrnoOutlivesTheClosing)
{
    devices::settings.closes_fail = true; // with EIO, where the device is made up
    uint8_t data[3] = {1, 2, 3};
    EXPECT_EQ(bv_ioctl_call("reject", data, 3), 0xffffffffu);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(data[0], 1);
    EXPECT_EQ(data[2], 3);
    bv_ioctl_record record = {"reject", 0, 0};
    EXPECT_EQ(bv_ioctl_system(&record), 0xffffffffu);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(Driver, AnyNonZeroResultOfTheIoctlIsReturnedAndLeavesTheData)
{
    devices::driver_odd_result(true);
    uint8_t data[3] = {1, 2, 3};
    EXPECT_EQ(bv_ioctl_call("result5", data, 3), 7u);
    EXPECT_EQ(data[0], 1);
    EXPECT_EQ(bv_ioctl_call("result5", nullptr, 0), 7u);
}

TEST_F(Driver, LengthZeroCarriesNoData)
{
    uint8_t data[1] = {0x42};
    EXPECT_EQ(bv_ioctl_call("result5", data, 0), 5u);
    EXPECT_EQ(data[0], 0x42);
    EXPECT_TRUE(devices::last_driver_call().data.empty());
}

TEST_F(Driver, NullDataStillAnnouncesItsLengthAndShowsNoStaleHeap)
{
    dirty_heap();
    EXPECT_EQ(bv_ioctl_call("result5", nullptr, 100), 5u);
    uint32_t len;
    memcpy(&len, devices::last_driver_call().head.data() + 256, 4);
    EXPECT_EQ(len, 100u);
    EXPECT_EQ(devices::last_driver_call().data, std::vector<uint8_t>(100, 0));
}

TEST_F(Driver, NameOf255CharactersArrivesWholeAndALongerOrNullOneEmpty)
{
    const std::string longest(255, 'n'), longer(256, 'n'), long_one(300, 'n');
    std::vector<uint8_t> whole(264, 0);
    std::fill_n(whole.begin(), 255, 'n');
    EXPECT_EQ(bv_ioctl_call(longest.c_str(), nullptr, 0), 0xfffffffeu);
    EXPECT_EQ(devices::last_driver_call().head, whole);
    for (const char *name :
         {longer.c_str(), long_one.c_str(), static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(bv_ioctl_call(name, nullptr, 0), 0xfffffffeu);
        EXPECT_EQ(devices::last_driver_call().head, std::vector<uint8_t>(264, 0));
    }
}

TEST_F(Driver, RecordThatCannotBeAllocatedIsOutOfMemory)
{
    uint8_t data[1] = {9};
    std::vector<uint8_t> largest(1310720 - 265);
    EXPECT_EQ(bv_ioctl_call("upper", largest.data(), 1310720 - 265), 0u);
    EXPECT_EQ(bv_ioctl_call("upper", data, 1310720 - 264), BV_ERR_MEMORY);
    EXPECT_EQ(bv_ioctl_call("upper", data, 1310721), BV_ERR_MEMORY);
    EXPECT_EQ(bv_ioctl_call("upper", data, 0xfffffef7), BV_ERR_MEMORY); // + 265 is 2^32
    EXPECT_EQ(bv_ioctl_call("upper", data, 0xffffffff), BV_ERR_MEMORY);
    EXPECT_EQ(data[0], 9);
}

TEST(DriverMissing, IsItsOwnCodeAndLeavesTheData)
{
    uint8_t data[2] = {1, 2};
    EXPECT_EQ(bv_ioctl_call("upper", data, 2), BV_ERR_CHANNEL);
    EXPECT_EQ(data[1], 2);
    EXPECT_EQ(bv_ioctl_call("upper", data, 0xffffffff), BV_ERR_MEMORY) << "memory comes first";
    bv_ioctl_record record = {};
    EXPECT_EQ(bv_ioctl_system(&record), BV_ERR_CHANNEL);
}

TEST_F(Driver, DescriptorOfZeroIsAsGoodAsAnyOther)
{
    WithoutStdin closed;
    char data[] = "abc";
    EXPECT_EQ(bv_ioctl_call("upper", data, 3), 0u);
    EXPECT_STREQ(data, "ABC");
}

TEST_F(Driver, CallersOwnRecordGoesAsItIs)
{
    struct {
        bv_ioctl_record head;
        char data[4];
    } record = {{"upper", 4, 0x1234}, {'a', 'b', 'c', 'd'}};
    EXPECT_EQ(bv_ioctl_system(&record), 0u);
    EXPECT_EQ(memcmp(record.data, "ABCD", 4), 0);
    EXPECT_EQ(record.head.result, 0u);
}

} // namespace
