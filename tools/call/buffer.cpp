/* SPDX-License-Identifier: ISC */
#include "tools/call/buffer.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

namespace {

constexpr uint32_t kBytesPerLine = 16;

int digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const int lower = c | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

void print_line(FILE *to, bv::Bytes bytes)
{
    for (uint32_t i = 0; i < kBytesPerLine; ++i) {
        if (i == kBytesPerLine / 2)
            fputc(' ', to);
        if (i < bytes.length)
            fprintf(to, " %02x", bytes.data[i]);
        else
            fputs("   ", to);
    }
    fputs("  |", to);
    for (uint32_t i = 0; i < bytes.length; ++i) {
        const uint8_t byte = bytes.data[i];
        fputc(byte >= 0x20 && byte < 0x7f ? byte : '.', to);
    }
    fputs("|\n", to);
}

} // namespace

bool tools::Buffer::add(const void *from, size_t count)
{
    if (count > kMaxBytes - length)
        return false;
    memcpy(data + length, from, count);
    length += static_cast<uint32_t>(count);
    return true;
}

// Takes back what was added after `before`. Returns false, so that callers can return that.
bool tools::Buffer::cut_to(uint32_t before)
{
    memset(data + before, 0, length - before);
    length = before;
    return false;
}

bool tools::Buffer::add_hex(const char *text)
{
    const uint32_t before = length;
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

bool tools::Buffer::add_file(FILE *file)
{
    const uint32_t before = length;
    length += static_cast<uint32_t>(fread(data + before, 1, kMaxBytes - before, file));
    const bool whole = ferror(file) == 0 && (length < kMaxBytes || getc(file) == EOF);
    return whole || cut_to(before);
}

void tools::print_hex(FILE *to, bv::Bytes bytes)
{
    for (uint32_t at = 0; at < bytes.length; at += kBytesPerLine) {
        fprintf(to, "%08" PRIx32 " ", at);
        print_line(to, {bytes.data + at, std::min(bytes.length - at, kBytesPerLine)});
    }
}
