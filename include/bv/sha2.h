/* SPDX-License-Identifier: ISC */
/**
 * @file sha2.h
 * SHA-256 and SHA-224 (FIPS 180-4), HMAC over them (RFC 2104) and PBKDF2 with HMAC-SHA-256
 * (PKCS #5 v2.0, RFC 2898). The names are the conventional ones of this interface, without the
 * library's prefix.
 *
 * True of every function here:
 *  - lengths are in bytes; is224 is 0 for SHA-256 (32 bytes of output), anything else for SHA-224
 *    (28 bytes of output);
 *  - the caller owns every buffer and context, nothing is allocated and nothing is kept;
 *  - a pointer may be null if its length is 0; with any other null argument the call does nothing;
 *  - output is written last, so it may overlap the input or the key;
 *  - the library clears its copies of keys, passwords and intermediate results before it returns.
 *    It does not clear the caller's context, which holds the key during an HMAC;
 *  - any number of threads may call at once, each on its own contexts.
 *
 * Calling order: sha2_starts(), sha2_update() as often as needed, sha2_finish(). With a key:
 * sha2_hmac_starts(), sha2_hmac_update() as often as needed, sha2_hmac_finish(); then
 * sha2_hmac_reset() begins another message under the same key.
 */
#ifndef BV_SHA2_H
#define BV_SHA2_H

#include <bv/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A hash or HMAC that is being computed. Only the library changes its fields. */
typedef struct sha2_context {
    uint32_t total[2];  /**< bytes hashed so far: low word, high word */
    uint32_t state[8];  /**< intermediate hash value */
    uint8_t buffer[64]; /**< the block that is not full yet */
    uint8_t ipad[64];   /**< HMAC: key XOR 0x36 */
    uint8_t opad[64];   /**< HMAC: key XOR 0x5C */
    int32_t is224;      /**< 0: SHA-256, else SHA-224 */
} sha2_context;

/**
 * Begins a message.
 *
 * @param ctx    need not be initialised; ipad and opad stay as they are
 * @param is224  which hash
 */
BV_API void sha2_starts(sha2_context *ctx, int32_t is224);

/**
 * Adds to the message. It does not matter to the digest where the pieces are cut. Whole blocks of
 * 64 bytes are hashed in place, only the rest is copied.
 *
 * @param ctx    from sha2_starts()
 * @param input  ilen bytes
 * @param ilen   0 does nothing
 */
BV_API void sha2_update(sha2_context *ctx, const uint8_t *input, uint32_t ilen);

/**
 * Ends the message.
 *
 * @param ctx     from sha2_starts(); sha2_starts() again before the next message
 * @param output  gets 32 bytes, or 28 for SHA-224
 */
BV_API void sha2_finish(sha2_context *ctx, uint8_t *output);

/**
 * The digest of one message in memory.
 *
 * @param input   ilen bytes
 * @param ilen    its length
 * @param output  gets 32 bytes, or 28 for SHA-224
 * @param is224   which hash
 */
BV_API void sha2(const uint8_t *input, uint32_t ilen, uint8_t *output, int32_t is224);

/**
 * Begins a message under a key.
 *
 * @param ctx     need not be initialised; afterwards it is as secret as the key
 * @param key     keylen bytes; not needed after the call
 * @param keylen  any; a key of more than 64 bytes is replaced by its digest
 * @param is224   which hash
 */
BV_API void sha2_hmac_starts(sha2_context *ctx, const uint8_t *key, uint32_t keylen, int32_t is224);

/** Adds to the message; as sha2_update(). */
BV_API void sha2_hmac_update(sha2_context *ctx, const uint8_t *input, uint32_t ilen);

/**
 * Ends the message.
 *
 * @param ctx     from sha2_hmac_starts() or sha2_hmac_reset(); keeps the key
 * @param output  gets 32 bytes, or 28 for SHA-224
 */
BV_API void sha2_hmac_finish(sha2_context *ctx, uint8_t *output);

/**
 * Begins another message under the key that was passed to sha2_hmac_starts(). An unfinished message
 * is dropped.
 *
 * @param ctx  the context; keeps the key
 */
BV_API void sha2_hmac_reset(sha2_context *ctx);

/**
 * The HMAC of one message in memory.
 *
 * @param key     keylen bytes
 * @param keylen  any; a key of more than 64 bytes is replaced by its digest
 * @param input   ilen bytes
 * @param ilen    its length
 * @param output  gets 32 bytes, or 28 for SHA-224
 * @param is224   which hash
 */
BV_API void sha2_hmac(const uint8_t *key, uint32_t keylen, const uint8_t *input, uint32_t ilen,
                      uint8_t *output, int32_t is224);

/**
 * Derives a key from a password: PBKDF2 with HMAC-SHA-256.
 *
 * It hashes about 4 * iterations * ((key_length + 31) / 32) blocks and cannot be interrupted.
 *
 * @param password    plen bytes
 * @param plen        its length, may be 0
 * @param salt        slen bytes
 * @param slen        its length, may be 0
 * @param output      gets key_length bytes; must overlap neither password nor salt
 * @param key_length  any; 0 writes nothing
 * @param iterations  0 counts as 1
 */
BV_API void bv_pkcs5_pbkdf2_hmac(const uint8_t *password, uint32_t plen, const uint8_t *salt,
                                 uint32_t slen, uint8_t *output, uint32_t key_length,
                                 uint32_t iterations);

#ifdef __cplusplus
}
#endif

#endif
