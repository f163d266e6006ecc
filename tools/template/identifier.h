/* Names of parameters and families as identifiers of C and C++. */
#ifndef TOOLS_TEMPLATE_IDENTIFIER_H
#define TOOLS_TEMPLATE_IDENTIFIER_H

#include <stddef.h>

/* Turns a name into an identifier: other characters become '_', a leading digit or '_' gets a
 * letter in front, words that C, C++ or a compiler's predefined macros claim get a '_' behind. A
 * copy for the caller to free; NULL when memory is short. */
char *identifier_make(const char *name, size_t length);

/* Makes the last of `count` identifiers differ from the others, with a number behind it. */
char *identifier_distinguish(char *const *identifiers, size_t count);

#endif
