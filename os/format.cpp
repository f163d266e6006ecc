// SPDX-License-Identifier: ISC
// Formatted text, to streams and, bounded, to buffers.

#include <bv/os.h>

#include <securec.h>

#include <cstdarg>

int bv_os_printf(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int printed = vprintf(format, args);
    va_end(args);
    return printed;
}

int bv_os_fprintf(FILE *stream, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int printed = vfprintf(stream, format, args);
    va_end(args);
    return printed;
}

int bv_os_sprintf(char *dst, uint32_t dstsize, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int printed = vsprintf_s(dst, dstsize, format, args);
    va_end(args);
    return printed;
}

// For callers who are used to snprintf(): the bound is dstsize either way.
int bv_os_snprintf(char *dst, uint32_t dstsize, const char *format, ...)
    __attribute__((alias("bv_os_sprintf")));

int bv_os_sscanf(const char *str, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int stored = vsscanf_s(str, format, args);
    va_end(args);
    return stored;
}
