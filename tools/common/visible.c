/* Escapes as in C for what a terminal would obey or could not show. */
#include "common/visible.h"

#include <stdbool.h>

/* Bytes of the UTF-8 character at `at`, 1 to 4, and which one it is; or 0 when there is none: cut
 * short, longer than need be, a surrogate, or beyond the last one. */
static size_t utf8_read(const uint8_t *at, size_t available, uint32_t *character)
{
    static const uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    size_t length = at[0] < 0x80             ? 1
                    : (at[0] & 0xe0) == 0xc0 ? 2
                    : (at[0] & 0xf0) == 0xe0 ? 3
                    : (at[0] & 0xf8) == 0xf0 ? 4
                                             : 0;
    uint32_t code;
    size_t i;

    if (length == 0 || length > available)
        return 0;
    code = length == 1 ? at[0] : at[0] & (0x7fU >> length);
    for (i = 1; i < length; i++) {
        if ((at[i] & 0xc0) != 0x80)
            return 0;
        code = code << 6 | (at[i] & 0x3fU);
    }
    if (code < smallest[length] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
        return 0;
    *character = code;
    return length;
}

/* Control characters, which terminals obey beyond U+007F too; the separators of lines and
 * paragraphs; and the marks that turn the direction of a text, so that it reads as what it is not.
 */
static bool is_hidden(uint32_t character)
{
    static const uint32_t ranges[][2] = {{0, 0x1f},        {0x7f, 0x9f},     {0x61c, 0x61c},
                                         {0x200e, 0x200f}, {0x2028, 0x202e}, {0x2066, 0x2069}};
    size_t i;

    for (i = 0; i < sizeof(ranges) / sizeof(ranges[0]); i++)
        if (character >= ranges[i][0] && character <= ranges[i][1])
            return true;
    return false;
}

static void print_escaped(FILE *to, uint8_t byte)
{
    switch (byte) {
    case '\n':
        fputs("\\n", to);
        break;
    case '\r':
        fputs("\\r", to);
        break;
    case '\t':
        fputs("\\t", to);
        break;
    case '\\':
        fputs("\\\\", to);
        break;
    default:
        fprintf(to, "\\x%02x", byte);
        break;
    }
}

void print_visible(FILE *to, const uint8_t *text, size_t length)
{
    size_t at = 0;

    while (at < length) {
        uint32_t character;
        size_t bytes = utf8_read(text + at, length - at, &character);

        /* One byte at a time: the others of a character are none by themselves, and follow. */
        if (bytes == 0 || is_hidden(character) || character == '\\') {
            print_escaped(to, text[at]);
            at++;
            continue;
        }
        fwrite(text + at, 1, bytes, to);
        at += bytes;
    }
}
