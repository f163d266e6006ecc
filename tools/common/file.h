// A file that closes itself.
#ifndef TOOLS_COMMON_FILE_H
#define TOOLS_COMMON_FILE_H

#include <cstdio>
#include <cstring>

namespace tools {

class File {
public:
    File(const char *path, const char *mode) : file_(fopen(path, mode)) {}
    explicit File(FILE *file) : file_(file) {} // stdin and stdout stay open
    ~File() { close(); }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    FILE *get() const { return file_; } // null with errno: it could not be opened

    // False when bytes written were lost.
    bool close()
    {
        FILE *file = file_;
        file_ = nullptr;
        return file == nullptr || file == stdin || file == stdout || fclose(file) == 0;
    }

private:
    FILE *file_;
};

// Opens a file of the command line, where - is standard input or output.
inline FILE *open_or_standard(const char *path, const char *mode)
{
    if (strcmp(path, "-") != 0)
        return fopen(path, mode);
    return *mode == 'r' ? stdin : stdout;
}

} // namespace tools

#endif
