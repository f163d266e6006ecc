#include <bv/os.h>

#include "support/capture.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Printer = int (*)(char *, uint32_t, const char *, ...);

// Both names make the same call; every promise is checked for both.
const Printer kPrinters[] = {bv_os_sprintf, bv_os_snprintf};

} // namespace

TEST(Printf, PrintsOnStandardOutputAndCounts)
{
    CaptureStdout output;
    int printed = bv_os_printf("%s-%03d", "abc", 7);
    EXPECT_EQ(output.stop(), "abc-007");
    EXPECT_EQ(printed, 7);
}

TEST(Fprintf, PrintsOnTheStreamAndCounts)
{
    FILE *file = fopen("/scratch/out", "w");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(bv_os_fprintf(file, "%u:%s", 5u, "x"), 3);
    fclose(file);
    EXPECT_EQ(read_file("/scratch/out"), "5:x");
}

TEST(Fprintf, FailsOnAStreamThatIsNotForWriting)
{
    FILE *file = fopen("/dev/null", "r");
    ASSERT_NE(file, nullptr);
    EXPECT_LT(bv_os_fprintf(file, "%s", "x"), 0);
    fclose(file);
}

TEST(Sprintf, ATextThatFitsIsCounted)
{
    for (Printer print : kPrinters) {
        char dst[] = "........";
        EXPECT_EQ(print(dst, 8, "%s%d", "ab", 12), 4);
        EXPECT_EQ(memcmp(dst, "ab12\0...", 8), 0);
        EXPECT_EQ(print(dst, 8, "%s", ""), 0);
        EXPECT_STREQ(dst, "");
    }
}

TEST(Sprintf, ATextThatDoesNotFitLeavesAnEmptyOneAndNothingPastTheCapacity)
{
    for (Printer print : kPrinters) {
        char dst[] = "........";
        EXPECT_EQ(print(dst, 4, "%s", "abcd"), -1);
        EXPECT_EQ(dst[0], '\0');
        EXPECT_EQ(memcmp(dst + 4, "....", 4), 0);
        EXPECT_EQ(print(dst, 4, "%s", "abc"), 3);
        EXPECT_STREQ(dst, "abc");
    }
}

TEST(Sprintf, ACapacityJustInsideTheLimitsIsAccepted)
{
    for (Printer print : kPrinters) {
        char dst[] = "..";
        EXPECT_EQ(print(dst, 1, "%s", ""), 0);
        EXPECT_STREQ(dst, "");
        EXPECT_EQ(print(dst, 0x7fffffff, "%d", 42), 2);
        EXPECT_STREQ(dst, "42");
    }
}

TEST(Sprintf, RefusesDirectivesThatCouldWriteOrSurprise)
{
    for (Printer print : kPrinters)
        for (const char *format : {"a%nb", "%a", "%m", "%1$d"}) {
            char dst[] = "........";
            int target = 1234;
            EXPECT_EQ(print(dst, 8, format, &target), -1) << format;
            EXPECT_EQ(dst[0], '\0') << format;
            EXPECT_EQ(target, 1234) << format;
        }
}

TEST(Sprintf, NullArgumentsAndNoCapacityAreMinusOne)
{
    const char *volatile no_format = nullptr;
    for (Printer print : kPrinters) {
        char dst[] = "abc";
        EXPECT_EQ(print(nullptr, 4, "%s", "x"), -1);
        EXPECT_EQ(print(dst, 0, "%s", "x"), -1);
        EXPECT_EQ(print(dst, 0x80000000, "%s", "x"), -1);
        EXPECT_STREQ(dst, "abc");
        EXPECT_EQ(print(dst, 4, no_format, "x"), -1);
        EXPECT_STREQ(dst, "");
    }
}

TEST(Sscanf, TakesASizeBehindEveryBuffer)
{
    char word[8];
    char letter;
    char set[8];
    int number = 0;
    EXPECT_EQ(bv_os_sscanf("eth0 42 xabc", "%s %d %c%[a-c]", word, sizeof word, &number, &letter,
                           sizeof letter, set, sizeof set),
              4);
    EXPECT_STREQ(word, "eth0");
    EXPECT_EQ(number, 42);
    EXPECT_EQ(letter, 'x');
    EXPECT_STREQ(set, "abc");
}

TEST(Sscanf, AFieldTooLongForItsBufferEndsTheScanEmpty)
{
    char word[] = "........";
    int number = 7;
    EXPECT_EQ(bv_os_sscanf("hello 5", "%s %d", word, size_t{5}, &number), 0);
    EXPECT_EQ(word[0], '\0');
    EXPECT_EQ(memcmp(word + 5, "...", 3), 0);
    EXPECT_EQ(number, 7);
}

TEST(Sscanf, AnEmptyTextIsMinusOne)
{
    int number = 7;
    EXPECT_EQ(bv_os_sscanf("", "%d", &number), -1);
    EXPECT_EQ(bv_os_sscanf(nullptr, "%d", &number), -1);
    EXPECT_EQ(number, 7);
}
