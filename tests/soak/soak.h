// What the soaks share: how much they do, and what a process uses.
//
// As ordinary tests they are short. `make soak` sets SOAK_CALLS, SOAK_RESTARTS, SOAK_EVENTS and
// SOAK_COMMITS to their full size.
#ifndef BV_TESTS_SOAK_SOAK_H
#define BV_TESTS_SOAK_SOAK_H

#include "support/files.h"
#include "support/sanitized.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/types.h>
#include <time.h>

namespace soak {

inline uint32_t parameter(const char *name, uint32_t otherwise)
{
    const char *text = getenv(name);
    return text == nullptr ? otherwise : static_cast<uint32_t>(strtoul(text, nullptr, 10));
}

inline double seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Memory of a process that is not from a file, in KiB; 0 when it is gone.
inline long memory_of(pid_t pid)
{
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("RssAnon:");
    return at == std::string::npos ? 0 : atol(status.c_str() + at + 8);
}

// Whether memory tells anything: sanitizers keep what was freed, and an emulator answers for
// itself.
inline bool memory_counts()
{
    return !kSanitized && getenv("BV_ROOT_USERLAND") == nullptr;
}

// Memory over the life of one process: since it had done a while's work, and now.
struct Memory {
    pid_t pid;
    uint32_t work; // done so far
    long base;
    long last;

    // Called by whoever watches, after each piece of work.
    void note(uint32_t warm_up)
    {
        work++;
        if (work == warm_up)
            base = last = memory_of(pid);
        else if (work > warm_up && work % 256 == 0)
            last = memory_of(pid);
    }
    bool known() const { return base != 0 && last != 0; }
    long growth() const { return last - base; }
};

// A leak of a few bytes a call passes this; an allocator's own ups and downs do not.
constexpr long kMostGrowth = 768; // KiB

} // namespace soak

#endif
