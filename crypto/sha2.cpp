// SPDX-License-Identifier: ISC
// Streaming SHA-256 and SHA-224, and HMAC over them.

#include <bv/sha2.h>

#include "crypto/sha256_block.h"
#include "crypto/wipe.h"
#include "os/bytes.h"

#include <bv/os.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

// Services have contexts in their own records, so the layout is fixed on every machine.
static_assert(sizeof(sha2_context) == 236);
static_assert(offsetof(sha2_context, state) == 8 && offsetof(sha2_context, buffer) == 40);
static_assert(offsetof(sha2_context, ipad) == 104 && offsetof(sha2_context, opad) == 168);
static_assert(offsetof(sha2_context, is224) == 232);

namespace {

constexpr uint32_t kBlock = bv::kSha256BlockSize;
constexpr uint32_t kLengthAt = kBlock - 8; // the last block ends in the 8-byte length

uint32_t digest_size(int32_t is224)
{
    return is224 != 0 ? bv::kSha224DigestSize : bv::kSha256DigestSize;
}

void compress_buffer(sha2_context *ctx)
{
    bv::sha256_blocks(ctx->state, ctx->buffer, 1);
}

// Adds to the partial block as much of the input as fits; returns how much that was.
uint32_t fill_buffer(sha2_context *ctx, uint32_t used, const uint8_t *input, uint32_t ilen)
{
    const uint32_t room = kBlock - used;
    const uint32_t count = std::min(ilen, room);

    bv_os_memcpy(ctx->buffer + used, room, input, count);
    if (count == room)
        compress_buffer(ctx);
    return count;
}

void count_bytes(sha2_context *ctx, uint32_t ilen)
{
    ctx->total[0] += ilen;
    if (ctx->total[0] < ilen)
        ++ctx->total[1];
}

} // namespace

void sha2_starts(sha2_context *ctx, int32_t is224)
{
    if (ctx == nullptr)
        return;
    ctx->total[0] = 0;
    ctx->total[1] = 0;
    const auto &initial = is224 != 0 ? bv::kSha224Initial : bv::kSha256Initial;
    for (size_t i = 0; i < 8; ++i)
        ctx->state[i] = initial[i];
    ctx->is224 = is224;
}

void sha2_update(sha2_context *ctx, const uint8_t *input, uint32_t ilen)
{
    if (ctx == nullptr || input == nullptr || ilen == 0)
        return;

    const uint32_t used = ctx->total[0] % kBlock;
    count_bytes(ctx, ilen);

    if (used > 0) {
        const uint32_t taken = fill_buffer(ctx, used, input, ilen);
        input += taken;
        ilen -= taken;
    }
    if (ilen >= kBlock) {
        bv::sha256_blocks(ctx->state, input, ilen / kBlock);
        input += ilen - ilen % kBlock;
    }
    if (ilen % kBlock > 0)
        bv_os_memcpy(ctx->buffer, kBlock, input, ilen % kBlock);
}

void sha2_finish(sha2_context *ctx, uint8_t *output)
{
    if (ctx == nullptr || output == nullptr)
        return;

    const uint32_t bits_high = ctx->total[1] << 3 | ctx->total[0] >> 29;
    const uint32_t bits_low = ctx->total[0] << 3;
    uint32_t used = ctx->total[0] % kBlock;

    ctx->buffer[used++] = 0x80;
    if (used > kLengthAt) {
        memset(ctx->buffer + used, 0, kBlock - used);
        compress_buffer(ctx);
        used = 0;
    }
    memset(ctx->buffer + used, 0, kLengthAt - used);
    bv::put_be32(ctx->buffer + kLengthAt, bits_high);
    bv::put_be32(ctx->buffer + kLengthAt + 4, bits_low);
    compress_buffer(ctx);

    for (uint32_t i = 0; i < digest_size(ctx->is224) / 4; ++i)
        bv::put_be32(output + 4 * i, ctx->state[i]);
}

void sha2(const uint8_t *input, uint32_t ilen, uint8_t *output, int32_t is224)
{
    if ((input == nullptr && ilen > 0) || output == nullptr)
        return;

    sha2_context ctx;
    sha2_starts(&ctx, is224);
    sha2_update(&ctx, input, ilen);
    sha2_finish(&ctx, output);
    bv::wipe(ctx);
}

void sha2_hmac_starts(sha2_context *ctx, const uint8_t *key, uint32_t keylen, int32_t is224)
{
    if (ctx == nullptr || (key == nullptr && keylen > 0))
        return;

    uint8_t digest[bv::kSha256DigestSize];
    const bool digested = keylen > kBlock;
    if (digested) {
        sha2(key, keylen, digest, is224);
        key = digest;
        keylen = digest_size(is224);
    }

    memset(ctx->ipad, 0x36, sizeof(ctx->ipad));
    memset(ctx->opad, 0x5c, sizeof(ctx->opad));
    for (uint32_t i = 0; i < keylen; ++i) {
        ctx->ipad[i] ^= key[i];
        ctx->opad[i] ^= key[i];
    }
    if (digested)
        bv::wipe(digest);

    ctx->is224 = is224;
    sha2_hmac_reset(ctx);
}

void sha2_hmac_update(sha2_context *ctx, const uint8_t *input, uint32_t ilen)
{
    sha2_update(ctx, input, ilen);
}

void sha2_hmac_finish(sha2_context *ctx, uint8_t *output)
{
    if (ctx == nullptr || output == nullptr)
        return;

    uint8_t inner[bv::kSha256DigestSize];
    sha2_finish(ctx, inner);
    sha2_starts(ctx, ctx->is224);
    sha2_update(ctx, ctx->opad, sizeof(ctx->opad));
    sha2_update(ctx, inner, digest_size(ctx->is224));
    sha2_finish(ctx, output);
    bv::wipe(inner);
}

void sha2_hmac_reset(sha2_context *ctx)
{
    if (ctx == nullptr)
        return;
    sha2_starts(ctx, ctx->is224);
    sha2_update(ctx, ctx->ipad, sizeof(ctx->ipad));
}

void sha2_hmac(const uint8_t *key, uint32_t keylen, const uint8_t *input, uint32_t ilen,
               uint8_t *output, int32_t is224)
{
    if ((key == nullptr && keylen > 0) || (input == nullptr && ilen > 0) || output == nullptr)
        return;

    sha2_context ctx;
    sha2_hmac_starts(&ctx, key, keylen, is224);
    sha2_hmac_update(&ctx, input, ilen);
    sha2_hmac_finish(&ctx, output);
    bv::wipe(ctx);
}
