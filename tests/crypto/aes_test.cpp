// SPDX-License-Identifier: ISC
// Records and texts: encrypted and decrypted, at the edges of their memory.

#include <bv/aes.h>
#include <bv/status.h>

#include "crypto/reference.h"
#include "support/guarded.h"
#include "support/libc.h"

#include <cstddef>
#include <gtest/gtest.h>

static int g_contexts_freed;
BV_INTERPOSE(free_context, "EVP_CIPHER_CTX_free", void, (EVP_CIPHER_CTX * ctx))
{
    g_contexts_freed += ctx != nullptr;
    BV_NEXT(free_context)(ctx);
}

namespace {

const std::string kKey = "sixteen byte key";

// A record at the end of its page, the key after the 16th byte filled with something else.
class Record {
public:
    explicit Record(const std::string &key = kKey) : memory_(sizeof(bv_aes_record))
    {
        memset(memory_.u8(), '#', sizeof(bv_aes_record));
        memcpy(memory()->key, key.data(), 16);
    }

    bv_aes_record *memory() { return reinterpret_cast<bv_aes_record *>(memory_.u8()); }
    bv_aes_record *operator->() { return memory(); }

    std::string encrypt(const std::string &plain)
    {
        memcpy(memory()->plain, plain.data(), plain.size());
        memory()->plain_len = static_cast<uint32_t>(plain.size());
        EXPECT_EQ(bv_aes_cbc_en(memory()), 0);
        return std::string(reinterpret_cast<char *>(memory()->cipher), memory()->cipher_len);
    }

    std::string decrypt(const std::string &cipher)
    {
        memcpy(memory()->cipher, cipher.data(), cipher.size());
        memory()->cipher_len = static_cast<uint32_t>(cipher.size());
        EXPECT_EQ(bv_aes_cbc_de(memory()), 0);
        return std::string(reinterpret_cast<char *>(memory()->plain), memory()->plain_len);
    }

private:
    Guarded memory_;
};

// Text and key at the very end of their memory, the result in memory of exactly out_size bytes.
int32_t encrypt_text(const std::string &text, std::string &out, uint32_t out_size)
{
    Guarded in(text + '\0'), key(kKey), to(std::string(out_size, '#'));
    const int32_t status = bv_aes_str_en(to.data(), out_size, in.data(), key.u8());
    out = to.bytes();
    return status;
}

std::string decrypt_text(const std::string &hex, uint32_t out_size = 65)
{
    Guarded in(hex + '\0'), key(kKey), to(std::string(out_size, '#'));
    EXPECT_EQ(bv_aes_str_de(in.data(), to.data(), out_size, key.u8()), 0);
    return to.bytes();
}

std::string up_to_nul(const std::string &text)
{
    return text.substr(0, text.find('\0'));
}

std::string hex_of(const std::string &text)
{
    return to_hex(reference::aes(true, kKey, text));
}

} // namespace

static_assert(sizeof(bv_aes_record) == 264);
static_assert(offsetof(bv_aes_record, cipher) == 72 && offsetof(bv_aes_record, key) == 200);

TEST(AesRecord, PublishedVectorsAgreeWithUsAndWithLibcrypto)
{
    const auto rows = read_rows("aes128_cbc.txt");
    ASSERT_EQ(rows.size(), 7u);
    for (const Row &row : rows) {
        SCOPED_TRACE(row[0]);
        const std::string key = bytes_of(row[1]), plain = bytes_of(row[2]),
                          cipher = bytes_of(row[3]);
        EXPECT_EQ(to_hex(reference::aes(true, key, plain)), to_hex(cipher));
        EXPECT_EQ(to_hex(Record(key).encrypt(plain)), to_hex(cipher));
        EXPECT_EQ(to_hex(Record(key).decrypt(cipher)), to_hex(plain));
    }
}

TEST(AesRecord, EveryLengthAgreesWithLibcryptoAndComesBack)
{
    RandomBytes random(71);
    for (uint32_t length = 0; length <= 64; length++) {
        const std::string key = random.bytes(16), plain = random.bytes(length);
        Record record(key);
        const std::string cipher = record.encrypt(plain);
        EXPECT_EQ(to_hex(cipher), to_hex(reference::aes(true, key, plain)));
        EXPECT_EQ(cipher.size(), 16 * (length / 16 + 1));
        EXPECT_EQ(record->plain_len, length);
        EXPECT_EQ(to_hex(Record(key).decrypt(cipher)), to_hex(plain)) << length;
    }
}

