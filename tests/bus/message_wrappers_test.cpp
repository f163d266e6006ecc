// SPDX-License-Identifier: ISC
// What the recorded buffers do not show of the blob and blobmsg wrappers: null arguments, addresses
// that are not aligned, and where exactly name and data are.

#include <bv/ubus.h>

#include "support/wire.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using wire::Bytes;

const blob_attr *attr_of(const Bytes &bytes)
{
    return reinterpret_cast<const blob_attr *>(bytes.data());
}

blob_attr *attr_of(Bytes &bytes)
{
    return reinterpret_cast<blob_attr *>(bytes.data());
}

class Buffer {
public:
    Buffer() { EXPECT_EQ(bv_blobmsg_buf_init(&buf), 0); }
    ~Buffer() { bv_blob_buf_free(&buf); }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;

    blob_attr *first() { return static_cast<blob_attr *>(bv_blob_data(buf.head)); }

    blob_buf buf = {};
};

} // namespace

TEST(Blob, HeaderIsReadAsOnTheWire)
{
    const Bytes attr = wire::hex("83 00 00 09 00 00 00 00 41");
    EXPECT_EQ(bv_blob_id(attr_of(attr)), 3u);
    EXPECT_EQ(bv_blob_raw_len(attr_of(attr)), 9u);
    EXPECT_EQ(bv_blob_len(attr_of(attr)), 5u);
    EXPECT_EQ(bv_blob_data(attr_of(attr)), attr.data() + 4);
}

TEST(Blob, EveryBitOfIdAndLengthCounts)
{
    for (uint32_t bit = 0; bit < 32; bit++) {
        const Bytes attr = wire::word(1u << bit);
        EXPECT_EQ(bv_blob_id(attr_of(attr)), bit >= 24 && bit < 31 ? 1u << (bit - 24) : 0u) << bit;
        EXPECT_EQ(bv_blob_raw_len(attr_of(attr)), bit < 24 ? 1u << bit : 0u) << bit;
    }
}

TEST(Blob, AttributesMayBeAtAnyAddress)
{
    const Bytes attr = wire::hex("84 00 00 08 81 82 83 84");
    for (size_t shift = 0; shift < 8; shift++) {
        Bytes moved(shift, 0xee);
        moved.insert(moved.end(), attr.begin(), attr.end());
        const blob_attr *at = reinterpret_cast<const blob_attr *>(moved.data() + shift);
        EXPECT_EQ(bv_blob_id(at), 4u);
        EXPECT_EQ(bv_blob_len(at), 4u);
        EXPECT_EQ(bv_blob_get_u8(at), 0x81);
        EXPECT_EQ(bv_blob_get_u16(at), 0x8182);
        EXPECT_EQ(bv_blob_get_u32(at), 0x81828384u);
    }
}

TEST(Blob, TextIsThePayload)
{
    const Bytes attr = wire::hex("03 00 00 07 61 62 00");
    EXPECT_STREQ(bv_blob_get_string(attr_of(attr)), "ab");
    EXPECT_EQ(bv_blob_get_string(attr_of(attr)), reinterpret_cast<const char *>(attr.data() + 4));
}

TEST(Blob, ParseSortsTheChildrenById)
{
    blob_buf buf = {};
    ASSERT_EQ(bv_blob_buf_init(&buf, 0), 0);
    bv_blob_put_u32(&buf, 2, 7);
    bv_blob_put_string(&buf, 1, "x");
    blob_attr *slots[4];
    blob_attr_info info[4] = {};
    info[2].type = BLOB_ATTR_STRING; // the child is not a string
    EXPECT_EQ(bv_blob_parse(buf.head, slots, nullptr, 4), 2);
    EXPECT_EQ(bv_blob_get_u32(slots[2]), 7u);
    EXPECT_STREQ(bv_blob_get_string(slots[1]), "x");
    EXPECT_EQ(slots[0], nullptr);
    EXPECT_EQ(slots[3], nullptr);
    EXPECT_EQ(bv_blob_parse(buf.head, slots, info, 4), 1);
    EXPECT_EQ(slots[2], nullptr);
    bv_blob_buf_free(&buf);
    EXPECT_EQ(buf.head, nullptr);
    EXPECT_EQ(buf.buf, nullptr);
}

TEST(Blobmsg, NewBufferIsAnEmptyTable)
{
    Buffer buffer;
    EXPECT_EQ(bv_blob_id(buffer.buf.head), 2u);
    EXPECT_EQ(bv_blob_raw_len(buffer.buf.head), 4u);
}

