#include <bv/aes.h>

#include "crypto/guarded.h"
#include "crypto/reference.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/process.h"
#include "support/shared.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

BV_FAULT_POINT(EVP_CIPHER_CTX_new, EVP_CIPHER_CTX *, (), (), nullptr);
BV_FAULT_POINT(EVP_CipherUpdate, int,
               (EVP_CIPHER_CTX * ctx, unsigned char *out, int *outl, const unsigned char *in,
                int inl),
               (ctx, out, outl, in, inl), 0);

namespace {

void (*g_before_read)(int call); // counted from 1
int g_reads;
size_t g_most = SIZE_MAX; // bytes that a read gives at most
FaultPoint fault_read;
FaultPoint fault_write;
size_t g_most_written = SIZE_MAX; // bytes that a write takes at most
off_t g_size;                     // what seeking to the end answers, when not 0

struct Opened {
    std::string path;
    int flags;
};
std::vector<Opened> g_opened;

} // namespace

extern "C" ssize_t read(int fd, void *buf, size_t n)
{
    static auto *next = next_function<ssize_t(int, void *, size_t)>("read");
    if (g_before_read != nullptr)
        g_before_read(++g_reads);
    if (fault_read.fails())
        return -1;
    return next(fd, buf, n < g_most ? n : g_most);
}

extern "C" ssize_t write(int fd, const void *buf, size_t n)
{
    static auto *next = next_function<ssize_t(int, const void *, size_t)>("write");
    if (fault_write.fails())
        return -1;
    return next(fd, buf, n < g_most_written ? n : g_most_written);
}

#if defined(__GLIBC__) && !defined(__LP64__)
#define LSEEK "lseek64"
#define OPEN "open64"
#else
#define LSEEK "lseek"
#define OPEN "open"
#endif
extern "C" off_t test_lseek(int fd, off_t offset, int whence) __asm__(LSEEK);
extern "C" off_t test_lseek(int fd, off_t offset, int whence)
{
    static auto *next = next_function<off_t(int, off_t, int)>(LSEEK);
    if (g_size != 0 && whence == SEEK_END)
        return g_size;
    return next(fd, offset, whence);
}

extern "C" int test_open(const char *path, int flags, mode_t mode) __asm__(OPEN);
extern "C" int test_open(const char *path, int flags, mode_t mode)
{
    static auto *next = next_function<int(const char *, int, ...)>(OPEN);
    g_opened.push_back({path, flags});
    return next(path, flags, mode);
}

namespace {

const std::string kKey = "sixteen byte key";
const char *const kPlain = "/scratch/plain";
const char *const kCipher = "/scratch/cipher";
const char *const kBack = "/scratch/back";

class AesFile : public testing::Test {
protected:
    void SetUp() override
    {
        for (const char *path : {kPlain, kCipher, kBack, "/scratch/out", "/scratch/new"})
            unlink(path);
        fault_read.pass();
        fault_write.pass();
        g_before_read = nullptr;
        g_reads = 0;
        g_most = SIZE_MAX;
        g_most_written = SIZE_MAX;
        g_size = 0;
        g_opened.clear();
    }
};

// Chunk by chunk, each a message of its own.
std::string by_chunks(bool encrypt, const std::string &in)
{
    const size_t size = encrypt ? 32 : 48;
    std::string out;
    for (size_t at = 0; at < in.size(); at += size)
        out += reference::aes(encrypt, kKey, in.substr(at, size));
    return out;
}

std::string encrypt_file(const std::string &content)
{
    write_file(kPlain, content);
    unlink(kCipher);
    EXPECT_EQ(bv_aes_file_en(kPlain, kCipher, u8(kKey)), 0);
    return read_file(kCipher);
}

std::string decrypt_file(const std::string &content)
{
    write_file(kCipher, content);
    unlink(kBack);
    EXPECT_EQ(bv_aes_file_de(kCipher, kBack, u8(kKey)), 0);
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
        expect_same(decrypt_file(cipher), plain, size);
    }
}

