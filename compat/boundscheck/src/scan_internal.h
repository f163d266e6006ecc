// SPDX-License-Identifier: ISC
// Parts of the scanner. scan.c walks over the format and decides the result, scan_directive.c and
// scan_set.c parse directives, the other files convert.

#ifndef BOUNDSCHECK_SCAN_INTERNAL_H
#define BOUNDSCHECK_SCAN_INTERNAL_H

#include "directive.h"

#include <stddef.h>

// Why a step of the scan ended.
enum scan_status {
    kScanOn,    // done, the scan goes on
    kScanStop,  // the input does not match, or a buffer is too small
    kScanError, // a directive that is not supported, or a null pointer
};

struct scan_state {
    const char *input;
    const char *next;
    bool at_end;   // the most recent look at the input found no more bytes
    int stored;    // values assigned
    int completed; // conversions finished, the suppressed ones and %n among them
    struct arguments *arguments;
};

// The members of a %[ set, one bit for each byte value.
struct scan_set {
    unsigned char bits[32];
};

struct scan_directive {
    bool suppressed;
    bool has_width;
    int width;
    struct length_letters length;
    char conversion;
};

// The next byte of the input, or -1 at its end. Every look is remembered in at_end, which decides
// the result when the scan stops.
static inline int bc_look(struct scan_state *scan)
{
    scan->at_end = *scan->next == '\0';
    return scan->at_end ? -1 : (unsigned char)*scan->next;
}

static inline bool bc_is_blank(int c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

static inline void bc_skip_blanks(struct scan_state *scan)
{
    while (bc_is_blank(bc_look(scan)))
        scan->next++;
}

// How many bytes a conversion may take.
static inline size_t bc_width(const struct scan_directive *directive)
{
    return directive->has_width ? (size_t)directive->width : SIZE_MAX;
}

static inline bool bc_is_wide(const struct scan_directive *directive)
{
    enum length length = directive->length.strongest;
    if (directive->conversion == 'S' || directive->conversion == 'C')
        return length != kLengthShort && length != kLengthChar;
    return length == kLengthLong;
}

// Takes a directive, without its %, from *format; a set is left to bc_take_set(). The conversion
// is NUL if the format ends first. False: the width is beyond the accepted maximum.
bool bc_take_scan_directive(const char **format, struct scan_directive *directive);

// Takes a set, without its [, from *format. False: its ] is missing.
bool bc_take_set(const char **format, struct scan_set *set);

static inline bool bc_in_set(const struct scan_set *set, int c)
{
    return (set->bits[c >> 3] >> (c & 7) & 1) != 0;
}

enum scan_status bc_scan_integer(struct scan_state *scan, const struct scan_directive *directive);
enum scan_status bc_scan_float(struct scan_state *scan, const struct scan_directive *directive);

// Strings, characters and sets; a set is taken from *format.
enum scan_status bc_scan_text(struct scan_state *scan, const struct scan_directive *directive,
                              const char **format);

// %n: how many bytes of the input have been taken.
enum scan_status bc_scan_count(struct scan_state *scan, const struct scan_directive *directive);

// Makes the buffer of an unsuppressed text conversion the empty string, if it has one; used when
// nothing at all can be scanned.
void bc_empty_text(struct scan_state *scan, const struct scan_directive *directive,
                   const char **format);

#endif
