// SPDX-License-Identifier: ISC
// The example listener, with netlink messages of another process instead of the driver's.

#include "support/child.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <memory>

// The private root says whether its programs are another machine's: the emulator then answers for
// the kernel and knows only the kernel's own protocols.
#define SKIP_WITHOUT_NETLINK()                                                                     \
    if (getenv("BV_ROOT_USERLAND") != nullptr)                                                     \
    GTEST_SKIP() << "user-mode emulation refuses netlink protocols"

namespace {

class Listener : public testing::Test {
protected:
    void SetUp() override
    {
        // A preload path ends at a blank, and the build tree's may have some.
        (void)!symlink(BV_NETLINK_PRELOAD, "/scratch/netlink_preload.so");
        setenv("LD_PRELOAD", "/scratch/netlink_preload.so", 1);
        setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1); // the preloaded one comes first
        program_ = std::make_unique<Program>(std::vector<std::string>{BV_TOOL});
        unsetenv("LD_PRELOAD");
        ASSERT_TRUE(prints("listener: event 0: listening\n")) << program_->errors();
    }

    bool prints(const std::string &text) const
    {
        return eventually([&] { return program_->output().find(text) != std::string::npos; });
    }

    // One message of the driver, sent by another process.
    void driver_sends(const char *type, const std::string &text) const
    {
        Outcome outcome = run({BV_KERNEL_EVENT, std::to_string(program_->pid()), type, text});
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
    }

    std::unique_ptr<Program> program_;
};

TEST_F(Listener, PrintsTheEventOfItsOwnThreadAndEndsOnASignal)
{
    program_->signal(SIGTERM);
    EXPECT_EQ(program_->wait(), 0);
    EXPECT_EQ(program_->output(), "listener: event 0: listening\nlistener: ended, 0 events lost\n");
}

TEST_F(Listener, PrintsTheEventsItAskedForInTheirOrder)
{
    SKIP_WITHOUT_NETLINK();
    driver_sends("6", "link up eth0");
    driver_sends("5", "scan finished"); // not one of them
    driver_sends("6", std::string(500, 'x'));
    const std::string cut = "listener: event 8: " + std::string(127, 'x') + "\n"; // to its record
    ASSERT_TRUE(prints(cut)) << program_->output();

    program_->signal(SIGINT);
    EXPECT_EQ(program_->wait(), 0);
    EXPECT_EQ(program_->output(), "listener: event 0: listening\n"
                                  "listener: event 8: link up eth0\n" +
                                      cut + "listener: ended, 0 events lost\n");
}

} // namespace
