// The debug datagram: ten bytes, big-endian, and a text without a terminating zero.
//
//   0  category (low 5 bits; the others are 0)     4-5  length of the whole datagram
//   1  level                                       6-7  tag of the sender
//   2-3  module                                    8-9  length of tag, this length and the text
#ifndef TOOLS_COLLECT_DATAGRAM_H
#define TOOLS_COLLECT_DATAGRAM_H

#include "os/bytes.h"

#include <cstddef>
#include <cstdint>

namespace tools {

constexpr size_t kDatagramHeader = 10;
constexpr size_t kBeforeElement = 6; // bytes that the element length does not count
constexpr unsigned kCategoryBits = 5;

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
inline const char *read_datagram(Datagram &datagram, const uint8_t *bytes, size_t length)
{
    if (length < kDatagramHeader)
        return "shorter than its header";
    if (bytes[0] >> kCategoryBits != 0)
        return "a category above 31";
    if (bv::get_be16(bytes + 4) != length)
        return "the total length does not match its size";
    if (bv::get_be16(bytes + 8) != length - kBeforeElement)
        return "the element length does not match its size";

    datagram.category = bytes[0];
    datagram.level = bytes[1];
    datagram.module = bv::get_be16(bytes + 2);
    datagram.tag = bv::get_be16(bytes + 6);
    datagram.text = bytes + kDatagramHeader;
    datagram.length = length - kDatagramHeader;
    return nullptr;
}

} // namespace tools

#endif