TEST(AesRecord, BytesThatAreNotNeededStay)
{
    Record record;
    record.encrypt("abc");
    EXPECT_EQ(record->cipher[16], '#');
    EXPECT_EQ(record->plain[3], '#');
    Record back;
    back.decrypt(reference::aes(true, kKey, "abc"));
    EXPECT_EQ(back->plain_len, 3u);
    EXPECT_EQ(back->plain[3], '#');
}

TEST(AesRecord, LengthsBeyondTheFieldsCountAsTheFieldsSize)
{
    for (uint32_t length : {65u, 128u, 0x7fffffffu, 0xffffffffu}) {
        Record record;
        memset(record->plain, 'p', 64);
        record->plain_len = length;
        bv_aes_cbc_en(record.memory());
        EXPECT_EQ(record->cipher_len, 80u);
        EXPECT_EQ(to_hex(record->cipher, 80), hex_of(std::string(64, 'p')));

        memset(record->cipher, 'c', 128);
        record->cipher_len = length + 128 < length ? length : length + 128;
        bv_aes_cbc_de(record.memory());
        EXPECT_EQ(record->plain_len, 64u);
        EXPECT_EQ(to_hex(record->plain, 64),
                  to_hex(reference::aes(false, kKey, std::string(128, 'c')).substr(0, 64)));
        EXPECT_EQ(record->key[63], '#');
        EXPECT_EQ(record->cipher[0], 'c');
    }
}

TEST(AesRecord, AnyCiphertextGivesTheFirst64BytesThatLibcryptoGives)
{
    RandomBytes random(72);
    std::vector<std::string> ciphers;
    for (size_t length = 0; length <= 128; length++)
        ciphers.push_back(random.bytes(length));
    for (size_t length = 65; length <= 127; length++)
        ciphers.push_back(reference::aes(true, kKey, random.bytes(length)));
    for (const std::string &cipher : ciphers)
        EXPECT_EQ(to_hex(Record().decrypt(cipher)),
                  to_hex(reference::aes(false, kKey, cipher).substr(0, 64)))
            << cipher.size();
    std::string wrong = reference::aes(true, kKey, std::string(40, 'x'));
    wrong[40] = static_cast<char>(wrong[40] ^ 1);
    EXPECT_EQ(Record().decrypt(wrong).size(), 32u) << "the last block is lost with its padding";
}

TEST(AesRecord, WithoutACipherTheResultIsEmptyAndEveryContextIsFreed)
{
    Record record;
    g_contexts_freed = 0;
    EXPECT_NE(record.encrypt("abc"), "");
    record.decrypt("0123456789abcdef");
    EXPECT_EQ(g_contexts_freed, 2);
    memset(record->plain, '#', sizeof record->plain);
    for (FaultPoint *fault : {&fault_cipher_context, &fault_cipher_init}) {
        fault->fail_next();
        EXPECT_EQ(record.encrypt("abc"), "") << fault->name();
        fault->fail_next();
        EXPECT_EQ(record.decrypt("0123456789abcdef"), "") << fault->name();
    }
    EXPECT_EQ(g_contexts_freed, 4);
    EXPECT_EQ(record->plain[3], '#');
}

TEST(AesText, EveryLengthUpTo64ComesOutAsLowerCaseHexAndBack)
{
    for (size_t length = 0; length <= 64; length++) {
        std::string text;
        for (size_t i = 0; i < length; i++)
            text += static_cast<char>('!' + (i + length) % 90);
        const auto exact = static_cast<uint32_t>(32 * (length / 16 + 1) + 1);
        std::string out;
        ASSERT_EQ(encrypt_text(text, out, exact), 0) << length;
        EXPECT_EQ(out, hex_of(text) + '\0') << length;
        EXPECT_EQ(up_to_nul(decrypt_text(out)), text);

        std::string untouched;
        EXPECT_EQ(encrypt_text(text, untouched, exact - 1), -1);
        EXPECT_EQ(untouched, std::string(exact - 1, '#'));
    }
}

TEST(AesText, OnlyTheFirst64CharactersAreEncryptedAndNothingFollowsTheTerminator)
{
    for (size_t length : {65u, 100u, 100000u}) {
        std::string out;
        ASSERT_EQ(encrypt_text(std::string(length, 'x'), out, 200), 0);
        EXPECT_EQ(out, hex_of(std::string(64, 'x')) + '\0' + std::string(39, '#'));
    }
    char nothing = '#';
    EXPECT_EQ(bv_aes_str_en(&nothing, 0, "abc", u8(kKey)), -1);
    EXPECT_EQ(nothing, '#');
}

