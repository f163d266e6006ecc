// SPDX-License-Identifier: ISC
// Shell commands. Every line for the shell is built in a buffer of 256 bytes. A line that does not
// fit becomes empty, never cut, so that half a command is never run.
//
// Output is captured through a file, not a pipe: people at the device see the line with its
// redirection in the process list and can repeat it by hand.

#include <bv/os.h>

#include "os/atomic.h"
#include "os/descriptor.h"
#include "os/owned.h"

#include <securec.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr uint32_t kLineSize = 256;
using Line = char[kLineSize];

using FileName = char[32]; // longer than any capture file's

using Pipe = bv::Owned<FILE *, nullptr, bv_os_pclose>;

// The number of the last capture, for both capturing functions. There is no lock: callers serialise
// captures. The accesses are atomic so that a race gives a wrong name and nothing worse.
uint8_t g_last_capture;

void format_line(Line &line, const char *format, va_list args)
{
    memset(line, 0, sizeof(line));
    vsprintf_s(line, sizeof(line), format, args);
}

// Puts a command into the line for the shell, and runs that.
BV_PRINTF(1, 2) int run_wrapped(const char *format, ...)
{
    Line line;
    va_list args;
    va_start(args, format);
    format_line(line, format, args);
    va_end(args);
    return system(line);
}

// Runs a command inside a line with one %s for it.
int run_inside(const char *line, const char *format, va_list args)
{
    Line command;
    format_line(command, format, args);
    return run_wrapped(line, command);
}

void name_capture_file(FileName &name, const char *format)
{
    const unsigned pid = static_cast<unsigned>(bv_os_getpid()) & 0xFFFF;
    const auto sequence = static_cast<uint8_t>(bv::load_relaxed(g_last_capture) + 1);
    bv::store_relaxed(g_last_capture, sequence);
    bv_os_snprintf(name, sizeof(name), format, pid, sequence);
}

bool read_capture(const FileName &name, char (&text)[kLineSize + 1])
{
    const bv::Descriptor file(bv::close_on_exec(bv_os_open(name, O_RDONLY, 0666)));
    if (!file)
        return false;
    bv_os_lseek(file.get(), 0, SEEK_SET);
    bv_os_read(file.get(), text, kLineSize);
    return true;
}

// Hands the capture file's trimmed text to the caller and removes the file.
int32_t take_capture(const FileName &name, char *out, uint32_t outsize)
{
    char text[kLineSize + 1] = {}; // one byte is never written: the text is terminated
    if (!read_capture(name, text))
        return BV_ERR_NO_FILE;
    bv_os_systemnull("rm -f %s", name);

    const int printed = bv_os_snprintf(out, outsize, "%s", bv_os_trim(text));
    return printed > 0 ? BV_OK : BV_ERR_FAILED;
}

// Like fgets(), but a signal does not end the line. C libraries then lose what they had read of it,
// so this reads a character at a time: an interrupted read has taken none.
void read_line(char *out, int outsize, FILE *stream)
{
    if (outsize == 1)
        bv_os_fgets(out, outsize, stream); // room for the terminator
    for (int at = 0; at < outsize - 1;) {
        errno = 0;
        if (bv_os_fgets(out + at, 2, stream) != nullptr) {
            if (out[at++] == '\n')
                return;
        } else if (ferror(stream) != 0 && errno == EINTR) {
            clearerr(stream);
        } else {
            return;
        }
    }
}

} // namespace

int bv_os_system(const char *format, ...)
{
    Line command;
    va_list args;
    va_start(args, format);
    format_line(command, format, args);
    va_end(args);
    return system(command);
}

int bv_os_systemnull(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = run_inside("%s >/dev/null 2>&1", format, args);
    va_end(args);
    return result;
}

int bv_os_systembk(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = run_inside("%s >/dev/null 2>&1 &", format, args);
    va_end(args);
    return result;
}

int bv_os_sysprocess(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = run_inside("su -p BROVAN -c \"%s\"", format, args);
    va_end(args);
    return result;
}

int32_t bv_os_systemex(char *out, uint32_t outsize, const char *format, ...)
{
    FileName name;
    name_capture_file(name, "/tmp/system_%04d_%02d");

    Line command;
    va_list args;
    va_start(args, format);
    format_line(command, format, args);
    va_end(args);

    run_wrapped("%s > %s", command, name);
    return take_capture(name, out, outsize);
}

// The process id has at least two digits here and four above. That is meant: people who look for a
// service's capture files under /tmp know both forms.
int32_t bv_os_sysmatch(char *out, uint32_t outsize, const char *pattern, const char *delimiter,
                       const char *format, ...)
{
    FileName name;
    name_capture_file(name, "/tmp/system_%02d_%02d");

    Line command;
    va_list args;
    va_start(args, format);
    format_line(command, format, args);
    va_end(args);

    run_wrapped("%s | grep '%s' | awk -F '%s' '{print $2}' > %s", command, pattern, delimiter,
                name);
    return take_capture(name, out, outsize);
}

void bv_get_pipe(const char *command, char *out, uint32_t outsize)
{
    if (command == nullptr)
        return;
    const Pipe pipe(bv::close_on_exec(bv_os_popen(command, "r")));
    if (pipe && out != nullptr && outsize > 0)
        read_line(out, static_cast<int>(std::min<uint32_t>(outsize, INT_MAX)), pipe.get());
}
