// SPDX-License-Identifier: ISC
// The bytes of a call: put together from the command line, and shown.
#ifndef TOOLS_CALL_BUFFER_H
#define TOOLS_CALL_BUFFER_H

#include "os/span.h"

#include <cstddef>
#include <cstdio>

namespace tools {

// The bus carries messages of up to 1 MiB, and these bytes are not the whole message.
constexpr uint32_t kMaxBytes = 1000000;

// Zeroed memory for the largest call; the system only provides what is touched.
struct Buffer {
    uint8_t data[kMaxBytes]; // zero after `length`
    uint32_t length;

    // Each appends. It returns false, with nothing appended, when it does not fit or is malformed.
    bool add(const void *from, size_t count);
    bool add_hex(const char *text); // blanks and colons between bytes
    bool add_file(FILE *file);

private:
    bool cut_to(uint32_t before);
};

// Prints 16 bytes a line: offset, hexadecimal, text.
void print_hex(FILE *to, bv::Bytes bytes);

} // namespace tools

#endif