TEST_F(AesFile, EncryptedSizesAreThoseOfTheChunks)
{
    EXPECT_EQ(encrypt_file(std::string(1, 'x')).size(), 16u);
    EXPECT_EQ(encrypt_file(std::string(16, 'x')).size(), 32u);
    EXPECT_EQ(encrypt_file(std::string(32, 'x')).size(), 48u);
    EXPECT_EQ(encrypt_file(std::string(33, 'x')).size(), 64u);
    EXPECT_EQ(encrypt_file(std::string(64, 'x')).size(), 96u);
    EXPECT_EQ(encrypt_file(std::string(65, 'x')).size(), 112u);
}

TEST_F(AesFile, EqualChunksGiveEqualCiphertext)
{
    const std::string cipher = encrypt_file(std::string(64, 'x'));
    EXPECT_EQ(to_hex(cipher.substr(0, 48)), to_hex(cipher.substr(48)));
}

TEST_F(AesFile, ALongerOutputKeepsItsOldTail)
{
    write_file(kPlain, "short");
    write_file(kCipher, std::string(100, 'o'));
    bv_aes_file_en(kPlain, kCipher, u8(kKey));
    EXPECT_EQ(read_file(kCipher), reference::aes(true, kKey, "short") + std::string(84, 'o'));

    write_file(kBack, std::string(100, 'o'));
    write_file(kCipher, reference::aes(true, kKey, "short"));
    bv_aes_file_de(kCipher, kBack, u8(kKey));
    EXPECT_EQ(read_file(kBack), "short" + std::string(95, 'o'));
}

TEST_F(AesFile, AnEmptyInputCreatesTheOutputAndLeavesAnExistingOne)
{
    for (auto *transform : {bv_aes_file_en, bv_aes_file_de}) {
        write_file("/scratch/empty", "");
        unlink("/scratch/out");
        EXPECT_EQ(transform("/scratch/empty", "/scratch/out", u8(kKey)), 0);
        EXPECT_TRUE(file_exists("/scratch/out"));
        write_file("/scratch/out", "old");
        EXPECT_EQ(transform("/scratch/empty", "/scratch/out", u8(kKey)), 0);
        EXPECT_EQ(read_file("/scratch/out"), "old");
    }
}

TEST_F(AesFile, AMissingInputIsAnEmptyOne)
{
    for (auto *transform : {bv_aes_file_en, bv_aes_file_de}) {
        write_file("/scratch/out", "old");
        EXPECT_EQ(transform("/scratch/missing", "/scratch/out", u8(kKey)), 0);
        EXPECT_EQ(read_file("/scratch/out"), "old");
        EXPECT_EQ(transform("/scratch/missing", "/scratch/new", u8(kKey)), 0);
        EXPECT_TRUE(file_exists("/scratch/new"));
        EXPECT_EQ(unlink("/scratch/new"), 0);
    }
}

TEST_F(AesFile, AnOutputThatCannotBeOpenedIsNoFailure)
{
    write_file(kPlain, "content");
    EXPECT_EQ(bv_aes_file_en(kPlain, "/scratch/no/such/folder", u8(kKey)), 0);
    EXPECT_EQ(bv_aes_file_de(kPlain, "/scratch", u8(kKey)), 0);
}

