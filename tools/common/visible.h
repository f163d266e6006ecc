// Text from elsewhere on its way to a terminal.
#ifndef TOOLS_COMMON_VISIBLE_H
#define TOOLS_COMMON_VISIBLE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace tools {

// Prints a text so that it stays on its line and cannot control the terminal. Control characters,
// backslashes, bytes that are not UTF-8, separators of lines and paragraphs, and marks that change
// the direction of text appear as escapes, as in C.
void print_visible(FILE *to, const uint8_t *text, size_t length);
void print_visible(FILE *to, const char *text);

} // namespace tools

#endif
