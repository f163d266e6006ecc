// SPDX-License-Identifier: ISC
// AES-128-CBC of a work record and of short texts.

#include <bv/aes.h>

#include "crypto/aes_cipher.h"
#include "crypto/wipe.h"

#include <bv/os.h>

#include <algorithm>
#include <cstring>

static_assert(sizeof(bv_aes_record) == 264);
static_assert(offsetof(bv_aes_record, plain) == 8 && offsetof(bv_aes_record, cipher) == 72 &&
              offsetof(bv_aes_record, key) == 200);

namespace {

using bv::AesCipher;

constexpr uint32_t kPlainSize = sizeof(bv_aes_record::plain);
constexpr uint32_t kCipherSize = sizeof(bv_aes_record::cipher);

// A record with only the key in it, cleared when it goes out of scope.
class KeyedRecord {
public:
    explicit KeyedRecord(const uint8_t *key) : record()
    {
        bv_os_memcpy(record.key, sizeof(record.key), key, bv::kAesKeySize);
    }
    ~KeyedRecord() { bv::wipe(record); }
    KeyedRecord(const KeyedRecord &) = delete;
    KeyedRecord &operator=(const KeyedRecord &) = delete;

    bv_aes_record record;
};

// One byte from two digits as strtol() takes them: "-1" is 255, "zz" is 0.
uint8_t byte_from_hex(const char *digits)
{
    const char pair[3] = {digits[0], digits[1], 0};
    return static_cast<uint8_t>(bv_os_strtol(pair, nullptr, 16));
}

} // namespace

int32_t bv_aes_cbc_en(bv_aes_record *rec)
{
    if (rec == nullptr)
        return BV_OK;

    const size_t length = std::min(rec->plain_len, kPlainSize);
    rec->cipher_len = 0;

    AesCipher cipher(rec->key, AesCipher::kEncrypt);
    if (!cipher.valid())
        return BV_OK;
    size_t produced = cipher.update(rec->cipher, rec->plain, length);
    produced += cipher.finish(rec->cipher + produced);
    rec->cipher_len = static_cast<uint32_t>(produced);
    return BV_OK;
}

int32_t bv_aes_cbc_de(bv_aes_record *rec)
{
    if (rec == nullptr)
        return BV_OK;

    const size_t length = std::min(rec->cipher_len, kCipherSize);
    rec->plain_len = 0;

    AesCipher cipher(rec->key, AesCipher::kDecrypt);
    if (!cipher.valid())
        return BV_OK;

    // Decrypted outside the record: 128 bytes of ciphertext do not fit in plain, and the padding
    // block of a 64-byte text would go beyond its end before it is removed.
    uint8_t plain[kCipherSize + bv::kAesBlockSize];
    size_t produced = cipher.update(plain, rec->cipher, length);
    produced += cipher.finish(plain + produced);

    rec->plain_len = static_cast<uint32_t>(std::min<size_t>(produced, kPlainSize));
    bv_os_memcpy(rec->plain, kPlainSize, plain, rec->plain_len);
    bv::wipe(plain);
    return BV_OK;
}

int32_t bv_aes_str_en(char *out, uint32_t out_size, const char *plain_text, const uint8_t *key)
{
    if (out == nullptr || plain_text == nullptr || key == nullptr)
        return BV_ERR_FAILED;

    KeyedRecord keyed(key);
    bv_aes_record &rec = keyed.record;
    rec.plain_len = static_cast<uint32_t>(strnlen(plain_text, kPlainSize));
    bv_os_memcpy(rec.plain, kPlainSize, plain_text, rec.plain_len);
    bv_aes_cbc_en(&rec);

    const uint32_t text_size = 2 * rec.cipher_len + 1;
    if (out_size < text_size)
        return BV_ERR_FAILED;
    return bv_os_tohexstr(rec.cipher, rec.cipher_len, out, text_size);
}

int32_t bv_aes_str_de(const char *hex_in, char *out, uint32_t out_size, const uint8_t *key)
{
    if (hex_in == nullptr || out == nullptr || key == nullptr)
        return BV_OK;

    KeyedRecord keyed(key);
    bv_aes_record &rec = keyed.record;
    rec.cipher_len = static_cast<uint32_t>(strnlen(hex_in, 2 * kCipherSize) / 2);
    for (uint32_t i = 0; i < rec.cipher_len; ++i)
        rec.cipher[i] = byte_from_hex(hex_in + 2 * i);
    bv_aes_cbc_de(&rec);

    char text[kPlainSize + 1] = {}; // the record has no room for a terminator after 64 characters
    bv_os_memcpy(text, sizeof(text), rec.plain, rec.plain_len);
    bv_os_strcpy(out, out_size, text);
    bv::wipe(text);
    return BV_OK;
}