// Each pair of digits is read on its own as a number, whatever else is in it.
TEST(AesText, HexDecryptsUpTo256DigitsIfTheTextFits)
{
    const std::string some = hex_of("some text"), eight = hex_of("eight ch");
    const std::string x64(64, 'x'), hex64 = hex_of(x64);
    std::string upper = some, long_text;
    for (char &c : upper)
        c = static_cast<char>(toupper(c));
    for (int i = 0; i < 127; i++)
        long_text += static_cast<char>('a' + i % 26);
    const std::string hex256 = hex_of(long_text), first64 = long_text.substr(0, 64);
    ASSERT_EQ(hex256.size(), 256u);
    struct Case {
        std::string hex;
        uint32_t out_size;
        std::string text;
    };
    std::vector<Case> rows = {
        {upper, 65, "some text"},
        {upper + "7", 65, "some text"}, // an odd digit
        {"7", 65, ""},
        {"", 65, ""},
        {eight, 9, "eight ch"},
        {eight, 8, ""}, // what does not fit is empty
        {eight, 1, ""},
        {hex64, 64, ""},
        {hex64, 65, x64},
        {hex_of(std::string("ab\0cd", 5)), 65, "ab"},
        {hex256 + std::string(100000, 'f'), 65, first64},
    };
    for (const char *more : {"", "0", "00", "0123456789abcdef0123456789abcdef"})
        rows.push_back({hex256 + more, 65, first64});

    const std::pair<const char *, uint8_t> pairs[] = {{"zz", 0},  {"0x", 0},  {"-1", 255},
                                                      {"+f", 15}, {" f", 15}, {"fz", 15},
                                                      {"zf", 0},  {"aF", 175}};
    const std::string good = reference::aes(true, kKey, "the block before and this");
    for (const auto &[pair, byte] : pairs) {
        std::string cipher = good;
        cipher[0] = static_cast<char>(byte);
        rows.push_back(
            {pair + to_hex(good).substr(2), 65, up_to_nul(reference::aes(false, kKey, cipher))});
    }
    for (const Case &row : rows)
        EXPECT_EQ(up_to_nul(decrypt_text(row.hex, row.out_size)), row.text)
            << row.hex.substr(0, 300) << " into " << row.out_size;
}

TEST(AesText, SizeOutOfRangeLeavesTheBufferAlone)
{
    char out[] = "########";
    for (uint32_t size : {0u, 0x80000000u, 0xffffffffu}) {
        EXPECT_EQ(bv_aes_str_de(hex_of("text").c_str(), out, size, u8(kKey)), 0);
        EXPECT_STREQ(out, "########") << size;
    }
    EXPECT_EQ(bv_aes_str_de(hex_of("text").c_str(), out, 0x7fffffff, u8(kKey)), 0);
    EXPECT_STREQ(out, "text");
}

TEST(AesText, RandomInputsNeverLeaveTheBuffers)
{
    RandomBytes random(75);
    for (int i = 0; i < 2000; i++) {
        std::string text = random.bytes(random.number(0, 400));
        for (char &c : text)
            c = c == 0 ? ' ' : c;
        const auto out_size = static_cast<uint32_t>(random.number(1, 200));
        decrypt_text(text, out_size);
        std::string out;
        encrypt_text(text, out, out_size);
    }
}

TEST(AesNull, ArgumentsAreHarmless)
{
    char out[161] = "#";
    EXPECT_EQ(bv_aes_cbc_en(nullptr), 0);
    EXPECT_EQ(bv_aes_cbc_de(nullptr), 0);
    EXPECT_EQ(bv_aes_str_en(nullptr, 161, "abc", u8(kKey)), -1);
    EXPECT_EQ(bv_aes_str_en(out, 161, nullptr, u8(kKey)), -1);
    EXPECT_EQ(bv_aes_str_en(out, 161, "abc", nullptr), -1);
    EXPECT_EQ(bv_aes_str_de(nullptr, out, 161, u8(kKey)), 0);
    EXPECT_EQ(bv_aes_str_de("00", nullptr, 161, u8(kKey)), 0);
    EXPECT_EQ(bv_aes_str_de("00", out, 161, nullptr), 0);
    EXPECT_STREQ(out, "#");
}

TEST(AesText, WithoutACipherTheTextIsEmpty)
{
    std::string out;
    fault_cipher_context.fail_next();
    EXPECT_EQ(encrypt_text("abc", out, 33), 0);
    EXPECT_EQ(up_to_nul(out), "");
}
