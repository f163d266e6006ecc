// The hash in one call and in pieces.

#include <bv/sha2.h>

#include "crypto/reference.h"
#include "support/guarded.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>

namespace {

const auto *kAbc = reinterpret_cast<const uint8_t *>("abc");

size_t digest_size(bool is224)
{
    return is224 ? 28 : 32;
}

std::string one_shot(const std::string &message, bool is224)
{
    uint8_t out[32];
    sha2(u8(message), static_cast<uint32_t>(message.size()), out, is224);
    return std::string(reinterpret_cast<char *>(out), digest_size(is224));
}

void update(sha2_context *ctx, const std::string &piece)
{
    sha2_update(ctx, u8(piece), static_cast<uint32_t>(piece.size()));
}

std::string finish(sha2_context *ctx)
{
    uint8_t out[32];
    sha2_finish(ctx, out);
    return std::string(reinterpret_cast<char *>(out), digest_size(ctx->is224 != 0));
}

} // namespace

TEST(Sha2, PublishedVectorsAgreeWithUsAndWithLibcrypto)
{
    const auto rows = read_rows("sha2.txt");
    ASSERT_EQ(rows.size(), 30u);
    for (const Row &row : rows) {
        SCOPED_TRACE(row[0]);
        const bool is224 = row[1] == "224";
        const std::string message = bytes_of(row[2]), expected = to_hex(bytes_of(row[3]));
        EXPECT_EQ(to_hex(reference::digest(reference::sha2(is224), message)), expected);
        EXPECT_EQ(to_hex(one_shot(message, is224)), expected);
    }
}

TEST(Sha2, EveryLengthAroundBlockEdgesAgreesWithLibcrypto)
{
    RandomBytes random(1);
    for (size_t length = 0; length <= 300; length++) {
        const std::string message = random.bytes(length);
        for (bool is224 : {false, true}) {
            EXPECT_EQ(to_hex(one_shot(message, is224)),
                      to_hex(reference::digest(reference::sha2(is224), message)))
                << length;
        }
    }
}

// In two pieces anywhere, in pieces around a block, and in any others.
TEST(Sha2, PiecesGiveTheSameDigestAsTheWhole)
{
    RandomBytes random(2);
    const std::string all = random.bytes(1000);
    std::vector<std::vector<size_t>> splits;
    for (size_t length = 0; length <= 200; length++)
        for (size_t cut = 0; cut <= length; cut++)
            splits.push_back({cut, length - cut});
    for (size_t piece : {1u, 63u, 64u, 65u})
        splits.push_back(std::vector<size_t>(all.size() / piece, piece));
    for (int i = 0; i < 500; i++) {
        splits.emplace_back(random.number(0, 6));
        for (size_t &piece : splits.back())
            piece = random.number(0, 160);
    }
    for (size_t i = 0; i < splits.size(); i++) {
        const bool is224 = i % 2 == 1;
        size_t at = 0;
        sha2_context ctx;
        sha2_starts(&ctx, is224);
        for (size_t piece : splits[i]) {
            update(&ctx, all.substr(at, piece));
            at += piece;
        }
        ASSERT_EQ(to_hex(finish(&ctx)),
                  to_hex(reference::digest(reference::sha2(is224), all.substr(0, at))))
            << i;
    }
}

TEST(Sha2, InputMayHaveAnyAlignment)
{
    const std::string text = RandomBytes(5).bytes(300);
    for (size_t at = 0; at < 16; at++) {
        uint8_t out[32];
        sha2(u8(text) + at, static_cast<uint32_t>(text.size() - at), out, 0);
        EXPECT_EQ(to_hex(out, sizeof(out)), to_hex(one_shot(text.substr(at), false))) << at;
    }
}

TEST(Sha2, NothingIsReadOrWrittenBeyondTheEnd)
{
    RandomBytes random(6);
    for (size_t length = 0; length <= 200; length++) {
        const std::string text = random.bytes(length);
        Guarded in(text), out(28);
        sha2(in.bytes(), static_cast<uint32_t>(length), out.bytes(), 1);
        EXPECT_EQ(to_hex(out.bytes(), 28), to_hex(one_shot(text, true))) << length;
    }
}

TEST(Sha2, ContextCountsBytesWithACarryIntoTheHighWord)
{
    sha2_context ctx;
    sha2_starts(&ctx, 0);
    EXPECT_EQ(ctx.total[0], 0u);
    EXPECT_EQ(ctx.total[1], 0u);

    update(&ctx, std::string(100, 'x'));
    EXPECT_EQ(ctx.total[0], 100u);

    ctx.total[0] = 0xffffffc0; // as after so many whole blocks
    ctx.total[1] = 6;
    update(&ctx, std::string(64, 'x'));
    EXPECT_EQ(ctx.total[0], 0u);
    EXPECT_EQ(ctx.total[1], 7u);
}

