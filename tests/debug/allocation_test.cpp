// SPDX-License-Identifier: ISC
// Blocks taken and freed: a switch table stays allocated on purpose, a datagram's block never.

#include <bv/debug.h>

#include "support/faults.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

namespace {

using Sizes = std::vector<size_t>;

} // namespace

TEST(DebugAllocation, SwitchTableIs80BytesAndStaysWhenAnotherReplacesIt)
{
    HeapWatch watch;
    bv_debug_init();
    watch.stop();
    EXPECT_EQ(watch.taken(), Sizes{80});
    bv_debug_init();
    EXPECT_TRUE(watch.given_back().empty()) << "another thread may be reading it";
}

TEST(DebugAllocation, MessageIsOneBlockThatIsFreedSentOrNot)
{
    bv_debug_init();
    const bv_debug_cfg closed_port = {htonl(INADDR_LOOPBACK), 9, 0};
    bv_debug_set_cfg(&closed_port);
    const bv_debug_header header = {};
    const struct {
        uint16_t length;
        size_t block;
    } rows[] = {{0, 2048}, {2038, 2048}, {2039, 2049}, {65525, 65535}, {65535, 2048}};
    for (const auto &row : rows) { // one of 65525 does not fit a datagram and is refused
        HeapWatch watch;
        bv_debug_sendmsg(&header, nullptr, row.length);
        watch.stop();
        EXPECT_EQ(watch.taken(), Sizes{row.block}) << row.length;
        EXPECT_EQ(watch.given_back().size(), 1u) << row.length;
    }
}

TEST(DebugAllocation, MessageThatIsOffTakesNone)
{
    bv_debug_init();
    HeapWatch watch;
    bv_debug_remote(1, 2, 3, 4, "%s", "off");
    watch.stop();
    EXPECT_TRUE(watch.taken().empty());
}
