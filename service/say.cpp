// SPDX-License-Identifier: ISC
// Lines for people, and texts that grow.

#include "service/internal.h"

#include <cstdarg>
#include <syslog.h>

namespace {

// The debug channel sends a longer text as an empty one.
constexpr size_t kLineSize = 256;

// As in syslog; bv-collect shows the numbers.
void send_line(int priority, const char *format, va_list arguments)
{
    char line[kLineSize];
    vsnprintf(line, sizeof line, format, arguments);
    if (priority == LOG_ERR)
        fprintf(stderr, "%s: %s\n",
                bv::service::g_service == nullptr ? "bv-service" : bv::service::g_service->name,
                line);
    syslog(priority, "%s", line);
    bv_debug_header header = {};
    header.level = static_cast<uint8_t>(priority);
    bv_debug_sendmsg(&header, line, static_cast<uint16_t>(strlen(line)));
}

} // namespace

void bv::service::say(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    send_line(LOG_ERR, format, arguments);
    va_end(arguments);
}

void bv::service::note(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    send_line(LOG_INFO, format, arguments);
    va_end(arguments);
}

int32_t bv::service::Words::refuse(int32_t status, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return status;
}

bv::service::Text::~Text()
{
    free(bytes);
}

void bv::service::Text::put(const char *text)
{
    put(text, static_cast<uint32_t>(strlen(text)));
}

void bv::service::Text::put(const char *text, uint32_t size)
{
    constexpr uint32_t kMost = UINT32_MAX / 4;
    failed = failed || size > kMost || length > kMost;
    if (!failed && length + size >= capacity) {
        const uint32_t wanted = (length + size) * 2 + 64;
        auto *grown = static_cast<char *>(realloc(bytes, wanted));
        failed = grown == nullptr;
        bytes = failed ? bytes : grown;
        capacity = failed ? capacity : wanted;
    }
    if (failed)
        return;
    memcpy(bytes + length, text, size);
    length += size;
    bytes[length] = '\0';
}

void bv::service::Text::put_quoted(const char *text)
{
    put("\"", 1);
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte < 0x20 || byte == '"' || byte == '\\')
            print("\\u%04x", byte);
        else
            put(text, 1);
    }
    put("\"", 1);
}

void bv::service::Text::print(const char *format, ...)
{
    char piece[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(piece, sizeof piece, format, arguments);
    va_end(arguments);
    put(piece);
}
