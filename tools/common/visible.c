/* Escapes as in C for what a terminal would obey or could not show. */
#include "common/visible.h"

#include <stdbool.h>

/* Bytes of the UTF-8 character at `at`, 1 to 4, or 0 when there is none: cut short, longer than
 * need be, a surrogate, or beyond the last one. */
static size_t utf8_length(const uint8_t *at, size_t available)
{
    static const uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    size_t length = at[0] < 0x80             ? 1
                    : (at[0] & 0xe0) == 0xc0 ? 2
                    : (at[0] & 0xf0) == 0xe0 ? 3
                    : (at[0] & 0xf8) == 0xf0 ? 4
                                             : 0;
    uint32_t code;
    size_t i;

    if (length <= 1 || length > available)
        return length <= available ? length : 0;
    code = at[0] & (0x7fU >> length);
    for (i = 1; i < length; i++) {
        if ((at[i] & 0xc0) != 0x80)
            return 0;
        code = code << 6 | (at[i] & 0x3fU);
    }
    if (code < smallest[length] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
        return 0;
    return length;
}

/* Control characters come as one byte, or as the two bytes of U+0080 to U+009F, which terminals
 * obey as well. */
static bool is_control(const uint8_t *at, size_t length)
{
    return length == 1 ? at[0] < 0x20 || at[0] == 0x7f
                       : length == 2 && at[0] == 0xc2 && at[1] < 0xa0;
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
        size_t character = utf8_length(text + at, length - at);

        if (character == 0 || is_control(text + at, character) || text[at] == '\\') {
            print_escaped(to, text[at]);
            at++;
            continue;
        }
        fwrite(text + at, 1, character, to);
        at += character;
    }
}
