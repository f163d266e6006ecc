// SPDX-License-Identifier: ISC
// A process that serves on one thread and calls from another. The platform's bus library shares
// buffers between connections and does not allow it; here each connection has all that it needs.

#include <bv/ubus.h>

#include "support/bus.h"

#include <thread>

#include <gtest/gtest.h>

namespace {

constexpr char kName[] = "brovan.gateway.server";

uint32_t add_one_to_each(void *data, uint32_t len)
{
    for (uint32_t i = 0; i < len; i++)
        static_cast<uint8_t *>(data)[i]++;
    return 70;
}

uint32_t end_the_loop(void *, uint32_t)
{
    uloop_end();
    return 0;
}

int register_functions()
{
    bv_ubus_server_reg("add_one", add_one_to_each);
    bv_ubus_server_reg("end", end_the_loop);
    return 0;
}

} // namespace

TEST(OneProcess, ServesOnOneThreadAndCallsFromAnother)
{
    BusDaemon daemon;
    int32_t status = -1;
    std::thread owner([&] { status = bv_ubus_server_init(nullptr, register_functions); });
    // Connecting begins while the owner opens its loop.
    EXPECT_EQ(bv_ubus_client_init(nullptr), 0);
    ASSERT_TRUE(wait_for_object(kName));

    for (int reconnect = 0; reconnect < 10; reconnect++) {
        ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
        for (uint8_t i = 0; i < 100; i++) {
            std::vector<uint8_t> data(1u + i * 50u, i);
            ASSERT_EQ(
                bv_ubus_client_call("add_one", data.data(), static_cast<uint32_t>(data.size())),
                70u);
            ASSERT_EQ(data, std::vector<uint8_t>(data.size(), static_cast<uint8_t>(i + 1)));
        }
    }
    EXPECT_EQ(bv_ubus_client_call("end", nullptr, 0), 0u);
    owner.join();
    EXPECT_EQ(status, 0);
    bv_ubus_client_exit();
}
