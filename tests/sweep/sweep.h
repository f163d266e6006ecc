// The sweep: a call of the library is carried out again and again, and each time another one of
// the calls that it makes fails. Every run has a process of its own, so that one which crashes or
// hangs spoils nothing.
#ifndef BV_TESTS_SWEEP_SWEEP_H
#define BV_TESTS_SWEEP_SWEEP_H

#include "support/libc.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace sweep {

// One exported function, how it is called, and what it may answer.
struct Case {
    explicit Case(const char *function) : name(function) {}

    // What must be there before; runs without faults, ahead of each call.
    Case &prepared_by(std::function<void()> action)
    {
        prepare = std::move(action);
        return *this;
    }
    // The call itself, alone: what else it did would fail too.
    Case &calls(std::function<int64_t()> action)
    {
        call = std::move(action);
        return *this;
    }
    // Results of a call that worked. It may also give these when something failed unnoticed.
    Case &returns(std::vector<int64_t> results)
    {
        good = std::move(results);
        return *this;
    }
    // Results of a call that did not.
    Case &or_fails_with(std::vector<int64_t> results)
    {
        bad = std::move(results);
        return *this;
    }
    // Gives back what a call left behind, whether it worked or not; runs without faults.
    Case &cleaned_by(std::function<void()> action)
    {
        clean = std::move(action);
        return *this;
    }
    // Of the call that follows, when they may be others.
    Case &then_returns(std::vector<int64_t> results)
    {
        later = std::move(results);
        return *this;
    }
    // Whether the call that follows a failed one did what it should; before cleaning.
    Case &works_when(std::function<bool()> check)
    {
        works = std::move(check);
        return *this;
    }
    // A result of `returns` is never given when something kept the call from its work.
    Case &is_honest()
    {
        honest = true;
        return *this;
    }
    // Descriptors that every call that worked keeps, on purpose.
    Case &keeps_descriptors(int count)
    {
        kept = count;
        return *this;
    }
    // Made of the same few steps over and over, each a shell. Under user-mode emulation, where that
    // takes minutes, only the first calls of each kind fail.
    Case &is_slow()
    {
        slow = true;
        return *this;
    }
    // Blocks cannot be counted: another thread gives them back some time later.
    Case &has_threads()
    {
        threads = true;
        return *this;
    }

    const char *name;
    std::function<void()> prepare = [] {};
    std::function<int64_t()> call;
    std::vector<int64_t> good = {0};
    std::vector<int64_t> bad;
    std::vector<int64_t> later; // none: as good
    std::function<void()> clean = [] {};
    std::function<bool()> works = [] { return true; };
    int kept = 0;
    bool honest = false;
    bool slow = false;
    bool threads = false;
};

// Sweeps each of them; failures become those of the running test.
void sweep(const std::vector<Case> &cases);

// Closes a descriptor without being interposed.
void give_back(int fd);

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

constexpr const char *kOwner = "swept";
int run_owner(); // serves kOwner until the bus goes

} // namespace sweep

#endif
