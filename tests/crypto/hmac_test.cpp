// The keyed hash in one call and in pieces.

#include <bv/sha2.h>

#include "crypto/reference.h"

#include <gtest/gtest.h>

namespace {

size_t digest_size(bool is224)
{
    return is224 ? 28 : 32;
}

std::string one_shot(bool is224, const std::string &key, const std::string &message)
{
    uint8_t out[32];
    sha2_hmac(u8(key), static_cast<uint32_t>(key.size()), u8(message),
              static_cast<uint32_t>(message.size()), out, is224);
    return std::string(reinterpret_cast<char *>(out), digest_size(is224));
}

void start(sha2_context *ctx, const std::string &key, bool is224)
{
    sha2_hmac_starts(ctx, u8(key), static_cast<uint32_t>(key.size()), is224);
}

void update(sha2_context *ctx, const std::string &piece)
{
    sha2_hmac_update(ctx, u8(piece), static_cast<uint32_t>(piece.size()));
}

std::string finish(sha2_context *ctx)
{
    uint8_t out[32];
    sha2_hmac_finish(ctx, out);
    return std::string(reinterpret_cast<char *>(out), digest_size(ctx->is224 != 0));
}

} // namespace

TEST(Hmac, PublishedVectorsAgreeWithUsAndWithLibcrypto)
{
    const auto rows = read_rows("hmac.txt");
    ASSERT_EQ(rows.size(), 14u);
    for (const Row &row : rows) {
        SCOPED_TRACE(row[0]);
        const bool is224 = row[1] == "224";
        const std::string key = bytes_of(row[2]), message = bytes_of(row[3]);
        const std::string expected = to_hex(bytes_of(row[4]));
        EXPECT_EQ(to_hex(reference::hmac(is224, key, message)), expected);
        EXPECT_EQ(to_hex(one_shot(is224, key, message)), expected);
    }
}

TEST(Hmac, RandomKeysAndMessagesAgreeWithLibcrypto)
{
    RandomBytes random(11);
    for (size_t key_length = 0; key_length <= 200; key_length++) {
        const bool is224 = key_length % 3 == 0;
        const std::string key = random.bytes(key_length);
        const std::string message = random.bytes(random.number(0, 300));
        EXPECT_EQ(to_hex(one_shot(is224, key, message)),
                  to_hex(reference::hmac(is224, key, message)))
            << key_length;
    }
}

TEST(Hmac, KeyLongerThanABlockIsReplacedByItsDigest)
{
    RandomBytes random(12);
    for (bool is224 : {false, true}) {
        const std::string key = random.bytes(65);
        const std::string digest = reference::digest(reference::sha2(is224), key);
        EXPECT_EQ(one_shot(is224, key, "message"), one_shot(is224, digest, "message"));
    }
    const std::string block = random.bytes(64);
    EXPECT_NE(one_shot(false, block, "message"),
              one_shot(false, reference::digest(EVP_sha256(), block), "message"));
}

TEST(Hmac, PiecesGiveTheSameResultAsTheWhole)
{
    RandomBytes random(13);
    const std::string key = random.bytes(20), message = random.bytes(500);
    for (bool is224 : {false, true}) {
        for (size_t piece : {1u, 63u, 64u, 65u}) {
            sha2_context ctx;
            start(&ctx, key, is224);
            for (size_t at = 0; at < message.size(); at += piece)
                update(&ctx, message.substr(at, piece));
            EXPECT_EQ(to_hex(finish(&ctx)), to_hex(one_shot(is224, key, message))) << piece;
        }
    }
}

TEST(Hmac, ResetBeginsAnotherMessageUnderTheSameKey)
{
    for (bool is224 : {false, true}) {
        const std::string key = is224 ? "key" : std::string(100, 'k');
        sha2_context ctx;
        start(&ctx, key, is224);
        update(&ctx, "first");
        EXPECT_EQ(to_hex(finish(&ctx)), to_hex(reference::hmac(is224, key, "first")));

        sha2_hmac_reset(&ctx);
        update(&ctx, "second");
        EXPECT_EQ(to_hex(finish(&ctx)), to_hex(reference::hmac(is224, key, "second")));

        sha2_hmac_reset(&ctx);
        update(&ctx, "dropped half way");
        sha2_hmac_reset(&ctx);
        EXPECT_EQ(to_hex(finish(&ctx)), to_hex(reference::hmac(is224, key, "")));
    }
}

TEST(Hmac, ContextKeepsThePaddedKey)
{
    sha2_context ctx;
    start(&ctx, "Jefe", false);
    EXPECT_EQ(ctx.ipad[0], 'J' ^ 0x36);
    EXPECT_EQ(ctx.ipad[4], 0x36);
    EXPECT_EQ(ctx.ipad[63], 0x36);
    EXPECT_EQ(ctx.opad[3], 'e' ^ 0x5c);
    EXPECT_EQ(ctx.opad[63], 0x5c);
    EXPECT_EQ(ctx.total[0], 64u);
}

TEST(Hmac, OutputMayBeWhereTheMessageOrTheKeyIs)
{
    for (size_t key_length : {40u, 100u}) {
        const std::string key(key_length, 'k');
        const std::string expected = reference::hmac(false, key, std::string(50, 'm'));
        std::string message(50, 'm');
        sha2_hmac(u8(key), static_cast<uint32_t>(key_length), u8(message), 50,
                  reinterpret_cast<uint8_t *>(&message[0]), 0);
        EXPECT_EQ(to_hex(message.substr(0, 32)), to_hex(expected));

        message = std::string(50, 'm');
        std::string place = key;
        sha2_hmac(u8(place), static_cast<uint32_t>(key_length), u8(message), 50,
                  reinterpret_cast<uint8_t *>(&place[0]), 0);
        EXPECT_EQ(to_hex(place.substr(0, 32)), to_hex(expected));
    }
}

TEST(Hmac, NullArgumentsAreHarmless)
{
    uint8_t out[32] = {0xee};
    const auto *text = reinterpret_cast<const uint8_t *>("text");
    sha2_context ctx = {};
    sha2_hmac_starts(nullptr, text, 4, 0);
    sha2_hmac_starts(&ctx, nullptr, 1, 0);
    sha2_hmac_update(nullptr, text, 4);
    sha2_hmac_finish(nullptr, out);
    sha2_hmac_finish(&ctx, nullptr);
    sha2_hmac_reset(nullptr);
    sha2_hmac(nullptr, 1, text, 4, out, 0);
    sha2_hmac(text, 4, nullptr, 1, out, 0);
    sha2_hmac(text, 4, text, 4, nullptr, 0);
    EXPECT_EQ(out[0], 0xee);

    sha2_hmac(nullptr, 0, nullptr, 0, out, 0);
    EXPECT_EQ(to_hex(out, sizeof(out)), to_hex(reference::hmac(false, "", "")));
}
