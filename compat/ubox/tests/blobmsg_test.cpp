// SPDX-License-Identifier: ISC
// Fields beyond the byte vectors: refusals, and received bytes of every kind.

#include "guarded_attr.h"

#include <climits>
#include <gtest/gtest.h>
#include <libubox/blobmsg.h>
#include <random>
#include <string>

namespace {

class Blobmsg : public testing::Test {
protected:
    blob_buf buf = {};

    void SetUp() override { ASSERT_EQ(blobmsg_buf_init(&buf), 0); }
    void TearDown() override { blob_buf_free(&buf); }
};

TEST_F(Blobmsg, BufferIsATable)
{
    EXPECT_EQ(blobmsg_type(buf.head), BLOBMSG_TYPE_TABLE);
}

TEST_F(Blobmsg, NameTooLongForItsLengthFieldIsRefused)
{
    std::string longest(65535, 'n');

    EXPECT_EQ(blobmsg_add_u8(&buf, longest.c_str(), 1), 0);
    size_t before = blob_raw_len(buf.head);
    EXPECT_EQ(blobmsg_add_u8(&buf, (longest + "n").c_str(), 1), -1);
    EXPECT_EQ(blobmsg_open_table(&buf, (longest + "n").c_str()), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), before);
}

TEST_F(Blobmsg, FieldsThatDoNotFitAreRefusedAndLeaveTheBufferAlone)
{
    for (unsigned int len :
         {0xfffff4u, 0xffffffu, 0x1000000u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        static char bytes[0x1000000];
        EXPECT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "a", bytes, len), -1);
        EXPECT_EQ(blob_raw_len(buf.head), 4u);
    }
    EXPECT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "a", nullptr, 1), -1);
    EXPECT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "a", nullptr, 0), 0);
    EXPECT_EQ(blob_raw_len(buf.head), 12u);
}

TEST_F(Blobmsg, TableThatCannotBeOpenedLeavesTheHeadAlone)
{
    std::string filler(16777212 - 4 - 8, 'x');
    ASSERT_EQ(blobmsg_add_field(&buf, 0, "", filler.data(), static_cast<unsigned>(filler.size())),
              0);
    blob_attr *head = buf.head;
    EXPECT_EQ(blobmsg_open_table(&buf, "t"), nullptr);
    EXPECT_EQ(blobmsg_open_array(&buf, nullptr), nullptr);
    EXPECT_EQ(buf.head, head);
    EXPECT_EQ(blob_raw_len(buf.head), 16777212u);
}

TEST_F(Blobmsg, OpenTableCountsFourBytes)
{
    void *table = blobmsg_open_table(&buf, "t");
    EXPECT_EQ(blob_raw_len(static_cast<blob_attr *>(buf.buf)), 8u);
    blobmsg_close_table(&buf, table);
    EXPECT_EQ(blob_raw_len(buf.head), 12u);
    EXPECT_EQ(memcmp(blob_data(buf.head), "\x82\0\0\x08\0\x01t\0", 8), 0);
}

TEST_F(Blobmsg, BufferWithoutInitTakesNothing)
{
    blob_buf none = {};

    EXPECT_EQ(blobmsg_add_u8(&none, "a", 1), -1);
    EXPECT_EQ(blobmsg_open_table(&none, "a"), nullptr);
}

TEST_F(Blobmsg, NullFieldsHaveNoData)
{
    blob_attr *pos;
    size_t rem;

    EXPECT_EQ(blobmsg_data(nullptr), nullptr);
    EXPECT_EQ(blobmsg_data_len(nullptr), 0u);
    EXPECT_EQ(blobmsg_get_string(nullptr), nullptr);
    blobmsg_for_each_attr(pos, static_cast<blob_attr *>(nullptr), rem)
    {
        ADD_FAILURE();
    }
}

TEST_F(Blobmsg, WalkThroughAMalformedTableVisitsNothing)
{
    // Payloads of 0 and 1 byte, and a name header longer than the payload.
    const std::vector<std::vector<uint8_t>> tables = {
        {0x82, 0, 0, 4}, {0x82, 0, 0, 5, 0}, {0x82, 0, 0, 8, 0, 9, 'a', 'b'}, {0x82, 0, 0, 0}};

    for (const std::vector<uint8_t> &bytes : tables) {
        GuardedAttr table(bytes);
        blob_attr *pos;
        size_t rem;
        blobmsg_for_each_attr(pos, table.attr(), rem)
        {
            ADD_FAILURE();
            break;
        }
    }
}

TEST_F(Blobmsg, ParsingANestedTableByItsField)
{
    const blobmsg_policy policy[] = {{"x", BLOBMSG_TYPE_INT32}};
    const blobmsg_policy element[] = {{nullptr, BLOBMSG_TYPE_STRING}};
    blob_attr *tb[1];

    void *cookie = blobmsg_open_table(&buf, "t");
    blobmsg_add_u32(&buf, "x", 77);
    blobmsg_close_table(&buf, cookie);
    cookie = blobmsg_open_array(&buf, "a");
    blobmsg_add_string(&buf, nullptr, "first");
    blobmsg_close_array(&buf, cookie);

    blob_attr *table = static_cast<blob_attr *>(blob_data(buf.head));
    EXPECT_EQ(blobmsg_parse_attr(policy, 1, tb, table), 0);
    ASSERT_NE(tb[0], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[0]), 77u);
    EXPECT_EQ(blobmsg_parse_array_attr(element, 1, tb, blob_next(table)), 0);
    ASSERT_NE(tb[0], nullptr);
    EXPECT_STREQ(blobmsg_get_string(tb[0]), "first");
}