TEST(Blobmsg, DataFollowsTheNameAndItsPadding)
{
    // Name lengths 0 to 9 and what surrounds each, from the attribute to its data.
    const size_t header[] = {8, 8, 12, 12, 12, 12, 16, 16, 16, 16};
    for (size_t length = 0; length < 10; length++) {
        SCOPED_TRACE(length);
        Bytes field = wire::field(0, std::string(length, 'n'), {1, 2, 3});
        EXPECT_EQ(bv_blobmsg_data(attr_of(field)), field.data() + header[length]);
        EXPECT_EQ(bv_blobmsg_data_len(attr_of(field)), 3u);
        EXPECT_EQ(bv_blobmsg_name(attr_of(field)),
                  reinterpret_cast<const char *>(field.data() + 6));
        EXPECT_STREQ(bv_blobmsg_name(attr_of(field)), std::string(length, 'n').c_str());
    }
    Bytes len = wire::field(5, "len", wire::word(3));
    EXPECT_EQ(bv_blobmsg_data(attr_of(len)), len.data() + 12);
    EXPECT_EQ(bv_blobmsg_data_len(attr_of(len)), bv_blob_raw_len(attr_of(len)) - 12);
}

TEST(Blobmsg, WithoutANameThePayloadIsTheData)
{
    Bytes attr = wire::attribute(5, wire::word(0x01020304));
    EXPECT_EQ(bv_blobmsg_data(attr_of(attr)), attr.data() + 4);
    EXPECT_EQ(bv_blobmsg_data_len(attr_of(attr)), 4u);
    EXPECT_EQ(bv_blobmsg_type(attr_of(attr)), 5);
    EXPECT_EQ(bv_blobmsg_get_u8(attr_of(attr)), 1);
    EXPECT_EQ(bv_blobmsg_get_u16(attr_of(attr)), 0x0102);
    EXPECT_EQ(bv_blobmsg_get_u32(attr_of(attr)), 0x01020304u);
}

TEST(Blobmsg, IntegerComesBackAsItWasAdded)
{
    for (uint32_t value : {0u, 1u, 0x01020304u, 0x80000000u, 0xffffffffu}) {
        Buffer buffer;
        ASSERT_EQ(bv_blobmsg_add_u32(&buffer.buf, "x", value), 0);
        EXPECT_EQ(bv_blobmsg_get_u32(buffer.first()), value);
        EXPECT_EQ(bv_blobmsg_get_u16(buffer.first()), value >> 16);
        EXPECT_EQ(bv_blobmsg_get_u8(buffer.first()), value >> 24);
    }
}

TEST(Blobmsg, EmptyTextIsItsTerminator)
{
    Buffer buffer;
    ASSERT_EQ(bv_blobmsg_add_string(&buffer.buf, "s", ""), 0);
    EXPECT_EQ(bv_blobmsg_data_len(buffer.first()), 1u);
    EXPECT_STREQ(bv_blobmsg_get_string(buffer.first()), "");
}

TEST(Blobmsg, ChecksAndParsesWhatCame)
{
    Buffer buffer;
    bv_blobmsg_add_u32(&buffer.buf, "n", 9);
    bv_blobmsg_add_string(&buffer.buf, "s", "text");
    EXPECT_TRUE(bv_blobmsg_check_attr(buffer.first(), true));
    const Bytes unnamed = wire::attribute(5, wire::word(1));
    EXPECT_TRUE(bv_blobmsg_check_attr(attr_of(unnamed), false));
    EXPECT_FALSE(bv_blobmsg_check_attr(attr_of(unnamed), true));

    const blobmsg_policy policy[] = {
        {"s", BLOBMSG_TYPE_STRING}, {"n", BLOBMSG_TYPE_STRING}, {"n", BLOBMSG_TYPE_UNSPEC}};
    blob_attr *slots[3];
    void *fields = bv_blob_data(buffer.buf.head);
    const unsigned int length = static_cast<unsigned int>(bv_blob_len(buffer.buf.head));
    EXPECT_EQ(bv_blobmsg_parse(policy, 3, slots, fields, length), 0);
    EXPECT_STREQ(bv_blobmsg_get_string(slots[0]), "text");
    EXPECT_EQ(slots[1], nullptr);
    EXPECT_EQ(bv_blobmsg_get_u32(slots[2]), 9u);
    EXPECT_LT(bv_blobmsg_parse(policy, 3, slots, fields, 0), 0);
    EXPECT_EQ(slots[0], nullptr);
}

TEST(Blobmsg, NullFieldHasNoDataAndNoText)
{
    EXPECT_EQ(bv_blobmsg_data(nullptr), nullptr);
    EXPECT_EQ(bv_blobmsg_data_len(nullptr), 0u);
    EXPECT_EQ(bv_blobmsg_get_string(nullptr), nullptr);
}

TEST(BlobmsgDeathTest, ReadingAnIntegerOfANullFieldFaults)
{
    EXPECT_DEATH(bv_blobmsg_get_u8(nullptr), "");
    EXPECT_DEATH(bv_blobmsg_get_u16(nullptr), "");
    EXPECT_DEATH(bv_blobmsg_get_u32(nullptr), "");
}
