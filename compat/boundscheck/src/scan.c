// SPDX-License-Identifier: ISC
// vsscanf_s and sscanf_s: the walk over the format and the result.

#include "securec.h"

#include "scan_internal.h"

static bool is_text_conversion(char conversion)
{
    return conversion != '\0' && strchr("sSc[C", conversion) != NULL;
}

// %%, and any letter that is not a conversion, matches itself after blanks. If it does not match,
// that is an error and not an ordinary mismatch.
static enum scan_status scan_itself(struct scan_state *scan, char wanted)
{
    bc_skip_blanks(scan);
    if (bc_look(scan) != (unsigned char)wanted)
        return kScanError;
    scan->next++;
    return kScanOn;
}

static enum scan_status convert(struct scan_state *scan, const struct scan_directive *directive,
                                const char **format)
{
    if (is_text_conversion(directive->conversion))
        return bc_scan_text(scan, directive, format);
    if (strchr("efg", directive->conversion) != NULL)
        return bc_scan_float(scan, directive);
    return bc_scan_integer(scan, directive);
}

// The conversion of a letter; NUL if it has none. Some capitals mean the same as the small letter.
static char conversion_of(char letter)
{
    static const char kLetters[] = "diouxpefgnsc[SCDOUXEG";
    static const char kMeanings[] = "diouxpefgnsc[SCdouxeg";
    const char *found = letter == '\0' ? NULL : strchr(kLetters, letter);
    return found == NULL ? '\0' : kMeanings[found - kLetters];
}

static enum scan_status scan_directive(struct scan_state *scan, const char **format)
{
    struct scan_directive directive;
    if (!bc_take_scan_directive(format, &directive))
        return kScanError;

    char letter = directive.conversion;
    directive.conversion = conversion_of(letter);
    if (directive.conversion == '\0')
        return scan_itself(scan, letter);
    if (directive.conversion == 'n')
        return bc_scan_count(scan, &directive);

    if (directive.conversion != 'c' && directive.conversion != 'C' && directive.conversion != '[')
        bc_skip_blanks(scan);
    if (bc_look(scan) < 0)
        return kScanStop;
    if (directive.has_width && directive.width == 0)
        return kScanStop;
    return convert(scan, &directive, format);
}

static enum scan_status scan_all(struct scan_state *scan, const char *format)
{
    enum scan_status status = kScanOn;
    while (*format != '\0' && status == kScanOn) {
        if (bc_is_blank(*format)) {
            bc_skip_blanks(scan);
            format++;
        } else if (*format == '%') {
            format++;
            status = scan_directive(scan, &format);
        } else if (bc_look(scan) == (unsigned char)*format) {
            scan->next++;
            format++;
        } else {
            status = kScanStop;
        }
    }
    return status;
}

static int result_of(const struct scan_state *scan, enum scan_status status)
{
    if (scan->at_end)
        return scan->stored > 0 || scan->completed > 0 ? scan->stored : -1;
    return status == kScanError ? -1 : scan->stored;
}

// An empty or overlong input converts nothing. Services read the buffer of a first text conversion
// without checking the result, so it becomes the empty string.
static void empty_first_text(struct scan_state *scan, const char *format)
{
    struct scan_directive directive;
    format = strchr(format, '%');
    if (format == NULL)
        return;
    format++;
    if (bc_take_scan_directive(&format, &directive) && is_text_conversion(directive.conversion))
        bc_empty_text(scan, &directive, &format);
}

int vsscanf_s(const char *buffer, const char *format, va_list argList)
{
    if (buffer == NULL || format == NULL)
        return -1;

    struct arguments arguments;
    va_copy(arguments.list, argList);
    struct scan_state scan = {.input = buffer, .next = buffer, .arguments = &arguments};
    int result = -1;
    if (*buffer == '\0' || strlen(buffer) > SECUREC_STRING_MAX_LEN)
        empty_first_text(&scan, format);
    else
        result = result_of(&scan, scan_all(&scan, format));
    va_end(arguments.list);
    return result;
}

int sscanf_s(const char *buffer, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    int result = vsscanf_s(buffer, format, list);
    va_end(list);
    return result;
}
