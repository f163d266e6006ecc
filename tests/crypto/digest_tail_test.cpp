// SPDX-License-Identifier: ISC
// What bv_os_sha256() hands to the compression function. This program has one of its own, which
// only keeps what it is shown: hashing the 512 MiB of the longest text here for real takes seconds.

#include <bv/os.h>

#include "crypto/sha256_block.h"
#include "crypto/vectors.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

struct Run {
    const uint8_t *data;
    size_t count;
    std::string front; // its first two blocks at most
};

std::vector<Run> g_runs;

// The runs of blocks of one text.
std::vector<Run> runs_of(const char *text)
{
    char out[65];
    g_runs.clear();
    bv_os_sha256(out, text);
    return g_runs;
}

std::string zeros(size_t count)
{
    return std::string(count, 0);
}

} // namespace

void bv::sha256_blocks(uint32_t (&state)[8], const uint8_t *data, size_t count)
{
    const auto *text = reinterpret_cast<const char *>(data);
    g_runs.push_back({data, count, std::string(text, 64 * (count < 2 ? count : 2))});
    for (uint32_t i = 0; i < 8; i++)
        state[i] = 0x1au << 4 * i;
}

TEST(Sha256Tail, IsOneBlockForUpTo55CharactersAndTwoFrom56On)
{
    for (size_t whole : {0u, 1u, 3u}) {
        for (size_t rest = 0; rest < 64; rest++) {
            const std::string text(64 * whole + rest, 'x');
            const auto runs = runs_of(text.c_str());
            ASSERT_EQ(runs.size(), 2u);
            EXPECT_EQ(runs[0].count, whole);
            EXPECT_EQ(static_cast<const void *>(runs[0].data), text.c_str()) << "not copied";

            const size_t tail_size = rest < 56 ? 64 : 128;
            std::string tail = std::string(rest, 'x') + '\x80';
            tail += zeros(tail_size - 2 - tail.size());
            tail += static_cast<char>(text.size() >> 5);
            tail += static_cast<char>(text.size() << 3);
            EXPECT_EQ(to_hex(runs[1].front), to_hex(tail)) << text.size();
        }
    }
}

TEST(Sha256Tail, DigitsAreTheStateWordByWord)
{
    char out[65];
    bv_os_sha256(out, "");
    EXPECT_STREQ(out, "0000001a000001a000001a000001a000001a000001a000001a000000a0000000");
}

// 2^29 + 3 characters out of one piece of memory, mapped again and again. They are 2^32 + 24 bits.
TEST(Sha256Tail, LengthIsCutTo32BitsFrom512MiBOn)
{
    const size_t length = (size_t{1} << 29) + 3, piece = 16 * 1024 * 1024;
    const int fd = memfd_create("text", 0);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(piece)), 0);
    auto *base = static_cast<char *>(mmap(nullptr, length + piece, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(base, MAP_FAILED);
    for (size_t at = 0; at < length - 3; at += piece) {
        ASSERT_NE(mmap(base + at, piece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0),
                  MAP_FAILED);
    }
    memset(base, 'a', piece);
    memcpy(base + length - 3, "end", 4); // after the mappings, so not in all of them

    const auto runs = runs_of(base);
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0].count, size_t{1} << 23);
    EXPECT_EQ(to_hex(runs[1].front), to_hex("end\x80" + zeros(59) + '\x18'));
    munmap(base, length + piece);
    close(fd);
}
