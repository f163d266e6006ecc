// SPDX-License-Identifier: ISC
// Lines for people, texts that grow, and JSON as text.

#include "service/internal.h"

#include "tools/template/values.h"

#include <cstdarg>
#include <syslog.h>

namespace {

using namespace bv::service;

// The debug channel sends a longer text as an empty one.
constexpr size_t kLineSize = 256;

constexpr char kDigits[] = "0123456789abcdef";

// As in syslog; bv-collect shows the numbers.
void send_line(int priority, const char *format, va_list arguments)
{
    char line[kLineSize];
    vsnprintf(line, sizeof line, format, arguments);
    if (priority == LOG_ERR)
        dprintf(STDERR_FILENO, "%s: %s\n", g_service == nullptr ? "bv-service" : g_service->name,
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

// ---- writing ----

bv::service::Text::~Text()
{
    free(bytes);
}

void bv::service::Text::put(const char *text)
{
    put(text, strlen(text));
}

void bv::service::Text::put(const char *text, size_t size)
{
    failed = failed || size > kMaxText - length;
    if (!failed && length + size >= capacity) {
        const size_t wanted = (length + size) * 2 + 64;
        auto *grown = static_cast<char *>(realloc(bytes, wanted));
        failed = grown == nullptr;
        bytes = failed ? bytes : grown;
        capacity = failed ? capacity : static_cast<uint32_t>(wanted);
    }
    if (failed)
        return;
    memcpy(bytes + length, text, size);
    length += static_cast<uint32_t>(size);
    bytes[length] = '\0';
}

void bv::service::Text::item(const char *format, ...)
{
    if (length != 0 && strchr("{[:", bytes[length - 1]) == nullptr)
        put(",");
    char piece[1280]; // enough for one name or type
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(piece, sizeof piece, format, arguments);
    va_end(arguments);
    put(piece);
}

void bv::service::Text::quote(const char *text)
{
    put("\"");
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        char escaped[8];
        snprintf(escaped, sizeof escaped,
                 byte < 0x20 || byte == '"' || byte == '\\' ? "\\u%04x" : "%c", byte);
        put(escaped);
    }
    put("\"");
}

void bv::service::Text::hex(const uint8_t *data, size_t count)
{
    put("\"");
    for (size_t i = 0; i < count; ++i) {
        put(kDigits + (data[i] >> 4), 1);
        put(kDigits + (data[i] & 15), 1);
    }
    put("\"");
}

// ---- reading ----

size_t bv::service::count_of(json_object *array)
{
    return bv_json_object_is_type(array, json_type_array) != 0 ? bv_json_object_array_length(array)
                                                               : 0;
}

const char *bv::service::text_of(json_object *value, size_t &length)
{
    const json_type type = json_object_get_type(value);
    if (type != json_type_string && type != json_type_int && type != json_type_double)
        return nullptr;
    const int64_t number = type == json_type_int ? json_object_get_int64(value) : 0;
    if (number == INT64_MIN || number == INT64_MAX) // another number was cut to this one
        return nullptr;
    const char *text = bv_json_object_get_string(value);
    if (text != nullptr) // it may contain zero bytes
        length = type == json_type_string ? static_cast<size_t>(json_object_get_string_len(value))
                                          : strlen(text);
    return text;
}

bool bv::service::number_of(json_object *value, int32_t &number)
{
    size_t length;
    int64_t wide;
    const char *text = text_of(value, length);
    if (text == nullptr || !tools::parse_decimal(text, wide) || wide < INT32_MIN ||
        wide > INT32_MAX)
        return false;
    number = static_cast<int32_t>(wide);
    return true;
}

bool bv::service::read_hex(const char *text, uint8_t *bytes, uint32_t count)
{
    if (strspn(text, kDigits) != size_t{2} * count)
        return false;
    for (uint32_t i = 0; i < 2 * count; ++i) {
        const auto value = strchr(kDigits, text[i]) - kDigits;
        bytes[i / 2] = static_cast<uint8_t>(bytes[i / 2] << 4 | value);
    }
    return true;
}

// ---- texts that json-c has parsed ----
//
// The parser takes comments and single quotes, too.

namespace {

const char *skip_comment(const char *at)
{
    if (at[1] == '\0')
        return at + 1;
    const bool is_line = at[1] == '/';
    const char *end = strstr(at + 2, is_line ? "\n" : "*/");
    return end == nullptr ? at + strlen(at) : end + (is_line ? 1 : 2);
}

const char *skip_space(const char *at)
{
    for (;;) {
        at += strspn(at, " \t\r\n");
        if (*at != '/')
            return at;
        at = skip_comment(at);
    }
}

// To after the closing quote, or to the end of the text.
const char *skip_string(const char *at)
{
    const char quote = *at;
    for (++at; *at != '\0' && *at != quote; ++at)
        if (*at == '\\' && at[1] != '\0')
            ++at;
    return *at == quote ? at + 1 : at;
}

// To the comma or brace after a value.
const char *skip_value(const char *at, bool &ends_in_line_comment)
{
    for (int depth = 0; *at != '\0' && (depth != 0 || strchr(",}", *at) == nullptr);) {
        const bool is_comment = *at == '/';
        if (strchr(" \t\r\n", *at) == nullptr)
            ends_in_line_comment = is_comment && at[1] == '/';
        if (*at == '{' || *at == '[')
            ++depth;
        if (*at == '}' || *at == ']')
            --depth;
        at = is_comment ? skip_comment(at) : *at == '"' || *at == '\'' ? skip_string(at) : at + 1;
    }
    return at;
}

} // namespace

size_t bv::service::count_raw_names(const char *text)
{
    size_t count = 0;
    for (const char *at = text; *at != '\0'; at = *at == '"' ? skip_string(at) : at + 1) {
        const bool is_cut = *at == '.' && (at[1] < '0' || at[1] > '9'); // as in 1.
        if (is_cut || strchr("NI'", *at) != nullptr)
            return SIZE_MAX;
        count += *at == ':' ? 1 : 0;
    }
    return count;
}

void bv::service::put_plain(Text &out, const char *text)
{
    const uint32_t start = out.length;
    out.put(text);
    bool in_string = false;
    for (uint32_t i = start; i < out.length; ++i) {
        const auto byte = static_cast<unsigned char>(out.bytes[i]);
        if (byte == '"')
            in_string = !in_string;
        else if (in_string && byte == '\\')
            ++i;
        else if (in_string && (byte < 0x20 || byte >= 0x80))
            out.bytes[i] = '?';
    }
}

void bv::service::put_others(Text &out, const char *text, uint32_t store)
{
    static constexpr char kBlanks[] = " \t\r\n";
    const char *at = skip_space(text);
    while (*at == '{' || *at == ',') {
        const char *start = at + 1 + strspn(at + 1, kBlanks);
        const char *name = skip_space(start);
        if (*name != '"' && *name != '\'')
            break;
        const char *name_end = skip_string(name);
        bool ends_in_line_comment = false;
        at = skip_value(name_end, ends_in_line_comment);
        if (is_stored(store, name + 1, static_cast<size_t>(name_end - name - 2)))
            continue;
        const char *end = at;
        while (end > start && strchr(kBlanks, end[-1]) != nullptr)
            --end;
        out.put(",\n\t");
        out.put(start, static_cast<size_t>(end - start));
        if (ends_in_line_comment)
            out.put("\n");
    }
}
