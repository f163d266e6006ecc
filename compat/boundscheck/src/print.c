// SPDX-License-Identifier: ISC
// vsprintf_s, vsnprintf_s and their relatives with arguments in the call.
//
// All but floating point is printed here. Unlike the C library, this refuses directives instead of
// guessing and prints null pointers the same way everywhere; a debug message costs no more than
// with the C library.

#include "securec.h"

#include "print_internal.h"

static enum print_status print_directive(struct print_sink *sink, const char **format,
                                         struct arguments *arguments)
{
    struct print_directive directive;
    if (!bc_take_print_directive(format, &directive, arguments))
        return kPrintRefused;

    switch (directive.conversion) {
    case 'd':
    case 'i':
        return bc_print_signed(sink, &directive, arguments);
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        return bc_print_unsigned(sink, &directive, arguments);
    case 's':
    case 'S':
        return bc_print_string(sink, &directive, arguments);
    case 'c':
    case 'C':
        return bc_print_character(sink, &directive, arguments);
    case 'p':
        return bc_print_pointer(sink, &directive, arguments);
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
        return bc_print_float(sink, &directive, arguments);
    case 'I': // not followed by an integer conversion: plain text
        return bc_put(sink, "I", 1);
    default:
        return kPrintRefused;
    }
}

// Length of the plain text before the next directive. It is usually a few characters, for which
// strcspn() would take longer to set up its table.
static size_t plain_length(const char *format)
{
    size_t length = 0;
    while (format[length] != '\0' && format[length] != '%')
        length++;
    return length;
}

// Prints the whole format from left to right; the first failure ends it.
static enum print_status print_all(struct print_sink *sink, const char *format,
                                   struct arguments *arguments)
{
    enum print_status status = kPrintOk;
    while (*format != '\0' && status == kPrintOk) {
        if (*format != '%') {
            size_t length = plain_length(format);
            status = bc_put(sink, format, length);
            format += length;
        } else if (format[1] == '%') {
            status = bc_put(sink, "%", 1);
            format += 2;
        } else {
            format++;
            status = print_directive(sink, &format, arguments);
        }
    }
    return status;
}

static int emptied(char *dest)
{
    dest[0] = '\0';
    return -1;
}

static bool is_destination(const char *dest, size_t size)
{
    return dest != NULL && size != 0 && size <= SECUREC_STRING_MAX_LEN;
}

// Prints into size bytes; keep tells whether a text that is cut short stays.
static int print_to(char *dest, size_t size, bool keep, const char *format, va_list list)
{
    struct print_sink sink = {dest, dest + size - 1};
    struct arguments arguments;
    va_copy(arguments.list, list);
    enum print_status status = print_all(&sink, format, &arguments);
    va_end(arguments.list);

    if (status == kPrintRefused)
        return emptied(dest);
    *sink.next = '\0';
    if (status == kPrintOk)
        return (int)(sink.next - dest);
    return keep ? -1 : emptied(dest);
}

int vsprintf_s(char *strDest, size_t destMax, const char *format, va_list argList)
{
    if (!is_destination(strDest, destMax))
        return -1;
    if (format == NULL)
        return emptied(strDest);
    return print_to(strDest, destMax, false, format, argList);
}

int sprintf_s(char *strDest, size_t destMax, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    int length = vsprintf_s(strDest, destMax, format, list);
    va_end(list);
    return length;
}

int vsnprintf_s(char *strDest, size_t destMax, size_t count, const char *format, va_list argList)
{
    if (!is_destination(strDest, destMax))
        return -1;
    if (format == NULL || count > SECUREC_STRING_MAX_LEN - 1)
        return emptied(strDest);
    if (count < destMax)
        return print_to(strDest, count + 1, true, format, argList);
    return print_to(strDest, destMax, false, format, argList);
}

int snprintf_s(char *strDest, size_t destMax, size_t count, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    int length = vsnprintf_s(strDest, destMax, count, format, list);
    va_end(list);
    return length;
}
