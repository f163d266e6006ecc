// SPDX-License-Identifier: ISC
// Buffers at their limits and when memory is short, and single attributes.

#include <climits>
#include <gtest/gtest.h>
#include <libubox/blob.h>
#include <string>
#include <vector>

namespace {

class BlobBuf : public testing::Test {
protected:
    blob_buf buf = {};

    void TearDown() override { blob_buf_free(&buf); }

    std::vector<uint8_t> image() const
    {
        const uint8_t *start = static_cast<uint8_t *>(buf.buf);
        return {start, start + blob_pad_len(static_cast<blob_attr *>(buf.buf))};
    }
};

constexpr unsigned int kLargest = 16777212;

TEST_F(BlobBuf, LargestBufferHoldsNothingMore)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    ASSERT_NE(blob_put(&buf, 1, nullptr, kLargest - 8), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), kLargest);
    EXPECT_EQ(blob_put(&buf, 1, nullptr, 0), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), kLargest);
}

TEST_F(BlobBuf, PutThatWouldOverflowTheLengthIsRefused)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    for (unsigned int len : {kLargest - 7, kLargest - 6, kLargest - 5, kLargest - 4}) {
        EXPECT_EQ(blob_put(&buf, 1, nullptr, len), nullptr);
        EXPECT_EQ(blob_raw_len(buf.head), 4u);
    }

    // It fits into the memory left by a large put, but not into the length field.
    ASSERT_NE(blob_put(&buf, 1, nullptr, kLargest - 8), nullptr);
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    EXPECT_EQ(blob_put(&buf, 1, nullptr, kLargest - 7), nullptr);
    EXPECT_NE(blob_put_u32(&buf, 1, 1), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), 12u);
}

TEST_F(BlobBuf, AbsurdLengthsAreRefused)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    for (unsigned int len :
         {0x1000000u, 0x7ffffff8u, 0x7fffffffu, 0x80000000u, 0xfffffffcu, 0xffffffffu}) {
        EXPECT_EQ(blob_put(&buf, 1, nullptr, len), nullptr);
        EXPECT_EQ(blob_put_raw(&buf, "", len), nullptr);
    }
    for (int payload : {-1, INT_MIN, INT_MAX})
        EXPECT_EQ(blob_new(&buf, 1, payload), nullptr);
    for (int required : {-1, INT_MIN, INT_MAX, 0x1000000})
        EXPECT_FALSE(blob_buf_grow(&buf, required));
    EXPECT_EQ(blob_raw_len(buf.head), 4u);
}

TEST_F(BlobBuf, RawPutEndingBeyondTheLimitIsRefused)
{
    std::vector<uint8_t> bytes(kLargest);

    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    EXPECT_EQ(blob_put_raw(&buf, bytes.data(), kLargest - 3), nullptr);
    EXPECT_NE(blob_put_raw(&buf, bytes.data(), kLargest - 4), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), kLargest);
}

TEST_F(BlobBuf, FailedNestStartLeavesTheHeadAlone)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    ASSERT_NE(blob_put(&buf, 1, nullptr, kLargest - 8), nullptr);
    blob_attr *head = buf.head;
    EXPECT_EQ(blob_nest_start(&buf, 2), nullptr);
    EXPECT_EQ(buf.head, head);
    blob_nest_end(&buf, nullptr);
    EXPECT_EQ(buf.head, head);
}

TEST_F(BlobBuf, NestsFilledToTheLimitCloseCorrectly)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    void *outer = blob_nest_start(&buf, 1);
    void *inner = blob_nest_start(&buf, 2);
    ASSERT_NE(blob_put(&buf, 3, nullptr, kLargest - 16), nullptr);
    EXPECT_EQ(blob_put(&buf, 3, nullptr, 0), nullptr);
    blob_nest_end(&buf, inner);
    blob_nest_end(&buf, outer);
    EXPECT_EQ(buf.head, buf.buf);
    EXPECT_EQ(blob_raw_len(buf.head), kLargest);
}

