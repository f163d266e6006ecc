// SPDX-License-Identifier: ISC
// Nothing secret stays on the stack. Each call runs on a stack of its own, which is searched
// afterwards: for the secrets, for what HMAC makes of them, and for both as the words that the
// hash works on.

#include <bv/aes.h>
#include <bv/os.h>
#include <bv/sha2.h>

#include "crypto/reference.h"
#include "support/files.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

namespace {

constexpr size_t kStackSize = 1024 * 1024;
constexpr size_t kFragment = 12; // fewer bytes in a row may be there by chance

void *call(void *function)
{
    // Far enough down that the end of the thread does not write over what is left.
    char distance[16384];
    __asm__ volatile("" : : "r"(distance) : "memory");
    (*static_cast<std::function<void()> *>(function))();
    __asm__ volatile("" : : "r"(distance) : "memory");
    return nullptr;
}

void run_in_thread(const pthread_attr_t *attributes, std::function<void()> &function)
{
    pthread_t thread;
    if (pthread_create(&thread, attributes, call, &function) != 0)
        abort();
    pthread_join(thread, nullptr);
}

// A stack after a call has run on it.
class UsedStack {
public:
    explicit UsedStack(std::function<void()> function)
        : memory_(
              mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        // Once on another stack first: at the first call of a function, those at the end of the
        // thread included, the dynamic linker saves all registers, and what they hold.
        run_in_thread(nullptr, function);
        pthread_attr_setstack(&attributes, memory_, kStackSize);
        run_in_thread(&attributes, function);
        pthread_attr_destroy(&attributes);

        // Most of it was never touched; searching that too would take seconds.
        const auto *lowest = static_cast<const char *>(memory_);
        while (used_size_ > 0 && lowest[kStackSize - used_size_] == 0)
            used_size_--;
    }
    ~UsedStack() { munmap(memory_, kStackSize); }

    bool holds(const std::string &bytes) const
    {
        for (size_t at = 0; at + kFragment <= bytes.size(); at += 4) {
            if (memmem(used(), used_size_, bytes.data() + at, kFragment) != nullptr)
                return true;
        }
        return false;
    }

    // The bytes as they are, or as 32-bit words of this machine.
    bool holds_any_form(std::string bytes) const
    {
        if (holds(bytes))
            return true;
        for (size_t at = 0; at + 4 <= bytes.size(); at += 4)
            std::reverse(bytes.begin() + at, bytes.begin() + at + 4);
        return holds(bytes);
    }

private:
    const char *used() const
    {
        return static_cast<const char *>(memory_) + kStackSize - used_size_;
    }

    void *memory_;
    size_t used_size_ = kStackSize; // from its lowest byte that is not 0 up
};

std::string mixed(std::string key, char pad)
{
    key.resize(64, 0);
    for (char &c : key)
        c = static_cast<char>(c ^ pad);
    return key;
}

void expect_none(const UsedStack &stack, const std::vector<std::string> &secrets)
{
    for (size_t i = 0; i < secrets.size(); i++)
        EXPECT_FALSE(stack.holds_any_form(secrets[i])) << "secret " << i;
}

void expect_no_key(const UsedStack &stack, const std::string &key)
{
    // After the key the pads are not secret.
    expect_none(stack, {key, mixed(key, 0x36).substr(0, key.size()),
                        mixed(key, 0x5c).substr(0, key.size())});
}

std::string inner_digest(const std::string &key, const std::string &message)
{
    return reference::digest(EVP_sha256(), mixed(key, 0x36) + message);
}

uint32_t size_of(const std::string &bytes)
{
    return static_cast<uint32_t>(bytes.size());
}

} // namespace

TEST(Secrets, SearchFindsWhatACarelessFunctionLeaves)
{
    const std::string secret = RandomBytes(31).bytes(64);
    const UsedStack stack([&] {
        char copy[64];
        for (size_t i = 0; i < sizeof(copy); i++)
            copy[i] = secret[i];
        __asm__ volatile("" : : "r"(copy) : "memory");
    });
    EXPECT_TRUE(stack.holds(secret));

    const UsedStack words([&] {
        uint32_t copy[16];
        for (size_t i = 0; i < 16; i++)
            copy[i] = __builtin_bswap32(reinterpret_cast<const uint32_t *>(secret.data())[i]);
        __asm__ volatile("" : : "r"(copy) : "memory");
    });
    EXPECT_FALSE(words.holds(secret));
    EXPECT_TRUE(words.holds_any_form(secret));
}

TEST(Secrets, HashLeavesNothingOfTheMessage)
{
    const std::string message = RandomBytes(32).bytes(64 + 50);
    uint8_t out[32];
    const UsedStack stack([&] { sha2(u8(message), size_of(message), out, 0); });
    expect_none(stack, {message.substr(0, 64), message.substr(64)});
}

TEST(Secrets, HmacLeavesNeitherTheKeyNorTheInnerDigest)
{
    const std::string key = RandomBytes(33).bytes(64), message = "an ordinary message";
    uint8_t out[32];
    const UsedStack stack(
        [&] { sha2_hmac(u8(key), size_of(key), u8(message), size_of(message), out, 0); });
    expect_no_key(stack, key);
    EXPECT_FALSE(stack.holds_any_form(inner_digest(key, message)));
}

