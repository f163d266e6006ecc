// SPDX-License-Identifier: ISC
// Parts of the printer. print.c walks over the format, print_directive.c parses a directive, the
// other files produce its text.

#ifndef BOUNDSCHECK_PRINT_INTERNAL_H
#define BOUNDSCHECK_PRINT_INTERNAL_H

#include "directive.h"

#include <stddef.h>
#include <string.h>

enum print_status {
    kPrintOk,
    kPrintFull,    // the text does not fit; the destination is filled up to the last place
    kPrintRefused, // a directive that is not supported, or a character that cannot be encoded
};

// The destination: text goes to next, and last is the place kept for the final NUL.
struct print_sink {
    char *next;
    char *last;
};

struct print_directive {
    bool left;
    bool plus;
    bool space;
    bool alternative;
    bool zero;
    int width;
    int precision; // negative: none given
    struct length_letters length;
    char conversion;
};

static inline size_t bc_room(const struct print_sink *sink)
{
    return (size_t)(sink->last - sink->next);
}

static inline enum print_status bc_put(struct print_sink *sink, const char *text, size_t length)
{
    size_t room = bc_room(sink);
    size_t copied = length < room ? length : room;
    memcpy(sink->next, text, copied);
    sink->next += copied;
    return copied == length ? kPrintOk : kPrintFull;
}

static inline enum print_status bc_fill(struct print_sink *sink, char c, size_t length)
{
    if (length == 0) // the common case: no width
        return kPrintOk;
    size_t room = bc_room(sink);
    size_t written = length < room ? length : room;
    memset(sink->next, c, written);
    sink->next += written;
    return written == length ? kPrintOk : kPrintFull;
}

// How many blanks bring a text of length characters to the directive's width.
static inline size_t bc_padding(const struct print_directive *directive, size_t length)
{
    size_t width = (size_t)directive->width;
    return width > length ? width - length : 0;
}

// Takes a directive, without its %, from *format; star arguments are read from the list. False:
// malformed, or a number beyond the accepted maximum.
bool bc_take_print_directive(const char **format, struct print_directive *directive,
                             struct arguments *arguments);

// Prints text between blanks up to the directive's width.
enum print_status bc_put_padded(struct print_sink *sink, const struct print_directive *directive,
                                const char *text, size_t length);

enum print_status bc_print_signed(struct print_sink *sink, const struct print_directive *directive,
                                  struct arguments *arguments);
enum print_status bc_print_unsigned(struct print_sink *sink,
                                    const struct print_directive *directive,
                                    struct arguments *arguments);
enum print_status bc_print_pointer(struct print_sink *sink, const struct print_directive *directive,
                                   struct arguments *arguments);
enum print_status bc_print_float(struct print_sink *sink, const struct print_directive *directive,
                                 struct arguments *arguments);
enum print_status bc_print_character(struct print_sink *sink,
                                     const struct print_directive *directive,
                                     struct arguments *arguments);
enum print_status bc_print_string(struct print_sink *sink, const struct print_directive *directive,
                                  struct arguments *arguments);

#endif
