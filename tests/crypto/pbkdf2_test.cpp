// SPDX-License-Identifier: ISC
// Keys derived from passwords.

#include <bv/sha2.h>

#include "crypto/reference.h"
#include "support/child.h"
#include "support/process.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

std::string derive(const std::string &password, const std::string &salt, uint32_t iterations,
                   size_t length)
{
    std::string key(length, '\xee');
    bv_pkcs5_pbkdf2_hmac(u8(password), static_cast<uint32_t>(password.size()), u8(salt),
                         static_cast<uint32_t>(salt.size()), reinterpret_cast<uint8_t *>(&key[0]),
                         static_cast<uint32_t>(length), iterations);
    return key;
}

} // namespace

TEST(Pbkdf2, PublishedVectorsAgreeWithUsAndWithLibcrypto)
{
    const auto rows = read_rows("pbkdf2.txt");
    ASSERT_EQ(rows.size(), 7u);
    for (const Row &row : rows) {
        SCOPED_TRACE(row[0]);
        const std::string password = bytes_of(row[1]), salt = bytes_of(row[2]),
                          key = bytes_of(row[4]);
        const auto iterations = static_cast<uint32_t>(std::stoul(row[3]));
        EXPECT_EQ(to_hex(reference::pbkdf2(password, salt, iterations, key.size())), to_hex(key));
        EXPECT_EQ(to_hex(derive(password, salt, iterations, key.size())), to_hex(key));
    }
}

TEST(Pbkdf2, EveryKeyLengthUpTo100AgreesWithLibcrypto)
{
    RandomBytes random(21);
    for (size_t length = 1; length <= 100; length++) {
        const std::string password = random.bytes(random.number(0, 100));
        const std::string salt = random.bytes(random.number(0, 100));
        const auto iterations = static_cast<uint32_t>(random.number(1, 6));
        EXPECT_EQ(to_hex(derive(password, salt, iterations, length)),
                  to_hex(reference::pbkdf2(password, salt, iterations, length)))
            << length;
    }
}

TEST(Pbkdf2, ZeroIterationsCountAsOne)
{
    EXPECT_EQ(to_hex(derive("password", "salt", 0, 40)), to_hex(derive("password", "salt", 1, 40)));
    EXPECT_NE(to_hex(derive("password", "salt", 1, 40)), to_hex(derive("password", "salt", 2, 40)));
}

TEST(Pbkdf2, NothingIsWrittenAfterTheKey)
{
    uint8_t out[64];
    for (uint32_t length : {0u, 1u, 31u, 32u, 33u, 40u}) {
        memset(out, 0xee, sizeof(out));
        bv_pkcs5_pbkdf2_hmac(reinterpret_cast<const uint8_t *>("p"), 1, nullptr, 0, out, length, 1);
        for (uint32_t i = length; i < sizeof(out); i++)
            ASSERT_EQ(out[i], 0xee) << length << " at " << i;
    }
}

#if UINTPTR_MAX > UINT32_MAX // a 32-bit machine has no room for such a key
// The whole key would take minutes, so a child derives into shared memory until its first block is
// there.
TEST(Pbkdf2, KeysOf2GiBAndMoreAreWrittenToo)
{
    const uint32_t length = 0x80000001;
    void *memory = mmap(nullptr, length, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    const std::string expected = reference::pbkdf2("password", "salt", 1, 32);

    Child child([&] {
        bv_pkcs5_pbkdf2_hmac(reinterpret_cast<const uint8_t *>("password"), 8,
                             reinterpret_cast<const uint8_t *>("salt"), 4,
                             static_cast<uint8_t *>(memory), length, 1);
        return 0;
    });
    EXPECT_TRUE(eventually([&] { return memcmp(memory, expected.data(), expected.size()) == 0; }));
    child.signal(SIGKILL);
    child.wait();
    munmap(memory, length);
}
#endif

TEST(Pbkdf2, NullArgumentsAreHarmless)
{
    uint8_t out[32] = {0xee};
    const auto *text = reinterpret_cast<const uint8_t *>("text");
    bv_pkcs5_pbkdf2_hmac(nullptr, 1, text, 4, out, 32, 1);
    bv_pkcs5_pbkdf2_hmac(text, 4, nullptr, 1, out, 32, 1);
    bv_pkcs5_pbkdf2_hmac(text, 4, text, 4, nullptr, 32, 1);
    EXPECT_EQ(out[0], 0xee);

    bv_pkcs5_pbkdf2_hmac(nullptr, 0, nullptr, 0, out, 32, 1);
    EXPECT_EQ(to_hex(out, sizeof(out)), to_hex(reference::pbkdf2("", "", 1, 32)));
}
