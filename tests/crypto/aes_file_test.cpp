// SPDX-License-Identifier: ISC
// Files encrypted and decrypted, chunk by chunk, whatever happens to them meanwhile.

#include <bv/aes.h>

#include "crypto/reference.h"
#include "support/capture_stdout.h"
#include "support/files.h"
#include "support/guarded.h"
#include "support/libc.h"
#include "support/process.h"
#include "support/shared.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

void (*g_before_read)(int call);  // counted from 1
size_t g_most = SIZE_MAX;         // bytes that a read gives at most
size_t g_most_written = SIZE_MAX; // bytes that a write takes at most
off_t g_size;                     // what seeking to the end answers, when not 0

struct Opened {
    std::string path;
    int flags;
};
std::vector<Opened> *g_opened; // where openings are noted, or null

} // namespace

BV_INTERPOSE(read, "read", ssize_t, (int fd, void *buf, size_t n))
{
    const bool fails = fault_read.fails();
    if (g_before_read != nullptr)
        g_before_read(fault_read.calls());
    return fails ? -1 : BV_NEXT(read)(fd, buf, n < g_most ? n : g_most);
}

BV_INTERPOSE(write, "write", ssize_t, (int fd, const void *buf, size_t n))
{
    if (fault_write.fails())
        return -1;
    return BV_NEXT(write)(fd, buf, n < g_most_written ? n : g_most_written);
}

BV_INTERPOSE(lseek, BV_LARGE("lseek"), off_t, (int fd, off_t offset, int whence))
{
    return g_size != 0 && whence == SEEK_END ? g_size : BV_NEXT(lseek)(fd, offset, whence);
}

BV_INTERPOSE(open, BV_LARGE("open"), int, (const char *path, int flags, mode_t mode))
{
    if (g_opened != nullptr)
        g_opened->push_back({path, flags});
    return BV_NEXT(open)(path, flags, mode);
}

namespace {

const std::string kFileKey = "sixteen byte key";
const char *const kPlain = "/scratch/plain";
const char *const kCipher = "/scratch/cipher";
const char *const kBack = "/scratch/back";

class AesFile : public testing::Test {
protected:
    void SetUp() override
    {
        for (const char *path : {kPlain, kCipher, kBack, "/scratch/out"})
            unlink(path);
        let_calls_through();
    }

    static void let_calls_through()
    {
        fault_read.pass();
        fault_write.pass();
        g_before_read = nullptr;
        g_most = g_most_written = SIZE_MAX;
        g_size = 0;
        g_opened = nullptr;
    }
};

// Chunk by chunk, each a message of its own.
std::string by_chunks(bool encrypt, const std::string &in)
{
    const size_t size = encrypt ? 32 : 48;
    std::string out;
    for (size_t at = 0; at < in.size(); at += size)
        out += reference::aes(encrypt, kFileKey, in.substr(at, size));
    return out;
}

std::string encrypt_file(const std::string &content)
{
    write_file(kPlain, content);
    unlink(kCipher);
    EXPECT_EQ(bv_aes_file_en(kPlain, kCipher, u8(kFileKey)), 0);
    return read_file(kCipher);
}

std::string decrypt_file(const std::string &content)
{
    write_file(kCipher, content);
    unlink(kBack);
    EXPECT_EQ(bv_aes_file_de(kCipher, kBack, u8(kFileKey)), 0);
    return read_file(kBack);
}

// Not EXPECT_EQ, which would print megabytes.
void expect_same(const std::string &ours, const std::string &theirs, size_t which)
{
    EXPECT_EQ(ours.size(), theirs.size()) << which;
    EXPECT_TRUE(ours == theirs) << which;
}

} // namespace

TEST_F(AesFile, EverySizeIsEncryptedChunkByChunkAndComesBack)
{
    RandomBytes random(81);
    std::vector<size_t> sizes = {4064, 4095, 4096, 4097, 4128, 8192, 8193, 1000003};
    for (size_t size = 0; size <= 130; size++)
        sizes.push_back(size);
    for (size_t size : sizes) {
        const std::string plain = random.bytes(size);
        const std::string cipher = encrypt_file(plain);
        expect_same(cipher, by_chunks(true, plain), size);
        EXPECT_EQ(cipher.size(), size / 32 * 48 + (size % 32 == 0 ? 0 : size % 32 < 16 ? 16 : 32));
        expect_same(decrypt_file(cipher), plain, size);
    }
}

