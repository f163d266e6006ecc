#include "tools/template/fault.h"

#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/common/visible.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

namespace {

// A larger file is something else: all of the gateway's flash is not much more.
constexpr size_t kMaxFile = 16 * 1024 * 1024;
constexpr size_t kReadStep = 65536;
constexpr size_t kMaxMessage = 512;

unsigned g_faults;
bool g_trouble;

// Reads to the end of the file, into a block that starts with a free byte. Null with errno; the
// caller frees.
char *read_stream(FILE *file, size_t &length)
{
    char *block = nullptr;
    length = 0;
    for (size_t room = 0; length == room;) {
        room += kReadStep;
        auto *more = room <= kMaxFile ? static_cast<char *>(realloc(block, 1 + room)) : nullptr;
        if (more == nullptr) {
            free(block);
            errno = room <= kMaxFile ? ENOMEM : EFBIG;
            return nullptr;
        }
        block = more;
        length += fread(block + 1 + length, 1, room - length, file);
    }
    if (ferror(file) == 0)
        return block;
    free(block);
    return nullptr;
}

} // namespace

namespace tools {

void fault(const char *path, unsigned line, const char *format, ...)
{
    char message[kMaxMessage];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    print_visible(stdout, path);
    printf(":%u: ", line);
    print_visible(stdout, message);
    putchar('\n');
    ++g_faults;
}

unsigned fault_count()
{
    return g_faults;
}

bool file_trouble(const char *path, const char *why)
{
    g_trouble = true;
    return complain(path, why);
}

bool had_file_trouble()
{
    return g_trouble;
}

bool read_json(const char *path, JsonDocument &document)
{
    const File file(path, "rb");
    size_t length;
    char *block = file.get() == nullptr ? nullptr : read_stream(file.get(), length);
    if (block == nullptr)
        return file_trouble(path, strerror(errno));
    JsonFault found;
    if (document.parse(block, length, found))
        return true;
    fault(path, found.line, "not JSON: %s", found.what);
    return false;
}

} // namespace tools
