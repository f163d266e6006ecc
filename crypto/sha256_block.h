// SPDX-License-Identifier: ISC
// The SHA-256 compression function, shared by the streaming interface and the text digest.
#ifndef BV_CRYPTO_SHA256_BLOCK_H
#define BV_CRYPTO_SHA256_BLOCK_H

#include <cstddef>
#include <cstdint>

namespace bv {

constexpr size_t kSha256BlockSize = 64;
constexpr size_t kSha256DigestSize = 32;
constexpr size_t kSha224DigestSize = 28;

// Initial hash values, FIPS 180-4, 5.3.3 and 5.3.2.
constexpr uint32_t kSha256Initial[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                        0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
constexpr uint32_t kSha224Initial[8] = {0xc1059ed8, 0x367cd507, 0x3070dd17, 0xf70e5939,
                                        0xffc00b31, 0x68581511, 0x64f98fa7, 0xbefa4fa4};

// Adds `count` whole blocks to the hash value. Its copies on the stack are wiped: the message words
// of an HMAC are the key.
void sha256_blocks(uint32_t (&state)[8], const uint8_t *data, size_t count);

} // namespace bv

#endif
