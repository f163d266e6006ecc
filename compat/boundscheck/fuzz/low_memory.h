// SPDX-License-Identifier: ISC
// One number that is right for every argument of a formatted print or scan: as a pointer it leads
// to a large buffer, and as a size it is less than that buffer holds. With all arguments alike, an
// arbitrary format cannot ask for the wrong type.
#ifndef COMPAT_BOUNDSCHECK_FUZZ_LOW_MEMORY_H
#define COMPAT_BOUNDSCHECK_FUZZ_LOW_MEMORY_H

#include "fuzz/input.h"

#include <sys/mman.h>

namespace fuzz {

constexpr uintptr_t kLowAddress = 0x100000;

inline char *map_low_memory()
{
    void *place =
        mmap(reinterpret_cast<void *>(kLowAddress), 2 * kLowAddress, PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    FUZZ_CHECK(place == reinterpret_cast<void *>(kLowAddress));
    return static_cast<char *>(place);
}

// Whether the calls pass enough arguments for a format.
inline bool needs_few_arguments(const std::string &format)
{
    const auto count = std::count(format.begin(), format.end(), '%') +
                       std::count(format.begin(), format.end(), '*');
    return count <= 10;
}

// Twenty arguments, two for each directive.
#define FUZZ_FIVE(argument) argument, argument, argument, argument, argument
#define FUZZ_TWENTY(argument)                                                                      \
    FUZZ_FIVE(argument), FUZZ_FIVE(argument), FUZZ_FIVE(argument), FUZZ_FIVE(argument)

} // namespace fuzz

#endif
