// SPDX-License-Identifier: ISC
// Blocks that an owner frees after a call and after a run: services answer for years, and start
// again whenever the bus was gone.

#include <bv/ubus.h>

#include "bus/scripted_bus.h"
#include "support/faults.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>

namespace {

// From the handler of one call to that of the next.
std::unique_ptr<HeapWatch> g_watch;
const void *g_bytes;

uint32_t start_watching(void *, uint32_t)
{
    g_watch = std::make_unique<HeapWatch>();
    return 0;
}

uint32_t stop_watching(void *data, uint32_t)
{
    g_watch->stop();
    g_bytes = data;
    return 0;
}

int register_two()
{
    EXPECT_EQ(bv_ubus_server_reg("start", start_watching), 0);
    EXPECT_EQ(bv_ubus_server_reg("stop", stop_watching), 0);
    return 0;
}

} // namespace

TEST(RpcAllocation, BytesThatContinueAShortRequestAreFreed)
{
    ScriptedBus bus([](Peer &peer) {
        peer.accept_object();
        peer.call(wire::request("start", 3, {1, 2, 3}));
        peer.call(wire::request("stop", 300, {1, 2, 3}));
    });
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_two), 0);
    bus.join();

    const std::vector<const void *> given_back = g_watch->given_back();
    EXPECT_EQ(std::count(given_back.begin(), given_back.end(), g_bytes), 1);
    g_watch = nullptr;
}

TEST(RpcAllocation, FunctionsOfAnEndedRunAreFreedAtTheNextStart)
{
    HeapWatch watch;
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_two), -1); // there is no bus
    watch.stop();
    const size_t given_back = watch.given_back().size();
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), -1);
    EXPECT_EQ(watch.given_back().size() - given_back, 2u + 2 * 3) << "the table and two entries";
}
