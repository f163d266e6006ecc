// SPDX-License-Identifier: ISC
// Strings, characters and sets. Each buffer comes with a capacity; a text that does not fit empties
// it and ends the scan.

#include "scan_internal.h"

#include <errno.h>
#include <string.h>
#include <wchar.h>

#include "securec.h"

// Where the text goes: narrow, wide or, for a suppressed conversion, nowhere.
struct text_buffer {
    char *narrow;
    wchar_t *wide;
    size_t capacity; // elements, without the place for the NUL where there is one
    size_t used;
    mbstate_t state; // of a wide character whose bytes have come only in part
};

static bool is_suppressed(const struct text_buffer *buffer)
{
    return buffer->narrow == NULL && buffer->wide == NULL;
}

static void terminate(struct text_buffer *buffer, size_t at)
{
    if (buffer->wide != NULL)
        buffer->wide[at] = L'\0';
    else if (buffer->narrow != NULL)
        buffer->narrow[at] = '\0';
}

// The capacity of a buffer follows its pointer. Services pass it as int or as size_t; on 64-bit
// machines the upper half of an int argument is undefined and must not count.
static size_t take_size(struct arguments *arguments)
{
    size_t size = va_arg(arguments->list, size_t);
    if (sizeof(size) > sizeof(uint32_t))
        size = (uint32_t)size;
    return size;
}

// Takes pointer and size of an unsuppressed conversion. The capacity is still the whole one.
static void take_arguments(struct scan_state *scan, const struct scan_directive *directive,
                           struct text_buffer *buffer)
{
    void *to = va_arg(scan->arguments->list, void *);
    if (bc_is_wide(directive))
        buffer->wide = to;
    else
        buffer->narrow = to;
    buffer->capacity = take_size(scan->arguments);
}

static enum scan_status check_arguments(const struct scan_directive *directive,
                                        const struct text_buffer *buffer)
{
    if (is_suppressed(buffer))
        return kScanError;
    size_t limit = bc_is_wide(directive) ? SECUREC_WCHAR_STRING_MAX_LEN : SECUREC_STRING_MAX_LEN;
    return buffer->capacity != 0 && buffer->capacity <= limit ? kScanOn : kScanStop;
}

static bool put_wide(struct text_buffer *buffer, char byte)
{
    wchar_t character = L'\0';
    int kept = errno;
    size_t result = mbrtowc(&character, &byte, 1, &buffer->state);
    errno = kept;
    if (result == (size_t)-2)
        return true;
    if (result == (size_t)-1 || buffer->used == buffer->capacity)
        return false;
    buffer->wide[buffer->used++] = character;
    return true;
}

// Adds one byte. Returns false when the buffer is full, or when the byte is not valid in the
// locale.
static bool put(struct text_buffer *buffer, char byte)
{
    if (is_suppressed(buffer))
        return true;
    if (buffer->wide != NULL)
        return put_wide(buffer, byte);
    if (buffer->used == buffer->capacity)
        return false;
    buffer->narrow[buffer->used++] = byte;
    return true;
}

// Which bytes a conversion accepts: those of a set, any at all, or all but blanks.
struct acceptance {
    const struct scan_set *set;
    bool blanks;
};

static bool accepts(const struct acceptance *acceptance, int c)
{
    if (c < 0)
        return false;
    if (acceptance->set != NULL)
        return bc_in_set(acceptance->set, c);
    return acceptance->blanks || !bc_is_blank(c);
}

static enum scan_status take_text(struct scan_state *scan, size_t width,
                                  const struct acceptance *acceptance, struct text_buffer *buffer)
{
    const char *start = scan->next;
    for (; width != 0 && accepts(acceptance, bc_look(scan)); width--) {
        if (!put(buffer, *scan->next)) {
            terminate(buffer, 0);
            return kScanStop;
        }
        scan->next++;
    }
    return scan->next == start ? kScanStop : kScanOn;
}

enum scan_status bc_scan_text(struct scan_state *scan, const struct scan_directive *directive,
                              const char **format)
{
    bool is_set = directive->conversion == '[';
    bool is_character = directive->conversion == 'c' || directive->conversion == 'C';
    struct text_buffer buffer;
    memset(&buffer, 0, sizeof(buffer));
    if (!directive->suppressed) {
        take_arguments(scan, directive, &buffer);
        enum scan_status status = check_arguments(directive, &buffer);
        if (status != kScanOn)
            return status;
    }

    struct scan_set set;
    if (is_set && !bc_take_set(format, &set)) {
        terminate(&buffer, 0);
        return kScanStop;
    }

    if (!is_character && !directive->suppressed)
        buffer.capacity--; // the NUL's place
    size_t width = is_character && !directive->has_width ? 1 : bc_width(directive);
    struct acceptance acceptance = {.set = is_set ? &set : NULL, .blanks = is_character};
    enum scan_status status = take_text(scan, width, &acceptance, &buffer);
    if (status != kScanOn)
        return status;

    if (!is_character)
        terminate(&buffer, buffer.used);
    if (!directive->suppressed)
        scan->stored++;
    scan->completed++;
    return kScanOn;
}

void bc_empty_text(struct scan_state *scan, const struct scan_directive *directive,
                   const char **format)
{
    struct scan_set set;
    if (directive->suppressed)
        return;
    if (directive->conversion == '[' && !bc_take_set(format, &set))
        return;

    struct text_buffer buffer;
    memset(&buffer, 0, sizeof(buffer));
    take_arguments(scan, directive, &buffer);
    if (buffer.capacity != 0)
        terminate(&buffer, 0);
}
