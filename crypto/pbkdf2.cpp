// SPDX-License-Identifier: ISC
// PBKDF2 with HMAC-SHA-256.

#include <bv/sha2.h>

#include "crypto/sha256_block.h"
#include "crypto/wipe.h"
#include "os/bytes.h"
#include "os/span.h"

#include <bv/os.h>

#include <algorithm>

namespace {

constexpr uint32_t kSize = bv::kSha256DigestSize;

// U(1) of a block: the HMAC of the salt and the block's number.
void first_hmac(bv::Bytes password, bv::Bytes salt, uint32_t block, uint8_t *u)
{
    sha2_context ctx;
    uint8_t number[4];

    bv::put_be32(number, block);
    sha2_hmac_starts(&ctx, password.data, password.length, 0);
    sha2_hmac_update(&ctx, salt.data, salt.length);
    sha2_hmac_update(&ctx, number, sizeof(number));
    sha2_hmac_finish(&ctx, u);
    bv::wipe(ctx);
}

// One block of derived key: the XOR of U(1), U(2) ... Every HMAC starts from the password, which
// takes four hash blocks where saved pads would need two. Deriving is meant to be slow, and the
// services' iteration counts are chosen for this cost.
void derive_block(bv::Bytes password, bv::Bytes salt, uint32_t block, uint32_t iterations,
                  uint8_t *t)
{
    uint8_t u[kSize];

    first_hmac(password, salt, block, u);
    bv_os_memcpy(t, kSize, u, kSize);
    for (uint32_t i = 1; i < iterations; ++i) {
        sha2_hmac(password.data, password.length, u, kSize, u, 0);
        for (uint32_t j = 0; j < kSize; ++j)
            t[j] = static_cast<uint8_t>(t[j] ^ u[j]);
    }
    bv::wipe(u);
}

} // namespace

void bv_pkcs5_pbkdf2_hmac(const uint8_t *password, uint32_t plen, const uint8_t *salt,
                          uint32_t slen, uint8_t *output, uint32_t key_length, uint32_t iterations)
{
    if ((password == nullptr && plen > 0) || (salt == nullptr && slen > 0) || output == nullptr)
        return;

    uint8_t t[kSize];
    for (uint32_t block = 1; key_length > 0; ++block) {
        const uint32_t count = std::min(key_length, kSize);
        derive_block({password, plen}, {salt, slen}, block, iterations, t);
        // The capacity is not key_length: the bounded copy refuses 2 GiB and more.
        bv_os_memcpy(output, count, t, count);
        output += count;
        key_length -= count;
    }
    bv::wipe(t);
}
