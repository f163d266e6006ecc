// SPDX-License-Identifier: ISC
// Characters and strings, narrow and wide.

#include "print_internal.h"

#include <errno.h>
#include <limits.h>
#include <wchar.h>

static const char kNullText[] = "(null)";

// S and C are wide unless h makes them narrow; s and c are narrow unless l makes them wide.
static bool is_wide(const struct print_directive *directive)
{
    enum length length = directive->length.strongest;
    if (directive->conversion == 'S' || directive->conversion == 'C')
        return length != kLengthShort && length != kLengthChar;
    return length == kLengthLong || directive->length.wide;
}

enum print_status bc_put_padded(struct print_sink *sink, const struct print_directive *directive,
                                const char *text, size_t length)
{
    size_t padding = bc_padding(directive, length);
    enum print_status status = kPrintOk;
    if (!directive->left)
        status = bc_fill(sink, ' ', padding);
    if (status == kPrintOk)
        status = bc_put(sink, text, length);
    if (status == kPrintOk && directive->left)
        status = bc_fill(sink, ' ', padding);
    return status;
}

// How many characters of a string matter. Those beyond both the room left and the width change
// neither text nor padding, so a huge string costs no more than the size of the destination.
static size_t length_limit(const struct print_sink *sink, const struct print_directive *directive)
{
    size_t limit = bc_room(sink) + 1;
    if ((size_t)directive->width > limit)
        limit = (size_t)directive->width;
    if (directive->precision >= 0 && (size_t)directive->precision < limit)
        limit = (size_t)directive->precision;
    return limit;
}

static enum print_status put_wide_character(struct print_sink *sink, wchar_t c, mbstate_t *state)
{
    char bytes[MB_LEN_MAX];
    int kept = errno;
    size_t length = wcrtomb(bytes, c, state);
    errno = kept;
    if (length == (size_t)-1)
        return kPrintRefused;
    return bc_put(sink, bytes, length);
}

// Width and precision count wide characters, whatever number of bytes they are printed as.
static enum print_status put_wide(struct print_sink *sink, const struct print_directive *directive,
                                  const wchar_t *text, size_t length)
{
    size_t padding = bc_padding(directive, length);
    enum print_status status = kPrintOk;
    if (!directive->left)
        status = bc_fill(sink, ' ', padding);

    mbstate_t state;
    memset(&state, 0, sizeof(state));
    for (size_t i = 0; i < length && status == kPrintOk; i++)
        status = put_wide_character(sink, text[i], &state);
    if (status == kPrintOk && directive->left)
        status = bc_fill(sink, ' ', padding);
    return status;
}

enum print_status bc_print_character(struct print_sink *sink,
                                     const struct print_directive *directive,
                                     struct arguments *arguments)
{
    if (is_wide(directive)) {
        wchar_t wide = (wchar_t)va_arg(arguments->list, wint_t);
        return put_wide(sink, directive, &wide, 1);
    }
    char narrow = (char)va_arg(arguments->list, int);
    return bc_put_padded(sink, directive, &narrow, 1);
}

enum print_status bc_print_string(struct print_sink *sink, const struct print_directive *directive,
                                  struct arguments *arguments)
{
    const void *argument = va_arg(arguments->list, const void *);
    size_t limit = length_limit(sink, directive);
    if (argument != NULL && is_wide(directive))
        return put_wide(sink, directive, argument, wcsnlen(argument, limit));

    const char *text = argument == NULL ? kNullText : argument;
    return bc_put_padded(sink, directive, text, strnlen(text, limit));
}