TEST_F(BlobBuf, CookiesSurviveTheMovesOfTheBuffer)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    void *outer = blob_nest_start(&buf, 1);
    void *inner = blob_nest_start(&buf, 2);
    std::vector<void *> obstacles;

    for (int i = 0; i < 200; i++) {
        ASSERT_NE(blob_put_u32(&buf, 3, static_cast<uint32_t>(i)), nullptr);
        obstacles.push_back(malloc(600)); // makes growth in place less likely
    }
    for (void *obstacle : obstacles)
        free(obstacle);
    blob_nest_end(&buf, inner);
    ASSERT_NE(blob_put_u8(&buf, 4, 9), nullptr);
    blob_nest_end(&buf, outer);

    blob_attr *whole = buf.head;
    blob_attr *first = static_cast<blob_attr *>(blob_data(whole));
    blob_attr *second = static_cast<blob_attr *>(blob_data(first));
    EXPECT_EQ(whole, buf.buf);
    EXPECT_EQ(blob_raw_len(whole), 4 + blob_raw_len(first));
    EXPECT_EQ(blob_raw_len(second), 4 + 200 * 8u);
    EXPECT_EQ(blob_get_u8(blob_next(second)), 9);

    blob_attr *pos;
    size_t rem;
    uint32_t expected = 0;
    blob_for_each_attr(pos, second, rem)
    {
        EXPECT_EQ(blob_get_u32(pos), expected++);
    }
    EXPECT_EQ(expected, 200u);
}

TEST_F(BlobBuf, FreeIsSafeAtAnyTimeAndKeepsGrow)
{
    blob_buf_free(&buf);
    ASSERT_EQ(blob_buf_init(&buf, 5), 0);
    auto grow = buf.grow;
    blob_buf_free(&buf);
    blob_buf_free(&buf);
    EXPECT_EQ(buf.buf, nullptr);
    EXPECT_EQ(buf.head, nullptr);
    EXPECT_EQ(buf.buflen, 0);
    EXPECT_EQ(buf.grow, grow);
    ASSERT_EQ(blob_buf_init(&buf, 6), 0);
    EXPECT_EQ(blob_id(buf.head), 6u);
}

TEST_F(BlobBuf, InitOfAUsedBufferKeepsItsMemory)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    ASSERT_NE(blob_put(&buf, 1, std::string(1000, 'x').data(), 1000), nullptr);
    void *memory = buf.buf;
    int size = buf.buflen;
    void *unclosed = blob_nest_start(&buf, 2);
    EXPECT_NE(unclosed, nullptr);

    ASSERT_EQ(blob_buf_init(&buf, 3), 0);
    EXPECT_EQ(buf.buf, memory);
    EXPECT_EQ(buf.buflen, size);
    EXPECT_EQ(buf.head, buf.buf);
    EXPECT_EQ(image(), (std::vector<uint8_t>{3, 0, 0, 4}));
}

TEST_F(BlobBuf, PaddingOfAReservedPayloadIsZeroed)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    ASSERT_NE(blob_put(&buf, 1, std::string(24, '\xee').data(), 24), nullptr);
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    blob_attr *attr = blob_put(&buf, 2, nullptr, 5);
    ASSERT_NE(attr, nullptr);
    EXPECT_EQ(std::string(attr->data + 5, 3), std::string(3, '\0'));
}

TEST_F(BlobBuf, GapAfterRawBytesIsZeroed)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    ASSERT_NE(blob_put(&buf, 1, std::string(24, '\xee').data(), 24), nullptr);
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    ASSERT_NE(blob_put_raw(&buf, "\x01\0\0\x05x", 5), nullptr);
    EXPECT_EQ(image(), (std::vector<uint8_t>{0, 0, 0, 9, 1, 0, 0, 5, 'x', 0, 0, 0}));
}

TEST_F(BlobBuf, PutsWithoutInitAreRefused)
{
    EXPECT_EQ(blob_put_u8(&buf, 1, 1), nullptr);
    EXPECT_EQ(blob_put_raw(&buf, "abcd", 4), nullptr);
    EXPECT_EQ(blob_nest_start(&buf, 1), nullptr);
    EXPECT_FALSE(blob_buf_grow(&buf, 1));
}

// A grow of the caller's own: exactly what is asked for, from fresh memory each time.
std::vector<int> g_asked;
int g_refuse_after;

bool grow_exactly(blob_buf *buf, int missing)
{
    if (g_refuse_after-- == 0)
        return false;

    size_t size = static_cast<size_t>(buf->buflen);
    void *memory = malloc(size + static_cast<size_t>(missing));
    if (size > 0)
        memcpy(memory, buf->buf, size);
    free(buf->buf);
    buf->buf = memory;
    buf->buflen += missing;
    g_asked.push_back(missing);
    return true;
}

