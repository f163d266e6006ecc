/* SPDX-License-Identifier: ISC */
#include "sweep/sweep.h"

#include "support/child.h"
#include "support/process.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace sweep {

namespace {

constexpr unsigned kHangSeconds = 60; // far beyond any time-out of the library
constexpr int kMostCalls = 512;       // of one function in one call; more is a loop without end

constexpr int kMostEmulated = 2; // of a slow one where it is emulated

// What a run tells its parent.
struct Report {
    bool finished;
    bool happened;
    bool honest; // what the call with the fault claimed is so
    bool works;
    int64_t result;       // of the call with the fault
    int64_t later_result; // of the one after it
    int descriptors;      // more than before, after cleaning; and after the later call
    int later_descriptors;
    int blocks; // in use after cleaning
    int calls[128];
};

void run_action(const Case::Action &action)
{
    if (action)
        action();
}

void run_case(const Case &c, FaultPoint *fault, int nth, Report &report)
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO); // the library prints about refused allocations
    close(nowhere);
    run_action(c.prepare);
    const int before = static_cast<int>(open_descriptors().size());
    const auto &faults = FaultPoint::all();
    for (FaultPoint *each : faults)
        each->pass();
    if (fault != nullptr)
        fault->fail_next(nth);
    watch_our_blocks();
    report.result = c.call();
    report.happened = fault != nullptr && fault->failures() > 0;
    for (size_t i = 0; i < faults.size(); i++)
        report.calls[i] = faults[i]->calls();
    if (fault != nullptr)
        fault->pass();
    report.honest = !c.honest || !one_of(c.good, report.result) || c.works();
    run_action(c.clean);
    report.blocks = our_blocks();
    report.descriptors = static_cast<int>(open_descriptors().size()) - before;

    run_action(c.prepare);
    report.later_result = c.call();
    report.works = c.works();
    run_action(c.clean);
    report.later_descriptors = static_cast<int>(open_descriptors().size()) - before;
    report.finished = true;
}

// Runs a case with one fault, or none, in a process of its own. False when it came to no end.
bool run(const Case &c, FaultPoint *fault, int nth, Report &result)
{
    static Report &report = *share_with_children<Report>();
    report = Report{};
    fflush(nullptr);
    const int status = run_in_child(
        [&] {
            run_case(c, fault, nth, report);
            return 0;
        },
        kHangSeconds);
    result = report;
    if (status == -SIGALRM)
        ADD_FAILURE() << "hangs";
    else if (status != 0)
        ADD_FAILURE() << "dies with status " << status;
    return status == 0 && report.finished;
}

void check_run(const Case &c, const Report &dry, const Report &report)
{
    EXPECT_TRUE(one_of(c.good, report.result) || one_of(c.bad, report.result))
        << "returned " << report.result;
    EXPECT_TRUE(report.honest) << "returned " << report.result << " without doing its work";
    const int kept = one_of(c.good, report.result) ? c.kept : 0;
    EXPECT_LE(report.descriptors, kept) << "descriptors left open";
    if (!kSanitized && !c.threads) {
        EXPECT_LE(report.blocks, dry.blocks) << "blocks lost";
    }
    EXPECT_TRUE(one_of(c.later.empty() ? c.good : c.later, report.later_result))
        << "then returned " << report.later_result;
    EXPECT_LE(report.later_descriptors, kept + c.kept) << "descriptors left open by the next call";
    EXPECT_TRUE(report.works) << "the next call did not do its work";
}

bool is_cut(const Case &c)
{
    return c.slow && getenv("BV_ROOT_USERLAND") != nullptr;
}

// Lets one fault hit the first, second, ... call until it hits none. Returns how often it did.
int sweep_fault(const Case &c, const Report &dry, FaultPoint &fault)
{
    const bool cut = is_cut(c);
    const int most = cut ? kMostEmulated : kMostCalls;
    for (int nth = 1; nth <= most; nth++) {
        SCOPED_TRACE(std::string(fault.name()) + " number " + std::to_string(nth) + " fails");
        Report report;
        if (!run(c, &fault, nth, report))
            return nth; // said already
        if (!report.happened)
            return nth - 1;
        check_run(c, dry, report);
    }
    EXPECT_TRUE(cut) << "calls " << fault.name() << " without end";
    return most;
}

void sweep_case(const Case &c)
{
    SCOPED_TRACE(c.name);
    Report dry;
    {
        SCOPED_TRACE("nothing fails");
        if (!run(c, nullptr, 0, dry))
            return;
        EXPECT_TRUE(one_of(c.good, dry.result)) << "returned " << dry.result;
        check_run(c, dry, dry);
    }

    int failures = 0;
    std::string met;
    const auto &faults = FaultPoint::all();
    ASSERT_LE(faults.size(), sizeof(dry.calls) / sizeof(dry.calls[0]));
    for (size_t i = 0; i < faults.size(); i++) {
        if (dry.calls[i] == 0)
            continue;
        const int count = sweep_fault(c, dry, *faults[i]);
        failures += count;
        met += std::string(" ") + faults[i]->name() + ":" + std::to_string(count);
    }
    EXPECT_TRUE(failures > 0 || !FaultPoint::has_all_stand_ins())
        << "nothing in it fails: it belongs to the plain ones";
    printf("%-28s%4d failures:%s%s\n", c.name, failures, met.c_str(),
           is_cut(c) ? " (the first of each only: shells take long under emulation)" : "");
}

} // namespace

void give_back(int fd)
{
    if (fd >= 0)
        syscall(SYS_close, fd);
}

void sweep(const std::vector<Case> &cases)
{
    const char *only = getenv("SWEEP_ONLY"); // one function by name, while looking for a fault
    for (const Case &c : cases) {
        if (only == nullptr || strcmp(only, c.name) == 0)
            sweep_case(c);
    }
}

void expect_plain(const std::vector<Case> &cases)
{
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Report report;
        if (!run(c, nullptr, 0, report))
            continue;
        EXPECT_TRUE(one_of(c.good, report.result)) << "returned " << report.result;
        for (size_t i = 0; i < FaultPoint::all().size(); i++)
            EXPECT_EQ(report.calls[i], 0) << FaultPoint::all()[i]->name() << " may fail";
    }
}

} // namespace sweep
