/* Text from elsewhere on its way to a terminal. */
#ifndef TOOLS_COMMON_VISIBLE_H
#define TOOLS_COMMON_VISIBLE_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/* Prints a text so that it stays on its line and cannot steer the terminal: control characters,
 * backslashes, bytes that are not UTF-8, separators of lines and paragraphs and marks that turn its
 * direction appear as escapes, as in C. */
void print_visible(FILE *to, const uint8_t *text, size_t length);

#endif
