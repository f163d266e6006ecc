// SPDX-License-Identifier: ISC
// Ciphers, digests and random text over libcrypto.

#include "sweep/sweep.h"

#include "support/files.h"

#include <bv/aes.h>
#include <bv/os.h>

#include <cstring>
#include <unistd.h>

namespace sweep {

namespace {

const uint8_t kKey[17] = "0123456789abcdef";
constexpr char kPlain[] = "/scratch/plain";
constexpr char kCipher[] = "/scratch/cipher";
constexpr char kBack[] = "/scratch/back";

bv_aes_record g_record;
char g_text[256];
char g_hex[64];
uint8_t g_random[64];

std::string content()
{
    return std::string(10000, 'x') + "end";
}

void a_record()
{
    g_record = {};
    g_record.plain_len = 5;
    memcpy(g_record.plain, "hello", 5);
    memcpy(g_record.key, kKey, 16);
}

void an_encrypted_record()
{
    a_record();
    bv_aes_cbc_en(&g_record);
    memset(g_record.plain, 0, sizeof g_record.plain);
}

void no_text()
{
    memset(g_text, 0, sizeof g_text);
}

// Old output would stay after a shorter new one.
void a_plain_file()
{
    unlink(kCipher);
    write_file(kPlain, content());
}

void an_encrypted_file()
{
    a_plain_file();
    bv_aes_file_en(kPlain, kCipher, kKey);
    unlink(kBack);
}

bool is_hello()
{
    return strcmp(g_text, "hello") == 0;
}

bool is_digest()
{
    return strlen(g_text) == 64;
}

} // namespace

std::vector<Case> crypto_cases()
{
    static const auto *const abc = reinterpret_cast<const uint8_t *>("abc");
    return {
        CALL(bv_aes_cbc_en, &g_record).prepared_by(a_record).works_when([] {
            return g_record.cipher_len == 16;
        }),
        CALL(bv_aes_cbc_de, &g_record).prepared_by(an_encrypted_record).works_when([] {
            return memcmp(g_record.plain, "hello", 5) == 0;
        }),
        CALL(bv_aes_str_en, g_text, sizeof g_text, "hello", kKey)
            .prepared_by(no_text)
            .works_when([] { return strlen(g_text) == 32; }),
        CALL(bv_aes_str_de, g_hex, g_text, sizeof g_text, kKey)
            .prepared_by([] {
                no_text();
                bv_aes_str_en(g_hex, sizeof g_hex, "hello", kKey);
            })
            .works_when(is_hello),
        CALL(bv_aes_file_en, kPlain, kCipher, kKey).prepared_by(a_plain_file).works_when([] {
            unlink(kBack);
            bv_aes_file_de(kCipher, kBack, kKey);
            return read_file(kBack) == content();
        }),
        CALL(bv_aes_file_de, kCipher, kBack, kKey).prepared_by(an_encrypted_file).works_when([] {
            return read_file(kBack) == content();
        }),
        CALL(bv_os_sm3_str, abc, 3, g_text)
            .prepared_by(no_text)
            .or_fails_with({BV_ERR_MEMORY})
            .works_when(is_digest),
        CALL(bv_os_sm3_file, kPlain, g_text)
            .prepared_by([] {
                no_text();
                a_plain_file();
            })
            .or_fails_with({BV_ERR_MEMORY, BV_ERR_OPEN, BV_ERR_NO_FILE})
            .works_when(is_digest),
        CALL(bv_os_random, g_random, sizeof g_random).returns({1}).or_fails_with({0, UINT32_MAX}),
    };
}

} // namespace sweep
