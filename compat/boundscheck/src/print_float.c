// SPDX-License-Identifier: ISC
// Floating point, which the C library converts: one directive at a time, built from the parts that
// were accepted.

#include "print_internal.h"

#include <errno.h>
#include <stdio.h>

// Above these precisions the directive prints nothing and leaves its argument in the list.
static const int kDroppedDouble = 214748011;
static const int kDroppedLongDouble = 214743388;

// A precision beyond all digits that a value can have only adds zeros, and the integer part of the
// largest long double is shorter than kMaxInteger.
enum { kExactDigits = 16500, kMaxInteger = 5000 };

struct float_call {
    char format[12];
    int width;
    int precision;
    bool is_long;
    double value;
    long double long_value;
};

static void build_format(char *format, const struct print_directive *directive)
{
    *format++ = '%';
    if (directive->left)
        *format++ = '-';
    if (directive->plus)
        *format++ = '+';
    if (directive->space)
        *format++ = ' ';
    if (directive->alternative)
        *format++ = '#';
    if (directive->zero)
        *format++ = '0';
    *format++ = '*';
    *format++ = '.';
    *format++ = '*';
    if (directive->length.long_double)
        *format++ = 'L';
    *format++ = directive->conversion;
    *format = '\0';
}

static int smaller(int value, uint64_t limit)
{
    return value > 0 && (uint64_t)value > limit ? (int)limit : value;
}

// The C library would produce (and allocate) every digit and blank asked for. Text beyond the room
// left is never seen, so less is asked for: still too much to fit, and with the same bytes up to
// the end of the destination.
static void limit_sizes(struct float_call *call, const struct print_directive *directive,
                        size_t room)
{
    uint64_t precision = room + (uint64_t)kExactDigits;
    uint64_t width = room + precision + kMaxInteger;
    call->precision = smaller(directive->precision, precision);
    call->width = smaller(directive->width, width);
}

static int convert(const struct float_call *call, char *to, size_t size)
{
    int kept = errno;
    int length =
        call->is_long
            ? snprintf(to, size, call->format, call->width, call->precision, call->long_value)
            : snprintf(to, size, call->format, call->width, call->precision, call->value);
    errno = kept;
    return length;
}

enum print_status bc_print_float(struct print_sink *sink, const struct print_directive *directive,
                                 struct arguments *arguments)
{
    struct float_call call = {.is_long = directive->length.long_double};
    if (directive->precision > (call.is_long ? kDroppedLongDouble : kDroppedDouble))
        return kPrintOk;
    if (call.is_long)
        call.long_value = va_arg(arguments->list, long double);
    else
        call.value = va_arg(arguments->list, double);
    build_format(call.format, directive);
    limit_sizes(&call, directive, bc_room(sink));

    // Convert into a local buffer first: the C library adds a NUL, and the byte after the text must
    // keep its value.
    char text[128];
    int length = convert(&call, text, sizeof(text));
    if (length < 0)
        return kPrintRefused;
    if ((size_t)length < sizeof(text))
        return bc_put(sink, text, (size_t)length);

    size_t room = bc_room(sink);
    size_t written = (size_t)length < room ? (size_t)length : room;
    char after = sink->next[written];
    if (convert(&call, sink->next, room + 1) < 0)
        return kPrintRefused;
    sink->next[written] = after;
    sink->next += written;
    return written == (size_t)length ? kPrintOk : kPrintFull;
}
