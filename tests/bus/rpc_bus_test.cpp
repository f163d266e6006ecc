// SPDX-License-Identifier: ISC
// Owners and callers over a real bus daemon, each a process of its own: services that come, go,
// crash and come back.

#include <bv/os.h>
#include <bv/ubus.h>

#include "support/bus.h"
#include "support/process.h"
#include "support/wire.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr char kDefaultName[] = "brovan.gateway.server";
constexpr char kSecondName[] = "second.server";

uint32_t add_one_to_each(void *data, uint32_t len)
{
    for (uint32_t i = 0; i < len; i++)
        static_cast<uint8_t *>(data)[i]++;
    return 7;
}

// The same, but slow enough to meet a second call at the same time, which must not happen.
uint32_t alone(void *data, uint32_t len)
{
    static std::atomic<bool> running{false};
    if (running.exchange(true))
        return 99;
    bv_os_msleep(1);
    const uint32_t result = add_one_to_each(data, len);
    running = false;
    return result;
}

uint32_t return_length(void *, uint32_t len)
{
    return len;
}

uint32_t die(void *, uint32_t)
{
    raise(SIGKILL);
    return 0;
}

uint32_t end_the_loop(void *, uint32_t)
{
    uloop_end();
    return 0;
}

// Passes the call on to the second server.
uint32_t pass_on(void *data, uint32_t len)
{
    return bv_ubus_client_call("add_one", data, len) + 100;
}

int register_functions()
{
    bv_ubus_server_reg("add_one", add_one_to_each);
    bv_ubus_server_reg("alone", alone);
    bv_ubus_server_reg("length", return_length);
    bv_ubus_server_reg("die", die);
    bv_ubus_server_reg("end", end_the_loop);
    bv_ubus_server_reg("pass_on", pass_on);
    bv_ubus_server_reg("get", bv_example_get);
    bv_ubus_server_reg("set", bv_example_set);
    return 0;
}

using Owner = std::unique_ptr<Service>;

// An owner whose object is on the bus. Its exit code is what bv_ubus_server_init() returned.
Owner start_owner(const char *name = nullptr)
{
    Owner owner =
        std::make_unique<Service>([name] { return bv_ubus_server_init(name, register_functions); });
    EXPECT_TRUE(wait_for_object(name != nullptr ? name : kDefaultName));
    return owner;
}

Bytes counted(size_t length)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; i++)
        bytes[i] = static_cast<uint8_t>(i * 131 + length);
    return bytes;
}

uint32_t call(const char *func, Bytes &data)
{
    return bv_ubus_client_call(func, data.data(), static_cast<uint32_t>(data.size()));
}

// Calls add_one with so many bytes, which must come back one larger each.
void expect_service(size_t length = 3)
{
    Bytes data = counted(length), expected = data;
    for (uint8_t &byte : expected)
        byte++;
    EXPECT_EQ(call("add_one", data), 7u) << length;
    EXPECT_TRUE(data == expected) << length;
}

// A call that fails and leaves the bytes alone.
void expect_status(const char *func, uint32_t status)
{
    Bytes data = {1, 2, 3};
    EXPECT_EQ(call(func, data), status);
    EXPECT_EQ(data, (Bytes{1, 2, 3}));
}

void connect()
{
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
}

// A daemon for every test.
class RpcBus : public testing::Test {
protected:
    BusDaemon daemon;
};

} // namespace

TEST_F(RpcBus, CallRunsTheFunctionOverTheCallersBytes)
{
    const Owner owner = start_owner();
    connect();
    EXPECT_EQ(bv_ubus_client_call("length", nullptr, 0), 0u);
    expect_status("nobody", 2);
    for (size_t length :
         {1, 2, 3, 4, 5, 55, 56, 57, 4095, 4096, 65535, 65536, 65537, 300001, 1000000})
        expect_service(length);
    bv_ubus_client_exit();
}

TEST_F(RpcBus, LongestCallTravelsThereAndBack)
{
    const Owner owner = start_owner();
    connect();
    expect_service(1048372); // with the account names that the daemon adds
    for (size_t length : {1048373, 1048440, 1048500, 1048577}) {
        Bytes data = counted(length);
        EXPECT_EQ(call("add_one", data), 2u) << length;
        expect_service(); // the owner still understands the bus
    }
}

TEST_F(RpcBus, ExampleRecordIsSetAndGot)
{
    const Owner owner = start_owner();
    connect();
    Bytes data(56, 0xee);
    EXPECT_EQ(call("get", data), 0u);
    EXPECT_EQ(data, Bytes(56)) << "zero at load";
    data = counted(56);
    EXPECT_EQ(call("set", data), 0u);
    EXPECT_EQ(data, counted(56));
    Bytes got(56);
    EXPECT_EQ(call("get", got), 0u);
    EXPECT_EQ(got, counted(56));
}

TEST_F(RpcBus, SecondOwnerOfANameGets2AndTheFirstGoesOn)
{
    const Owner first = start_owner();
    Service second([] { return bv_ubus_server_init(nullptr, register_functions); });
    EXPECT_EQ(second.wait(), 2);
    connect();
    expect_service();
}

