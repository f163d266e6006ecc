// SPDX-License-Identifier: ISC
// Bob Jenkins' hash "lookup2" (1996). The configuration database hashes 1024 bytes on every access.
// So a little-endian machine loads the key's words whole, and no part of a step may become a call:
// the gateway's packages are optimised for size, and the compiler would then call memcpy for every
// word and keep the state in memory. And the zeros after a name, which are nearly all of its key,
// are neither written nor read.

#include <bv/hash.h>

#include "core/hash.h"

namespace {

constexpr uint32_t kGoldenRatio = 0x9E3779B9;
constexpr uint32_t kBlockSize = 12;

struct State {
    uint32_t a;
    uint32_t b;
    uint32_t c;
};

template <unsigned A, unsigned B, unsigned C>
__attribute__((always_inline)) inline void mix_once(State &s)
{
    s.a -= s.b;
    s.a -= s.c;
    s.a ^= s.c >> A;
    s.b -= s.c;
    s.b -= s.a;
    s.b ^= s.a << B;
    s.c -= s.a;
    s.c -= s.b;
    s.c ^= s.b >> C;
}

__attribute__((always_inline)) inline void mix(State &s)
{
    mix_once<13, 8, 13>(s);
    mix_once<12, 16, 5>(s);
    mix_once<3, 10, 15>(s);
}

// A little-endian word at any address.
inline uint32_t get_le32(const uint8_t *from)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    struct __attribute__((packed, may_alias)) Unaligned {
        uint32_t word;
    };
    return reinterpret_cast<const Unaligned *>(from)->word;
#else
    return from[0] | static_cast<uint32_t>(from[1]) << 8 | static_cast<uint32_t>(from[2]) << 16 |
           static_cast<uint32_t>(from[3]) << 24;
#endif
}

// Adds fewer bytes than a block, each at its place in its word. In the last block the low byte of c
// is for the length, so bytes 8 to 10 are one place higher there.
void add_bytes(State &s, const uint8_t *bytes, uint32_t count, bool last)
{
    uint32_t words[3] = {};
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t place = i < 8 || !last ? i % 4 : i % 4 + 1;
        words[i / 4] += static_cast<uint32_t>(bytes[i]) << (8 * place);
    }
    s.a += words[0];
    s.b += words[1];
    s.c += words[2];
}

} // namespace

uint32_t bv::jhash_padded(const uint8_t *key, uint32_t length, uint32_t size, uint32_t initval)
{
    State s = {kGoldenRatio, kGoldenRatio, initval};
    uint32_t left = size;
    for (; length >= kBlockSize; length -= kBlockSize, left -= kBlockSize, key += kBlockSize) {
        s.a += get_le32(key);
        s.b += get_le32(key + 4);
        s.c += get_le32(key + 8);
        mix(s);
    }

    for (;; left -= kBlockSize) {
        const bool last = left < kBlockSize;
        if (length != 0)
            add_bytes(s, key, length, last);
        length = 0; // only zeros from here on
        if (last)
            break;
        mix(s);
    }
    s.c += size;
    mix(s);
    return s.c;
}

uint32_t bv_os_jhash(const uint8_t *key, uint32_t length, uint32_t initval)
{
    return bv::jhash_padded(key, length, length, initval);
}
