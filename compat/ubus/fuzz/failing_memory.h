// SPDX-License-Identifier: ISC
// Makes allocations of the code under test fail. The target is linked with --wrap for each of the
// functions here (see CMakeLists.txt), so the fuzzer's own allocations and those of libraries go
// through; the functions of libubox that allocate fail as a whole.
#ifndef COMPAT_UBUS_FUZZ_FAILING_MEMORY_H
#define COMPAT_UBUS_FUZZ_FAILING_MEMORY_H

#include <cerrno>
#include <cstddef>

#include <libubox/blob.h>

namespace fuzz {

inline unsigned g_allocations_left; // up to and with the one that fails; 0: none does

inline bool allocation_fails()
{
    if (g_allocations_left == 0 || --g_allocations_left > 0)
        return false;
    errno = ENOMEM;
    return true;
}

} // namespace fuzz

#define FUZZ_FAILING(result, name, parameters, arguments, failure)                                 \
    result __real_##name parameters;                                                               \
    result __wrap_##name parameters                                                                \
    {                                                                                              \
        return fuzz::allocation_fails() ? (failure) : __real_##name arguments;                     \
    }

extern "C" {
FUZZ_FAILING(void *, malloc, (size_t size), (size), nullptr)
FUZZ_FAILING(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
FUZZ_FAILING(void *, realloc, (void *block, size_t size), (block, size), nullptr)
FUZZ_FAILING(char *, strdup, (const char *text), (text), nullptr)
FUZZ_FAILING(blob_attr *, blob_put, (blob_buf * buf, int id, const void *data, unsigned int length),
             (buf, id, data, length), nullptr)
FUZZ_FAILING(int, blob_buf_init, (blob_buf * buf, int id), (buf, id), -ENOMEM)
FUZZ_FAILING(void *, blob_nest_start, (blob_buf * buf, int id), (buf, id), nullptr)
}

#endif
