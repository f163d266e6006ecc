// SPDX-License-Identifier: ISC
// Numbers and length letters of a directive.

#include "directive.h"

#include <string.h>

// The largest width or precision that a format may spell out.
static const uint32_t kMaxNumber = 214748369;

bool bc_take_number(const char **format, int *value)
{
    uint32_t number = 0;
    for (; bc_is_digit(**format); (*format)++) {
        number = number * 10 + (uint32_t)(**format - '0');
        if (number > kMaxNumber)
            return false;
    }
    *value = (int)number;
    return true;
}

static bool taken(const char **format, int letters, struct length_letters *to, enum length length)
{
    *format += letters;
    if (length > to->strongest)
        to->strongest = length;
    return true;
}

// I64 and I32 give the number of bits. A single I before an integer conversion means the size of a
// pointer; before anything else it is not a length letter.
static bool take_capital_i(const char **format, struct length_letters *letters)
{
    const char *next = *format + 1;
    if (next[0] == '6' && next[1] == '4')
        return taken(format, 3, letters, kLengthLlong);
    if (next[0] == '3' && next[1] == '2')
        return taken(format, 3, letters, kLengthNone);
    if (next[0] != '\0' && strchr("diouxX", next[0]) != NULL)
        return taken(format, 1, letters, kLengthLong);
    return false;
}

static bool is_one_of(const char *letters, char letter)
{
    while (*letters != '\0' && *letters != letter)
        letters++;
    return *letters != '\0';
}

bool bc_take_length(const char **format, const char *extra, struct length_letters *letters)
{
    const char *next = *format;
    switch (*next) {
    case 'h':
        return next[1] == 'h' ? taken(format, 2, letters, kLengthChar)
                              : taken(format, 1, letters, kLengthShort);
    case 'l':
        return next[1] == 'l' ? taken(format, 2, letters, kLengthLlong)
                              : taken(format, 1, letters, kLengthLong);
    case 'L':
    case 'q':
        letters->long_double = true;
        return taken(format, 1, letters, kLengthLlong);
    case 'z':
        return taken(format, 1, letters, kLengthSize);
    case 'j':
        return taken(format, 1, letters, kLengthMax);
    case 't':
        return taken(format, 1, letters, kLengthPtrdiff);
    case 'I':
        return take_capital_i(format, letters);
    case '\0':
        return false;
    default:
        break;
    }

    // Letters that only one of the two families knows.
    if (!is_one_of(extra, *next))
        return false;
    if (*next == 'w')
        letters->wide = true;
    return taken(format, 1, letters, *next == 'Z' ? kLengthSize : kLengthNone);
}
