// SPDX-License-Identifier: ISC
// Printing text from elsewhere on a terminal.
#ifndef TOOLS_COMMON_VISIBLE_H
#define TOOLS_COMMON_VISIBLE_H

#include "os/span.h"

#include <cstdio>

namespace tools {

// Prints a text so that it stays on its line and cannot control the terminal. Control characters,
// backslashes, bytes that are not UTF-8, separators of lines and paragraphs, and marks that change
// the direction of text appear as escapes, as in C.
void print_visible(FILE *to, bv::Bytes text);
void print_visible(FILE *to, const char *text);

// The same for JSON that json-c has written. It escapes as JSON does, and bytes that are not UTF-8
// appear as U+FFFD.
void print_visible_json(FILE *to, const char *json);

} // namespace tools

#endif
