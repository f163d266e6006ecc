// The debug datagram: ten bytes, big-endian, and a text without a terminating zero.
//
//   0  category (low 5 bits; the others are 0)     4-5  length of the whole datagram
//   1  level                                       6-7  tag of the sender
//   2-3  module                                    8-9  length of tag, this length and the text
#ifndef TOOLS_COLLECT_DATAGRAM_H
#define TOOLS_COLLECT_DATAGRAM_H

#include <cstddef>
#include <cstdint>

namespace tools {

struct Datagram {
    unsigned category;
    unsigned level;
    unsigned module;
    unsigned tag;
    const uint8_t *text; // in the bytes that were read, not terminated
    size_t length;       // of the text
};

// Reads strictly: what the library would not have sent is malformed. What is wrong with it, or
// null.
const char *read_datagram(Datagram &datagram, const uint8_t *bytes, size_t length);

} // namespace tools

#endif
