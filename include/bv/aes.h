/* SPDX-License-Identifier: ISC */
/**
 * @file aes.h
 * AES-128 in CBC mode with PKCS #7 padding (FIPS 197, NIST SP 800-38A, RFC 5652 6.3) for short
 * buffers, short texts and files.
 *
 * True of every function here:
 *  - the initialisation vector is always sixteen zero bytes, and nothing is authenticated. Equal
 *    plaintexts under one key give equal ciphertexts, and altered ciphertext decrypts to other
 *    plaintext without an error: protect data against changes by other means;
 *  - failures of the cipher, of memory and of files are not reported: the output is then empty or
 *    short. Only bv_aes_str_en() has a failure result;
 *  - with a null argument nothing is done and the result is 0 (-1 from bv_aes_str_en());
 *  - a key is 16 bytes; nothing after them is read, so callers may pass 64-byte buffers;
 *  - the caller owns every buffer and nothing is kept. The library's own copies of keys and
 *    plaintexts are cleared before it returns;
 *  - any number of threads may call at once, each on its own buffers and files.
 */
#ifndef BV_AES_H
#define BV_AES_H

#include <bv/base.h>
#include <bv/status.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Input and output of bv_aes_cbc_en() and bv_aes_cbc_de(). */
typedef struct bv_aes_record {
    uint32_t plain_len;  /**< bytes in plain; more than 64 count as 64 */
    uint32_t cipher_len; /**< bytes in cipher; more than 128 count as 128 */
    uint8_t plain[64];   /**< plaintext */
    uint8_t cipher[128]; /**< ciphertext */
    uint8_t key[64];     /**< the first 16 bytes are the key */
} bv_aes_record;

/**
 * Encrypts plain into cipher.
 *
 * @param rec  plain, plain_len and key set; cipher_len becomes 16 * (plain_len / 16 + 1), at most
 *             80, or 0 when the cipher cannot be set up
 * @return 0
 */
BV_API int32_t bv_aes_cbc_en(bv_aes_record *rec);

/**
 * Decrypts cipher into plain.
 *
 * @param rec  cipher, cipher_len and key set; plain_len becomes the bytes in plain. Only the first
 *             64 bytes of a longer result are kept. With a wrong padding (wrong key, damaged or cut
 *             ciphertext) the last block, whole or not, is missing. 0 when the cipher cannot be set
 *             up
 * @return 0
 */
BV_API int32_t bv_aes_cbc_de(bv_aes_record *rec);

/**
 * Encrypts a text into hexadecimal digits.
 *
 * @param out         gets 32 * (length / 16 + 1) lower-case digits and a terminating zero
 * @param out_size    its size in bytes; 161 is enough for every text
 * @param plain_text  the text; at most its first 64 characters are encrypted
 * @param key         16 bytes
 *
 * @retval BV_OK          out holds the ciphertext, or is empty because the cipher could not be set
 *                        up
 * @retval BV_ERR_FAILED  out is too small, or an argument is null: out is unchanged
 */
BV_API int32_t bv_aes_str_en(char *out, uint32_t out_size, const char *plain_text,
                             const uint8_t *key);

/**
 * Decrypts hexadecimal digits into a text.
 *
 * @param hex_in    digits in either case, two for each byte; an odd last digit, and digits after
 *                  the 256th, are ignored. Each pair is read as strtol(3) reads it, so a pair that
 *                  is not a number is 0
 * @param out       gets the text, at most 64 characters, and a terminating zero; empty when it does
 *                  not fit. A zero byte in the plaintext ends the text
 * @param out_size  its size in bytes; 65 is enough for every text. 0 or above 0x7fffffff leaves out
 *                  unchanged
 * @param key       16 bytes
 * @return 0
 */
BV_API int32_t bv_aes_str_de(const char *hex_in, char *out, uint32_t out_size, const uint8_t *key);

/**
 * Encrypts a file: every 32 bytes become a message of 48 bytes, and the last 1 to 32 bytes one of
 * 16, 32 or 48. The size is read when the file is opened: bytes that are appended later are left
 * out, and a file that shrinks ends early.
 *
 * @param in_path   the file to read. When it is missing or empty nothing is written, but out_path
 *                  is still created
 * @param out_path  the file to write, created with mode 0666 less the umask. It is not truncated:
 *                  the end of a longer file stays there after the new bytes. It may be the input
 *                  file only when that has at most 32 bytes: the output is longer than the input,
 *                  and would overwrite a larger file before it is read
 * @param key       16 bytes
 * @return 0
 */
BV_API int32_t bv_aes_file_en(const char *in_path, const char *out_path, const uint8_t *key);

/**
 * Decrypts a file that bv_aes_file_en() made. A message of 48 bytes with a wrong padding gives the
 * 32 bytes before its last block; the messages after it are not affected. A shorter message at the
 * end, or a cut one, also lacks its last block, whole or not, when its padding is wrong or missing.
 *
 * @param in_path   the file to read; as for bv_aes_file_en()
 * @param out_path  the file to write; as for bv_aes_file_en(), but it may be the input file
 *                  whatever its size: the output is shorter and never overtakes the reading. The
 *                  end of the old file stays there too
 * @param key       16 bytes
 * @return 0
 */
BV_API int32_t bv_aes_file_de(const char *in_path, const char *out_path, const uint8_t *key);

#ifdef __cplusplus
}
#endif

#endif
