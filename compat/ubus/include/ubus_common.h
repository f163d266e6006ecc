/* SPDX-License-Identifier: ISC */
/**
 * Small things that both ends of the message bus share.
 */
#ifndef UBUS_COMMON_H
#define UBUS_COMMON_H

#include <stdbool.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Marker of a method in an old signature format; kept for sources that still name it. */
#define UBUS_SIGNATURE_METHOD 9
/** End marker of the same format. */
#define UBUS_SIGNATURE_END 10

/**
 * Tells whether a name fits a pattern. A final `*` stands for any rest, also an empty one;
 * anywhere else it is an ordinary character.
 */
static inline bool ubus_pattern_matches(const char *pattern, const char *name)
{
    size_t length = strlen(pattern);
    if (length > 0 && pattern[length - 1] == '*')
        return strncmp(pattern, name, length - 1) == 0;
    return strcmp(pattern, name) == 0;
}

#ifdef __cplusplus
}
#endif

#endif
