// SPDX-License-Identifier: ISC
// What the soaks share: how long they run, and whether the memory of a process stays the same.
//
// As ordinary tests they are short; tests/soak/run sets the variables that make them long.
#ifndef BV_TESTS_SOAK_SOAK_H
#define BV_TESTS_SOAK_SOAK_H

#include "support/files.h"
#include "support/sanitized.h"

#include <chrono>
#include <cstdint>
#include <gtest/gtest.h>
#include <sys/mman.h>

namespace soak {

inline uint32_t parameter(const char *name, uint32_t otherwise)
{
    const char *text = getenv(name);
    return text == nullptr ? otherwise : static_cast<uint32_t>(strtoul(text, nullptr, 10));
}

inline double seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A record that children see too, all zero.
template <typename Record>
Record *make_shared()
{
    void *memory =
        mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(memory, MAP_FAILED);
    return static_cast<Record *>(memory);
}

// What a process has allocated, in KiB; 0 when it is gone.
inline long memory_of(pid_t pid)
{
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("RssAnon:");
    return at == std::string::npos ? 0 : atol(status.c_str() + at + 8);
}

// By default less than a leak of a few bytes per call adds up to, and more than an allocator's own
// ups and downs. Sanitizers keep what was freed, and under emulation we would measure the emulator.
inline void expect_steady(const char *name, long before, long later, long most_growth = 768)
{
    printf("%-12s %5ld KiB, later %5ld KiB\n", name, before, later);
    if (!kSanitized && getenv("BV_ROOT_USERLAND") == nullptr) {
        EXPECT_LE(later - before, most_growth) << name;
    }
}

// The memory of one process: after it has warmed up, and now.
struct Memory {
    pid_t pid = 0;
    uint32_t work = 0; // done so far
    long base = 0;
    long last = 0;

    // To be called after each piece of work.
    void note(uint32_t warm_up)
    {
        work++;
        if (work == warm_up)
            base = last = memory_of(pid);
        else if (work > warm_up && work % 256 == 0)
            last = memory_of(pid);
    }

    void check(const char *name) const
    {
        if (base != 0 && last != 0)
            expect_steady(name, base, last);
    }
};

} // namespace soak

#endif
