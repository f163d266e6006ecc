// SPDX-License-Identifier: ISC
// Checksums: against zlib and a bit at a time.

#include <bv/os.h>

#include "crypto/crc_table.h"
#include "crypto/vectors.h"
#include "support/guarded.h"

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

// The tables as the library has them, and with the slices of the other kind of machine.
constexpr auto kTables32 = bv::make_crc_tables<uint32_t, 0xedb88320, 16>();
constexpr auto kTables16 = bv::make_crc_tables<uint16_t, 0xa001, 16>();
constexpr auto kSmall32 = bv::make_crc_tables<uint32_t, 0xedb88320, 4>();
constexpr auto kSmall16 = bv::make_crc_tables<uint16_t, 0xa001, 4>();

static_assert(kTables32.entry[0][0] == 0 && kTables32.entry[0][1] == 0x77073096);
static_assert(kTables32.entry[0][2] == 0xee0e612c && kTables32.entry[0][3] == 0x990951ba);
static_assert(kTables16.entry[0][0] == 0 && kTables16.entry[0][1] == 0xc0c1);
static_assert(kTables16.entry[0][2] == 0xc181 && kTables16.entry[0][3] == 0x0140);

uint32_t crc32_of(uint32_t crc, const std::string &text)
{
    return bv_os_crc32(crc, u8(text), static_cast<uint32_t>(text.size()));
}

uint16_t crc16_of(uint16_t crc, const std::string &text)
{
    return bv_os_crc16(crc, u8(text), static_cast<uint32_t>(text.size()));
}

uint32_t zlib_of(uint32_t crc, const std::string &text)
{
    return static_cast<uint32_t>(crc32(crc, u8(text), static_cast<uInt>(text.size())));
}

uint16_t bitwise16(uint16_t crc, const std::string &text)
{
    for (char c : text) {
        crc = static_cast<uint16_t>(crc ^ static_cast<uint8_t>(c));
        for (int bit = 0; bit < 8; bit++)
            crc = static_cast<uint16_t>(crc & 1 ? crc >> 1 ^ 0xa001 : crc >> 1);
    }
    return crc;
}

// Sizes around a stride, and around some larger ones.
std::vector<size_t> lengths()
{
    std::vector<size_t> all;
    for (size_t i = 0; i <= 80; i++)
        all.push_back(i);
    for (size_t base : {256u, 512u, 1024u, 4096u}) {
        for (size_t i = base - 18; i <= base + 18; i++)
            all.push_back(i);
    }
    return all;
}

} // namespace

TEST(Crc, PublishedVectorsAgreeWithUsAndWithTheReferences)
{
    const auto rows = read_rows("crc.txt");
    ASSERT_EQ(rows.size(), 7u);
    for (const Row &row : rows) {
        SCOPED_TRACE(row[0]);
        const std::string message = bytes_of(row[1]);
        const auto crc32 = static_cast<uint32_t>(std::stoul(row[2], nullptr, 16));
        const auto crc16 = static_cast<uint16_t>(std::stoul(row[3], nullptr, 16));
        EXPECT_EQ(zlib_of(0, message), crc32);
        EXPECT_EQ(bitwise16(0, message), crc16);
        EXPECT_EQ(crc32_of(0, message), crc32);
        EXPECT_EQ(crc16_of(0, message), crc16);
    }
}

TEST(Crc, EveryLengthAndAlignmentAgreesWithTheReferencesAndNoMoreIsRead)
{
    RandomBytes random(61);
    for (size_t length : lengths()) { // the end is aligned, so the start is anywhere
        const std::string text = random.bytes(length);
        Guarded memory(text);
        const auto size = static_cast<uint32_t>(length);
        const auto start = static_cast<uint32_t>(random.number(0, UINT32_MAX));
        EXPECT_EQ(bv_os_crc32(start, memory.u8(), size), zlib_of(start, text)) << length;
        const auto start16 = static_cast<uint16_t>(start);
        EXPECT_EQ(bv_os_crc16(start16, memory.u8(), size), bitwise16(start16, text)) << length;
    }
}

TEST(Crc, BothSliceWidthsGiveTheSame)
{
    RandomBytes random(62);
    for (size_t length : lengths()) {
        const std::string text = random.bytes(length);
        EXPECT_EQ(bv::crc_update(kSmall32, 7u, u8(text), length),
                  bv::crc_update(kTables32, 7u, u8(text), length));
        const uint16_t start = 0xfedc;
        EXPECT_EQ(bv::crc_update(kSmall16, start, u8(text), length), bitwise16(start, text));
        EXPECT_EQ(bv::crc_update(kTables16, start, u8(text), length), bitwise16(start, text));
    }
}

TEST(Crc, PiecesGiveTheSameAsTheWhole)
{
    EXPECT_EQ(crc32_of(crc32_of(0, "1234"), "56789"), 0xcbf43926u);
    EXPECT_EQ(crc16_of(crc16_of(0, "1234"), "56789"), 0xbb3d);

    RandomBytes random(64);
    const std::string text = random.bytes(1100);
    for (size_t cut = 0; cut <= text.size(); cut += 13) {
        EXPECT_EQ(crc32_of(crc32_of(5, text.substr(0, cut)), text.substr(cut)), zlib_of(5, text));
        EXPECT_EQ(crc16_of(crc16_of(5, text.substr(0, cut)), text.substr(cut)), bitwise16(5, text));
    }
}

TEST(Crc, RunningValueStaysWithoutBytesOrWithoutAPointer)
{
    const auto *wild = reinterpret_cast<const uint8_t *>(1);
    const std::pair<const uint8_t *, uint32_t> rows[] = {{nullptr, 0}, {wild, 0}, {nullptr, 5}};
    for (const auto &row : rows) {
        EXPECT_EQ(bv_os_crc32(0x12345678, row.first, row.second), 0x12345678u) << row.second;
        EXPECT_EQ(bv_os_crc16(0x1234, row.first, row.second), 0x1234);
    }
}

TEST(Crc, RangeThatWrapsAroundTheAddressSpaceKeepsTheRunningCrc16)
{
    const auto *last = reinterpret_cast<const uint8_t *>(UINTPTR_MAX - 3);
    EXPECT_EQ(bv_os_crc16(0x1234, last, 4), 0x1234); // ends at 0
    EXPECT_EQ(bv_os_crc16(0x1234, last, 100), 0x1234);
    EXPECT_EQ(bv_os_crc16(0x1234, last, UINT32_MAX), 0x1234);
}
