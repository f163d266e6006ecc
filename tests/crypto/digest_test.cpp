// SPDX-License-Identifier: ISC
// Digests of texts and of files.

#include <bv/os.h>

#include "crypto/reference.h"
#include "support/capture_stdout.h"
#include "support/child.h"
#include "support/files.h"
#include "support/libc.h"
#include "support/process.h"
#include "support/sanitized.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

static int g_contexts_freed;
BV_INTERPOSE(free_digest, "EVP_MD_CTX_free", void, (EVP_MD_CTX * ctx))
{
    g_contexts_freed += ctx != nullptr;
    BV_NEXT(free_digest)(ctx);
}

// What happens to a file while it is read; counted from 1.
static void (*g_before_read)(int call);
BV_INTERPOSE(read, "read", ssize_t, (int fd, void *buf, size_t n))
{
    const bool fails = fault_read.fails();
    if (g_before_read != nullptr)
        g_before_read(fault_read.calls());
    return fails ? -1 : BV_NEXT(read)(fd, buf, n);
}

namespace {

std::string sha256(const std::string &text)
{
    char out[128];
    memset(out, '#', sizeof(out));
    bv_os_sha256(out, text.c_str());
    EXPECT_EQ(out[64], 0);
    EXPECT_EQ(out[65], '#') << "only 65 bytes may be written";
    return out;
}

const auto *kA = reinterpret_cast<const uint8_t *>("a");

// A buffer of 65 bytes: 64 digits and what must stay.
class Sm3Text {
public:
    Sm3Text() { memset(text_, '#', sizeof(text_)); }
    operator char *() { return text_; }
    std::string digits() const { return std::string(text_, 64); }
    bool terminated() const { return text_[64] != '#'; }
    bool untouched() const { return std::string(text_, sizeof(text_)) == std::string(65, '#'); }

private:
    char text_[65];
};

std::string sm3(const std::string &message)
{
    return to_hex(reference::digest(EVP_sm3(), message));
}

class Sm3File : public testing::Test {
protected:
    void SetUp() override
    {
        fault_read.pass();
        g_before_read = nullptr;
    }
};

std::string sm3_of_file(const std::string &path)
{
    Sm3Text out;
    EXPECT_EQ(bv_os_sm3_file(path.c_str(), out), BV_OK);
    EXPECT_FALSE(out.terminated());
    return out.digits();
}

} // namespace

