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

// As that, but slow enough to meet another one, which must not be.
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

void expect_service()
{
    Bytes data = {1, 2, 255};
    EXPECT_EQ(call("add_one", data), 7u);
    EXPECT_EQ(data, (Bytes{2, 3, 0}));
}

} // namespace

TEST(RpcBus, ACallRunsTheFunctionOverTheCallersBytes)
{
    BusDaemon daemon;
    const Owner owner = start_owner();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    expect_service();
    EXPECT_EQ(bv_ubus_client_call("length", nullptr, 0), 0u);
    bv_ubus_client_exit();
}

TEST(RpcBus, AnUnknownFunctionIs2AndLeavesTheBytesAlone)
{
    BusDaemon daemon;
    const Owner owner = start_owner();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    Bytes data = {1, 2, 3};
    EXPECT_EQ(call("nobody", data), 2u);
    EXPECT_EQ(data, (Bytes{1, 2, 3}));
    expect_service();
}

TEST(RpcBus, DataOfEveryLengthTravelsUnchangedButForTheFunction)
{
    BusDaemon daemon;
    const Owner owner = start_owner();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    for (size_t length :
         {1, 2, 3, 4, 5, 55, 56, 57, 4095, 4096, 65535, 65536, 65537, 300001, 1000000}) {
        SCOPED_TRACE(length);
        Bytes data = counted(length);
        Bytes expected = data;
        for (uint8_t &byte : expected)
            byte++;
        EXPECT_EQ(call("add_one", data), 7u);
        EXPECT_TRUE(data == expected);
    }
}

TEST(RpcBus, TheExampleRecordIsSetAndGot)
{
    BusDaemon daemon;
    const Owner owner = start_owner();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
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

TEST(RpcBus, ASecondOwnerOfANameGets2AndTheFirstGoesOn)
{
    BusDaemon daemon;
    const Owner first = start_owner();
    Service second([] { return bv_ubus_server_init(nullptr, register_functions); });
    EXPECT_EQ(second.wait(), 2);
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    expect_service();
}

TEST(RpcBus, SigtermAndSigintEndAnOwnerInOrder)
{
    BusDaemon daemon;
    for (int number : {SIGTERM, SIGINT}) {
        const Owner owner = start_owner();
        ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
        expect_service(); // it is in its loop
        owner->signal(number);
        EXPECT_EQ(owner->wait(), 0);
    }
}

TEST(RpcBus, AnOwnerThatWasKilledIsServedAgainAfterItsRestart)
{
    BusDaemon daemon;
    Owner owner = start_owner();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    expect_service();

    owner->signal(SIGKILL);
    EXPECT_EQ(owner->wait(), -SIGKILL);
    Bytes data = {1};
    while (object_exists(kDefaultName))
        bv_os_msleep(1);
    EXPECT_EQ(call("add_one", data), 4u);
    EXPECT_EQ(data, Bytes{1});

    owner = start_owner();
    EXPECT_EQ(call("add_one", data), 4u) << "the object has another id now";
    bv_ubus_client_exit();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    expect_service();
}

TEST(RpcBus, AnOwnerThatDiesInACallLeavesTheCallerToItsTimeOut)
{
    BusDaemon daemon;
    const Owner owner = start_owner();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    Bytes data = {1, 2, 3};
    EXPECT_EQ(call("die", data), 7u);
    EXPECT_EQ(data, (Bytes{1, 2, 3}));
    EXPECT_EQ(call("add_one", data), 4u);
}

TEST(RpcBus, ACallerMayStartBeforeItsOwner)
{
    BusDaemon daemon;
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    Bytes data = {1};
    EXPECT_EQ(call("add_one", data), 4u);
    const Owner owner = start_owner();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    expect_service();
}

TEST(RpcBus, OwnersAndCallersComeBackAfterTheDaemonsRestart)
{
    BusDaemon daemon;
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
        ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
        expect_service();
        daemon.kill();
        Bytes data = {1};
        EXPECT_EQ(call("add_one", data), 2u) << "found dead when sending";
        EXPECT_EQ(data, Bytes{1});
        bv_ubus_client_exit();
        daemon.start();
    }
    ASSERT_TRUE(wait_for_object(kDefaultName));
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    expect_service();
}

TEST(RpcBus, ALostDaemonEndsTheOwnersRunWith0)
{
    BusDaemon daemon;
    const Owner owner = start_owner();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    expect_service();
    daemon.kill();
    EXPECT_EQ(owner->wait(), 0);
}

TEST(RpcBus, AnOwnerWhoseLoopEndedMayServeAgainInTheSameProcess)
{
    BusDaemon daemon;
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
        // 7, or 4, in the moment between two runs.
        EXPECT_TRUE(eventually([] {
            Bytes none;
            return bv_ubus_client_init(nullptr) == 0 && call("end", none) == 0;
        })) << run;
    }
    EXPECT_EQ(owner.wait(), 33);
}

TEST(RpcBus, AFunctionMayCallAnotherServicesFunction)
{
    BusDaemon daemon;
    const Owner second = start_owner(kSecondName);
    Service first([] {
        return bv_ubus_server_init(nullptr, [] {
            register_functions();
            return static_cast<int>(bv_ubus_client_init(kSecondName));
        });
    });
    ASSERT_TRUE(wait_for_object(kDefaultName));
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    for (int i = 0; i < 20; i++) {
        Bytes data = {1, 2, 3};
        EXPECT_EQ(call("pass_on", data), 107u);
        EXPECT_EQ(data, (Bytes{2, 3, 4}));
        expect_service();
    }
}

TEST(RpcBus, SeveralCallersAreServedOneAtATimeAndGetTheirOwnBytes)
{
    BusDaemon daemon;
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

TEST(RpcBus, ObjectNamesOf127CharactersAreReachedAndLongerOnesAreNot)
{
    BusDaemon daemon;
    const std::string longest(127, 'o');
    const Owner owner = start_owner(longest.c_str());
    ASSERT_EQ(bv_ubus_client_init(longest.c_str()), 0);
    expect_service();

    const std::string longer(128, 'o');
    Service lost([&] { return bv_ubus_server_init(longer.c_str(), register_functions); });
    // It is published under the empty name: seen in a list of everything only.
    ASSERT_TRUE(eventually([] { return object_is_listed(""); }));
    ASSERT_EQ(bv_ubus_client_init(longer.c_str()), 0);
    Bytes data = {1};
    EXPECT_EQ(call("add_one", data), 4u);
    ASSERT_EQ(bv_ubus_client_init(""), 0);
    EXPECT_EQ(call("add_one", data), 4u);
    lost.signal(SIGTERM);
}

TEST(RpcBus, TheLongestCallTravelsThereAndBack)
{
    BusDaemon daemon;
    const Owner owner = start_owner();
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    Bytes data = counted(1048372); // with the account names that the daemon adds
    Bytes expected = data;
    for (uint8_t &byte : expected)
        byte++;
    EXPECT_EQ(call("add_one", data), 7u);
    EXPECT_TRUE(data == expected);
    for (size_t length : {1048373, 1048440, 1048500, 1048577}) {
        SCOPED_TRACE(length);
        data.resize(length);
        EXPECT_EQ(call("add_one", data), 2u);
        expect_service(); // the owner still understands the bus
    }
}
