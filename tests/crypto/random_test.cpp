// SPDX-License-Identifier: ISC
// Random text: its digits, its limits, and a generator that fails.

#include <bv/os.h>

#include "crypto/vectors.h"
#include "support/faults.h"

#include <cstring>
#include <gtest/gtest.h>
#include <set>

namespace {

std::string g_bytes; // what the generator gives instead of its own, when not empty
int g_result = 1;
int g_calls = 0;

// 300 bytes of '#', to see what is written.
class Buffer {
public:
    Buffer() { memset(bytes_, '#', sizeof(bytes_)); }
    operator uint8_t *() { return bytes_; }
    std::string front(size_t count) const { return text().substr(0, count); }
    bool untouched_from(size_t at) const
    {
        return text().find_first_not_of('#', at) == std::string::npos;
    }

private:
    std::string text() const
    {
        return std::string(reinterpret_cast<const char *>(bytes_), sizeof(bytes_));
    }
    uint8_t bytes_[300];
};

class Random : public testing::Test {
protected:
    void SetUp() override
    {
        g_bytes.clear();
        g_result = 1;
        g_calls = 0;
    }
};

} // namespace

BV_INTERPOSE(random_bytes, "RAND_bytes", int, (unsigned char *to, int count))
{
    g_calls++;
    if (g_result != 1)
        return g_result;
    if (g_bytes.empty())
        return BV_NEXT(random_bytes)(to, count);
    memcpy(to, g_bytes.data(), static_cast<size_t>(count));
    return 1;
}

TEST_F(Random, TextIsTheHexOfTheFirstHalfOfTheBytes)
{
    g_bytes = RandomBytes(51).bytes(256);
    for (int32_t num = 1; num <= 256; num++) {
        Buffer buffer;
        EXPECT_EQ(bv_os_random(buffer, num), 1u);
        EXPECT_EQ(buffer.front(static_cast<size_t>(num)),
                  to_hex(g_bytes).substr(0, static_cast<size_t>(num)));
        EXPECT_TRUE(buffer.untouched_from(static_cast<size_t>(num))) << num;
    }
}

TEST_F(Random, NumbersOutOfRangeAndNullLeaveTheBufferAndTheGeneratorAlone)
{
    Buffer buffer;
    uint8_t *const bytes = buffer;
    const struct {
        uint8_t *to;
        int32_t num;
        uint32_t result;
    } rows[] = {{bytes, 257, BV_ERR_TOO_LONG},
                {bytes, INT32_MAX, BV_ERR_TOO_LONG},
                {bytes, -1, 0},
                {bytes, INT32_MIN, 0},
                {nullptr, 8, 0},
                {nullptr, 256, 0},
                {nullptr, 257, BV_ERR_TOO_LONG}};
    for (const auto &row : rows)
        EXPECT_EQ(bv_os_random(row.to, row.num), row.result)
            << row.num << (row.to == nullptr ? " into null" : "");
    EXPECT_TRUE(buffer.untouched_from(0));
    EXPECT_EQ(g_calls, 0);
}

TEST_F(Random, GeneratorIsAskedEvenForZeroDigits)
{
    Buffer buffer;
    EXPECT_EQ(bv_os_random(buffer, 0), 1u);
    EXPECT_EQ(bv_os_random(nullptr, 0), 1u);
    for (int failure : {0, -1}) {
        g_result = failure;
        EXPECT_EQ(bv_os_random(buffer, 0), static_cast<uint32_t>(failure));
    }
    EXPECT_EQ(g_calls, 4);
    EXPECT_TRUE(buffer.untouched_from(0));
}

TEST_F(Random, FailedGeneratorIsReportedAndTheBufferIsConvertedAnyway)
{
    for (int failure : {0, -1}) {
        Buffer buffer;
        g_result = failure;
        EXPECT_EQ(bv_os_random(buffer, 5), static_cast<uint32_t>(failure));
        EXPECT_EQ(buffer.front(5), "23232"); // of the '#' there
        EXPECT_TRUE(buffer.untouched_from(5));
    }
}

TEST_F(Random, TextsAreDigitsAndDiffer)
{
    std::set<std::string> texts;
    for (int i = 0; i < 100; i++) {
        Buffer buffer;
        ASSERT_EQ(bv_os_random(buffer, 32), 1u);
        EXPECT_EQ(buffer.front(32).find_first_not_of("0123456789abcdef"), std::string::npos);
        texts.insert(buffer.front(32));
    }
    EXPECT_EQ(texts.size(), 100u);
}
