// SPDX-License-Identifier: ISC
// The example that encrypts files, beside libcrypto's own functions.

#include "support/child.h"
#include "support/files.h"
#include "support/hex.h"
#include "support/shared.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace {

class Encrypt : public testing::Test {
protected:
    void SetUp() override
    {
        write_file("/scratch/password", "correct horse\n");
        write_file("/scratch/wrong", "correct mule\n");
        for (int i = 0; i < 1000; i++)
            plain_ += static_cast<char>(i * 7 + i / 256);
        write_file("/scratch/plain", plain_);
    }

    static int seal(const std::string &from = "/scratch/plain")
    {
        return run_tool({"seal", "/scratch/password", from, "/scratch/sealed"}).status;
    }
    static Outcome open(const std::string &password = "/scratch/password")
    {
        return run_tool({"open", password, "/scratch/sealed", "/scratch/opened"});
    }

    // After a change that must be noticed: refused, and nothing decrypted.
    static void expect_refused(const Outcome &outcome, const std::string &why)
    {
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.errors, "encrypt: " + why + "\n");
        EXPECT_FALSE(file_exists("/scratch/opened"));
    }

    static constexpr const char *kRefusal = "wrong password, or the file was changed";
    std::string plain_;
};

TEST_F(Encrypt, SealedFileOpensAgainAndLeavesNoTailOfAnOlderOne)
{
    for (size_t size : {1000, 1, 15, 16, 31, 32, 33}) {
        SCOPED_TRACE(size);
        const std::string plain = plain_.substr(0, size);
        write_file("/scratch/plain", plain);
        write_file("/scratch/sealed", std::string(5000, 'x'));
        write_file("/scratch/opened", std::string(5000, 'x'));
        ASSERT_EQ(seal(), 0);
        EXPECT_EQ(open().status, 0);
        EXPECT_EQ(read_file("/scratch/opened"), plain);
        const size_t rest = size % 32; // pieces of 32 bytes become 48, the last one is padded
        EXPECT_EQ(read_file("/scratch/sealed").size(),
                  size / 32 * 48 + (rest == 0 ? 0 : rest / 16 * 16 + 16));
    }
}

TEST_F(Encrypt, NoTwoSealedFilesAreTheSame)
{
    ASSERT_EQ(seal(), 0);
    std::string first = read_file("/scratch/sealed");
    ASSERT_EQ(seal(), 0);
    EXPECT_NE(read_file("/scratch/sealed").substr(0, 48), first.substr(0, 48));
}

TEST_F(Encrypt, SealIsTheHmacOfEverythingNeededForOpening)
{
    ASSERT_EQ(seal(), 0);
    std::string line = read_file("/scratch/sealed.seal");
    ASSERT_EQ(line.size(), 32 + 1 + 4 + 1 + 64 + 1u) << line;
    EXPECT_EQ(line.substr(32, 6), " 1000 ");

    uint8_t keys[48];
    ASSERT_EQ(PKCS5_PBKDF2_HMAC("correct horse", 13, reinterpret_cast<const uint8_t *>(line.data()),
                                32, 10000, EVP_sha256(), sizeof(keys), keys),
              1);
    std::string message = line.substr(0, 38) + read_file("/scratch/sealed");
    uint8_t hmac[32];
    HMAC(EVP_sha256(), keys + 16, 32, reinterpret_cast<const uint8_t *>(message.data()),
         message.size(), hmac, nullptr);
    EXPECT_EQ(line.substr(38, 64), to_hex(hmac, sizeof hmac));
}

TEST_F(Encrypt, WrongPasswordIsRefused)
{
    ASSERT_EQ(seal(), 0);
    expect_refused(open("/scratch/wrong"), kRefusal);
    expect_refused(open("/scratch/none"), "no password");
}

TEST_F(Encrypt, ChangedFileOrSealIsRefused)
{
    const std::string sealed = "/scratch/sealed", seal_file = "/scratch/sealed.seal";
    ASSERT_EQ(seal(), 0);
    const size_t size = read_file(sealed).size();
    // Both ends and the middle of the file; salt, size and both ends of the HMAC in the seal.
    const std::pair<std::string, size_t> places[] = {
        {sealed, 0},     {sealed, size / 2}, {sealed, size - 1}, {seal_file, 0},
        {seal_file, 34}, {seal_file, 38},    {seal_file, 101}};
    for (const auto &[path, at] : places) {
        SCOPED_TRACE(path + " " + std::to_string(at));
        const std::string whole = read_file(path);
        std::string changed = whole;
        changed[at] = changed[at] == '2' ? '3' : '2';
        write_file(path, changed);
        expect_refused(open(), kRefusal);
        write_file(path, whole);
    }
    write_file(sealed, read_file(sealed).substr(0, size - 16));
    expect_refused(open(), kRefusal);
    write_file(seal_file, "nonsense\n");
    expect_refused(open(), "the seal is damaged");
    remove(seal_file.c_str());
    expect_refused(open(), "there is no seal");
}

TEST_F(Encrypt, MissingFilesAndFullDisksAreReported)
{
    EXPECT_EQ(seal("/scratch/none"), 1);
    EXPECT_FALSE(file_exists("/scratch/sealed"));
    Outcome outcome = run_tool({"seal", "/scratch/password", "/scratch/plain", "/none/sealed"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "encrypt: the encrypted file could not be written whole\n");

    write_file("/scratch/large", std::string(6 << 20, 'x')); // /config/work has 4 MiB
    end_shared_files_after(4 << 20);
    outcome = run_tool({"seal", "/scratch/password", "/scratch/large", "/config/work/sealed"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "encrypt: the encrypted file could not be written whole\n");
    EXPECT_FALSE(file_exists("/config/work/sealed.seal"));
}

TEST_F(Encrypt, OtherArgumentsAreWrongUsage)
{
    EXPECT_EQ(run_tool({}).status, 2);
    EXPECT_EQ(run_tool({"close", "a", "b", "c"}).status, 2);
}

} // namespace