TEST_F(AesFile, AnyBytesDecryptChunkByChunk)
{
    RandomBytes random(82);
    std::vector<std::string> ciphers;
    for (size_t size = 1; size <= 200; size++)
        ciphers.push_back(random.bytes(size));
    for (size_t size : {6143u, 6144u, 6145u, 6160u, 6192u, 20000u})
        ciphers.push_back(random.bytes(size));
    const std::string whole = encrypt_file(random.bytes(32 * 4));
    for (size_t size = 0; size <= whole.size(); size++)
        ciphers.push_back(whole.substr(0, size));
    const std::string good = encrypt_file(random.bytes(32 * 300 + 7));
    for (int i = 0; i < 60; i++) {
        std::string bad = good;
        const size_t at = random.number(0, bad.size());
        bad[at] = static_cast<char>(bad[at] ^ random.number(1, 256));
        ciphers.push_back(bad); // a damaged chunk does not harm the others
    }
    for (const std::string &cipher : ciphers)
        expect_same(decrypt_file(cipher), by_chunks(false, cipher), cipher.size());
}

// A wrong padding makes a chunk of 48 give 32 to 47 bytes.
TEST_F(AesFile, ForgedPaddingsNeverWriteMoreThanTheyHold)
{
    std::string cipher, plain;
    for (int padding = 0; padding <= 20; padding++) {
        std::string chunk(48, 'p');
        for (int i = 1; i <= (padding == 0 ? 1 : padding); i++)
            chunk[48 - i] = static_cast<char>(padding);
        cipher += reference::aes(true, kFileKey, chunk).substr(0, 48);
        plain += chunk.substr(0, padding >= 1 && padding <= 16 ? 48 - padding : 32);
    }
    expect_same(decrypt_file(cipher), plain, 0);

    std::string longest; // 47 bytes from every chunk, through several batches
    for (int i = 0; i < 300; i++)
        longest += reference::aes(true, kFileKey, std::string(47, 'p') + '\1').substr(0, 48);
    expect_same(decrypt_file(longest), by_chunks(false, longest), 0);
    EXPECT_EQ(read_file(kBack).size(), 300u * 47);
}

TEST_F(AesFile, LongerOutputKeepsItsOldTail)
{
    const std::string cipher = reference::aes(true, kFileKey, "short");
    write_file(kPlain, "short");
    write_file(kCipher, std::string(100, 'o'));
    bv_aes_file_en(kPlain, kCipher, u8(kFileKey));
    EXPECT_EQ(read_file(kCipher), cipher + std::string(84, 'o'));

    write_file(kBack, std::string(100, 'o'));
    write_file(kCipher, cipher);
    bv_aes_file_de(kCipher, kBack, u8(kFileKey));
    EXPECT_EQ(read_file(kBack), "short" + std::string(95, 'o'));
}

TEST_F(AesFile, InputWithoutBytesCreatesTheOutputAndLeavesAnExistingOne)
{
    write_file("/scratch/empty", "");
    for (auto *transform : {bv_aes_file_en, bv_aes_file_de}) {
        for (const char *input : {"/scratch/empty", "/scratch/missing", "/scratch"}) {
            SCOPED_TRACE(input);
            unlink("/scratch/out");
            EXPECT_EQ(transform(input, "/scratch/out", u8(kFileKey)), 0);
            EXPECT_TRUE(file_exists("/scratch/out"));
            write_file("/scratch/out", "old");
            EXPECT_EQ(transform(input, "/scratch/out", u8(kFileKey)), 0);
            EXPECT_EQ(read_file("/scratch/out"), "old");
        }
    }
}

