// The example that copies a file to flash.

#include "dev/devices.h"
#include "support/capture_stdout.h"
#include "support/files.h"

#include <gtest/gtest.h>

extern "C" int flash_copy_main(int argc, char **argv); // the example's main()

namespace {

constexpr uint32_t kBlock = devices::kEraseSize;

class FlashCopy : public testing::Test {
protected:
    void SetUp() override { devices::flash_attach(); }

    // A file with bytes that are neither erased nor all the same.
    static std::string make_file(size_t size)
    {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; i++)
            bytes[i] = static_cast<char>((i * 131 + i / 251) % 255);
        write_file("/scratch/image", bytes);
        return bytes;
    }

    static std::string on_flash(const std::string &name, size_t size)
    {
        std::vector<uint8_t> bytes = devices::flash_contents(name);
        return std::string(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size));
    }

    int copy(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "flash_copy");
        std::vector<char *> words;
        for (std::string &argument : arguments)
            words.push_back(argument.data());
        CaptureStdout out;
        testing::internal::CaptureStderr();
        int status = flash_copy_main(static_cast<int>(words.size()), words.data());
        errors_ = testing::internal::GetCapturedStderr();
        output_ = out.stop();
        return status;
    }

    std::string output_;
    std::string errors_;
};

std::string bar(int full, const char *percent)
{
    return "\r[" + std::string(static_cast<size_t>(full), '#') +
           std::string(static_cast<size_t>(40 - full), '.') + "] " + percent + " %";
}

TEST_F(FlashCopy, WritesTheFileAndDrawsABarForEachBlock)
{
    std::string file = make_file(2 * kBlock + 1000);
    devices::flash_fill("config", 0x00); // nothing can be written without erasing first
    ASSERT_EQ(copy({"/scratch/image", "config"}), 0) << errors_;
    EXPECT_EQ(on_flash("config", file.size()), file);
    EXPECT_EQ(output_, bar(0, "  0") + bar(19, " 49") + bar(39, " 99") + bar(40, "100") +
                           "\nflash_copy: 132072 bytes are on config\n");
    EXPECT_EQ(errors_, "");
}

TEST_F(FlashCopy, LeavesTheBlocksAfterTheLastOneItNeeds)
{
    make_file(kBlock + 1);
    devices::flash_fill("config", 0x5a);
    ASSERT_EQ(copy({"/scratch/image", "config"}), 0) << errors_;
    std::vector<uint8_t> flash = devices::flash_contents("config");
    EXPECT_EQ(flash[kBlock + 1], 0xff); // erased with its block
    EXPECT_EQ(flash[2 * kBlock - 1], 0xff);
    EXPECT_EQ(flash[2 * kBlock], 0x5a);
}

TEST_F(FlashCopy, FillsAPartitionToItsEnd)
{
    std::string file = make_file(kBlock); // all of it
    ASSERT_EQ(copy({"/scratch/image", "crash"}), 0) << errors_;
    EXPECT_EQ(on_flash("crash", file.size()), file);
}

TEST_F(FlashCopy, LooksBeforeItErases)
{
    make_file(0x80000 + 1);
    devices::flash_fill("config", 0x5a);
    EXPECT_EQ(copy({"/scratch/image", "config"}), 1);
    EXPECT_NE(errors_.find("larger than the partition"), std::string::npos) << errors_;
    EXPECT_EQ(copy({"/scratch/image", "nosuch"}), 1);
    EXPECT_NE(errors_.find("no flash partition of that name"), std::string::npos) << errors_;
    EXPECT_EQ(copy({"/scratch/image", "factory"}), 1); // refuses to be opened for writing
    write_file("/scratch/image", "");
    EXPECT_EQ(copy({"/scratch/image", "config"}), 1);
    EXPECT_NE(errors_.find("nothing in it"), std::string::npos) << errors_;
    EXPECT_EQ(copy({"/scratch/none", "config"}), 1);
    EXPECT_EQ(devices::flash_contents("config"), std::vector<uint8_t>(0x80000, 0x5a));
    EXPECT_EQ(output_, "");
}

TEST_F(FlashCopy, FindsABlockThatDidNotEraseThoughNoCallReportsIt)
{
    NEEDS_MADE_UP_DEVICES();
    make_file(2 * kBlock);
    devices::flash_fill("config", 0x00);
    devices::fail_erases(1);
    EXPECT_EQ(copy({"/scratch/image", "config"}), 1);
    EXPECT_NE(errors_.find("does not hold what was written"), std::string::npos) << errors_;
    EXPECT_EQ(output_, bar(0, "  0"));
}

TEST_F(FlashCopy, SaysWhatFailedOnTheWay)
{
    NEEDS_MADE_UP_DEVICES();
    make_file(2 * kBlock);
    // The look before the erase reads a block, then come the write and the reading back.
    devices::stop_transfers_after(kBlock + 100);
    EXPECT_EQ(copy({"/scratch/image", "config"}), 1);
    EXPECT_NE(errors_.find("flash_copy: writing: short write"), std::string::npos) << errors_;
    EXPECT_EQ(output_, bar(0, "  0"));

    devices::flash_attach();
    devices::stop_transfers_after(2 * kBlock + 100);
    EXPECT_EQ(copy({"/scratch/image", "config"}), 1);
    EXPECT_NE(errors_.find("flash_copy: reading back: short read"), std::string::npos) << errors_;
}

TEST_F(FlashCopy, OtherArgumentsAreWrongUsage)
{
    EXPECT_EQ(copy({}), 2);
    EXPECT_EQ(copy({"/scratch/image"}), 2);
}

} // namespace
