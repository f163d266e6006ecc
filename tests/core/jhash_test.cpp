// SPDX-License-Identifier: ISC
// The hash decides in which bucket an entry is stored and shows in dumps, so its values are fixed:
// computed once from the published algorithm with unbounded integers.

#include <bv/hash.h>

#include <cstring>
#include <gtest/gtest.h>

namespace {

// Keys are the bytes (37 i + 11) mod 256: all bit patterns, with and without the top bit.
struct Row {
    uint32_t length;
    uint32_t initval;
    uint32_t hash;
};

constexpr Row kRows[] = {
    {0, 0x00000000, 0xbd49d10d},    {0, 0xdeadbeef, 0x1153f4be},    {1, 0x00000000, 0x9e34cd8a},
    {1, 0xdeadbeef, 0x0983e02a},    {2, 0x00000000, 0x608a8006},    {2, 0xdeadbeef, 0xbc2251e0},
    {3, 0x00000000, 0x7a8343ac},    {3, 0xdeadbeef, 0x58bb8d3e},    {4, 0x00000000, 0xc5522bbd},
    {4, 0xdeadbeef, 0x433fa8d8},    {5, 0x00000000, 0x9b66b29f},    {5, 0xdeadbeef, 0xc48222e8},
    {6, 0x00000000, 0x07c6abed},    {6, 0xdeadbeef, 0x73de854d},    {7, 0x00000000, 0xaa0cf016},
    {7, 0xdeadbeef, 0xd9026c0e},    {8, 0x00000000, 0x371b6f81},    {8, 0xdeadbeef, 0x8e81ad34},
    {9, 0x00000000, 0x60fc4bf4},    {9, 0xdeadbeef, 0x90c1bd05},    {10, 0x00000000, 0xd85750e1},
    {10, 0xdeadbeef, 0x7123ae29},   {11, 0x00000000, 0xf9df30c5},   {11, 0xdeadbeef, 0x96e7a70a},
    {12, 0x00000000, 0x80c4706d},   {12, 0xdeadbeef, 0xa74c9cea},   {13, 0x00000000, 0x7bad5cf2},
    {13, 0xdeadbeef, 0x4af9a0f5},   {14, 0x00000000, 0xb17f4fff},   {14, 0xdeadbeef, 0x085f8218},
    {15, 0x00000000, 0x6da3a493},   {15, 0xdeadbeef, 0x3ef089d5},   {16, 0x00000000, 0x1a7ccdb5},
    {16, 0xdeadbeef, 0x73373686},   {17, 0x00000000, 0x2229ae22},   {17, 0xdeadbeef, 0x0a8df2c9},
    {18, 0x00000000, 0x6219e963},   {18, 0xdeadbeef, 0xed922f7f},   {19, 0x00000000, 0xa3d4dc71},
    {19, 0xdeadbeef, 0xa5cbd25d},   {20, 0x00000000, 0xac7083db},   {20, 0xdeadbeef, 0xf66e0077},
    {21, 0x00000000, 0xf080129e},   {21, 0xdeadbeef, 0x5cb7b210},   {22, 0x00000000, 0x88b4ce97},
    {22, 0xdeadbeef, 0x3e91f0f7},   {23, 0x00000000, 0xc9389c4c},   {23, 0xdeadbeef, 0xdaa8f2f0},
    {24, 0x00000000, 0xed8d671b},   {24, 0xdeadbeef, 0x4dcbb59e},   {25, 0x00000000, 0x4c0035f4},
    {25, 0xdeadbeef, 0x0f2d1644},   {35, 0x00000000, 0x394c334b},   {35, 0xdeadbeef, 0x7eefa72b},
    {36, 0x00000000, 0xa1c7aaab},   {36, 0xdeadbeef, 0xb3fdc51b},   {37, 0x00000000, 0x6e99f3ef},
    {37, 0xdeadbeef, 0xb0906d64},   {255, 0x00000000, 0x421b3e49},  {255, 0xdeadbeef, 0x4f4766ff},
    {1024, 0x00000000, 0x90140832}, {1024, 0xdeadbeef, 0x27b524e9}, {1025, 0x00000000, 0xf11290e7},
    {1025, 0xdeadbeef, 0x38eefaff},
};

void fill(uint8_t *key, uint32_t length)
{
    for (uint32_t i = 0; i < length; i++)
        key[i] = static_cast<uint8_t>(i * 37 + 11);
}

} // namespace

TEST(Jhash, EveryRemainderAndLongKeysHashToKnownValues)
{
    for (const Row &row : kRows) {
        SCOPED_TRACE(testing::Message() << "length " << row.length << " initval " << row.initval);
        uint8_t key[1025];
        fill(key, row.length);
        EXPECT_EQ(bv_os_jhash(key, row.length, row.initval), row.hash);
    }
    EXPECT_EQ(bv_os_jhash(nullptr, 0, 0), kRows[0].hash) << "an empty key is not read";
}

TEST(Jhash, PaddedNameHashesWithItsPadding)
{
    uint8_t key[1024] = "lan";
    EXPECT_EQ(bv_os_jhash(key, sizeof(key), 0), 0x548f7b89u);
    EXPECT_EQ(bv_os_jhash(key, 3, 0), 0x32b8a85au);
}

TEST(Jhash, SumsOfAllSetBitsWrap)
{
    uint8_t key[23];
    memset(key, 0xff, sizeof(key));
    EXPECT_EQ(bv_os_jhash(key, sizeof(key), 0xffffffff), 0x1c13025cu);
}

TEST(Jhash, NeitherTheKeysAddressNorTheBytesAfterItMatter)
{
    for (uint32_t length = 0; length < 38; length++) {
        uint8_t key[37];
        fill(key, length);
        const uint32_t expected = bv_os_jhash(key, length, 7);
        for (uint32_t shift = 0; shift < 8; shift++) {
            uint8_t room[64];
            memset(room, 0xee, sizeof(room));
            memcpy(room + shift, key, length);
            EXPECT_EQ(bv_os_jhash(room + shift, length, 7), expected) << length << " at " << shift;
        }
    }
}
