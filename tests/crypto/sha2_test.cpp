// SPDX-License-Identifier: ISC
// The hash, plain and keyed, in one call and in pieces.

#include <bv/sha2.h>

#include "crypto/reference.h"
#include "support/guarded.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>

namespace {

const auto *kAbc = reinterpret_cast<const uint8_t *>("abc");

uint32_t size_of(const std::string &bytes)
{
    return static_cast<uint32_t>(bytes.size());
}

// A running hash, SHA-224 or SHA-256. Digests are hexadecimal digits.
class Hash {
public:
    explicit Hash(bool is224) : is224_(is224) { sha2_starts(&ctx, is224); }
    virtual ~Hash() = default;

    virtual void update(const std::string &piece) { sha2_update(&ctx, u8(piece), size_of(piece)); }
    virtual std::string finish()
    {
        sha2_finish(&ctx, out_);
        return digits();
    }
    // Of a message in one call; by libcrypto.
    virtual std::string whole(const std::string &message)
    {
        sha2(u8(message), size_of(message), out_, is224_);
        return digits();
    }
    virtual std::string expected(const std::string &message) const
    {
        return to_hex(reference::digest(reference::sha2(is224_), message));
    }

    sha2_context ctx;

protected:
    std::string digits() const { return to_hex(out_, is224_ ? 28 : 32); }

    bool is224_;
    uint8_t out_[32];
};

class Hmac : public Hash {
public:
    Hmac(bool is224, const std::string &key) : Hash(is224), key_(key)
    {
        sha2_hmac_starts(&ctx, u8(key), size_of(key), is224);
    }

    void update(const std::string &piece) override
    {
        sha2_hmac_update(&ctx, u8(piece), size_of(piece));
    }
    std::string finish() override
    {
        sha2_hmac_finish(&ctx, out_);
        return digits();
    }
    std::string whole(const std::string &message) override
    {
        sha2_hmac(u8(key_), size_of(key_), u8(message), size_of(message), out_, is224_);
        return digits();
    }
    std::string expected(const std::string &message) const override
    {
        return to_hex(reference::hmac(is224_, key_, message));
    }

private:
    std::string key_;
};

void expect_vector(Hash &&hash, const std::string &message, const std::string &digest)
{
    EXPECT_EQ(hash.expected(message), to_hex(digest));
    EXPECT_EQ(hash.whole(message), to_hex(digest));
}

// Updates with pieces of these sizes, one after the other.
void expect_pieces(Hash &&hash, const std::string &all, const std::vector<size_t> &sizes)
{
    size_t at = 0;
    for (size_t size : sizes) {
        hash.update(all.substr(at, size));
        at += size;
    }
    EXPECT_EQ(hash.finish(), hash.expected(all.substr(0, at))) << testing::PrintToString(sizes);
}

} // namespace

TEST(Sha2, PublishedVectorsAgreeWithUsAndWithLibcrypto)
{
    const auto rows = read_rows("sha2.txt");
    ASSERT_EQ(rows.size(), 30u);
    for (const Row &row : rows) {
        SCOPED_TRACE(row[0]);
        expect_vector(Hash(row[1] == "224"), bytes_of(row[2]), bytes_of(row[3]));
    }
    const auto keyed = read_rows("hmac.txt");
    ASSERT_EQ(keyed.size(), 14u);
    for (const Row &row : keyed) {
        SCOPED_TRACE(row[0]);
        expect_vector(Hmac(row[1] == "224", bytes_of(row[2])), bytes_of(row[3]), bytes_of(row[4]));
    }
}

TEST(Sha2, EveryLengthAroundBlockEdgesAgreesWithLibcrypto)
{
    RandomBytes random(1);
    for (size_t length = 0; length <= 300; length++) {
        const std::string message = random.bytes(length);
        for (bool is224 : {false, true})
            EXPECT_EQ(Hash(is224).whole(message), Hash(is224).expected(message)) << length;
    }
    for (size_t length = 0; length <= 200; length++) {
        Hmac hmac(length % 3 == 0, random.bytes(length));
        const std::string message = random.bytes(random.number(0, 300));
        EXPECT_EQ(hmac.whole(message), hmac.expected(message)) << "key of " << length;
    }
}