// The bit count's low word overflows at 2^29 bytes, the byte count's at 2^32. Setting the counters
// saves hashing that much.
TEST(Sha2, LengthsThatNeedTheHighWordArePaddedAsLibcryptoDoes)
{
    const uint64_t totals[] = {(1ull << 29) - 64, 1ull << 29, (1ull << 32) - 64,
                               1ull << 32,        5ull << 32, (1ull << 61) - 128};
    const std::string rest(70, 'r');
    for (uint64_t total : totals) {
        sha2_context ctx;
        sha2_starts(&ctx, 0);
        ctx.total[0] = static_cast<uint32_t>(total);
        ctx.total[1] = static_cast<uint32_t>(total >> 32);
        update(&ctx, rest);

        SHA256_CTX theirs;
        SHA256_Init(&theirs);
        theirs.Nl = static_cast<uint32_t>(total << 3);
        theirs.Nh = static_cast<uint32_t>(total >> 29);
        SHA256_Update(&theirs, rest.data(), rest.size());
        uint8_t expected[32];
        SHA256_Final(expected, &theirs);

        EXPECT_EQ(to_hex(finish(&ctx)), to_hex(expected, sizeof(expected))) << total;
    }
}

TEST(Sha2, StartsMakesANewContextOfAnyMemoryAndKeepsThePads)
{
    sha2_context ctx;
    memset(&ctx, 0xee, sizeof(ctx));
    sha2_starts(&ctx, 5);
    EXPECT_EQ(ctx.is224, 5);
    EXPECT_EQ(ctx.ipad[0], 0xee);
    EXPECT_EQ(ctx.opad[63], 0xee);
    update(&ctx, "abc");
    EXPECT_EQ(to_hex(finish(&ctx)), to_hex(one_shot("abc", true)));
}

TEST(Sha2, EmptyUpdateDoesNothingWhateverItsPointer)
{
    sha2_context ctx, before;
    sha2_starts(&ctx, 0);
    update(&ctx, "abc");
    before = ctx;
    sha2_update(&ctx, nullptr, 0);
    sha2_update(&ctx, reinterpret_cast<const uint8_t *>(1), 0);
    EXPECT_EQ(memcmp(&ctx, &before, sizeof(ctx)), 0);
}

TEST(Sha2, ShorterDigestLeavesTheLastFourBytesAlone)
{
    uint8_t out[32];
    memset(out, 0xee, sizeof(out));
    sha2(kAbc, 3, out, 1);
    EXPECT_EQ(to_hex(out + 24, 8), "e36c9da7eeeeeeee");
}

TEST(Sha2, NullArgumentsAreHarmless)
{
    uint8_t out[32] = {0xee};
    sha2_context ctx;
    sha2_starts(nullptr, 0);
    sha2_update(nullptr, kAbc, 3);
    sha2_finish(nullptr, out);
    sha2(nullptr, 1, out, 0);
    sha2(kAbc, 3, nullptr, 0);
    EXPECT_EQ(out[0], 0xee);

    sha2_starts(&ctx, 0);
    update(&ctx, "abc");
    sha2_update(&ctx, nullptr, 3);
    sha2_finish(&ctx, nullptr);
    EXPECT_EQ(to_hex(finish(&ctx)), to_hex(one_shot("abc", false)));
    sha2(nullptr, 0, out, 0); // no bytes need no pointer
    EXPECT_EQ(to_hex(out, sizeof(out)), to_hex(reference::digest(EVP_sha256(), "")));
}

TEST(Sha2, WholeBlocksAreHashedInPlaceAndOnlyTheRestIsCopied)
{
    sha2_context ctx;
    memset(&ctx, 0xee, sizeof(ctx));
    sha2_starts(&ctx, 0);
    update(&ctx, std::string(64, 'a'));
    update(&ctx, std::string(128, 'b'));
    EXPECT_EQ(to_hex(ctx.buffer, 64), to_hex(std::string(64, '\xee')));
    update(&ctx, std::string(66, 'c'));
    EXPECT_EQ(to_hex(ctx.buffer, 64), to_hex("cc" + std::string(62, '\xee')));
    EXPECT_EQ(to_hex(finish(&ctx)),
              to_hex(one_shot(std::string(64, 'a') + std::string(128, 'b') + std::string(66, 'c'),
                              false)));
}

TEST(Sha2, OutputMayBeWhereTheInputIs)
{
    std::string message(40, 'm');
    const std::string expected = reference::digest(EVP_sha256(), message);
    sha2(u8(message), 40, reinterpret_cast<uint8_t *>(&message[0]), 0);
    EXPECT_EQ(to_hex(message.substr(0, 32)), to_hex(expected));
}
