// SPDX-License-Identifier: ISC
// What print and scan formats share: numbers, length letters, argument lists.

#ifndef BOUNDSCHECK_DIRECTIVE_H
#define BOUNDSCHECK_DIRECTIVE_H

#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>

// A va_list that can be handed on by pointer; as a plain parameter it is an array on some machines
// and a pointer on others.
struct arguments {
    va_list list;
};

// Length letters, weakest first: of several, the strongest counts.
enum length {
    kLengthNone,
    kLengthMax,     // j
    kLengthSize,    // z, and Z in print formats
    kLengthPtrdiff, // t
    kLengthShort,   // h
    kLengthChar,    // hh
    kLengthLong,    // l, and I before an integer
    kLengthLlong,   // ll L q I64
};

struct length_letters {
    enum length strongest;
    bool long_double; // L or q was among them
    bool wide;        // w was among them; print formats only
};

// Takes one length letter, or a group such as ll or I64, from *format. False leaves *format where
// it is: no length letter comes next.
bool bc_take_length(const char **format, const char *extra, struct length_letters *letters);

// Takes a decimal number, possibly of no digits. False: larger than any width or precision may be.
bool bc_take_number(const char **format, int *value);

static inline bool bc_is_digit(char c)
{
    return c >= '0' && c <= '9';
}

#endif
