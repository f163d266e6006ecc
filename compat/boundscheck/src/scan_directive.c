// SPDX-License-Identifier: ISC
// Parses a scan directive. Suppression, width and length letters may come in any order.

#include "scan_internal.h"

bool bc_take_scan_directive(const char **format, struct scan_directive *directive)
{
    *directive = (struct scan_directive){0};
    for (;;) {
        if (**format == '*') {
            directive->suppressed = true;
            (*format)++;
        } else if (bc_is_digit(**format)) {
            directive->has_width = true;
            if (!bc_take_number(format, &directive->width))
                return false;
        } else if (!bc_take_length(format, "FN", &directive->length)) {
            break;
        }
    }
    directive->conversion = **format;
    if (directive->conversion != '\0')
        (*format)++;
    return true;
}