TEST_F(RpcBus, SigtermAndSigintEndAnOwnerWith0)
{
    for (int number : {SIGTERM, SIGINT}) {
        const Owner owner = start_owner();
        connect();
        expect_service(); // it is in its loop
        owner->signal(number);
        EXPECT_EQ(owner->wait(), 0);
    }
}

TEST_F(RpcBus, KilledOwnerIsReachedAgainAfterItsRestart)
{
    Owner owner = start_owner();
    connect();
    expect_service();

    owner->signal(SIGKILL);
    EXPECT_EQ(owner->wait(), -SIGKILL);
    EXPECT_TRUE(eventually([] { return !object_exists(kDefaultName); }));
    expect_status("add_one", 4);
    owner = start_owner();
    expect_status("add_one", 4); // the object has another id now
    bv_ubus_client_exit();
    connect();
    expect_service();
}

TEST_F(RpcBus, OwnerThatDiesInACallLeavesTheCallerToItsTimeout)
{
    const Owner owner = start_owner();
    connect();
    expect_status("die", 7);
    expect_status("add_one", 4);
}

TEST_F(RpcBus, CallerMayStartBeforeItsOwner)
{
    connect();
    expect_status("add_one", 4);
    const Owner owner = start_owner();
    connect();
    expect_service();
}

TEST_F(RpcBus, OwnersAndCallersComeBackAfterTheDaemonsRestart)
{
    // As a supervisor would: starts again for as long as there is work.
    Service owner([] {
        for (;;) {
            bv_ubus_server_init(nullptr, register_functions);
            bv_os_msleep(5);
        }
        return 0;
    });
    for (int round = 0; round < 3; round++) {
        SCOPED_TRACE(round);
        ASSERT_TRUE(wait_for_object(kDefaultName));
        connect();
        expect_service();
        daemon.kill();
        expect_status("add_one", 2); // found dead when sending
        bv_ubus_client_exit();
        daemon.start();
    }
    ASSERT_TRUE(wait_for_object(kDefaultName));
    connect();
    expect_service();
}

TEST_F(RpcBus, LostDaemonEndsTheOwnersRunWith0)
{
    const Owner owner = start_owner();
    connect();
    expect_service();
    daemon.kill();
    EXPECT_EQ(owner->wait(), 0);
}

TEST_F(RpcBus, OwnerWhoseLoopEndedMayServeAgainInTheSameProcess)
{
    Service owner([] {
        for (int run = 0; run < 3; run++) {
            const int status = bv_ubus_server_init(nullptr, register_functions);
            if (status != 0)
                return status;
        }
        return 33;
    });
    ASSERT_TRUE(wait_for_object(kDefaultName));
    for (int run = 0; run < 3; run++) {
        // 7, or 4 between two runs.
        EXPECT_TRUE(eventually([] {
            Bytes none;
            return bv_ubus_client_init(nullptr) == 0 && call("end", none) == 0;
        })) << run;
    }
    EXPECT_EQ(owner.wait(), 33);
}

TEST_F(RpcBus, FunctionMayCallAnotherServicesFunction)
{
    const Owner second = start_owner(kSecondName);
    Service first([] {
        return bv_ubus_server_init(nullptr, [] {
            register_functions();
            return static_cast<int>(bv_ubus_client_init(kSecondName));
        });
    });
    ASSERT_TRUE(wait_for_object(kDefaultName));
    connect();
    for (int i = 0; i < 20; i++) {
        Bytes data = {1, 2, 3};
        EXPECT_EQ(call("pass_on", data), 107u);
        EXPECT_EQ(data, (Bytes{2, 3, 4}));
        expect_service();
    }
}

TEST_F(RpcBus, SeveralCallersAreServedOneAtATimeAndGetTheirOwnBytes)
{
    const Owner owner = start_owner();
    std::vector<Owner> callers;
    for (uint8_t number = 0; number < 4; number++) {
        callers.push_back(std::make_unique<Service>([number] {
            if (bv_ubus_client_init(nullptr) != 0)
                return 1;
            for (uint8_t i = 0; i < 100; i++) {
                Bytes data(1u + number * 700u + i, static_cast<uint8_t>(number + i));
                if (call("alone", data) != 7)
                    return 2;
                if (data != Bytes(data.size(), static_cast<uint8_t>(number + i + 1)))
                    return 3;
            }
            return 0;
        }));
    }
    for (const Owner &caller : callers)
        EXPECT_EQ(caller->wait(), 0);
}

TEST_F(RpcBus, ObjectNamesOf127CharactersAreReachedAndLongerOnesAreNot)
{
    const std::string longest(127, 'o');
    const Owner owner = start_owner(longest.c_str());
    ASSERT_EQ(bv_ubus_client_init(longest.c_str()), 0);
    expect_service();

    const std::string longer(128, 'o');
    Service lost([&] { return bv_ubus_server_init(longer.c_str(), register_functions); });
    // It is published under the empty name: seen in a list of everything only.
    ASSERT_TRUE(eventually([] { return object_is_listed(""); }));
    ASSERT_EQ(bv_ubus_client_init(longer.c_str()), 0);
    expect_status("add_one", 4);
    ASSERT_EQ(bv_ubus_client_init(""), 0);
    expect_status("add_one", 4);
    lost.signal(SIGTERM);
}
