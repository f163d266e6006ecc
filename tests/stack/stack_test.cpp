// SPDX-License-Identifier: ISC
// How deep each exported function goes into the stack, with all that it calls: a service on the
// gateway may run it in a thread with a small stack. The stack under the call is painted first, and
// how much of the paint is gone afterwards is the figure.
//
// The bound counts for the gateway, 32-bit with musl. On a workstation words are twice as long and
// the C library is another one, so the same test is only a coarse one there.

#include "sweep/sweep.h"

#include "support/bus.h"
#include "support/child.h"
#include "support/files.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

using sweep::Case;

constexpr size_t kBound = 8 * 1024;

// Those that go deeper: the figure measured on the target, which holds up to the next whole KiB.
struct Exception {
    const char *function;
    size_t bytes;
};
constexpr Exception kExceptions[] = {
    // Two batches of the file at once, in and out.
    {"bv_aes_file_de", 12928},
    {"bv_aes_file_en", 10920},
    // The text of a whole write to the data file.
    {"bv_db_commit", 9648},
    {"bv_db_factory", 9648},
    {"bv_db_private", 9648},
    {"bv_db_user_write", 9648},
    // A template that is searched for takes a capture; reading its file alone takes 6200.
    {"bv_db_restore", 9760},
    {"bv_db_start", 9760},
    {"bv_db_template", 9760},
    {"bv_db_template_read", 9728},
    {"bv_db_template_read_single", 9616},
    {"bv_db_trigger", 9800},
    // Captures, and what makes one: system() of musl alone takes most of it.
    {"bv_os_systemex", 8440},
    {"bv_os_sysmatch", 8464},
    {"bv_os_record_output", 8520},
    {"bv_mtd_get_info", 8552},
    {"bv_mtd_read", 8760},
    {"bv_mtd_write", 8760},
    {"bv_mtd_erase", 8896},
    // A pattern of 256 characters; it is compiled recursively, about 64 bytes for each.
    {"bv_os_match", 14088},
};

#if defined(__mips__) && !defined(__GLIBC__)
constexpr size_t kFactor = 1;
#else
constexpr size_t kFactor = 4;
#endif

size_t bound_of(const char *function)
{
    for (const Exception &exception : kExceptions) {
        if (strcmp(exception.function, function) == 0)
            return kFactor * ((exception.bytes + 1023) / 1024 * 1024);
    }
    return kFactor * kBound;
}

// ---- the paint ----

constexpr size_t kPainted = 512 * 1024; // far more than anything takes
constexpr size_t kSpared = 256;         // at the top, for what paints
constexpr uint32_t kPaint = 0x5afe57ac;

// Where the stack of a function that the caller calls begins.
__attribute__((noinline)) uintptr_t top_of_callee()
{
    return reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
}

uint32_t *painted_from(uintptr_t top)
{
    return reinterpret_cast<uint32_t *>((top - kPainted) & ~uintptr_t{15});
}

// Not memset, whose own frame would be in the way. Downwards, as a stack grows.
__attribute__((noinline)) void paint(uint32_t *from, uintptr_t top)
{
    for (volatile uint32_t *at = reinterpret_cast<uint32_t *>(top - kSpared) - 1; at >= from; at--)
        *at = kPaint;
}

// The depth of one call, up to the few words that the test puts in between.
__attribute__((noinline)) size_t depth_of(const Case &c, int64_t &result)
{
    const uintptr_t top = top_of_callee();
    uint32_t *const from = painted_from(top);
    paint(from, top);
    result = c.call();
    const volatile uint32_t *deepest = from;
    while (*deepest == kPaint)
        deepest++;
    return top - reinterpret_cast<uintptr_t>(deepest);
}

// ---- a process for each case ----

struct Report {
    bool finished;
    int64_t results[2];
    size_t depths[2]; // the first call's, and the second's, when all is loaded and set up
};

void run_twice(const Case &c, Report &report)
{
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
    for (int i = 0; i < 2; i++) {
        if (c.prepare)
            c.prepare();
        report.depths[i] = depth_of(c, report.results[i]);
        if (c.clean)
            c.clean();
    }
    report.finished = true;
}

bool run(const Case &c, Report &result)
{
    static Report &report = *share_with_children<Report>();
    report = Report{};
    fflush(nullptr);
    const int status = run_in_child(
        [&] {
            run_twice(c, report);
            return 0;
        },
        60);
    result = report;
    return status == 0 && report.finished;
}

void measure(const std::vector<Case> &cases)
{
    std::multimap<size_t, std::string> figures;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Report report;
        ASSERT_TRUE(run(c, report));
        EXPECT_TRUE(sweep::one_of(c.good, report.results[0])) << "returned " << report.results[0];
        EXPECT_TRUE(sweep::one_of(c.later.empty() ? c.good : c.later, report.results[1]))
            << "then returned " << report.results[1];
        const size_t depth = std::max(report.depths[0], report.depths[1]);
        EXPECT_LE(depth, bound_of(c.name)) << "bytes of stack";
        figures.emplace(depth, c.name);
    }
    for (auto figure = figures.rbegin(); figure != figures.rend(); ++figure)
        printf("%6zu %s\n", figure->first, figure->second.c_str());
}

// All that need no bus.
std::vector<Case> cases_without_bus()
{
    std::vector<Case> all;
    for (const auto &group :
         {sweep::plain_cases(), sweep::hard_cases(), sweep::os_cases(), sweep::ipc_cases(),
          sweep::debug_cases(), sweep::core_cases(), sweep::db_cases(), sweep::crypto_cases(),
          sweep::flash_reading_cases(), sweep::flash_writing_cases(), sweep::flash_erasing_cases(),
          sweep::driver_cases(), sweep::message_cases(), sweep::loop_cases()})
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

TEST(Stack, EveryExportedFunctionIsMeasured)
{
    // Two are data. The last two are called by an owner that serves a request: in its figure.
    std::set<std::string> measured = {"g_st_db_mng", "g_st_notifier_sem", "bv_ubus_send_reply",
                                      "bv_ubus_complete_deferred_request"};
    for (const auto &group : {cases_without_bus(), sweep::client_cases(), sweep::owner_cases()}) {
        for (const Case &c : group)
            measured.insert(c.name);
    }
    std::istringstream exports(read_file(BV_TEST_SOURCE_DIR "/abi/exports.txt"));
    std::set<std::string> exported;
    for (std::string name; exports >> name;)
        exported.insert(name);
    EXPECT_EQ(measured, exported);
    for (const Exception &exception : kExceptions)
        EXPECT_EQ(exported.count(exception.function), 1u) << exception.function;
}

TEST(Stack, FunctionsStayWithinTheirBounds)
{
    measure(cases_without_bus());
}

TEST(Stack, CallersAndOwnersStayWithinTheirBounds)
{
    BusDaemon bus;
    measure(sweep::owner_cases());
    Service owner(sweep::run_owner);
    ASSERT_TRUE(wait_for_object(sweep::kOwner));
    measure(sweep::client_cases());
}

} // namespace
