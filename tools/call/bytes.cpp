#include "tools/call/bytes.h"

#include <cstring>

namespace {

constexpr size_t kBytesPerLine = 16;

int digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const int lower = c | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

void print_line(FILE *to, const uint8_t *data, size_t length)
{
    for (size_t i = 0; i < kBytesPerLine; ++i) {
        if (i == kBytesPerLine / 2)
            fputc(' ', to);
        if (i < length)
            fprintf(to, " %02x", data[i]);
        else
            fputs("   ", to);
    }
    fputs("  |", to);
    for (size_t i = 0; i < length; ++i)
        fputc(data[i] >= 0x20 && data[i] < 0x7f ? data[i] : '.', to);
    fputs("|\n", to);
}

} // namespace

namespace tools {

bool Bytes::add(const void *from, size_t count)
{
    if (count > kMaxBytes - length)
        return false;
    memcpy(data + length, from, count);
    length += count;
    return true;
}

// Takes back what was added after `before`; false, so that callers can return it.
bool Bytes::cut_to(size_t before)
{
    memset(data + before, 0, length - before);
    length = before;
    return false;
}

bool Bytes::add_hex(const char *text)
{
    const size_t before = length;
    for (; *text != '\0'; ++text) {
        if (strchr(" \t\n:", *text) != nullptr)
            continue;
        const int high = digit_value(*text);
        const int low = high < 0 ? -1 : digit_value(*++text);
        const auto byte = static_cast<uint8_t>(high * 16 + low);
        if (low < 0 || !add(&byte, 1))
            return cut_to(before);
    }
    return true;
}

bool Bytes::add_file(FILE *file)
{
    const size_t before = length;
    length += fread(data + before, 1, kMaxBytes - before, file);
    const bool whole = ferror(file) == 0 && (length < kMaxBytes || getc(file) == EOF);
    return whole || cut_to(before);
}

void print_hex(FILE *to, const uint8_t *data, size_t length)
{
    for (size_t at = 0; at < length; at += kBytesPerLine) {
        fprintf(to, "%08zx ", at);
        print_line(to, data + at, length - at < kBytesPerLine ? length - at : kBytesPerLine);
    }
}

} // namespace tools
