// SPDX-License-Identifier: ISC
// Parses a print directive: flags, width, precision, length letters, conversion.

#include "print_internal.h"

// The largest width or precision that may come from an argument.
static const int kMaxStar = 214748360;

static bool take_flag(const char **format, struct print_directive *directive)
{
    switch (**format) {
    case '-':
        directive->left = true;
        break;
    case '+':
        directive->plus = true;
        break;
    case ' ':
        directive->space = true;
        break;
    case '#':
        directive->alternative = true;
        break;
    case '0':
        directive->zero = true;
        break;
    default:
        return false;
    }
    (*format)++;
    return true;
}

static bool take_star_width(const char **format, struct print_directive *directive,
                            struct arguments *arguments)
{
    (*format)++;
    int width = va_arg(arguments->list, int);
    if (width < -kMaxStar || width > kMaxStar)
        return false;
    directive->left = directive->left || width < 0;
    directive->width = width < 0 ? -width : width;
    return true;
}

// Flags and width. Services also write flags after the width; a width after those replaces the
// first. Two widths in a row (digits and a star) are refused.
static bool take_flags_and_width(const char **format, struct print_directive *directive,
                                 struct arguments *arguments)
{
    bool after_width = false;
    for (;;) {
        if (take_flag(format, directive)) {
            after_width = false;
            continue;
        }
        bool star = **format == '*';
        if (!star && !bc_is_digit(**format))
            return true;
        if (after_width)
            return false;
        after_width = true;
        if (star ? !take_star_width(format, directive, arguments)
                 : !bc_take_number(format, &directive->width))
            return false;
    }
}

// Digits, nothing (which means 0) or a star; a negative star argument means no precision.
static bool take_precision(const char **format, struct print_directive *directive,
                           struct arguments *arguments)
{
    if (**format != '.')
        return true;
    (*format)++;
    if (**format != '*')
        return bc_take_number(format, &directive->precision);

    (*format)++;
    directive->precision = va_arg(arguments->list, int);
    return directive->precision <= kMaxStar;
}

bool bc_take_print_directive(const char **format, struct print_directive *directive,
                             struct arguments *arguments)
{
    *directive = (struct print_directive){.precision = -1};
    // In ASCII, flags, digits, star and dot all come before the letters. Most directives have none.
    if (**format < 'A') {
        if (!take_flags_and_width(format, directive, arguments))
            return false;
        if (!take_precision(format, directive, arguments))
            return false;
    }
    while (bc_take_length(format, "ZNw", &directive->length))
        continue;
    directive->conversion = **format;
    if (directive->conversion == '\0')
        return false;
    (*format)++;
    return true;
}
