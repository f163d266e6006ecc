// The example that encrypts files, beside libcrypto's own functions.

#include "support/child.h"
#include "support/files.h"
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

TEST_F(Encrypt, WhatIsSealedOpensAgain)
{
    ASSERT_EQ(seal(), 0);
    EXPECT_EQ(read_file("/scratch/sealed").size(),
              31 * 48 + 16u); // 31 whole pieces, one of 8 bytes
    EXPECT_EQ(open().status, 0);
    EXPECT_EQ(read_file("/scratch/opened"), plain_);
}

TEST_F(Encrypt, EverySizeOfTheLastPieceOpensAgain)
{
    for (size_t size : {1, 15, 16, 31, 32, 33}) {
        SCOPED_TRACE(size);
        write_file("/scratch/short", plain_.substr(0, size));
        ASSERT_EQ(seal("/scratch/short"), 0);
        EXPECT_EQ(open().status, 0);
        EXPECT_EQ(read_file("/scratch/opened"), plain_.substr(0, size));
    }
}

TEST_F(Encrypt, AnOlderLongerOutputLeavesNoTail)
{
    write_file("/scratch/sealed", std::string(5000, 'x'));
    write_file("/scratch/opened", std::string(5000, 'x'));
    ASSERT_EQ(seal(), 0);
    EXPECT_EQ(open().status, 0);
    EXPECT_EQ(read_file("/scratch/opened"), plain_);
}

TEST_F(Encrypt, NoTwoSealedFilesAreTheSame)
{
    ASSERT_EQ(seal(), 0);
    std::string first = read_file("/scratch/sealed");
    ASSERT_EQ(seal(), 0);
    EXPECT_NE(read_file("/scratch/sealed").substr(0, 48), first.substr(0, 48));
}

TEST_F(Encrypt, TheSealIsTheHmacOfWhatIsNeededForOpening)
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
    std::string digits;
    for (uint8_t byte : hmac) {
        char pair[3];
        snprintf(pair, sizeof(pair), "%02x", byte);
        digits += pair;
    }
    EXPECT_EQ(line.substr(38, 64), digits);
}

TEST_F(Encrypt, AWrongPasswordIsRefused)
{
    ASSERT_EQ(seal(), 0);
    expect_refused(open("/scratch/wrong"), kRefusal);
    expect_refused(open("/scratch/none"), "no password");
}

TEST_F(Encrypt, AChangedFileIsRefused)
{
    ASSERT_EQ(seal(), 0);
    std::string sealed = read_file("/scratch/sealed");
    for (size_t at : {size_t{0}, sealed.size() / 2, sealed.size() - 1}) {
        SCOPED_TRACE(at);
        std::string changed = sealed;
        changed[at] ^= 1;
        write_file("/scratch/sealed", changed);
        expect_refused(open(), kRefusal);
    }
    write_file("/scratch/sealed", sealed.substr(0, sealed.size() - 16));
    expect_refused(open(), kRefusal);
}

TEST_F(Encrypt, AChangedSealIsRefused)
{
    ASSERT_EQ(seal(), 0);
    std::string line = read_file("/scratch/sealed.seal");
    for (size_t at : {0, 34, 38, 101}) { // salt, size, both ends of the HMAC
        SCOPED_TRACE(at);
        std::string changed = line;
        changed[at] = changed[at] == '2' ? '3' : '2';
        write_file("/scratch/sealed.seal", changed);
        expect_refused(open(), kRefusal);
    }
    write_file("/scratch/sealed.seal", "nonsense\n");
    expect_refused(open(), "the seal is damaged");
    remove("/scratch/sealed.seal");
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

TEST_F(Encrypt, AnythingElseIsWrongUsage)
{
    EXPECT_EQ(run_tool({}).status, 2);
    EXPECT_EQ(run_tool({"close", "a", "b", "c"}).status, 2);
}

} // namespace