TEST_F(AesFile, NullArgumentAndOutputThatCannotBeOpenedAreNeitherReturnedNorPrinted)
{
    write_file(kPlain, "content");
    CaptureStdout output;
    for (auto *transform : {bv_aes_file_en, bv_aes_file_de}) {
        EXPECT_EQ(transform(nullptr, kBack, u8(kFileKey)), 0);
        EXPECT_EQ(transform(kPlain, nullptr, u8(kFileKey)), 0);
        EXPECT_EQ(transform(kPlain, kBack, nullptr), 0);
        EXPECT_FALSE(file_exists(kBack));
    }
    EXPECT_EQ(bv_aes_file_en(kPlain, "/scratch/no/such/folder", u8(kFileKey)), 0);
    EXPECT_EQ(bv_aes_file_de(kPlain, "/scratch", u8(kFileKey)), 0);
    EXPECT_EQ(output.stop(), "");
}

TEST_F(AesFile, OutputIsCreatedReadableForAllButTheUmask)
{
    for (mode_t mask : {027, 0}) {
        const mode_t before = umask(mask);
        encrypt_file("content");
        umask(before);
        struct stat st;
        ASSERT_EQ(stat(kCipher, &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0666u & ~mask);
    }
}

TEST_F(AesFile, InputIsOpenedSynchronouslyAndTheOutputForBothWays)
{
    for (auto *transform : {bv_aes_file_en, bv_aes_file_de}) {
        write_file(kPlain, "content");
        std::vector<Opened> opened;
        g_opened = &opened;
        transform(kPlain, "/scratch/out", u8(kFileKey));
        g_opened = nullptr;
        ASSERT_EQ(opened.size(), 2u);
        EXPECT_EQ(opened[0].path, kPlain);
        EXPECT_EQ(opened[0].flags & ~O_LARGEFILE, O_RDONLY | O_SYNC);
        EXPECT_EQ(opened[1].path, "/scratch/out");
        EXPECT_EQ(opened[1].flags & ~O_LARGEFILE, O_RDWR | O_CREAT);
    }
}

TEST_F(AesFile, KeyEndsAfterSixteenBytesAndDescriptorsMayBeZero)
{
    Guarded key(kFileKey);
    write_file(kPlain, "content");
    WithoutStdin closed;
    const auto before = open_descriptors();
    bv_aes_file_en(kPlain, kCipher, key.u8()); // reads from descriptor 0
    bv_aes_file_de(kCipher, kBack, key.u8());
    bv_aes_file_en("/scratch/missing", "/scratch/out", key.u8()); // could only write to it
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(read_file(kBack), "content");
    EXPECT_TRUE(file_exists("/scratch/out"));
}

TEST_F(AesFile, ShortReadsAndWritesAreContinued)
{
    for (size_t most : {1u, 31u, 47u, 1001u, 4095u}) {
        const std::string plain = RandomBytes(86).bytes(most == 1 ? 5000 : 20000);
        for (size_t *limit : {&g_most, &g_most_written}) {
            write_file(kPlain, plain);
            unlink(kCipher);
            unlink(kBack);
            *limit = most;
            bv_aes_file_en(kPlain, kCipher, u8(kFileKey));
            bv_aes_file_de(kCipher, kBack, u8(kFileKey));
            *limit = SIZE_MAX;
            expect_same(read_file(kCipher), by_chunks(true, plain), most);
            expect_same(read_file(kBack), plain, most);
        }
    }
}

TEST_F(AesFile, EncryptionEndsWhereReadingOrWritingDoes)
{
    const std::string plain = RandomBytes(85).bytes(20000);
    const auto encrypted = [&] {
        write_file(kPlain, plain);
        unlink(kCipher);
        EXPECT_EQ(bv_aes_file_en(kPlain, kCipher, u8(kFileKey)), 0);
        let_calls_through();
        return read_file(kCipher);
    };
    fault_read.pass();
    g_before_read = [](int call) {
        if (call == 2 && truncate(kPlain, 5000) != 0)
            abort();
    };
    expect_same(encrypted(), by_chunks(true, plain.substr(0, 5000)), 0);

    g_most = 1001;
    fault_read.fail_next(3);
    expect_same(encrypted(), by_chunks(true, plain.substr(0, 2002)), 1);

    g_size = 70; // what is appended meanwhile is left out
    expect_same(encrypted(), by_chunks(true, plain.substr(0, 70)), 2);

    g_most_written = 0;
    EXPECT_EQ(encrypted(), "");
}

TEST_F(AesFile, FileOfUpTo32BytesIsEncryptedInPlace)
{
    for (size_t size : {1u, 15u, 16u, 31u, 32u}) {
        const std::string plain = RandomBytes(93).bytes(size);
        write_file(kPlain, plain);
        bv_aes_file_en(kPlain, kPlain, u8(kFileKey));
        expect_same(read_file(kPlain), by_chunks(true, plain), size);
    }
}

TEST_F(AesFile, FileOfAnySizeIsDecryptedInPlaceAndKeepsItsOldEnd)
{
    for (size_t size : {1u, 32u, 33u, 4096u, 4097u, 20000u, 1000003u}) {
        const std::string plain = RandomBytes(94).bytes(size);
        const std::string cipher = by_chunks(true, plain);
        write_file(kCipher, cipher);
        bv_aes_file_de(kCipher, kCipher, u8(kFileKey));
        expect_same(read_file(kCipher), plain + cipher.substr(size), size);
    }
}

// Sizes whose low 32 bits are small or negative: cut to an int they would end the work at once.
TEST_F(AesFile, SizesPast2GiBAreNotCut)
{
    const std::string plain = RandomBytes(88).bytes(10000);
    for (off_t size :
         {off_t{1} << 31, (off_t{1} << 32) - 1, off_t{1} << 32, (off_t{1} << 32) + 5}) {
        g_size = size;
        const std::string cipher = encrypt_file(plain), back = decrypt_file(cipher);
        g_size = 0;
        expect_same(cipher, by_chunks(true, plain), static_cast<size_t>(size >> 31));
        expect_same(back, plain, static_cast<size_t>(size >> 31));
    }
}

TEST_F(AesFile, FullDiskEndsTheWorkAndIsNotReported)
{
    write_file(kPlain, RandomBytes(89).bytes(200000));
    fault_write.fail_next(2, ENOSPC);
    EXPECT_EQ(bv_aes_file_en(kPlain, kCipher, u8(kFileKey)), 0);
    EXPECT_EQ(fault_write.calls(), 2);
    EXPECT_EQ(read_file(kCipher).size(), 128u * 48);

    fault_write.pass();
    write_file(kPlain, std::string(8 << 20, 'x')); // the small disk holds 4 MiB
    end_shared_files_after(4 << 20);
    EXPECT_EQ(bv_aes_file_en(kPlain, "/config/work/cipher", u8(kFileKey)), 0);
    const std::string written = read_file("/config/work/cipher");
    EXPECT_GT(written.size(), 1u << 20);
    EXPECT_LT(written.size(), 8u << 20);
    EXPECT_TRUE(written.substr(0, 48 * 1000) == by_chunks(true, std::string(32 * 1000, 'x')));
}

TEST_F(AesFile, WithoutACipherNothingIsWrittenAndNothingStaysOpen)
{
    const auto before = open_descriptors();
    const std::string cipher = reference::aes(true, kFileKey, std::string(32, 'x'));
    for (FaultPoint *fault : {&fault_cipher_context, &fault_cipher_update}) {
        fault->fail_next();
        EXPECT_EQ(encrypt_file("content"), "") << fault->name();
        fault->fail_next();
        EXPECT_EQ(decrypt_file(cipher), "") << fault->name();
        EXPECT_TRUE(file_exists(kBack));
    }
    fault_cipher_update.fail_next();
    EXPECT_EQ(bv_aes_file_de("/usr/bin/env", "/scratch/out", u8(kFileKey)), 0);
    EXPECT_EQ(bv_aes_file_en("/scratch/missing", "/scratch/no/such/folder", u8(kFileKey)), 0);
    EXPECT_EQ(open_descriptors(), before);
}
