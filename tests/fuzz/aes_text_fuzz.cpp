// SPDX-License-Identifier: ISC
// Decryption of hexadecimal texts and of records, and texts there and back.
//
// Input: 16 bytes key, a byte for the room of the result, then the text.

#include <bv/aes.h>

#include "fuzz/input.h"

namespace {

constexpr size_t kKeySize = 16;
constexpr uint32_t kLongestText = 64;

void decrypt_text(const std::string &hex, uint32_t room, const uint8_t *key)
{
    fuzz::Block in(hex + '\0');
    fuzz::Block out(room);
    FUZZ_CHECK(bv_aes_str_de(in.text(), out.text(), room, key) == 0);
    if (room > 0)
        FUZZ_CHECK(strnlen(out.text(), room) < room);
}

void decrypt_record(const std::string &bytes, const uint8_t *key)
{
    fuzz::Block block(sizeof(bv_aes_record), 0);
    auto *record = block.as<bv_aes_record>();
    memcpy(record->key, key, kKeySize);
    fuzz::Input input(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    record->cipher_len = input.word();
    const std::string cipher = input.take(sizeof record->cipher);
    memcpy(record->cipher, cipher.data(), cipher.size());
    FUZZ_CHECK(bv_aes_cbc_de(record) == 0 && record->plain_len <= sizeof record->plain);
}

void there_and_back(const std::string &plain, const uint8_t *key)
{
    fuzz::Block in(plain + '\0');
    char hex[161];
    char back[kLongestText + 1];
    FUZZ_CHECK(bv_aes_str_en(hex, sizeof hex, in.text(), key) == 0);
    FUZZ_CHECK(bv_aes_str_de(hex, back, sizeof back, key) == 0);
    FUZZ_CHECK(plain.compare(0, kLongestText, back) == 0);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    fuzz::Block key(input.fixed(kKeySize));
    const uint32_t room = input.byte() % (kLongestText + 4);
    const std::string rest = input.rest();
    const std::string text = rest.substr(0, rest.find('\0'));

    decrypt_text(text, room, key.bytes());
    decrypt_text(text, kLongestText + 1, key.bytes());
    decrypt_record(rest, key.bytes());
    there_and_back(text, key.bytes());
    return 0;
}
