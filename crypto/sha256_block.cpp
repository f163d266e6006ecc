// SPDX-License-Identifier: ISC
// SHA-256 compression (FIPS 180-4, 6.2.2), unrolled by templates: one round and one step of the
// message schedule are written here, and the compiler makes 64 of them.
//
// Two things make it fast on a machine with few registers and no vector unit, such as the gateway.
// The working variables never move: round t starts one place further back in the array of eight, an
// index known at compile time, so every variable is in a register. And only the last sixteen
// schedule words are stored, each computed in the round that needs it.

#include "crypto/sha256_block.h"

#include "crypto/wipe.h"
#include "os/bytes.h"

#include <utility>

#define BV_INLINE inline __attribute__((always_inline))

namespace {

// Round constants, FIPS 180-4, 4.2.2.
constexpr uint32_t kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

template <unsigned N>
BV_INLINE uint32_t rotr(uint32_t x)
{
    return x >> N | x << (32 - N);
}

// The functions of FIPS 180-4, 4.1.2. The rotations are nested: ROTR a (x) ^ ROTR b (x) is
// ROTR a (x ^ ROTR b - a (x)), which saves a copy of x on a two-operand machine.
BV_INLINE uint32_t choose(uint32_t x, uint32_t y, uint32_t z)
{
    return z ^ (x & (y ^ z));
}

// x ^ y is y ^ z of the next round; the compiler computes it once.
BV_INLINE uint32_t majority(uint32_t x, uint32_t y, uint32_t z)
{
    return y ^ ((x ^ y) & (y ^ z));
}

BV_INLINE uint32_t big_sigma0(uint32_t x) // ROTR 2 ^ ROTR 13 ^ ROTR 22
{
    return rotr<2>(x ^ rotr<11>(x ^ rotr<9>(x)));
}

BV_INLINE uint32_t big_sigma1(uint32_t x) // ROTR 6 ^ ROTR 11 ^ ROTR 25
{
    return rotr<6>(x ^ rotr<5>(x ^ rotr<14>(x)));
}

BV_INLINE uint32_t small_sigma0(uint32_t x) // ROTR 7 ^ ROTR 18 ^ SHR 3
{
    return rotr<7>(x ^ rotr<11>(x)) ^ x >> 3;
}

BV_INLINE uint32_t small_sigma1(uint32_t x) // ROTR 17 ^ ROTR 19 ^ SHR 10
{
    return rotr<17>(x ^ rotr<2>(x)) ^ x >> 10;
}

// W(t), kept at t modulo 16.
template <unsigned T>
BV_INLINE uint32_t schedule(uint32_t *w, const uint8_t *block)
{
    if constexpr (T < 16)
        return w[T] = bv::get_be32(block + 4 * T);
    else
        return w[T % 16] +=
               small_sigma1(w[(T - 2) % 16]) + w[(T - 7) % 16] + small_sigma0(w[(T - 15) % 16]);
}

// One round. Working variable I, counted from a, is v[(I - T) modulo 8].
template <unsigned T>
BV_INLINE void round(uint32_t *v, uint32_t *w, const uint8_t *block)
{
    constexpr auto at = [](unsigned i) { return (i + 64 - T) % 8; };
    const uint32_t a = v[at(0)], b = v[at(1)], c = v[at(2)];
    const uint32_t e = v[at(4)], f = v[at(5)], g = v[at(6)];
    uint32_t &d = v[at(3)], &h = v[at(7)];

    h += schedule<T>(w, block) + kRound[T] + choose(e, f, g) + big_sigma1(e);
    d += h;
    h += big_sigma0(a) + majority(a, b, c);
}

template <unsigned... T>
BV_INLINE void all_rounds(uint32_t *v, uint32_t *w, const uint8_t *block,
                          std::integer_sequence<unsigned, T...>)
{
    (round<T>(v, w, block), ...);
}

__attribute__((noinline)) void compress(uint32_t *state, const uint8_t *data, size_t count)
{
    uint32_t w[16];

    for (; count > 0; --count, data += bv::kSha256BlockSize) {
        uint32_t v[8] = {state[0], state[1], state[2], state[3],
                         state[4], state[5], state[6], state[7]};
        all_rounds(v, w, data, std::make_integer_sequence<unsigned, 64>());
        state[0] += v[0], state[1] += v[1], state[2] += v[2], state[3] += v[3];
        state[4] += v[4], state[5] += v[5], state[6] += v[6], state[7] += v[7];
    }
}

} // namespace

void bv::sha256_blocks(uint32_t (&state)[8], const uint8_t *data, size_t count)
{
    compress(state, data, count);
    // w, and the working variables that found no register.
    wipe_stack<320>();
}
