// SPDX-License-Identifier: ISC
// Kernel modules of the emulated gateway: loading, unloading, and their parameters.
#ifndef TESTS_GATEWAY_MODULES_H
#define TESTS_GATEWAY_MODULES_H

#include "support/files.h"

#include <fcntl.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace modules {

inline bool loaded(const std::string &name)
{
    return file_exists("/sys/module/" + name);
}

// Aborts on failure, as no test could then say anything.
inline void load(const std::string &name)
{
    if (loaded(name))
        return;
    std::string path = "/lib/modules/" + name + ".ko";
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || syscall(SYS_finit_module, fd, "", 0) != 0) {
        perror(path.c_str());
        abort();
    }
    close(fd);
}

inline void unload(const std::string &name)
{
    if (loaded(name) && syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) != 0) {
        perror(name.c_str());
        abort();
    }
}

inline void set(const std::string &name, const std::string &parameter, const std::string &value)
{
    write_file("/sys/module/" + name + "/parameters/" + parameter, value);
}

inline unsigned get(const std::string &name, const std::string &parameter)
{
    return static_cast<unsigned>(
        strtoul(read_file("/sys/module/" + name + "/parameters/" + parameter).c_str(), nullptr, 0));
}

} // namespace modules

#endif
