// SPDX-License-Identifier: ISC
// The sweep: a function of the library is called again and again, and each time another one of the
// calls that it makes fails. Every run has a process of its own, so that a crash or a hang spoils
// nothing else.
#ifndef BV_TESTS_SWEEP_SWEEP_H
#define BV_TESTS_SWEEP_SWEEP_H

#include "support/libc.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace sweep {

// One exported function, how it is called, and what it may answer.
struct Case {
    using Results = std::vector<int64_t>;
    using Action = std::function<void()>;

    explicit Case(const char *function) : name(function) {}

    // What must be there before; runs without faults, before each call.
    Case &prepared_by(Action action) { return set(prepare, action); }
    // The call itself, alone: what else it did would fail too.
    Case &calls(std::function<int64_t()> action) { return set(call, action); }
    // Results of a call that worked. It may also give these when something failed unnoticed.
    Case &returns(Results results) { return set(good, results); }
    // Results of a call that did not.
    Case &or_fails_with(Results results) { return set(bad, results); }
    // Gives back what a call took, whether it worked or not; runs without faults.
    Case &cleaned_by(Action action) { return set(clean, action); }
    // Of the call that follows, when they may be others.
    Case &then_returns(Results results) { return set(later, results); }
    // Whether the call that follows a failed one did what it should; before cleaning.
    Case &works_when(std::function<bool()> check) { return set(works, check); }
    // A result of `returns` is never given when something kept the call from its work.
    Case &is_honest() { return set(honest, true); }
    // Descriptors that every call that worked keeps, on purpose.
    Case &keeps_descriptors(int count) { return set(kept, count); }
    // Made of the same few steps over and over, each a shell. Under user-mode emulation, where
    // that takes minutes, only the first calls of each kind fail.
    Case &is_slow() { return set(slow, true); }
    // Blocks cannot be counted: another thread gives them back some time later.
    Case &has_threads() { return set(threads, true); }

    const char *name;
    Action prepare;
    std::function<int64_t()> call;
    Results good = {0};
    Results bad;
    Results later; // none: as good
    Action clean;
    std::function<bool()> works = [] { return true; };
    int kept = 0;
    bool honest = false;
    bool slow = false;
    bool threads = false;

private:
    template <typename Field, typename Value>
    Case &set(Field &field, const Value &value)
    {
        field = value;
        return *this;
    }
};

// A case that calls the function with these arguments; RUN is for one without a result.
#define CALL(function, ...)                                                                        \
    Case(#function).calls([] { return static_cast<int64_t>(function(__VA_ARGS__)); })
#define RUN(function, ...)                                                                         \
    Case(#function).calls([] {                                                                     \
        function(__VA_ARGS__);                                                                     \
        return 0;                                                                                  \
    })

// The groups as one list; cases that do not say how they fail or are cleaned do it like this.
std::vector<Case> usually(Case::Results bad, Case::Action clean,
                          std::initializer_list<std::vector<Case>> groups);

inline bool one_of(const Case::Results &results, int64_t value)
{
    return std::find(results.begin(), results.end(), value) != results.end();
}

// Sweeps each of them; failures become those of the running test.
void sweep(const std::vector<Case> &cases);

// Closes a descriptor without being interposed.
void give_back(int fd);

// Whether a plain case makes no call that could fail; failures become those of the running test.
void expect_plain(const std::vector<Case> &cases);

// The cases by the folder of their functions.
std::vector<Case> os_cases();
std::vector<Case> ipc_cases();
std::vector<Case> debug_cases();
std::vector<Case> core_cases();
std::vector<Case> db_cases();
std::vector<Case> crypto_cases();
std::vector<Case> flash_reading_cases();
std::vector<Case> flash_writing_cases();
std::vector<Case> flash_erasing_cases();
std::vector<Case> driver_cases();
std::vector<Case> message_cases();
std::vector<Case> loop_cases();
std::vector<Case> client_cases(); // need a bus and the owner kOwner on it
std::vector<Case> owner_cases();  // need a bus

std::vector<Case> plain_cases(); // make no call that could fail
std::vector<Case> hard_cases();  // once more, with arguments that take more of the stack

constexpr const char *kOwner = "swept";
int run_owner(); // serves kOwner until the bus goes

} // namespace sweep

#endif