class BlobBufOwnGrow : public BlobBuf {
protected:
    void SetUp() override
    {
        buf.grow = grow_exactly;
        g_asked.clear();
        g_refuse_after = -1;
    }
};

TEST_F(BlobBufOwnGrow, IsAskedForWhatIsMissing)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    ASSERT_NE(blob_put_u32(&buf, 1, 0x01020304), nullptr);
    EXPECT_EQ(g_asked, (std::vector<int>{4, 8}));
}

TEST_F(BlobBufOwnGrow, IsAskedForThePaddingTooBeforeItIsWritten)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    ASSERT_NE(blob_put(&buf, 1, "abcde", 5), nullptr);
    EXPECT_EQ(buf.buflen, 16);
    ASSERT_NE(blob_put_raw(&buf, "\x01\0\0\x05x", 5), nullptr);
    EXPECT_EQ(buf.buflen, 24);
    EXPECT_EQ(image(), (std::vector<uint8_t>{0,   0, 0, 21, 1, 0, 0, 9, 'a', 'b', 'c', 'd',
                                             'e', 0, 0, 0,  1, 0, 0, 5, 'x', 0,   0,   0}));
}

TEST_F(BlobBufOwnGrow, RefusalLeavesTheBufferAsItWas)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    void *cookie = blob_nest_start(&buf, 1);
    ASSERT_NE(cookie, nullptr);
    std::vector<uint8_t> before = image();

    g_refuse_after = 0;
    EXPECT_EQ(blob_put_u8(&buf, 1, 1), nullptr);
    g_refuse_after = 0;
    EXPECT_EQ(blob_put_raw(&buf, "abcdefgh", 8), nullptr);
    g_refuse_after = 0;
    EXPECT_EQ(blob_nest_start(&buf, 1), nullptr);
    g_refuse_after = 1; // the padding
    EXPECT_EQ(blob_put_u8(&buf, 1, 1), nullptr);
    EXPECT_EQ(image(), before);
    EXPECT_EQ(reinterpret_cast<char *>(buf.head), static_cast<char *>(buf.buf) + 4);

    g_refuse_after = -1;
    EXPECT_NE(blob_put_u8(&buf, 1, 1), nullptr);
    blob_nest_end(&buf, cookie);
    EXPECT_EQ(image(), (std::vector<uint8_t>{0, 0, 0, 16, 1, 0, 0, 12, 1, 0, 0, 5, 1, 0, 0, 0}));
}

TEST_F(BlobBufOwnGrow, RefusedInitLeavesNoHead)
{
    g_refuse_after = 0;
    EXPECT_EQ(blob_buf_init(&buf, 0), -ENOMEM);
    EXPECT_EQ(buf.head, nullptr);
    g_refuse_after = -1;
    EXPECT_EQ(blob_buf_init(&buf, 0), 0);
}

TEST_F(BlobBufOwnGrow, ClaimingSuccessWithoutGrowingIsNotBelieved)
{
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    buf.grow = [](blob_buf *, int) { return true; };
    EXPECT_EQ(blob_put_u8(&buf, 1, 1), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), 4u);
}

// Four bytes of header and room after them.
struct Attr {
    alignas(4) uint8_t bytes[32] = {};

    explicit Attr(std::initializer_list<uint8_t> start)
    {
        memset(bytes, 0xee, sizeof(bytes));
        std::copy(start.begin(), start.end(), bytes);
    }
    operator blob_attr *() { return reinterpret_cast<blob_attr *>(bytes); }
};

TEST(Blob, SettingTheLengthKeepsIdAndFlag)
{
    Attr attr{0xff, 0, 0, 4};

    blob_set_raw_len(attr, 0x01234567);
    EXPECT_EQ(blob_raw_len(attr), 0x234567u);
    EXPECT_EQ(blob_id(attr), 127u);
    EXPECT_TRUE(blob_is_extended(attr));
}

TEST(Blob, FillingThePaddingZeroesNothingElse)
{
    Attr attr{1, 0, 0, 5, 0xaa};

    blob_fill_pad(attr);
    EXPECT_EQ(std::vector<uint8_t>(attr.bytes, attr.bytes + 10),
              (std::vector<uint8_t>{1, 0, 0, 5, 0xaa, 0, 0, 0, 0xee, 0xee}));
}

