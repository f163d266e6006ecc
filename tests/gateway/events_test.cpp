// SPDX-License-Identifier: ISC
// Kernel events from the driver itself, over netlink protocol 26. All tests share one process and
// run in this order: the library's receive thread never ends.

#include "gateway/modules.h"
#include "support/capture_stdout.h"
#include "support/events.h"
#include "support/process.h"

#include <bv/ioctl.h>
#include <bv/notifier.h>
#include <bv/status.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

const std::string kDriver = "brovan_gw";

// Has the driver send something; its result.
uint32_t ask(const char *operation, std::string data)
{
    return bv_ioctl_call(operation, data.data(), static_cast<uint32_t>(data.size()));
}

template <typename Number>
std::string bytes_of(Number number)
{
    return std::string(reinterpret_cast<const char *>(&number), sizeof(number));
}

// Whether the socket took the message.
bool send(uint16_t type, const std::string &payload)
{
    return static_cast<int32_t>(ask("nl-send", bytes_of(type) + payload)) >= 0;
}

// All events before a marker that is sent now. After a burst the socket may be full, and takes
// nothing until it has been emptied.
Events settle()
{
    EXPECT_TRUE(eventually([] { return send(2, "end"); }));
    return events_before(4, "end");
}

class Events26 : public testing::Test {
protected:
    void SetUp() override
    {
        static const bool started = [] {
            modules::load(kDriver);
            EXPECT_EQ(bv_notifier_init(), 0); // opens the driver's socket too
            record_events_up_to<13>();
            EXPECT_TRUE(eventually([] { return modules::get(kDriver, "port") != 0; }));
            return true;
        }();
        ASSERT_TRUE(started);
        forget_events();
    }
};

TEST(EventsWithoutDriver, CannotBeReceived)
{
    ASSERT_FALSE(modules::loaded(kDriver));
    EXPECT_EQ(bv_netlink_init(), BV_ERR_FAILED);
}

TEST_F(Events26, RegistrationIsOneMessageOf1040BytesWithTheProcessIdAsPort)
{
    EXPECT_EQ(modules::get(kDriver, "port"), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(modules::get(kDriver, "registration_length"), 1040u);
    EXPECT_EQ(modules::get(kDriver, "registration_zero"), 1u) << "and nothing else";
}

TEST_F(Events26, SecondSocketFindsThePortIdTaken)
{
    EXPECT_EQ(bv_netlink_init(), static_cast<int32_t>(BV_ERR_CHANNEL));
}

TEST_F(Events26, EachDriverTypeBecomesItsEventOrAPrintedLineOrNothing)
{
    CaptureStdout output;
    for (uint16_t type = 0; type <= 12; type++)
        EXPECT_TRUE(send(type, "payload " + std::to_string(type)));
    EXPECT_EQ(settle(), (Events{{4, "payload 2"},
                                {5, "payload 4"},
                                {6, "payload 5"},
                                {8, "payload 6"},
                                {11, "payload 7"},
                                {12, "payload 8"},
                                {13, "payload 9"}}));
    EXPECT_EQ(output.stop(), "[bv_notifier_kernel:0139]type(0)-len(9)-data(payload 0)\r\n"
                             "[bv_notifier_kernel:0139]type(3)-len(9)-data(payload 3)\r\n"
                             "[bv_notifier_kernel:0139]type(10)-len(10)-data(payload 10)\r\n"
                             "[bv_notifier_kernel:0139]type(11)-len(10)-data(payload 11)\r\n"
                             "[bv_notifier_kernel:0139]type(12)-len(10)-data(payload 12)\r\n");
}

TEST_F(Events26, PayloadsUpToTheBuffersSizeArriveWholeAndLongerOnesAreCut)
{
    const std::string longest(1024, 'x');
    EXPECT_TRUE(send(2, ""));
    EXPECT_TRUE(send(2, longest));
    EXPECT_TRUE(send(2, longest + "cut off"));
    EXPECT_EQ(settle(), (Events{{4, ""}, {4, longest}, {4, longest}}));
}

TEST_F(Events26, BurstArrivesInOrderExceptForMessagesThatFoundTheSocketFull)
{
    constexpr uint32_t kCount = 10000;
    const uint32_t dropped_before = modules::get(kDriver, "dropped");
    const uint32_t failed = ask("nl-burst", bytes_of<uint16_t>(4) + bytes_of(kCount));
    const uint32_t dropped = modules::get(kDriver, "dropped") - dropped_before;
    EXPECT_EQ(failed, dropped) << "no message failed in any other way";

    const Events arrived = settle();
    EXPECT_EQ(arrived.size(), kCount - dropped);
    EXPECT_GT(arrived.size(), 0u);
    int64_t last = -1;
    for (const auto &[type, payload] : arrived) {
        ASSERT_EQ(type, 5u);
        ASSERT_EQ(payload.size(), 4u);
        uint32_t number;
        memcpy(&number, payload.data(), 4);
        ASSERT_GT(number, last);
        last = number;
    }
    RecordProperty("dropped", static_cast<int>(dropped));
    printf("burst: %zu of %u events arrived, %u found the socket full\n", arrived.size(), kCount,
           dropped);
}

} // namespace
