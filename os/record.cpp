// SPDX-License-Identifier: ISC
// The record file: background services append text to it, and a person at a console reads it.
// It is under /tmp, so that it does not wear the flash and is gone after a restart.

#include <bv/os.h>

#include "os/descriptor.h"

#include <cstdarg>
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
    const bv::Stream file(bv::close_on_exec(bv_os_fopen(kRecordFile, "a+")));
    if (!file)
        return BV_ERR_RECORD;

    va_list args;
    va_start(args, format);
    const int printed = vfprintf(file.get(), format, args);
    va_end(args);
    return printed;
}

void bv_os_record_output(void)
{
    if (bv_os_access(kRecordFile, F_OK) != 0)
        return;

    char terminal[32] = {};
    bv_os_systemex(terminal, sizeof(terminal), "cat %s", kTerminalNameFile);
    bv_os_system("cat %s >> %s", kRecordFile, terminal);
}
