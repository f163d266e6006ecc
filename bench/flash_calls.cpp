// SPDX-License-Identifier: ISC
// Counts the system calls of reading and writing flash. Runs in a private root, with the devices
// that the tests use. Prints lines of NAME COUNT.
//
// A traced child does the work, so calls are counted where they reach the kernel. What the library
// starts to find the partition is not followed, but the calls that start it are in the count. The
// devices' own looks are left out: at what a descriptor belongs to (readlink), and at what a write
// meets (lseek by nothing, pread).

#include "tests/dev/devices.h"

#include <bv/mtd.h>
#include <bv/status.h>

#include <cstdio>
#include <cstdlib>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kMebibyte = 1 << 20;

bool is_counted(pid_t child)
{
    __ptrace_syscall_info info = {};
    const long got =
        ptrace(static_cast<__ptrace_request>(PTRACE_GET_SYSCALL_INFO), child, sizeof info, &info);
    if (got <= 0) {
        perror("flash_calls: ptrace");
        exit(1);
    }
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY)
        return false;
    switch (info.entry.nr) {
#ifdef SYS_readlink
    case SYS_readlink:
#endif
    case SYS_readlinkat:
    case SYS_pread64:
        return false;
    case SYS_lseek:
        return info.entry.args[2] != SEEK_CUR;
    default:
        return true;
    }
}

// The calls of a child that does the work once, less those of one that does nothing.
unsigned calls_until_exit(pid_t child)
{
    unsigned calls = 0;
    int status, signal_number = 0;
    waitpid(child, &status, 0);
    ptrace(PTRACE_SETOPTIONS, child, 0, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    for (;;) {
        ptrace(PTRACE_SYSCALL, child, 0, signal_number);
        waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            return calls;
        if (!WIFSTOPPED(status)) {
            fprintf(stderr, "flash_calls: the work failed\n");
            exit(1);
        }
        const bool is_call = WSTOPSIG(status) == (SIGTRAP | 0x80);
        signal_number = is_call ? 0 : WSTOPSIG(status);
        if (is_call && is_counted(child))
            calls++;
    }
}

template <typename Work>
unsigned calls_of(Work work)
{
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        _exit(work() == BV_OK ? 0 : 1);
    }
    return calls_until_exit(child) - 1; // the exit itself
}

} // namespace

int main()
{
    static std::vector<uint8_t> buffer(kMebibyte);
    devices::flash_attach();
    for (uint32_t size : {1u, kMebibyte}) {
        const char *name = size == 1 ? "1B" : "1MiB";
        printf("read-%s %u\n", name,
               calls_of([size] { return bv_mtd_read("rootfs_data", buffer.data(), 0, size); }));
        printf("write-%s %u\n", name,
               calls_of([size] { return bv_mtd_write("rootfs_data", buffer.data(), 0, size); }));
    }
    return 0;
}
