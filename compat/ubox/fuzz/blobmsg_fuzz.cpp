// SPDX-License-Identifier: ISC
// Fields of a received message: checked, found by name or by place, and copied into another.

#include <libubox/blobmsg.h>

#include "fuzz/input.h"

namespace {

constexpr int kSlots = 10;
constexpr blobmsg_policy kPolicy[kSlots] = {
    {"func", BLOBMSG_TYPE_STRING}, {"len", BLOBMSG_TYPE_INT32},
    {"data", BLOBMSG_TYPE_UNSPEC}, {"a", BLOBMSG_TYPE_INT8},
    {"b", BLOBMSG_TYPE_INT16},     {"c", BLOBMSG_TYPE_INT64},
    {"t", BLOBMSG_TYPE_TABLE},     {"l", BLOBMSG_TYPE_ARRAY},
    {"d", BLOBMSG_TYPE_DOUBLE},    {"n", static_cast<enum blobmsg_type>(BLOBMSG_CAST_INT64)}};

void read_field(blob_attr *field)
{
    const size_t length = blobmsg_data_len(field);
    fuzz::touch(blobmsg_data(field), length);
    switch (blobmsg_type(field)) {
    case BLOBMSG_TYPE_STRING:
        FUZZ_CHECK(strlen(static_cast<char *>(blobmsg_data(field))) < length);
        break;
    case BLOBMSG_TYPE_INT8:
        blobmsg_get_u8(field);
        break;
    case BLOBMSG_TYPE_INT16:
        blobmsg_get_u16(field);
        break;
    case BLOBMSG_TYPE_INT32:
        blobmsg_get_u32(field);
        break;
    case BLOBMSG_TYPE_INT64:
    case BLOBMSG_TYPE_DOUBLE:
        blobmsg_get_u64(field);
        break;
    default:
        break;
    }
}

// Elements of an array may come without any name, which is not the same as an empty one.
void copy_field(blob_buf &copy, blob_attr *field)
{
    if (!blob_is_extended(field))
        return;
    FUZZ_CHECK(blobmsg_buf_init(&copy) == 0);
    FUZZ_CHECK(blobmsg_add_blob(&copy, field) == 0);
}

void parse(void *data, size_t length, blob_buf &copy, int depth)
{
    blob_attr *found[kSlots];
    for (bool by_place : {false, true}) {
        if (by_place)
            blobmsg_parse_array(kPolicy, kSlots, found, data, static_cast<unsigned>(length));
        else
            blobmsg_parse(kPolicy, kSlots, found, data, static_cast<unsigned>(length));
        for (blob_attr *field : found) {
            if (field == nullptr)
                continue;
            read_field(field);
            copy_field(copy, field);
            const int type = blobmsg_type(field);
            if ((type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) && depth < 4)
                parse(blobmsg_data(field), blobmsg_data_len(field), copy, depth + 1);
        }
    }
}

// The bytes as one field of which nothing is known.
void check_field(fuzz::Block &block)
{
    auto *field = block.as<blob_attr>();
    for (bool named : {false, true}) {
        if (blobmsg_check_attr_len(field, named, block.size())) {
            fuzz::touch(field, blob_raw_len(field));
            read_field(field);
        }
    }
    for (int type :
         {0, static_cast<int>(BLOBMSG_TYPE_STRING), static_cast<int>(BLOBMSG_TYPE_INT32)}) {
        const int count = blobmsg_check_array_len(field, type, block.size());
        FUZZ_CHECK(count >= -1);
        FUZZ_CHECK(blobmsg_check_attr_list_len(field, type, block.size()) == (count >= 0));
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Block block(std::string(reinterpret_cast<const char *>(data), size));
    if (size >= sizeof(blob_attr))
        check_field(block);
    blob_buf copy = {};
    parse(block.bytes(), size, copy, 0);
    blob_buf_free(&copy);
    return 0;
}