TEST_F(AesFile, TheOutputIsCreatedReadableForAllButTheUmask)
{
    const mode_t before = umask(027);
    encrypt_file("content");
    umask(before);
    struct stat st;
    ASSERT_EQ(stat(kCipher, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);

    umask(0);
    encrypt_file("content");
    umask(before);
    ASSERT_EQ(stat(kCipher, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
}

TEST_F(AesFile, TheInputIsOpenedSynchronouslyAndTheOutputForBothWays)
{
    for (auto *transform : {bv_aes_file_en, bv_aes_file_de}) {
        write_file(kPlain, "content");
        g_opened.clear();
        transform(kPlain, "/scratch/out", u8(kKey));
        ASSERT_EQ(g_opened.size(), 2u);
        EXPECT_EQ(g_opened[0].path, kPlain);
        EXPECT_EQ(g_opened[0].flags & ~O_LARGEFILE, O_RDONLY | O_SYNC);
        EXPECT_EQ(g_opened[1].path, "/scratch/out");
        EXPECT_EQ(g_opened[1].flags & ~O_LARGEFILE, O_RDWR | O_CREAT);
    }
}

TEST_F(AesFile, AKeyIsNotReadBeyondItsSixteenBytes)
{
    Guarded key(kKey);
    write_file(kPlain, "content");
    bv_aes_file_en(kPlain, kCipher, key.bytes());
    bv_aes_file_de(kCipher, kBack, key.bytes());
    EXPECT_EQ(read_file(kBack), "content");
}

TEST_F(AesFile, ADirectoryAsInputGivesNothing)
{
    EXPECT_EQ(bv_aes_file_en("/scratch", "/scratch/out", u8(kKey)), 0);
    EXPECT_EQ(read_file("/scratch/out"), "");
}

TEST_F(AesFile, RandomBytesDecryptAsChunkByChunk)
{
    RandomBytes random(82);
    for (size_t size = 1; size <= 200; size++) {
        const std::string cipher = random.bytes(size);
        expect_same(decrypt_file(cipher), by_chunks(false, cipher), size);
    }
    for (size_t size : {6143u, 6144u, 6145u, 6160u, 6192u, 20000u}) {
        const std::string cipher = random.bytes(size);
        expect_same(decrypt_file(cipher), by_chunks(false, cipher), size);
    }
}

TEST_F(AesFile, ADamagedChunkDoesNotHarmTheOthers)
{
    RandomBytes random(83);
    const std::string plain = random.bytes(32 * 300 + 7);
    const std::string good = encrypt_file(plain);
    for (int i = 0; i < 60; i++) {
        std::string bad = good;
        const size_t at = random.number(0, bad.size());
        bad[at] = static_cast<char>(bad[at] ^ random.number(1, 256));
        const std::string back = decrypt_file(bad);
        expect_same(back, by_chunks(false, bad), at);
        const size_t chunk = at / 48;
        EXPECT_TRUE(back.substr(0, chunk * 32) == plain.substr(0, chunk * 32)) << at;
    }
}

// A wrong padding makes a chunk of 48 give 32 to 47 bytes.
TEST_F(AesFile, ForgedPaddingsNeverWriteMoreThanTheyHold)
{
    std::string cipher, plain;
    for (int padding = 0; padding <= 20; padding++) {
        std::string chunk(48, 'p');
        for (int i = 1; i <= (padding == 0 ? 1 : padding); i++)
            chunk[48 - i] = static_cast<char>(padding);
        cipher += reference::aes(true, kKey, chunk).substr(0, 48);
        plain += chunk.substr(0, padding >= 1 && padding <= 16 ? 48 - padding : 32);
    }
    expect_same(decrypt_file(cipher), plain, 0);

    std::string longest; // 47 bytes from every chunk, through several batches
    std::string chunk = std::string(47, 'p') + '\1';
    for (int i = 0; i < 300; i++)
        longest += reference::aes(true, kKey, chunk).substr(0, 48);
    expect_same(decrypt_file(longest), by_chunks(false, longest), 0);
    EXPECT_EQ(read_file(kBack).size(), 300u * 47);
}

TEST_F(AesFile, TruncatedFilesDecryptAsFarAsTheyGo)
{
    RandomBytes random(84);
    const std::string cipher = encrypt_file(random.bytes(32 * 4));
    for (size_t size = 0; size <= cipher.size(); size++)
        expect_same(decrypt_file(cipher.substr(0, size)), by_chunks(false, cipher.substr(0, size)),
                    size);
}

TEST_F(AesFile, AFileThatShrinksEndsWithTheBytesThatCame)
{
    const std::string plain = RandomBytes(85).bytes(20000);
    g_before_read = [](int call) {
        if (call == 2 && truncate(kPlain, 5000) != 0)
            abort();
    };
    write_file(kPlain, plain);
    bv_aes_file_en(kPlain, kCipher, u8(kKey));
    expect_same(read_file(kCipher), by_chunks(true, plain.substr(0, 5000)), 0);
}

TEST_F(AesFile, ShortReadIsContinued)
{
    for (size_t most : {1u, 31u, 47u, 1001u, 4095u}) {
        const std::string plain = RandomBytes(86).bytes(most == 1 ? 5000 : 20000);
        write_file(kPlain, plain);
        unlink(kCipher);
        unlink(kBack);
        g_most = most;
        bv_aes_file_en(kPlain, kCipher, u8(kKey));
        bv_aes_file_de(kCipher, kBack, u8(kKey));
        g_most = SIZE_MAX;
        expect_same(read_file(kCipher), by_chunks(true, plain), most);
        expect_same(read_file(kBack), plain, most);
    }
}

TEST_F(AesFile, FailedReadEndsTheWorkWithTheBytesThatCame)
{
    const std::string plain = RandomBytes(92).bytes(20000);
    write_file(kPlain, plain);
    g_most = 1001;
    fault_read.fail_next(3);
    EXPECT_EQ(bv_aes_file_en(kPlain, kCipher, u8(kKey)), 0);
    EXPECT_EQ(fault_read.calls(), 3);
    g_most = SIZE_MAX;
    expect_same(read_file(kCipher), by_chunks(true, plain.substr(0, 2002)), 0);
}

TEST_F(AesFile, FileOfUpTo32BytesIsEncryptedInPlace)
{
    for (size_t size : {1u, 15u, 16u, 31u, 32u}) {
        const std::string plain = RandomBytes(93).bytes(size);
        write_file(kPlain, plain);
        bv_aes_file_en(kPlain, kPlain, u8(kKey));
        expect_same(read_file(kPlain), by_chunks(true, plain), size);
    }
}

TEST_F(AesFile, FileOfAnySizeIsDecryptedInPlaceAndKeepsItsOldEnd)
{
    for (size_t size : {1u, 32u, 33u, 4096u, 4097u, 20000u, 1000003u}) {
        const std::string plain = RandomBytes(94).bytes(size);
        const std::string cipher = by_chunks(true, plain);
        write_file(kCipher, cipher);
        bv_aes_file_de(kCipher, kCipher, u8(kKey));
        expect_same(read_file(kCipher), plain + cipher.substr(size), size);
    }
}

TEST_F(AesFile, AShortWriteIsContinued)
{
    const std::string plain = RandomBytes(90).bytes(20000);
    write_file(kPlain, plain);
    g_most_written = 1001;
    bv_aes_file_en(kPlain, kCipher, u8(kKey));
    g_most_written = SIZE_MAX;
    expect_same(read_file(kCipher), by_chunks(true, plain), 0);
}

TEST_F(AesFile, AWriteMayTakeOneByteAndOneThatTakesNoneEndsTheWork)
{
    const std::string plain = RandomBytes(91).bytes(100);
    write_file(kPlain, plain);
    g_most_written = 1;
    bv_aes_file_en(kPlain, kCipher, u8(kKey));
    g_most_written = 0;
    bv_aes_file_en(kPlain, "/scratch/new", u8(kKey));
    g_most_written = SIZE_MAX;
    expect_same(read_file(kCipher), by_chunks(true, plain), 0);
    EXPECT_TRUE(file_exists("/scratch/new"));
    EXPECT_EQ(read_file("/scratch/new"), "");
}

TEST_F(AesFile, WhatIsAppendedMeanwhileIsLeftOut)
{
    const std::string plain = RandomBytes(87).bytes(100);
    write_file(kPlain, plain);
    g_size = 70;
    bv_aes_file_en(kPlain, kCipher, u8(kKey));
    g_size = 0;
    expect_same(read_file(kCipher), by_chunks(true, plain.substr(0, 70)), 0);
}

// Sizes whose low 32 bits are small or negative: cut to an int they would end the work at once.
TEST_F(AesFile, SizesPast2GiBAreNotCut)
{
    const std::string plain = RandomBytes(88).bytes(10000);
    for (off_t size :
         {off_t{1} << 31, (off_t{1} << 32) - 1, off_t{1} << 32, (off_t{1} << 32) + 5}) {
        write_file(kPlain, plain);
        unlink(kCipher);
        unlink(kBack);
        g_size = size;
        bv_aes_file_en(kPlain, kCipher, u8(kKey));
        bv_aes_file_de(kCipher, kBack, u8(kKey));
        g_size = 0;
        expect_same(read_file(kCipher), by_chunks(true, plain), 0);
        expect_same(read_file(kBack), plain, 0);
    }
}

TEST_F(AesFile, AFullDiskEndsTheWorkWithoutAFailure)
{
    write_file(kPlain, RandomBytes(89).bytes(200000));
    fault_write.fail_next(2, ENOSPC);
    EXPECT_EQ(bv_aes_file_en(kPlain, kCipher, u8(kKey)), 0);
    EXPECT_EQ(fault_write.calls(), 2);
    EXPECT_EQ(read_file(kCipher).size(), 128u * 48);

    fault_write.pass();
    write_file(kPlain, std::string(8 << 20, 'x')); // the small disk holds 4 MiB
    end_shared_files_after(4 << 20);
    EXPECT_EQ(bv_aes_file_en(kPlain, "/config/work/cipher", u8(kKey)), 0);
    const std::string written = read_file("/config/work/cipher");
    EXPECT_GT(written.size(), 1u << 20);
    EXPECT_LT(written.size(), 8u << 20);
    EXPECT_TRUE(written.substr(0, 48 * 1000) == by_chunks(true, std::string(32 * 1000, 'x')));
}

TEST_F(AesFile, WithoutACipherNothingIsWrittenAndNothingStaysOpen)
{
    const auto before = open_descriptors();
    write_file(kPlain, "content");
    fault_EVP_CIPHER_CTX_new.fail_next();
    EXPECT_EQ(bv_aes_file_en(kPlain, kCipher, u8(kKey)), 0);
    EXPECT_EQ(read_file(kCipher), "");
    fault_EVP_CipherUpdate.fail_next();
    EXPECT_EQ(bv_aes_file_en(kPlain, kCipher, u8(kKey)), 0);
    EXPECT_EQ(read_file(kCipher), "");
    fault_EVP_CipherUpdate.fail_next();
    EXPECT_EQ(bv_aes_file_de("/usr/bin/env", kCipher, u8(kKey)), 0);
    EXPECT_EQ(bv_aes_file_en("/scratch/missing", "/scratch/no/such/folder", u8(kKey)), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(AesFile, AChunkThatDoesNotDecryptIsNotWritten)
{
    write_file(kCipher, reference::aes(true, kKey, std::string(32, 'x')));
    fault_EVP_CipherUpdate.fail_next();
    EXPECT_EQ(bv_aes_file_de(kCipher, kBack, u8(kKey)), 0);
    EXPECT_TRUE(file_exists(kBack));
    EXPECT_EQ(read_file(kBack), "");
}

TEST_F(AesFile, ADescriptorOfZeroIsAsGoodAsAnyOther)
{
    write_file(kPlain, "content");
    WithoutStdin closed;
    const auto before = open_descriptors();
    bv_aes_file_en(kPlain, kCipher, u8(kKey)); // reads from it
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(read_file(kCipher), reference::aes(true, kKey, "content"));
    bv_aes_file_en("/scratch/missing", "/scratch/new", u8(kKey)); // would write to it
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(file_exists("/scratch/new"));
}

TEST_F(AesFile, NullArgumentsAreHarmless)
{
    write_file(kPlain, "content");
    EXPECT_EQ(bv_aes_file_en(nullptr, kCipher, u8(kKey)), 0);
    EXPECT_EQ(bv_aes_file_en(kPlain, nullptr, u8(kKey)), 0);
    EXPECT_EQ(bv_aes_file_en(kPlain, kCipher, nullptr), 0);
    EXPECT_EQ(bv_aes_file_de(nullptr, kCipher, u8(kKey)), 0);
    EXPECT_EQ(bv_aes_file_de(kPlain, nullptr, u8(kKey)), 0);
    EXPECT_EQ(bv_aes_file_de(kPlain, kCipher, nullptr), 0);
    EXPECT_FALSE(file_exists(kCipher));
}

TEST_F(AesFile, NothingIsPrinted)
{
    CaptureStdout capture;
    bv_aes_file_en("/scratch/missing", "/scratch/no/such/folder", u8(kKey));
    EXPECT_EQ(capture.stop(), "");
}