// In two pieces anywhere, in pieces around a block, and in any others.
TEST(Sha2, PiecesGiveTheSameDigestAsTheWhole)
{
    RandomBytes random(2);
    const std::string all = random.bytes(1000), key = random.bytes(20);
    for (size_t length = 0; length <= 200; length++)
        for (size_t cut = 0; cut <= length; cut++)
            expect_pieces(Hash(cut % 2 == 1), all, {cut, length - cut});
    for (bool is224 : {false, true}) {
        for (size_t piece : {1u, 63u, 64u, 65u}) {
            const std::vector<size_t> sizes(all.size() / piece, piece);
            expect_pieces(Hash(is224), all, sizes);
            expect_pieces(Hmac(is224, key), all, sizes);
        }
    }
    for (int i = 0; i < 500; i++) {
        std::vector<size_t> sizes(random.number(0, 6));
        for (size_t &size : sizes)
            size = random.number(0, 160);
        expect_pieces(Hash(i % 2 == 1), all, sizes);
    }
}

TEST(Sha2, InputMayHaveAnyAlignment)
{
    const std::string text = RandomBytes(5).bytes(300);
    for (size_t at = 0; at < 16; at++) {
        uint8_t out[32];
        sha2(u8(text) + at, static_cast<uint32_t>(text.size() - at), out, 0);
        EXPECT_EQ(to_hex(out, sizeof(out)), Hash(false).expected(text.substr(at))) << at;
    }
}

TEST(Sha2, NothingIsReadOrWrittenBeyondTheEnd)
{
    RandomBytes random(6);
    for (size_t length = 0; length <= 200; length++) {
        const std::string text = random.bytes(length);
        Guarded in(text), out(28);
        sha2(in.u8(), static_cast<uint32_t>(length), out.u8(), 1);
        EXPECT_EQ(to_hex(out.u8(), 28), Hash(true).expected(text)) << length;
    }
    uint8_t out[32];
    memset(out, 0xee, sizeof(out));
    sha2(kAbc, 3, out, 1);
    EXPECT_EQ(to_hex(out + 24, 8), "e36c9da7eeeeeeee") << "the shorter digest";
}

TEST(Sha2, ContextCountsBytesWithACarryIntoTheHighWord)
{
    Hash hash(false);
    EXPECT_EQ(hash.ctx.total[0], 0u);
    EXPECT_EQ(hash.ctx.total[1], 0u);
    hash.update(std::string(100, 'x'));
    EXPECT_EQ(hash.ctx.total[0], 100u);

    hash.ctx.total[0] = 0xffffffc0; // as after so many whole blocks
    hash.ctx.total[1] = 6;
    hash.update(std::string(64, 'x'));
    EXPECT_EQ(hash.ctx.total[0], 0u);
    EXPECT_EQ(hash.ctx.total[1], 7u);
}

// The bit count's low word overflows at 2^29 bytes, the byte count's at 2^32. Setting the counters
// saves hashing that much.
TEST(Sha2, LengthsThatNeedTheHighWordArePaddedAsLibcryptoDoes)
{
    const uint64_t totals[] = {(1ull << 29) - 64, 1ull << 29, (1ull << 32) - 64,
                               1ull << 32,        5ull << 32, (1ull << 61) - 128};
    const std::string rest(70, 'r');
    for (uint64_t total : totals) {
        Hash hash(false);
        hash.ctx.total[0] = static_cast<uint32_t>(total);
        hash.ctx.total[1] = static_cast<uint32_t>(total >> 32);
        hash.update(rest);

        SHA256_CTX theirs;
        SHA256_Init(&theirs);
        theirs.Nl = static_cast<uint32_t>(total << 3);
        theirs.Nh = static_cast<uint32_t>(total >> 29);
        SHA256_Update(&theirs, rest.data(), rest.size());
        uint8_t expected[32];
        SHA256_Final(expected, &theirs);
        EXPECT_EQ(hash.finish(), to_hex(expected, sizeof(expected))) << total;
    }
}

TEST(Sha2, StartsMakesANewContextOfAnyMemoryAndKeepsThePads)
{
    Hash hash(true);
    memset(&hash.ctx, 0xee, sizeof(hash.ctx));
    sha2_starts(&hash.ctx, 5);
    EXPECT_EQ(hash.ctx.is224, 5);
    EXPECT_EQ(hash.ctx.ipad[0], 0xee);
    EXPECT_EQ(hash.ctx.opad[63], 0xee);
    hash.update("abc");
    EXPECT_EQ(hash.finish(), hash.expected("abc"));
}

TEST(Sha2, WholeBlocksAreHashedInPlaceAndOnlyTheRestIsCopied)
{
    Hash hash(false);
    memset(hash.ctx.buffer, 0xee, sizeof(hash.ctx.buffer));
    const std::string a(64, 'a'), b(128, 'b'), c(66, 'c');
    hash.update(a);
    hash.update(b);
    EXPECT_EQ(to_hex(hash.ctx.buffer, 64), to_hex(std::string(64, '\xee')));
    hash.update(c);
    EXPECT_EQ(to_hex(hash.ctx.buffer, 64), to_hex("cc" + std::string(62, '\xee')));
    EXPECT_EQ(hash.finish(), hash.expected(a + b + c));
}

