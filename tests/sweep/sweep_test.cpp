// SPDX-License-Identifier: ISC
// Each exported function with each of the calls that it makes failing, one at a time: nothing
// crashes or hangs, results are those that the headers promise, no descriptor and no block of
// memory is lost, and the next call works.

#include "sweep/sweep.h"

#include "support/bus.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <string>

namespace {

using sweep::Case;

// Data, and what an owner that serves a request calls: swept with bv_ubus_server_init.
constexpr char kOthers[] =
    "g_st_db_mng g_st_notifier_sem bv_ubus_send_reply bv_ubus_complete_deferred_request";

std::set<std::string> words(const std::string &text)
{
    std::istringstream in(text);
    std::set<std::string> found;
    std::string word;
    while (in >> word)
        found.insert(word);
    return found;
}

TEST(Sweep, EveryExportedNameIsSweptOrPlain)
{
    std::multiset<std::string> covered;
    for (const auto &cases :
         {sweep::os_cases(), sweep::ipc_cases(), sweep::debug_cases(), sweep::core_cases(),
          sweep::db_cases(), sweep::crypto_cases(), sweep::flash_reading_cases(),
          sweep::flash_writing_cases(), sweep::flash_erasing_cases(), sweep::driver_cases(),
          sweep::message_cases(), sweep::loop_cases(), sweep::client_cases(), sweep::owner_cases(),
          sweep::plain_cases()}) {
        for (const Case &c : cases)
            covered.insert(c.name);
    }
    for (const std::string &name : words(kOthers))
        covered.insert(name);

    const std::set<std::string> exported = words(read_file(BV_TEST_SOURCE_DIR "/abi/exports.txt"));
    for (const std::string &name : exported)
        EXPECT_EQ(covered.count(name), 1u) << name;
    for (const std::string &name : covered)
        EXPECT_EQ(exported.count(name), 1u) << name;
    EXPECT_EQ(exported.size(), 308u);
}

TEST(Sweep, PlainFunctionsMakeNoCallThatCouldFail)
{
    sweep::expect_plain(sweep::plain_cases());
}

#define SWEEP(name, cases)                                                                         \
    TEST(Sweep, name)                                                                              \
    {                                                                                              \
        sweep::sweep(sweep::cases());                                                              \
    }
SWEEP(FilesSocketsShell, os_cases)
SWEEP(ThreadsSemaphoresSignals, ipc_cases)
SWEEP(DebugChannelAndStartUp, debug_cases)
SWEEP(TablesQueuesEvents, core_cases)
SWEEP(Database, db_cases)
SWEEP(Crypto, crypto_cases)
SWEEP(FlashReading, flash_reading_cases)
SWEEP(FlashWriting, flash_writing_cases)
SWEEP(FlashErasing, flash_erasing_cases)
SWEEP(DriverAndTransfer, driver_cases)
SWEEP(Messages, message_cases)
SWEEP(EventLoop, loop_cases)

TEST(Sweep, Callers)
{
    BusDaemon bus;
    Service owner(sweep::run_owner);
    ASSERT_TRUE(wait_for_object(sweep::kOwner));
    sweep::sweep(sweep::client_cases());
}

TEST(Sweep, Owners)
{
    BusDaemon bus;
    sweep::sweep(sweep::owner_cases());
}

} // namespace
