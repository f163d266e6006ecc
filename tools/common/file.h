// SPDX-License-Identifier: ISC
// Files that close themselves.
#ifndef TOOLS_COMMON_FILE_H
#define TOOLS_COMMON_FILE_H

#include "os/owned.h"

#include <cstdio>
#include <cstring>

namespace tools {

// Closes a file; standard input and output stay open, and null is ignored. Returns false when bytes
// written were lost.
inline bool close_file(FILE *file)
{
    return file == nullptr || file == stdin || file == stdout || fclose(file) == 0;
}

using File = bv::Owned<FILE *, nullptr, close_file>;

// Opens a file of the command line, where - is standard input or output. Null with errno.
inline FILE *open_or_standard(const char *path, const char *mode)
{
    if (strcmp(path, "-") != 0)
        return fopen(path, mode);
    return *mode == 'r' ? stdin : stdout;
}

} // namespace tools

#endif