TEST(Secrets, LongKeyLeavesNothingOfItsDigest)
{
    const std::string key = RandomBytes(40).bytes(100);
    const std::string digest = reference::digest(EVP_sha256(), key);
    static sha2_context ctx;
    const UsedStack stack([&] { sha2_hmac_starts(&ctx, u8(key), size_of(key), 0); });
    expect_no_key(stack, digest);
}

TEST(Secrets, HmacInPiecesLeavesThemOnlyInTheCallersContext)
{
    const std::string key = RandomBytes(34).bytes(100), message = "an ordinary message";
    const std::string digest = reference::digest(EVP_sha256(), key);
    static sha2_context ctx;
    uint8_t out[32];
    const UsedStack stack([&] {
        sha2_hmac_starts(&ctx, u8(key), size_of(key), 0);
        sha2_hmac_update(&ctx, u8(message), size_of(message));
        sha2_hmac_finish(&ctx, out);
    });
    expect_no_key(stack, digest);
    expect_none(stack, {key.substr(0, 64), inner_digest(digest, message)});
    EXPECT_EQ(to_hex(ctx.ipad, 64), to_hex(mixed(digest, 0x36)));
}

TEST(Secrets, KeyDerivationLeavesNothingOfItsSteps)
{
    const std::string password = RandomBytes(35).bytes(40), salt = "salt";
    std::string key(48, 0);
    const UsedStack stack([&] {
        bv_pkcs5_pbkdf2_hmac(u8(password), size_of(password), u8(salt), size_of(salt),
                             reinterpret_cast<uint8_t *>(&key[0]), size_of(key), 3);
    });
    expect_no_key(stack, password);

    for (char block : {1, 2}) {
        std::string u = reference::hmac(false, password, salt + std::string(3, 0) + block);
        for (int i = 0; i < 3; i++) {
            EXPECT_FALSE(stack.holds_any_form(u)) << "U " << i + 1 << " of block " << int(block);
            u = reference::hmac(false, password, u);
        }
    }
    EXPECT_FALSE(stack.holds_any_form(reference::pbkdf2(password, salt, 3, 64)));
}

TEST(Secrets, TextDigestLeavesNothingOfTheText)
{
    const std::string text =
        "correct horse battery staple, and some more of it to fill the tail block twice";
    char out[65];
    const UsedStack stack([&] { bv_os_sha256(out, text.c_str()); });
    expect_none(stack,
                {text.substr(0, 64), text.substr(64), out, reference::digest(EVP_sha256(), text)});
}

TEST(Secrets, Sm3DigestIsOnlyWhereTheCallerWantsIt)
{
    const std::string text = "correct horse battery staple";
    const std::string digest = reference::digest(EVP_sm3(), text);
    static char out[65], of_file[65];
    const UsedStack stack([&] { bv_os_sm3_str(u8(text), size_of(text), out); });
    EXPECT_EQ(out, to_hex(digest));
    expect_none(stack, {out, digest});

    write_file("/scratch/secret", text);
    const UsedStack file_stack([] { bv_os_sm3_file("/scratch/secret", of_file); });
    EXPECT_STREQ(of_file, out);
    expect_none(file_stack, {out, digest});
}

TEST(Secrets, TextEncryptionLeavesNeitherKeyNorText)
{
    const std::string key = RandomBytes(36).bytes(16);
    const std::string text = "the password of the administrator";
    char hex[161], back[65];
    const UsedStack there([&] { bv_aes_str_en(hex, sizeof(hex), text.c_str(), u8(key)); });
    expect_none(there, {key, text});

    const UsedStack and_back([&] { bv_aes_str_de(hex, back, sizeof(back), u8(key)); });
    EXPECT_EQ(back, text);
    expect_none(and_back, {key, text});
}

TEST(Secrets, RecordDecryptionLeavesNothingBesideTheRecord)
{
    static bv_aes_record rec;
    const std::string text = RandomBytes(37).bytes(64);
    memcpy(rec.plain, text.data(), 64);
    rec.plain_len = 64;
    bv_aes_cbc_en(&rec);
    const UsedStack stack([] { bv_aes_cbc_de(&rec); });
    EXPECT_EQ(rec.plain_len, 64u);
    EXPECT_FALSE(stack.holds(text));
}

TEST(Secrets, FileEncryptionLeavesNothingOfTheContents)
{
    const std::string key = RandomBytes(38).bytes(16),
                      content = RandomBytes(39).bytes(32 * 300 + 31);
    write_file("/scratch/plain", content);
    const UsedStack there([&] { bv_aes_file_en("/scratch/plain", "/scratch/cipher", u8(key)); });
    EXPECT_FALSE(there.holds(content));
    const UsedStack and_back([&] { bv_aes_file_de("/scratch/cipher", "/scratch/back", u8(key)); });
    EXPECT_FALSE(and_back.holds(content));
}

TEST(Secrets, RandomTextIsOnlyWhereTheCallerWantsIt)
{
    std::string text(64, 0);
    const UsedStack stack([&] { bv_os_random(reinterpret_cast<uint8_t *>(&text[0]), 64); });
    EXPECT_FALSE(stack.holds(text));
}
