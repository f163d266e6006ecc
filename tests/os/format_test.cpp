/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/capture_stdout.h"

#include <gtest/gtest.h>

#include <cstring>
#include <cwchar>

namespace {

using Printer = int (*)(char *, uint32_t, const char *, ...);

// Both names make the same call; every promise is checked for both.
const Printer kPrinters[] = {bv_os_sprintf, bv_os_snprintf};

} // namespace

TEST(Printf, PrintsOnStandardOutputOrTheStreamAndCounts)
{
    CaptureStdout output;
    EXPECT_EQ(bv_os_printf("%s-%03d", "abc", 7), 7);
    EXPECT_EQ(bv_os_fprintf(stdout, "%u:%s", 5u, "x"), 3);
    EXPECT_EQ(output.stop(), "abc-0075:x");

    FILE *file = fopen("/dev/null", "r"); // not for writing
    ASSERT_NE(file, nullptr);
    EXPECT_LT(bv_os_fprintf(file, "%s", "x"), 0);
    fclose(file);
}

TEST(Sprintf, TextThatFitsIsCounted)
{
    for (Printer print : kPrinters) {
        char dst[] = "........";
        EXPECT_EQ(print(dst, 8, "%s%d", "ab", 12), 4);
        EXPECT_EQ(memcmp(dst, "ab12\0...", 8), 0);
        EXPECT_EQ(print(dst, 8, "%s", ""), 0);
        EXPECT_STREQ(dst, "");
    }
}

TEST(Sprintf, TextThatDoesNotFitLeavesAnEmptyOne)
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

TEST(Sprintf, CapacityJustInsideTheLimitsIsAccepted)
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
        for (const char *format :
             {"a%nb", "%hhn", "%*n", "%a", "%A", "%m", "%b", "%1$d", "%'d", "%k", "%[a]", "%5%",
              "%", "%5", "%.", "%l", "%214748370d", "%.214748370d"}) {
            char dst[] = "........";
            int target = 1234;
            EXPECT_EQ(print(dst, 8, format, &target), -1) << format;
            EXPECT_EQ(dst[0], '\0') << format;
            EXPECT_EQ(target, 1234) << format;
        }
}

TEST(Sprintf, PrintsWhatItsHeaderLists)
{
    char dst[1024];
    for (Printer print : kPrinters) {
        EXPECT_EQ(print(dst, sizeof dst, "%-3d|%+i|% d|%#x|%05u|%o|%X|%c|%s|%%", 1, 2, 3, 4u, 5u,
                        8u, 10u, 'c', "s"),
                  30);
        EXPECT_STREQ(dst, "1  |+2| 3|0x4|00005|10|A|c|s|%");
        print(dst, sizeof dst, "%hhd %hd %ld %lld %qd %Ld %jd %zd %td", 300, 70000, 3L, 4LL, 5LL,
              6LL, intmax_t{7}, size_t{8}, ptrdiff_t{9});
        EXPECT_STREQ(dst, "44 4464 3 4 5 6 7 8 9");
        print(dst, sizeof dst, "%.1e %.1E %.1f %.1F %g %G %.1Lf", 1.0, 1.0, 2.5, 2.5, 0.5, 0.5,
              1.5L);
        EXPECT_STREQ(dst, "1.0e+00 1.0E+00 2.5 2.5 0.5 0.5 1.5");
        print(dst, sizeof dst, "%*d|%.*s|%ls|%lc", 3, 1, 2, "abc", L"wide", wint_t{L'w'});
        EXPECT_STREQ(dst, "  1|ab|wide|w");
        const char *volatile nothing = nullptr;
        print(dst, sizeof dst, "%s %+.9p", nothing, reinterpret_cast<void *>(0x1f));
        EXPECT_STREQ(dst, "(null) 0x1f");
        EXPECT_EQ(print(dst, sizeof dst, "%.600d", 1), 512);
        EXPECT_EQ(print(dst, sizeof dst, "%ls", L"\x20ac"), -1) << "not in this locale";
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

TEST(Sscanf, TakesASizeAfterEveryBuffer)
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

TEST(Sscanf, FieldTooLongForItsBufferEndsTheScanEmpty)
{
    char word[] = "........";
    int number = 7;
    EXPECT_EQ(bv_os_sscanf("hello 5", "%s %d", word, size_t{5}, &number), 0);
    EXPECT_EQ(word[0], '\0');
    EXPECT_EQ(memcmp(word + 5, "...", 3), 0);
    EXPECT_EQ(number, 7);
}

TEST(Sscanf, EmptyTextEmptiesTheFirstBuffer)
{
    char word[] = "before";
    int number = 7;
    EXPECT_EQ(bv_os_sscanf(nullptr, "%d", &number), -1);
    EXPECT_EQ(bv_os_sscanf("", "%d%s", &number, word, sizeof word), -1);
    EXPECT_EQ(number, 7);
    EXPECT_STREQ(word, "before");
    EXPECT_EQ(bv_os_sscanf("   ", "%s", word, sizeof word), -1);
    EXPECT_STREQ(word, "before");
    EXPECT_EQ(bv_os_sscanf("", "%s", word, sizeof word), -1);
    EXPECT_STREQ(word, "");
}

TEST(Sscanf, BufferSizeOutOfRangeEndsTheScan)
{
    for (size_t size : {size_t{0}, size_t{0x80000000u}}) {
        char word[] = "before";
        int number = 0;
        EXPECT_EQ(bv_os_sscanf("5 word", "%d %s", &number, word, size), 1);
        EXPECT_EQ(number, 5);
        EXPECT_STREQ(word, "before");
    }
}

TEST(Sscanf, RefusalsAreMinusOneHoweverMuchWasStored)
{
    for (const char *format :
         {"%d %a", "%d %A", "%d %m", "%d %1$d", "%d %'d", "%d %+d", "%d %.3d", "%d %k", "%d %"}) {
        int number = 0;
        int untouched = 9;
        EXPECT_EQ(bv_os_sscanf("5 7 ", format, &number, &untouched), -1) << format;
        EXPECT_EQ(number, 5) << format;
        EXPECT_EQ(untouched, 9) << format;
    }
    int number = 0;
    EXPECT_EQ(bv_os_sscanf("5 7 ", "%d %d", &number, static_cast<int *>(nullptr)), -1);
    EXPECT_EQ(bv_os_sscanf("5 ", "%d %d", &number, static_cast<int *>(nullptr)), 1)
        << "no text left";
}

TEST(Sscanf, ReadsLessThanTheCLibrary)
{
    float real = 9;
    EXPECT_EQ(bv_os_sscanf("inf ", "%f", &real), 0);
    EXPECT_EQ(bv_os_sscanf("nan ", "%f", &real), 0);
    EXPECT_EQ(real, 9);
    EXPECT_EQ(bv_os_sscanf("0x10", "%f", &real), 1);
    EXPECT_EQ(real, 0);
    void *pointer = nullptr;
    EXPECT_EQ(bv_os_sscanf("1f", "%p", &pointer), 1);
    EXPECT_EQ(pointer, reinterpret_cast<void *>(0x1f));
    EXPECT_EQ(bv_os_sscanf("0x1f", "%p", &pointer), 1);
    EXPECT_EQ(pointer, nullptr);
    int number = 9;
    EXPECT_EQ(bv_os_sscanf("0x ", "%x", &number), 0);
    EXPECT_EQ(bv_os_sscanf("ab 12", "%*s %d", &number), 1); // no size after a *
    EXPECT_EQ(number, 12);
}
