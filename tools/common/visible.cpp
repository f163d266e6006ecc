/* SPDX-License-Identifier: ISC */
#include "tools/common/visible.h"

#include <cstring>

namespace {

// Reads the UTF-8 character at `at` and returns its length, 1 to 4. Returns 0 when there is none:
// it is cut short, longer than needed, a surrogate, or above the last one.
uint32_t read_utf8(const uint8_t *at, uint32_t available, uint32_t &code)
{
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const uint32_t length = at[0] < 0x80             ? 1
                            : (at[0] & 0xe0) == 0xc0 ? 2
                            : (at[0] & 0xf0) == 0xe0 ? 3
                            : (at[0] & 0xf8) == 0xf0 ? 4
                                                     : 0;
    if (length == 0 || length > available)
        return 0;

    code = length == 1 ? at[0] : at[0] & (0x7fU >> length);
    for (uint32_t i = 1; i < length; ++i) {
        if ((at[i] & 0xc0) != 0x80)
            return 0;
        code = code << 6 | (at[i] & 0x3fU);
    }
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code < kSmallest[length] || code > 0x10ffff || surrogate ? 0 : length;
}

// Control characters, which terminals obey above U+007F too; separators of lines and paragraphs;
// and marks that change the direction of a text, so that it reads as something else.
bool is_hidden(uint32_t code)
{
    static constexpr uint32_t kRanges[][2] = {{0, 0x1f},        {0x7f, 0x9f},     {0x61c, 0x61c},
                                              {0x200e, 0x200f}, {0x2028, 0x202e}, {0x2066, 0x2069}};
    for (const auto &range : kRanges)
        if (code >= range[0] && code <= range[1])
            return true;
    return false;
}

void print_escaped(FILE *to, uint8_t byte)
{
    static constexpr char kBytes[] = "\n\r\t\\";
    const char *named = byte == 0 ? nullptr : strchr(kBytes, byte);
    if (named != nullptr)
        fprintf(to, "\\%c", "nrt\\"[named - kBytes]);
    else
        fprintf(to, "\\x%02x", byte);
}

} // namespace

void tools::print_visible(FILE *to, bv::Bytes text)
{
    for (uint32_t at = 0; at < text.length;) {
        const uint8_t *start = text.data + at;
        uint32_t code = 0;
        const uint32_t bytes = read_utf8(start, text.length - at, code);
        if (bytes != 0 && !is_hidden(code) && code != '\\') {
            fwrite(start, 1, bytes, to);
            at += bytes;
        } else {
            print_escaped(to, *start); // the other bytes of a character are escaped in turn
            ++at;
        }
    }
}

void tools::print_visible(FILE *to, const char *text)
{
    print_visible(to, bv::bytes_of(text, static_cast<uint32_t>(strlen(text))));
}

void tools::print_visible_json(FILE *to, const char *json)
{
    const bv::Bytes text = bv::bytes_of(json, static_cast<uint32_t>(strlen(json)));
    for (uint32_t at = 0; at < text.length;) {
        uint32_t code = 0;
        const uint32_t bytes = read_utf8(text.data + at, text.length - at, code);
        if (bytes == 0 || (code >= 0x7f && is_hidden(code))) // json-c has escaped those below
            fprintf(to, "\\u%04x", static_cast<unsigned>(bytes == 0 ? 0xfffd : code));
        else
            fwrite(text.data + at, 1, bytes, to);
        at += bytes == 0 ? 1 : bytes;
    }
}