TEST(Blob, CopyIncludesThePadding)
{
    Attr attr{1, 0, 0, 5, 0xaa, 1, 2, 3};
    blob_attr *copy = blob_memdup(attr);

    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(memcmp(copy, attr.bytes, 8), 0);
    EXPECT_TRUE(blob_attr_equal(copy, attr));
    free(copy);
}

TEST(Blob, EqualMeansTheSameBytesPaddingIncluded)
{
    Attr a{1, 0, 0, 5, 0xaa, 0, 0, 0}, same{1, 0, 0, 5, 0xaa, 0, 0, 0};
    Attr padding{1, 0, 0, 5, 0xaa, 0, 0, 1}, length{1, 0, 0, 9, 0xaa, 0, 0, 0};

    EXPECT_TRUE(blob_attr_equal(a, same));
    EXPECT_FALSE(blob_attr_equal(a, padding));
    EXPECT_FALSE(blob_attr_equal(a, length));
    EXPECT_FALSE(blob_attr_equal(a, nullptr));
    EXPECT_FALSE(blob_attr_equal(nullptr, a));
    EXPECT_TRUE(blob_attr_equal(nullptr, nullptr));
}

TEST(Blob, SignedReadersKeepTheSign)
{
    Attr attr{1, 0, 0, 12, 0xff, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

    EXPECT_EQ(blob_get_int8(attr), -1);
    EXPECT_EQ(blob_get_int16(attr), -2);
    EXPECT_EQ(blob_get_int32(attr), -65537);
    EXPECT_EQ(blob_get_int64(attr), -281474976710657LL);
    EXPECT_EQ(blob_get_string(attr), reinterpret_cast<char *>(attr.bytes + 4));
}

template <typename Rem>
int count_children(blob_attr *attr)
{
    blob_attr *pos;
    Rem rem;
    int count = 0;

    blob_for_each_attr(pos, attr, rem)
    {
        count++;
    }
    return count;
}

TEST(Blob, WalkThroughNothingOrAMalformedContainerVisitsNothing)
{
    EXPECT_EQ(count_children<int>(nullptr), 0);
    EXPECT_EQ(count_children<size_t>(nullptr), 0);
    for (uint8_t raw : {0, 1, 2, 3, 4}) {
        Attr attr{1, 0, 0, raw, 2, 0, 0, 4};
        EXPECT_EQ(count_children<int>(attr), 0);
        EXPECT_EQ(count_children<size_t>(attr), 0);
    }
}

TEST(Blob, OtherWalksTakeTheirBoundsFromTheCaller)
{
    Attr attr{1, 0, 0, 16, 2, 0, 0, 4, 3, 0, 0, 4, 4, 0, 0, 4};
    blob_attr *pos;
    size_t rem = 8;
    int count = 0;

    __blob_for_each_attr(pos, blob_data(attr), rem)
    {
        count++;
    }
    EXPECT_EQ(count, 2);
    EXPECT_EQ(rem, 0u);

    count = 0;
    blob_for_each_attr_len(pos, static_cast<blob_attr *>(attr), 16, rem)
    {
        count++;
    }
    EXPECT_EQ(count, 3);
    count = 0;
    blob_for_each_attr_len(pos, static_cast<blob_attr *>(attr), 12, rem)
    {
        count++;
    }
    EXPECT_EQ(count, 0);

    int negative = -8;
    __blob_for_each_attr(pos, blob_data(attr), negative)
    {
        ADD_FAILURE() << "visited with a negative rest";
        break;
    }
}

TEST(Blob, NegativeTypeAcceptsNothing)
{
    EXPECT_FALSE(blob_check_type("", 1, -1));
    EXPECT_FALSE(blob_check_type("", 1, BLOB_ATTR_LAST));
}

TEST(Blob, ChildShorterThanItsHeaderIsSkipped)
{
    Attr attr{1, 0, 0, 12, 2, 0, 0, 3, 3, 0, 0, 4};
    blob_attr *data[4];

    EXPECT_EQ(blob_parse(attr, data, nullptr, 4), 1);
    EXPECT_EQ(data[2], nullptr);
    EXPECT_NE(data[3], nullptr);
}

TEST(Blob, ParsingWithoutSlotsWritesNothing)
{
    Attr attr{1, 0, 0, 8, 0, 0, 0, 4};

    EXPECT_EQ(blob_parse(attr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(blob_parse(attr, nullptr, nullptr, -1), 0);
}

} // namespace
