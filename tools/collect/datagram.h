// SPDX-License-Identifier: ISC
// Reads debug datagrams.
#ifndef TOOLS_COLLECT_DATAGRAM_H
#define TOOLS_COLLECT_DATAGRAM_H

#include "debug/datagram.h"
#include "os/bytes.h"
#include "os/span.h"

namespace tools {

struct Datagram {
    unsigned category;
    unsigned level;
    unsigned module;
    unsigned tag;
    bv::Bytes text; // in the bytes that were read, not terminated
};

// Reads strictly: what the library would not have sent is malformed. Returns what is wrong with it,
// or null.
inline const char *read_datagram(Datagram &datagram, bv::Bytes bytes)
{
    const uint8_t *data = bytes.data;
    if (bytes.length < bv::kDebugTextAt)
        return "shorter than its header";
    if ((data[bv::kDebugCategoryAt] & ~bv::kDebugCategoryMask) != 0)
        return "a category above 31";
    if (bv::get_be16(data + bv::kDebugTotalLengthAt) != bytes.length)
        return "the total length does not match its size";
    if (bv::get_be16(data + bv::kDebugElementLengthAt) != bytes.length - bv::kDebugTagAt)
        return "the element length does not match its size";

    datagram.category = data[bv::kDebugCategoryAt];
    datagram.level = data[bv::kDebugLevelAt];
    datagram.module = bv::get_be16(data + bv::kDebugModuleAt);
    datagram.tag = bv::get_be16(data + bv::kDebugTagAt);
    datagram.text = {data + bv::kDebugTextAt, bytes.length - bv::kDebugTextAt};
    return nullptr;
}

} // namespace tools

#endif
