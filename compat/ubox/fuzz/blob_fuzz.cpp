// SPDX-License-Identifier: ISC
// Attributes of a received message.
//
// Input: a byte for the check of each slot, a byte for how many bytes can be read beyond or short
// of what the attribute says, then the attribute.

#include <libubox/blob.h>

#include "fuzz/input.h"

namespace {

constexpr int kSlots = 12;

void read_attribute(blob_attr *attr, unsigned type)
{
    const size_t length = blob_len(attr);
    fuzz::touch(blob_data(attr), length);
    switch (type) {
    case BLOB_ATTR_STRING:
        FUZZ_CHECK(strlen(blob_get_string(attr)) < length);
        break;
    case BLOB_ATTR_INT8:
        FUZZ_CHECK(blob_get_u8(attr) <= 0xff);
        break;
    case BLOB_ATTR_INT16:
        FUZZ_CHECK(blob_get_u16(attr) <= 0xffff);
        break;
    case BLOB_ATTR_INT32:
        FUZZ_CHECK(static_cast<int32_t>(blob_get_u32(attr)) == blob_get_int32(attr));
        break;
    case BLOB_ATTR_INT64:
        FUZZ_CHECK(static_cast<int64_t>(blob_get_u64(attr)) == blob_get_int64(attr));
        break;
    default:
        break;
    }
}

void copy(blob_attr *attr)
{
    blob_attr *twin = blob_memdup(attr);
    FUZZ_CHECK(twin != nullptr && blob_attr_equal(attr, twin));
    free(twin);
}

// Walks down into whatever looks like attributes.
unsigned walk(const blob_attr *attr, int depth)
{
    unsigned count = 0;
    const blob_attr *child;
    size_t left;
    blob_for_each_attr(child, attr, left)
    {
        fuzz::touch(child, blob_pad_len(child));
        ++count;
        if (depth < 8)
            count += walk(child, depth + 1);
    }
    return count;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    blob_attr_info info[kSlots] = {};
    for (blob_attr_info &slot : info) {
        const uint8_t kind = input.byte();
        slot.type = kind % (BLOB_ATTR_LAST + 1);
        slot.minlen = (kind & 0x40) != 0 ? 8 : 0;
        slot.maxlen = (kind & 0x80) != 0 ? 32 : 0;
    }
    fuzz::Block message(input.rest());
    blob_attr *found[kSlots] = {}; // a message that does not fit leaves it alone
    const int result =
        blob_parse_untrusted(message.as<blob_attr>(), message.size(), found, info, kSlots);
    if (result <= 0 && message.size() < sizeof(blob_attr))
        return 0;

    for (int i = 0; i < kSlots; ++i) {
        if (found[i] == nullptr)
            continue;
        read_attribute(found[i], info[i].type);
        copy(found[i]);
    }
    // Who made a message himself may trust its outer length; here it is true.
    if (blob_pad_len(message.as<blob_attr>()) <= message.size())
        walk(message.as<blob_attr>(), 0);
    return 0;
}
