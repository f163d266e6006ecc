// Names of parameters and families as identifiers of C and C++.
#ifndef TOOLS_TEMPLATE_IDENTIFIER_H
#define TOOLS_TEMPLATE_IDENTIFIER_H

#include <cstddef>

namespace tools {

// Turns a name into an identifier. Other characters become '_', a leading digit or '_' gets a
// letter before it, and words that C, C++ or predefined macros claim get a '_' after them. The
// caller frees it; null when memory is short.
char *make_identifier(const char *name, size_t length);

// Makes the last of `count` identifiers differ from the others by adding a number. The identifier
// to use in its place; null when memory is short.
char *distinguish_last(char *const *identifiers, size_t count);

} // namespace tools

#endif
