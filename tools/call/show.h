// What comes back from a call, shown to the caller.
#ifndef TOOLS_CALL_SHOW_H
#define TOOLS_CALL_SHOW_H

#include "tools/call/bytes.h"

namespace tools {

enum class Form { Default, Hex, Text, Parameters, Nothing };

struct Showing {
    Form form;
    const char *write; // file that takes the bytes as they are, or null
};

// Prints on standard error what the function returned, with the name of the library's code of that
// number.
void show_result(uint32_t result, const Bytes &bytes);

// Prints and writes the bytes; a family's image in them begins at `offset`. False after it said
// what failed.
bool show_bytes(const Showing &showing, const Bytes &bytes, size_t offset);

} // namespace tools

#endif
