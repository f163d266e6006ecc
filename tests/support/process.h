// SPDX-License-Identifier: ISC
// What this process holds: descriptors, children, threads, memory. And waiting for what another
// thread or process does.
#ifndef BV_TESTS_SUPPORT_PROCESS_H
#define BV_TESTS_SUPPORT_PROCESS_H

#include "support/files.h"
#include "support/sanitized.h"

#include <algorithm>
#include <cctype>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

// The open descriptors, in ascending order.
inline std::vector<int> open_descriptors()
{
    std::vector<int> fds;
    for (const std::string &name : list_folder("/proc/self/fd")) {
        int fd = atoi(name.c_str());
        if (fcntl(fd, F_GETFD) != -1) // less the one that listed the folder
            fds.push_back(fd);
    }
    std::sort(fds.begin(), fds.end());
    return fds;
}

// The children of this process, zombies included.
inline std::vector<pid_t> child_processes()
{
    std::vector<pid_t> children;
    for (const std::string &name : list_folder("/proc")) {
        if (!isdigit(static_cast<unsigned char>(name[0])))
            continue;
        // PID (COMMAND) STATE PARENT ...; the command may hold anything, a ")" too.
        std::string stat = read_file("/proc/" + name + "/stat");
        size_t end = stat.rfind(')');
        if (end != std::string::npos && stat.size() > end + 4 &&
            atoi(stat.c_str() + end + 4) == getpid())
            children.push_back(atoi(name.c_str()));
    }
    return children;
}

inline size_t thread_count()
{
    return list_folder("/proc/self/task").size();
}

// While it lives standard input is closed, as some daemons have it: the next descriptor that is
// opened is 0, and as good as any other.
class WithoutStdin {
public:
    WithoutStdin() : saved_(dup(STDIN_FILENO)) { close(STDIN_FILENO); }
    ~WithoutStdin()
    {
        if (saved_ < 0)
            return;
        dup2(saved_, STDIN_FILENO);
        close(saved_);
    }
    WithoutStdin(const WithoutStdin &) = delete;
    WithoutStdin &operator=(const WithoutStdin &) = delete;

private:
    int saved_;
};

// From now on this process gets no more than so much address space, so that memory which is not
// given back soon runs out. False in a sanitised build: it needs all there is, and finds leaks by
// itself.
inline bool limit_memory(rlim_t bytes)
{
    rlimit space = {bytes, bytes};
    return !kSanitized && setrlimit(RLIMIT_AS, &space) == 0;
}

// Waits until a condition holds, for timeout_ms at most. Generous: a loaded machine is slow, and
// only a failing test waits that long.
template <typename Condition>
bool eventually(Condition condition, int timeout_ms = 10000)
{
    for (int waited = 0; waited < timeout_ms; waited += 5) {
        if (condition())
            return true;
        usleep(5000);
    }
    return condition();
}

#endif
