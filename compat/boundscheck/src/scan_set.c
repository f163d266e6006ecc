// SPDX-License-Identifier: ISC
// The sets of %[: members, ranges and negation.

#include "scan_internal.h"

#include <string.h>

static void add_range(struct scan_set *set, unsigned char first, unsigned char last)
{
    for (unsigned int c = first; c <= last; c++)
        set->bits[c >> 3] = (unsigned char)(set->bits[c >> 3] | 1u << (c & 7));
}

static void negate(struct scan_set *set)
{
    for (size_t i = 0; i < sizeof(set->bits); i++)
        set->bits[i] = (unsigned char)~set->bits[i];
}

bool bc_take_set(const char **format, struct scan_set *set)
{
    const unsigned char *next = (const unsigned char *)*format;
    memset(set, 0, sizeof(*set));
    bool negated = *next == '^';
    if (negated)
        next++;

    // The byte that a dash would make the start of a range; 0 where a dash is a plain member: at
    // the front and right after a complete range. The NUL of an unfinished set is below every
    // start, so it never ends a range.
    unsigned char start = 0;
    for (bool first = true; first || *next != ']'; first = false) {
        if (*next == '\0')
            return false;
        bool range = *next == '-' && start != 0 && start <= next[1] && next[1] != ']';
        if (range) {
            add_range(set, start, next[1]);
            start = 0;
            next += 2;
        } else {
            // A range written backwards also ends up here, as its two ends and the dash.
            add_range(set, *next, *next);
            start = *next;
            next++;
        }
    }

    if (negated)
        negate(set);
    *format = (const char *)next + 1;
    return true;
}
