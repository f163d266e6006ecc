// The bytes of a call: put together from the command line, and shown.
#ifndef TOOLS_CALL_BYTES_H
#define TOOLS_CALL_BYTES_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace tools {

// The bus carries messages of up to 1 MiB, and these bytes are not the whole message.
constexpr size_t kMaxBytes = 1000000;

// Zeroed memory for the largest call; the system only provides what is touched.
struct Bytes {
    uint8_t data[kMaxBytes]; // zero after `length`
    size_t length;

    // Each appends. False, with nothing appended, when it does not fit or is malformed.
    bool add(const void *from, size_t count);
    bool add_hex(const char *text); // blanks and colons between bytes
    bool add_file(FILE *file);

private:
    bool cut_to(size_t before);
};

// Prints 16 bytes a line: offset, hexadecimal, text.
void print_hex(FILE *to, const uint8_t *data, size_t length);

} // namespace tools

#endif
