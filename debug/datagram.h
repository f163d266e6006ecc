// SPDX-License-Identifier: ISC
// The debug datagram, as the channel sends it and bv-collect reads it. Numbers are big-endian, and
// the text has no terminating zero.
//
//   0    category (low 5 bits; the others are 0)     4-5  length of the whole datagram
//   1    level                                       6-7  tag of the sender
//   2-3  module                                      8-9  length of tag, this length and the text
//
// The tag and the second length are the head of the element around the text.
//
// Nothing here needs the library: it compiles into any program.
#ifndef BV_DEBUG_DATAGRAM_H
#define BV_DEBUG_DATAGRAM_H

#include <cstdint>

namespace bv {

// Where the fields start.
enum DebugOffset : uint32_t {
    kDebugCategoryAt = 0,
    kDebugLevelAt = 1,
    kDebugModuleAt = 2,
    kDebugTotalLengthAt = 4,
    kDebugTagAt = 6,
    kDebugElementLengthAt = 8,
    kDebugTextAt = 10
};

constexpr uint8_t kDebugCategoryMask = 0x1F;

} // namespace bv

#endif