// A name with a NUL inside is longer than the policy's, though strcmp() calls them equal.
TEST_F(Blobmsg, InnerNulDoesNotReadBeyondThePolicysName)
{
    GuardedAttr name({'a', 0});
    const blobmsg_policy policy[] = {
        {reinterpret_cast<const char *>(name.data()), BLOBMSG_TYPE_UNSPEC}};
    GuardedAttr field({0x80, 0, 0, 12, 0, 5, 'a', 0, 'b', 'c', 'd', 0});
    blob_attr *tb[1];

    EXPECT_EQ(blobmsg_parse(policy, 1, tb, field.data(), 12), 0);
    EXPECT_EQ(tb[0], nullptr);
}

// ---- bytes of every kind

std::vector<uint8_t> message()
{
    blob_buf buf = {};

    blobmsg_buf_init(&buf);
    blobmsg_add_string(&buf, "func", "get_info");
    blobmsg_add_u32(&buf, "len", 3);
    void *table = blobmsg_open_table(&buf, "table");
    blobmsg_add_u64(&buf, "wide", 5);
    void *array = blobmsg_open_array(&buf, "array");
    blobmsg_add_double(&buf, nullptr, 2.5);
    blobmsg_add_u16(&buf, nullptr, 7);
    blobmsg_close_array(&buf, array);
    blobmsg_close_table(&buf, table);
    blobmsg_add_u8(&buf, "last", 1);
    std::vector<uint8_t> bytes(static_cast<uint8_t *>(buf.buf),
                               static_cast<uint8_t *>(buf.buf) + blob_pad_len(buf.head));
    blob_buf_free(&buf);
    return bytes;
}

// Reads all that a caller may read of a field that passed.
size_t use_field(blob_attr *attr)
{
    const uint8_t *data = static_cast<uint8_t *>(blobmsg_data(attr));
    size_t sum = blob_is_extended(attr) ? strlen(blobmsg_name(attr)) : 0;

    for (size_t i = 0; i < blobmsg_data_len(attr); i++)
        sum += data[i];
    sum += static_cast<size_t>(blobmsg_cast_u64(attr));
    return sum;
}

// Runs everything meant for received bytes on these. Returns how many were accepted.
int read_everything(const GuardedAttr &in)
{
    static const blobmsg_policy policy[] = {{"func", BLOBMSG_TYPE_STRING},
                                            {"len", BLOBMSG_CAST_INT64},
                                            {"table", BLOBMSG_TYPE_TABLE},
                                            {"last", BLOBMSG_TYPE_UNSPEC}};
    static const blob_attr_info info[8] = {{}, {3, 0, 0, nullptr}, {}, {7, 0, 0, nullptr}};
    blob_attr *tb[8];
    int accepted = 0;

    unsigned int len = static_cast<unsigned int>(in.size());
    blobmsg_parse(policy, 4, tb, in.data(), len);
    for (int i = 0; i < 4; i++)
        accepted += tb[i] && use_field(tb[i]) + 1 > 0;
    blobmsg_parse_array(policy, 4, tb, in.data(), len);
    for (int i = 0; i < 4; i++)
        accepted += tb[i] && use_field(tb[i]) + 1 > 0;

    accepted += blob_parse_untrusted(in.attr(), len, tb, info, 8);
    accepted += blob_parse_untrusted(in.attr(), len, tb, nullptr, 8);
    for (bool name : {false, true})
        accepted += blobmsg_check_attr_len(in.attr(), name, len) && use_field(in.attr()) + 1 > 0;
    for (int type = -1; type <= 9; type++)
        accepted += blobmsg_check_array_len(in.attr(), type, len) > 0;
    return accepted;
}

TEST(BlobmsgGarbage, EveryTruncationIsRefusedOrReadWithinItsBytes)
{
    std::vector<uint8_t> whole = message();
    int accepted = 0;

    for (size_t size = 0; size <= whole.size(); size++) {
        accepted += read_everything(
            GuardedAttr({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}));
        accepted += read_everything(
            GuardedAttr({whole.end() - static_cast<std::ptrdiff_t>(size), whole.end()}));
        // The sequence of fields without the container around it.
        if (size > 4)
            accepted += read_everything(GuardedAttr(
                {whole.begin() + 4, whole.begin() + static_cast<std::ptrdiff_t>(size)}));
    }
    EXPECT_GT(accepted, 0);
}

TEST(BlobmsgGarbage, RandomBytesNeverMakeAReadLeaveTheInput)
{
    std::mt19937 random(20261120);
    std::vector<uint8_t> whole = message();
    int accepted = 0;

    for (int round = 0; round < 20000; round++) {
        std::vector<uint8_t> bytes(whole.begin() + (round & 1) * 4, whole.end());
        for (unsigned int i = random() % 6 + 1; i > 0; i--)
            bytes[random() % bytes.size()] =
                static_cast<uint8_t>(random() % 4 ? random() % 16 : random());
        bytes.resize(random() % 4 ? bytes.size() : random() % bytes.size());
        accepted += read_everything(GuardedAttr(bytes)) > 0;
    }
    EXPECT_GT(accepted, 1000); // most of it got past the first check
}

} // namespace
