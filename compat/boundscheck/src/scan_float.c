// SPDX-License-Identifier: ISC
// Floating point. The end of the number is found here, by stricter rules than the C library's (no
// infinity, no hexadecimal); the C library converts it.

#include "scan_internal.h"

#include <stdlib.h>
#include <string.h>

struct float_text {
    const char *start;
    size_t length;
    size_t width; // bytes that may still be taken
};

// Takes the next byte if it is one of those given.
static bool take_one(struct scan_state *scan, struct float_text *text, char first, char second)
{
    if (text->width == 0)
        return false;
    int c = bc_look(scan);
    if (c != first && c != second)
        return false;
    scan->next++;
    text->width--;
    return true;
}

static bool take_digits(struct scan_state *scan, struct float_text *text)
{
    bool found = false;
    for (; text->width != 0; text->width--) {
        int c = bc_look(scan);
        if (c < '0' || c > '9')
            break;
        found = true;
        scan->next++;
    }
    return found;
}

// False: no digit. An exponent may have no digits: "1e+" is taken as a whole and means 1.
static bool take_text(struct scan_state *scan, struct float_text *text)
{
    text->start = scan->next;
    take_one(scan, text, '+', '-');
    bool found = take_digits(scan, text);
    if (take_one(scan, text, '.', '.'))
        found = take_digits(scan, text) || found;
    if (!found)
        return false;
    if (take_one(scan, text, 'e', 'E')) {
        take_one(scan, text, '+', '-');
        take_digits(scan, text);
    }
    text->length = (size_t)(scan->next - text->start);
    return true;
}

static void store(void *to, enum length length, const char *text)
{
    if (length == kLengthNone || length == kLengthShort || length == kLengthChar) {
        float value = (float)strtod(text, NULL);
        memcpy(to, &value, sizeof(value));
    } else if (length == kLengthLong) {
        double value = strtod(text, NULL);
        memcpy(to, &value, sizeof(value));
    } else {
        long double value = strtold(text, NULL);
        memcpy(to, &value, sizeof(value));
    }
}

// The C library could read on after the end of the number (after a width, or in "0x10"), so it gets
// a copy. Numbers longer than the buffer are rare and go through the heap.
static bool convert(void *to, enum length length, const struct float_text *text)
{
    char buffer[128];
    char *copy = text->length < sizeof(buffer) ? buffer : malloc(text->length + 1);
    if (copy == NULL)
        return false;
    memcpy(copy, text->start, text->length);
    copy[text->length] = '\0';
    store(to, length, copy);
    if (copy != buffer)
        free(copy);
    return true;
}

enum scan_status bc_scan_float(struct scan_state *scan, const struct scan_directive *directive)
{
    struct float_text text = {.width = bc_width(directive)};
    if (!take_text(scan, &text))
        return kScanStop;

    if (!directive->suppressed) {
        void *to = va_arg(scan->arguments->list, void *);
        if (to == NULL || !convert(to, directive->length.strongest, &text))
            return kScanError;
        scan->stored++;
    }
    scan->completed++;
    return kScanOn;
}
