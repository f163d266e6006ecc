// SPDX-License-Identifier: ISC
// Integers and pointers.

#include "print_internal.h"

// A precision never produces more digits than this.
static const int kMaxDigits = 512;

enum { kOctalDigits = 22 }; // of the largest 64-bit value; every other base needs fewer

static intmax_t signed_argument(enum length length, struct arguments *arguments)
{
    switch (length) {
    case kLengthChar:
        return (signed char)va_arg(arguments->list, int);
    case kLengthShort:
        return (short)va_arg(arguments->list, int);
    case kLengthLong:
        return va_arg(arguments->list, long);
    case kLengthLlong:
        return va_arg(arguments->list, long long);
    case kLengthMax:
        return va_arg(arguments->list, intmax_t);
    case kLengthSize:
    case kLengthPtrdiff:
        return va_arg(arguments->list, ptrdiff_t);
    case kLengthNone:
        break;
    }
    return va_arg(arguments->list, int);
}

static uintmax_t unsigned_argument(enum length length, struct arguments *arguments)
{
    switch (length) {
    case kLengthChar:
        return (unsigned char)va_arg(arguments->list, unsigned int);
    case kLengthShort:
        return (unsigned short)va_arg(arguments->list, unsigned int);
    case kLengthLong:
        return va_arg(arguments->list, unsigned long);
    case kLengthLlong:
        return va_arg(arguments->list, unsigned long long);
    case kLengthMax:
        return va_arg(arguments->list, uintmax_t);
    case kLengthSize:
    case kLengthPtrdiff:
        return va_arg(arguments->list, size_t);
    case kLengthNone:
        break;
    }
    return va_arg(arguments->list, unsigned int);
}

// Writes the digits of value so that they end before end; returns the first. Zero has no digits.
static char *put_decimal(char *end, uintmax_t value)
{
    // 64-bit division is slow on the 32-bit target: use it only while needed.
    for (; value > UINT32_MAX; value /= 10)
        *--end = (char)('0' + value % 10);
    for (uint32_t rest = (uint32_t)value; rest != 0; rest /= 10)
        *--end = (char)('0' + rest % 10);
    return end;
}

static char *put_power_of_two(char *end, uintmax_t value, unsigned int bits, const char *digits)
{
    for (; value != 0; value >>= bits)
        *--end = digits[value & ((1u << bits) - 1)];
    return end;
}

// The parts of a number in print order; zeros are those that the precision asks for.
struct number {
    const char *prefix; // sign or base
    size_t prefix_length;
    size_t zeros;
    const char *digits;
    size_t digits_length;
};

static enum print_status put_number(struct print_sink *sink,
                                    const struct print_directive *directive,
                                    const struct number *number, bool zero_fill)
{
    size_t length = number->prefix_length + number->zeros + number->digits_length;
    size_t padding = bc_padding(directive, length);
    size_t zeros = number->zeros;
    size_t before = 0;
    if (!directive->left && zero_fill)
        zeros += padding;
    else if (!directive->left)
        before = padding;

    enum print_status status = bc_fill(sink, ' ', before);
    if (status == kPrintOk && number->prefix_length != 0)
        status = bc_put(sink, number->prefix, number->prefix_length);
    if (status == kPrintOk)
        status = bc_fill(sink, '0', zeros);
    if (status == kPrintOk)
        status = bc_put(sink, number->digits, number->digits_length);
    if (status == kPrintOk && directive->left)
        status = bc_fill(sink, ' ', padding);
    return status;
}

// Finishes a number that has its prefix and its digits: precision, then width.
static enum print_status put_digits(struct print_sink *sink,
                                    const struct print_directive *directive, struct number *number)
{
    int wanted = directive->precision < 0 ? 1 : directive->precision;
    size_t least = (size_t)(wanted < kMaxDigits ? wanted : kMaxDigits);
    if (directive->conversion == 'o' && directive->alternative && least <= number->digits_length)
        least = number->digits_length + 1; // an octal number that shows its base begins with 0
    if (least > number->digits_length)
        number->zeros = least - number->digits_length;
    return put_number(sink, directive, number, directive->zero && directive->precision < 0);
}

static void set_digits(struct number *number, const char *first, const char *end)
{
    number->digits = first;
    number->digits_length = (size_t)(end - first);
}

enum print_status bc_print_signed(struct print_sink *sink, const struct print_directive *directive,
                                  struct arguments *arguments)
{
    intmax_t value = signed_argument(directive->length.strongest, arguments);
    uintmax_t magnitude = value < 0 ? 0 - (uintmax_t)value : (uintmax_t)value;
    struct number number = {.prefix_length = 1};
    if (value < 0)
        number.prefix = "-";
    else if (directive->plus)
        number.prefix = "+";
    else if (directive->space)
        number.prefix = " ";
    else
        number.prefix_length = 0;

    char digits[kOctalDigits];
    char *end = digits + sizeof(digits);
    set_digits(&number, put_decimal(end, magnitude), end);
    return put_digits(sink, directive, &number);
}

enum print_status bc_print_unsigned(struct print_sink *sink,
                                    const struct print_directive *directive,
                                    struct arguments *arguments)
{
    uintmax_t value = unsigned_argument(directive->length.strongest, arguments);
    struct number number = {.prefix = directive->conversion == 'X' ? "0X" : "0x"};
    char digits[kOctalDigits];
    char *end = digits + sizeof(digits);
    char *first;

    switch (directive->conversion) {
    case 'x':
        first = put_power_of_two(end, value, 4, "0123456789abcdef");
        break;
    case 'X':
        first = put_power_of_two(end, value, 4, "0123456789ABCDEF");
        break;
    case 'o':
        first = put_power_of_two(end, value, 3, "01234567");
        break;
    default:
        first = put_decimal(end, value);
        break;
    }
    bool hexadecimal = directive->conversion == 'x' || directive->conversion == 'X';
    number.prefix_length = hexadecimal && directive->alternative && value != 0 ? 2 : 0;
    set_digits(&number, first, end);
    return put_digits(sink, directive, &number);
}

// Only width, - and 0 mean anything for a pointer, and 0 not for a null one.
enum print_status bc_print_pointer(struct print_sink *sink, const struct print_directive *directive,
                                   struct arguments *arguments)
{
    uintptr_t value = (uintptr_t)va_arg(arguments->list, void *);
    if (value == 0)
        return bc_put_padded(sink, directive, "(nil)", 5);

    char digits[kOctalDigits];
    char *end = digits + sizeof(digits);
    char *first = put_power_of_two(end, value, 4, "0123456789abcdef");
    struct number number = {"0x", 2, 0, first, (size_t)(end - first)};
    return put_number(sink, directive, &number, directive->zero);
}
