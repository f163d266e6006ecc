// The record file: a background service leaves text here, and a person on a console fetches it.
// It lives under /tmp so that it never wears the flash and is gone after a restart.

#include <bv/os.h>

#include "os/descriptor.h"

#include <cstdarg>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char kRecordFile[] = "/tmp/remoteprint";
constexpr char kTerminalNameFile[] = "/tmp/tty";

} // namespace

int32_t bv_os_record_init(void)
{
    return bv_os_systemnull("rm -f %s", kRecordFile);
}

int32_t bv_os_record(const char *format, ...)
{
    if (format == nullptr)
        return BV_ERR_FAILED;
    FILE *file = bv::close_on_exec(bv_os_fopen(kRecordFile, "a+"));
    if (file == nullptr)
        return BV_ERR_RECORD;

    va_list args;
    va_start(args, format);
    int printed = vfprintf(file, format, args);
    va_end(args);
    bv_os_fclose(file);
    return printed;
}

void bv_os_record_output(void)
{
    if (bv_os_access(kRecordFile, F_OK) != 0)
        return;

    char terminal[32];
    memset(terminal, 0, sizeof terminal);
    bv_os_systemex(terminal, sizeof terminal, "cat %s", kTerminalNameFile);
    bv_os_system("cat %s >> %s", kRecordFile, terminal);
}

int32_t bv_get_filesize(const char *path)
{
    struct stat st;
    if (path == nullptr || bv_os_stat(path, &st) != 0)
        return BV_ERR_FAILED;
    return static_cast<int32_t>(st.st_size);
}