TEST(Sha256Text, HasTheStandardDigest)
{
    EXPECT_EQ(sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256Text, EveryLengthAroundBlockEdgesAgreesWithLibcrypto)
{
    for (size_t length = 0; length <= 260; length++) {
        std::string text;
        for (size_t i = 0; i < length; i++)
            text += static_cast<char>(1 + (i * 7 + length) % 255);
        EXPECT_EQ(sha256(text), to_hex(reference::digest(EVP_sha256(), text))) << length;
    }
    const std::string million(1000000, 'a');
    EXPECT_EQ(sha256(million), to_hex(reference::digest(EVP_sha256(), million)));
}

TEST(Sha256Text, NullArgumentsAreHarmless)
{
    char out[65] = "#";
    bv_os_sha256(out, nullptr);
    bv_os_sha256(nullptr, "abc");
    EXPECT_STREQ(out, "#");
}

TEST(Sm3Text, PublishedVectorsAgreeWithUsAndWithLibcrypto)
{
    const auto rows = read_rows("sm3.txt");
    ASSERT_EQ(rows.size(), 4u);
    for (const Row &row : rows) {
        SCOPED_TRACE(row[0]);
        const std::string message = bytes_of(row[1]), expected = to_hex(bytes_of(row[2]));
        EXPECT_EQ(sm3(message), expected);
        Sm3Text out;
        EXPECT_EQ(bv_os_sm3_str(u8(message), static_cast<uint32_t>(message.size()), out), BV_OK);
        EXPECT_EQ(out.digits(), expected);
        EXPECT_FALSE(out.terminated());
    }
}

TEST(Sm3Text, RandomBuffersAgreeWithLibcrypto)
{
    RandomBytes random(41);
    for (size_t length = 1; length <= 200; length++) {
        const std::string message = random.bytes(length);
        Sm3Text out;
        EXPECT_EQ(bv_os_sm3_str(u8(message), static_cast<uint32_t>(length), out), BV_OK);
        EXPECT_EQ(out.digits(), sm3(message)) << length;
    }
}

TEST(Sm3Text, NothingToHashIsRefusedAndLeavesTheBuffer)
{
    Sm3Text out;
    EXPECT_EQ(bv_os_sm3_str(kA, 0, out), uint32_t{BV_ERR_INVALID});
    EXPECT_EQ(bv_os_sm3_str(nullptr, 1, out), uint32_t{BV_ERR_INVALID});
    EXPECT_EQ(bv_os_sm3_str(nullptr, 0, out), uint32_t{BV_ERR_INVALID});
    EXPECT_EQ(bv_os_sm3_str(kA, 1, nullptr), uint32_t{BV_ERR_INVALID});
    EXPECT_TRUE(out.untouched());
}

TEST(Sm3Text, WithoutAContextThereIsNoDigestAndEveryContextIsFreed)
{
    Sm3Text out;
    write_file("/scratch/file", "content");
    g_contexts_freed = 0;
    for (FaultPoint *fault : {&fault_digest_context, &fault_digest_init}) {
        fault->fail_next();
        EXPECT_EQ(bv_os_sm3_str(kA, 1, out), uint32_t{BV_ERR_MEMORY}) << fault->name();
        fault->fail_next();
        EXPECT_EQ(bv_os_sm3_file("/scratch/file", out), uint32_t{BV_ERR_MEMORY});
    }
    EXPECT_TRUE(out.untouched());
    EXPECT_EQ(g_contexts_freed, 2) << "those that were not set up";
    bv_os_sm3_str(kA, 1, out);
    bv_os_sm3_file("/scratch/file", out);
    EXPECT_EQ(g_contexts_freed, 4);
}

TEST_F(Sm3File, SizesAroundThePieceAgreeWithTheTextDigest)
{
    RandomBytes random(42);
    for (size_t size : {0u, 1u, 65535u, 65536u, 65537u, 200000u}) {
        const std::string content = random.bytes(size);
        write_file("/scratch/file", content);
        EXPECT_EQ(sm3_of_file("/scratch/file"), sm3(content)) << size;
        if (size > 0) {
            Sm3Text out;
            bv_os_sm3_str(u8(content), static_cast<uint32_t>(size), out);
            EXPECT_EQ(out.digits(), sm3_of_file("/scratch/file")) << size;
        }
    }
}

TEST_F(Sm3File, MissingFileIsReportedAndNothingIsPrinted)
{
    write_file("/scratch/file", "content");
    Sm3Text out;
    CaptureStdout capture;
    EXPECT_EQ(bv_os_sm3_file("/scratch/missing", out), uint32_t{BV_ERR_NO_FILE});
    EXPECT_EQ(bv_os_sm3_file(nullptr, out), uint32_t{BV_ERR_NO_FILE});
    EXPECT_EQ(bv_os_sm3_file("/scratch/file", nullptr), uint32_t{BV_ERR_NO_FILE});
    EXPECT_TRUE(out.untouched());
    EXPECT_EQ(sm3_of_file("/scratch"), sm3("")) << "a directory has the digest of nothing";
    EXPECT_EQ(capture.stop(), "");
}

// Root may read everything: from here on this process is bound by the modes of files.
static bool give_up_capabilities()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[2] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

TEST_F(Sm3File, FileThatMayNotBeReadIsReported)
{
    write_file("/scratch/file", "content");
    ASSERT_EQ(chmod("/scratch/file", 0), 0);
    EXPECT_EQ(run_in_child([] {
                  if (!give_up_capabilities())
                      return 77;
                  Sm3Text out;
                  const uint32_t status = bv_os_sm3_file("/scratch/file", out);
                  return status == BV_ERR_OPEN && out.untouched() ? 0 : 1;
              }),
              0);
    unlink("/scratch/file"); // later tests could not replace it where root lacks capabilities
}

TEST_F(Sm3File, FileEndsEarlyWhereReadingFailsOrTheFileDoes)
{
    const std::string content = RandomBytes(43).bytes(3 * 65536);
    write_file("/scratch/file", content);
    fault_read.fail_next(2);
    EXPECT_EQ(sm3_of_file("/scratch/file"), sm3(content.substr(0, 65536)));
    fault_read.pass();
    g_before_read = [](int call) {
        if (call == 2 && truncate("/scratch/file", 70000) != 0)
            abort();
    };
    EXPECT_EQ(sm3_of_file("/scratch/file"), sm3(content.substr(0, 70000)));
}

TEST_F(Sm3File, FileWithoutASizeIsReadToItsEnd)
{
    const std::string content = RandomBytes(45).bytes(100000);
    ASSERT_EQ(mkfifo("/scratch/pipe", 0600), 0);
    Child writer([&] {
        write_file("/scratch/pipe", content);
        return 0;
    });
    EXPECT_EQ(sm3_of_file("/scratch/pipe"), sm3(content));
}

TEST_F(Sm3File, NothingStaysOpenOrAllocatedWithOrWithoutMemoryForThePiece)
{
    write_file("/scratch/file", "content");
    const auto before = open_descriptors();
    Sm3Text out;
    {
        FailAllocationsOfSize fail(65536);
        EXPECT_EQ(bv_os_sm3_file("/scratch/file", out), uint32_t{BV_ERR_MEMORY});
        EXPECT_EQ(fail.happened(), 1u);
    }
    EXPECT_TRUE(out.untouched());
    watch_our_blocks();
    EXPECT_EQ(bv_os_sm3_file("/scratch/file", out), BV_OK);
    EXPECT_EQ(kSanitized ? 0 : our_blocks(), 0);
    EXPECT_EQ(open_descriptors(), before);
}