TEST(Sha2, OutputMayBeWhereTheInputIs)
{
    std::string message(40, 'm');
    sha2(u8(message), 40, reinterpret_cast<uint8_t *>(&message[0]), 0);
    EXPECT_EQ(to_hex(message.substr(0, 32)), Hash(false).expected(std::string(40, 'm')));

    for (size_t length : {40u, 100u}) {
        const std::string key(length, 'k');
        for (bool in_the_key : {false, true}) {
            std::string text(50, 'm'), place = key;
            std::string &out = in_the_key ? place : text;
            sha2_hmac(u8(place), size_of(place), u8(text), 50, reinterpret_cast<uint8_t *>(&out[0]),
                      0);
            EXPECT_EQ(to_hex(out.substr(0, 32)), Hmac(false, key).expected(std::string(50, 'm')));
        }
    }
}

TEST(Sha2, NullArgumentsAreHarmless)
{
    uint8_t out[32] = {0xee};
    sha2_starts(nullptr, 0);
    sha2_update(nullptr, kAbc, 3);
    sha2_finish(nullptr, out);
    sha2(nullptr, 1, out, 0);
    sha2(kAbc, 3, nullptr, 0);
    EXPECT_EQ(out[0], 0xee);

    Hash hash(false);
    hash.update("abc");
    const sha2_context before = hash.ctx;
    sha2_update(&hash.ctx, nullptr, 3);
    sha2_update(&hash.ctx, nullptr, 0);
    sha2_update(&hash.ctx, reinterpret_cast<const uint8_t *>(1), 0);
    sha2_finish(&hash.ctx, nullptr);
    EXPECT_EQ(memcmp(&hash.ctx, &before, sizeof(before)), 0);
    sha2(nullptr, 0, out, 0); // no bytes need no pointer
    EXPECT_EQ(to_hex(out, sizeof(out)), hash.expected(""));
}

TEST(Hmac, KeyLongerThanABlockIsReplacedByItsDigest)
{
    RandomBytes random(12);
    for (bool is224 : {false, true}) {
        const std::string key = random.bytes(65);
        const std::string digest = reference::digest(reference::sha2(is224), key);
        EXPECT_EQ(Hmac(is224, key).whole("message"), Hmac(is224, digest).whole("message"));
    }
    const std::string block = random.bytes(64);
    EXPECT_NE(Hmac(false, block).whole("message"),
              Hmac(false, reference::digest(EVP_sha256(), block)).whole("message"));
}

TEST(Hmac, ResetBeginsAnotherMessageUnderTheSameKey)
{
    for (bool is224 : {false, true}) {
        Hmac hmac(is224, is224 ? "key" : std::string(100, 'k'));
        for (const char *message : {"first", "second", ""}) {
            hmac.update(message);
            EXPECT_EQ(hmac.finish(), hmac.expected(message));
            sha2_hmac_reset(&hmac.ctx);
            hmac.update("dropped half way");
            sha2_hmac_reset(&hmac.ctx);
        }
    }
}

TEST(Hmac, ContextKeepsThePaddedKey)
{
    const sha2_context ctx = Hmac(false, "Jefe").ctx;
    EXPECT_EQ(to_hex(ctx.ipad, 64), "7c535053" + to_hex(std::string(60, 0x36)));
    EXPECT_EQ(to_hex(ctx.opad, 64), "16393a39" + to_hex(std::string(60, 0x5c)));
    EXPECT_EQ(ctx.total[0], 64u);
}

TEST(Hmac, NullArgumentsAreHarmless)
{
    uint8_t out[32] = {0xee};
    sha2_context ctx = {};
    sha2_hmac_starts(nullptr, kAbc, 3, 0);
    sha2_hmac_starts(&ctx, nullptr, 1, 0);
    sha2_hmac_update(nullptr, kAbc, 3);
    sha2_hmac_finish(nullptr, out);
    sha2_hmac_finish(&ctx, nullptr);
    sha2_hmac_reset(nullptr);
    sha2_hmac(nullptr, 1, kAbc, 3, out, 0);
    sha2_hmac(kAbc, 3, nullptr, 1, out, 0);
    sha2_hmac(kAbc, 3, kAbc, 3, nullptr, 0);
    EXPECT_EQ(out[0], 0xee);

    sha2_hmac(nullptr, 0, nullptr, 0, out, 0);
    EXPECT_EQ(to_hex(out, sizeof(out)), Hmac(false, "").expected(""));
}
