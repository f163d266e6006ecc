// SPDX-License-Identifier: ISC
// The private root where namespaces are refused: files are private there, but not the kernel.
#ifndef BV_TESTS_SUPPORT_SHARED_H
#define BV_TESTS_SUPPORT_SHARED_H

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>

// Whether this process is traced, and shares disk, network and processes with the host.
inline bool root_is_shared()
{
    const char *way = getenv("BV_ROOT_WAY");
    return way != nullptr && strcmp(way, "proot") == 0;
}

// Leaves a test out where the root is shared. tests/support/skipped lists those that do.
#define BV_NEEDS_OWN_ROOT(reason)                                                                  \
    if (root_is_shared())                                                                          \
    GTEST_SKIP() << (reason)

// Where the root is shared, /config/work is as large as the host's disk: files end after this many
// bytes instead, for this process and its children.
inline void end_shared_files_after(rlim_t bytes)
{
    if (!root_is_shared())
        return;
    signal(SIGXFSZ, SIG_IGN);
    rlimit size = {bytes, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &size);
}

#endif
