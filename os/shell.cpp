// Shell commands. Every line that the shell gets is built in a buffer of 256 bytes; what does not
// fit becomes an empty line, never a cut one, so that half a command is never run.
//
// Output is captured through a file, not a pipe: the shell line with its redirection is what
// people at the device see in the process list and can repeat by hand.

#include <bv/os.h>

#include "os/atomic.h"
#include "os/descriptor.h"

#include <securec.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr uint32_t kLineSize = 256;
using Line = char[kLineSize];

constexpr uint32_t kFileNameSize = 64;
constexpr uint32_t kFileNameLimit = 32;
using FileName = char[kFileNameSize];

// The next capture's number, shared by both capturing functions. Not locked: callers serialise
// captures. The accesses are atomic only so that a race stays a wrong name and nothing worse.
uint8_t g_capture_sequence = 1;

void format_line(Line &line, const char *format, va_list args)
{
    memset(line, 0, sizeof line);
    vsprintf_s(line, sizeof line, format, args);
}

// Wraps a command into the line that the shell gets, and runs that.
BV_PRINTF(1, 2) int run_wrapped(const char *format, ...)
{
    Line line;
    va_list args;
    va_start(args, format);
    format_line(line, format, args);
    va_end(args);
    return system(line);
}

void name_capture_file(FileName &name, const char *format)
{
    memset(name, 0, sizeof name);
    unsigned pid = static_cast<unsigned>(bv_os_getpid()) & 0xFFFF;
    uint8_t sequence = bv::load_relaxed(g_capture_sequence);
    bv::store_relaxed(g_capture_sequence, static_cast<uint8_t>(sequence + 1));
    bv_os_snprintf(name, kFileNameLimit, format, "/tmp/system", pid, sequence);
}

// Hands the capture file's trimmed text to the caller and removes the file.
int32_t take_capture(const FileName &name, char *out, uint32_t outsize)
{
    int fd = bv::close_on_exec(bv_os_open(name, O_RDONLY, 0666));
    if (fd == -1)
        return BV_ERR_NO_FILE;

    char text[kLineSize + 1]; // one more than is read: always terminated
    memset(text, 0, sizeof text);
    bv_os_lseek(fd, 0, SEEK_SET);
    bv_os_read(fd, text, kLineSize);
    bv_os_close(fd);
    bv_os_systemnull("rm -f %s", name);

    int printed = bv_os_snprintf(out, outsize, "%s", bv_os_trim(text));
    return printed > 0 ? BV_OK : BV_ERR_FAILED;
}

// Like fgets(), but a signal does not end the line. C libraries lose what they had read of it then,
// so it is read a character at a time: a read that a signal interrupted has taken none.
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
    Line command;
    va_list args;
    va_start(args, format);
    format_line(command, format, args);
    va_end(args);

    return run_wrapped("%s >/dev/null 2>&1", command);
}

int bv_os_systembk(const char *format, ...)
{
    Line command;
    va_list args;
    va_start(args, format);
    format_line(command, format, args);
    va_end(args);

    return run_wrapped("%s >/dev/null 2>&1 &", command);
}

int bv_os_sysprocess(const char *format, ...)
{
    Line command;
    va_list args;
    va_start(args, format);
    format_line(command, format, args);
    va_end(args);

    return run_wrapped("su -p %s -c \"%s\"", "BROVAN", command);
}

int32_t bv_os_systemex(char *out, uint32_t outsize, const char *format, ...)
{
    FileName name;
    name_capture_file(name, "%s_%04d_%02d");

    Line command;
    va_list args;
    va_start(args, format);
    format_line(command, format, args);
    va_end(args);

    run_wrapped("%s > %s", command, name);
    return take_capture(name, out, outsize);
}

// The process id is at least two digits wide here and four above. That is meant: whoever looks for
// a service's capture files under /tmp goes by both forms.
int32_t bv_os_sysmatch(char *out, uint32_t outsize, const char *pattern, const char *delimiter,
                       const char *format, ...)
{
    FileName name;
    name_capture_file(name, "%s_%02d_%02d");

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
    FILE *stream = bv::close_on_exec(bv_os_popen(command, "r"));
    if (stream == nullptr)
        return;

    if (out != nullptr && outsize > 0)
        read_line(out, outsize > INT_MAX ? INT_MAX : static_cast<int>(outsize), stream);
    bv_os_pclose(stream);
}
