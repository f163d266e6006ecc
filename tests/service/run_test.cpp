// SPDX-License-Identifier: ISC
// bv_service_run(): what it refuses, how it ends, and how it lives through restarts of the bus.

#include "service/sample.h"

#include <csignal>
#include <fcntl.h>

namespace {

constexpr char kLanFile[] = "/config/work/userdata.json";

int run_sample(Sample &sample)
{
    sample.launch();
    return sample.wait();
}

void rename_host()
{
    uint8_t instance = 1;
    ASSERT_EQ(bv_ubus_client_init("sample"), BV_OK);
    EXPECT_EQ(bv_ubus_client_call("rename_host", &instance, 1), 0u);
    bv_ubus_client_exit();
}

TEST(ServiceRun, FaultsOfTheStructureAreRefused)
{
    static const bv_service_family twice[] = {{"lan.json", sizeof(Lan), 0, 0, nullptr, nullptr},
                                              {"lan.json", sizeof(Lan), 0, 0, nullptr, nullptr}};
    static const bv_service_family odd[] = {{"lan.json", sizeof(Lan), 3, 0, nullptr, nullptr}};
    static const bv_service_function empty[] = {{"get", nullptr}};
    static const bv_service_name high[] = {{"dhcp", 10}};
    const std::string long_name(101, 'a');
    const std::function<void(bv_service &)> faults[] = {
        [](bv_service &s) { s.size = 8; },
        [](bv_service &s) { s.size++; },
        [](bv_service &s) { s.flags = 2; },
        [](bv_service &s) { s.name = nullptr; },
        [](bv_service &s) { s.name = ""; },
        [](bv_service &s) { s.name = "a b"; },
        [&](bv_service &s) { s.name = long_name.c_str(); },
        [](bv_service &s) { s.object = ""; },
        [](bv_service &s) { s.families = nullptr; },
        [](bv_service &s) { s.families = twice; },
        [](bv_service &s) { s.families = odd, s.n_families = 1; },
        [](bv_service &s) { s.functions = empty, s.n_functions = 1; },
        [](bv_service &s) { s.n_writers = 1; },
        [](bv_service &s) { s.modules = high, s.n_modules = 1; }};
    for (size_t i = 0; i < sizeof(faults) / sizeof(faults[0]); i++) {
        Sample sample;
        faults[i](sample.service);
        EXPECT_EQ(run_sample(sample), BV_SERVICE_BAD_USE) << i;
        EXPECT_EQ(sample.seen->started, 0) << i;
    }
    EXPECT_EQ(run_in_child([] { return bv_service_run(nullptr); }), BV_SERVICE_BAD_USE);
}

TEST(ServiceRun, WithoutAServiceThereIsNothingToEndSaveOrChange)
{
    const Lan lan = {};
    errno = EPERM;
    bv_service_end();
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(bv_service_commit(), BV_ERR_FAILED);
    EXPECT_EQ(bv_service_commit_factory(), BV_ERR_FAILED);
    EXPECT_EQ(bv_service_change("lan.json", &lan, 1), BV_ERR_NO_FAMILY);
    EXPECT_EQ(bv_service_revert("lan.json"), BV_ERR_NO_FAMILY);
    EXPECT_EQ(bv_service_reset("lan.json"), BV_ERR_NO_FAMILY);
}

TEST(ServiceRun, StartCanEndTheServiceWithAStatus)
{
    Sample sample;
    sample.start_result = 42;
    EXPECT_EQ(run_sample(sample), 42);
}

TEST(ServiceRun, SignalsAndTheServiceItselfEndItInOrder)
{
    BusDaemon daemon;
    for (int number : {SIGTERM, SIGINT, 0}) {
        Sample sample;
        sample.start();
        if (number != 0) {
            sample.signal(number);
        } else {
            ASSERT_EQ(bv_ubus_client_init("sample"), BV_OK);
            EXPECT_EQ(bv_ubus_client_call("finish", nullptr, 0), 0u);
            bv_ubus_client_exit();
        }
        EXPECT_EQ(sample.wait(), BV_SERVICE_ENDED) << number;
        EXPECT_EQ(sample.seen->ended, 1) << number;
        EXPECT_TRUE(eventually([] { return !object_exists("sample.config"); }));
    }
}

// A signal that came in front of the loop's first wait would be lost without the pipe.
TEST(ServiceRun, SignalAtAnyMomentOfTheStartEndsIt)
{
    BusDaemon daemon;
    for (int delay_us = 0; delay_us < 60000; delay_us += 1500) {
        Sample sample;
        sample.launch();
        eventually([&] { return sample.seen->started == 1; });
        usleep(static_cast<useconds_t>(delay_us % 7500));
        sample.signal(SIGTERM);
        ASSERT_EQ(sample.wait(), BV_SERVICE_ENDED) << delay_us;
        ASSERT_EQ(sample.seen->ended, 1);
    }
}

// Without a bus that answers.
void expect_end_by_signal()
{
    Sample sample;
    sample.launch();
    ASSERT_TRUE(eventually([&] { return sample.seen->started == 1; }));
    usleep(20000);
    sample.signal(SIGTERM);
    EXPECT_EQ(sample.wait(), BV_SERVICE_ENDED);
    EXPECT_EQ(sample.seen->ended, 1);
}

TEST(ServiceRun, SignalEndsItWhileThereIsNoBus)
{
    expect_end_by_signal();
}

TEST(ServiceRun, SilentBusDoesNotKeepItFromEnding)
{
    SilentBus bus;
    expect_end_by_signal();
}

TEST(ServiceRun, UnsavedSettingsOutliveTheBusAndAreSavedAtTheEndIfAsked)
{
    for (uint32_t flags : {0u, BV_SERVICE_COMMIT_AT_END}) {
        auto daemon = std::make_unique<BusDaemon>();
        Sample sample;
        sample.service.flags = flags;
        sample.start();
        rename_host();
        daemon->kill();
        daemon->start();
        ASSERT_TRUE(wait_for_object("sample"));
        const Caller caller;
        EXPECT_NE(caller.ask("get", R"({"lan.json":["1"]})").find("renamed"), std::string::npos);
        EXPECT_EQ(sample.seen->started, 1);
        sample.signal(SIGTERM);
        EXPECT_EQ(sample.wait(), BV_SERVICE_ENDED);
        EXPECT_EQ(read_file(kLanFile).find("renamed") != std::string::npos, flags != 0);
    }
}

TEST(ServiceRun, NameThatIsTakenEndsTheSecondServiceAndNotTheFirst)
{
    BusDaemon daemon;
    Sample first;
    first.start();

    Sample same; // both objects
    EXPECT_EQ(run_sample(same), BV_SERVICE_NAME_TAKEN);
    Sample same_object("other");
    same_object.service.object = "sample";
    same_object.service.start = nullptr;
    same_object.service.end = nullptr;
    EXPECT_EQ(run_in_child([&] {
                  dup2(open("/scratch/errors", O_CREAT | O_WRONLY, 0600), STDERR_FILENO);
                  return bv_service_run(&same_object.service);
              }),
              BV_SERVICE_NAME_TAKEN);
    EXPECT_NE(read_file("/scratch/errors").find("sample or other.config"), std::string::npos);
    Sample same_name; // sample.config
    same_name.service.object = "another";
    EXPECT_EQ(run_sample(same_name), BV_SERVICE_NAME_TAKEN);
    EXPECT_EQ(same_name.seen->ended, 1);

    rename_host();
    EXPECT_TRUE(object_exists("sample.config"));
}

TEST(ServiceRun, ServiceStartsAtOnceAfterItWasKilled)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    for (int i = 0; i < 5; i++) {
        sample.signal(SIGKILL);
        EXPECT_EQ(sample.wait(), -SIGKILL);
        sample.launch();
        const Caller caller("sample", 10000);
        EXPECT_EQ(caller.ask("functions"), R"(["rename_host","finish"])");
    }
}

} // namespace
