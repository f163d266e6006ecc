/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include <gtest/gtest.h>

#include <cstring>

TEST(Strcpy, CopiesWithTheTerminator)
{
    char dst[] = "........";
    EXPECT_EQ(bv_os_strcpy(dst, 8, "abc"), 0);
    EXPECT_EQ(memcmp(dst, "abc\0....", 8), 0);
}

TEST(Strcpy, TextThatDoesNotFitEmptiesTheDestination)
{
    char dst[] = "........";
    EXPECT_NE(bv_os_strcpy(dst, 4, "abcd"), 0);
    EXPECT_EQ(memcmp(dst, "\0.......", 8), 0); // only the first byte
    EXPECT_EQ(bv_os_strcpy(dst, 5, "abcd"), 0);
    EXPECT_STREQ(dst, "abcd");
}

TEST(Strcpy, NullArgumentsAndNoCapacityAreReported)
{
    char dst[] = "abc";
    EXPECT_NE(bv_os_strcpy(nullptr, 4, "x"), 0);
    EXPECT_NE(bv_os_strcpy(dst, 0, "x"), 0);
    EXPECT_NE(bv_os_strncpy(dst, 0x80000000, "x", 1), 0);
    EXPECT_NE(bv_os_strcat(dst, 0, "x"), 0);
    EXPECT_STREQ(dst, "abc");
    EXPECT_NE(bv_os_strcpy(dst, 4, nullptr), 0);
    EXPECT_STREQ(dst, "");
}

TEST(Strcpy, CapacityJustInsideTheLimitsIsAccepted)
{
    char dst[8];
    EXPECT_EQ(bv_os_strcpy(dst, 1, ""), 0);
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(bv_os_strcpy(dst, 0x7fffffff, "ab"), 0);
    EXPECT_EQ(bv_os_strcat(dst, 0x7fffffff, "cd"), 0);
    EXPECT_STREQ(dst, "abcd");
    EXPECT_EQ(bv_os_strncpy(dst, 0x7fffffff, "xyz", 2), 0);
    EXPECT_STREQ(dst, "xy");
}

TEST(Strncpy, TakesAtMostCountCharactersAndTerminates)
{
    char dst[] = "........";
    EXPECT_EQ(bv_os_strncpy(dst, 8, "abcdef", 3), 0);
    EXPECT_EQ(memcmp(dst, "abc\0....", 8), 0);
    EXPECT_EQ(bv_os_strncpy(dst, 8, "xy", 7), 0);
    EXPECT_EQ(memcmp(dst, "xy\0\0....", 8), 0); // nothing is padded
    EXPECT_NE(bv_os_strncpy(dst, 4, "abcdef", 4), 0);
    EXPECT_STREQ(dst, "");
}

TEST(Strncpy, CountAbove31BitsFailsWithAnyText)
{
    char dst[] = "before";
    EXPECT_EQ(bv_os_strncpy(dst, sizeof dst, "xy", 0x7fffffff), 0);
    EXPECT_STREQ(dst, "xy");
    EXPECT_NE(bv_os_strncpy(dst, sizeof dst, "xy", 0x80000000), 0);
    EXPECT_STREQ(dst, "");
}

TEST(Strings, BoundedOnesFailOnOverlap)
{
    char text[] = "abcdefgh";
    EXPECT_EQ(bv_os_strcpy(text, 9, text), 0);
    EXPECT_EQ(bv_os_strncpy(text, 9, text, 8), 0);
    EXPECT_STREQ(text, "abcdefgh");
    EXPECT_NE(bv_os_strcpy(text, 9, text + 2), 0);
    EXPECT_STREQ(text, "");
    char longer[20] = "abcd";
    EXPECT_NE(bv_os_strncpy(longer + 1, 19, longer, 4), 0);
    EXPECT_STREQ(longer, "a");
    EXPECT_NE(bv_os_strcat(longer, 20, longer), 0);
    EXPECT_STREQ(longer, "");
}

TEST(Strcat, AppendsOrEmpties)
{
    char dst[8] = "abc";
    EXPECT_EQ(bv_os_strcat(dst, 8, "defg"), 0);
    EXPECT_STREQ(dst, "abcdefg");
    EXPECT_NE(bv_os_strcat(dst, 8, "h"), 0);
    EXPECT_STREQ(dst, "");
}

TEST(Strings, PlainOnesAreTheCFunctions)
{
    EXPECT_EQ(bv_os_strlen(""), 0u);
    EXPECT_EQ(bv_os_strlen("abcde"), 5u);
    EXPECT_EQ(bv_os_strcmp("abc", "abc"), 0);
    EXPECT_LT(bv_os_strcmp("abc", "abd"), 0);
    EXPECT_GT(bv_os_strcmp("b", "abc"), 0);
    EXPECT_EQ(bv_os_strncmp("abcX", "abcY", 3), 0);
    EXPECT_LT(bv_os_strncmp("abcX", "abcY", 4), 0);
    EXPECT_EQ(bv_os_atoi(" -42x"), -42);
    EXPECT_EQ(bv_os_atoi("x"), 0);
    EXPECT_EQ(bv_os_toupper('a'), 'A');
    EXPECT_EQ(bv_os_toupper('1'), '1');
    EXPECT_EQ(bv_os_tolower('Z'), 'z');
    EXPECT_EQ(bv_os_tolower(EOF), EOF);
}

TEST(Strings, SearchesPointIntoTheText)
{
    const char text[] = "a/b/c";
    EXPECT_EQ(bv_os_strrchr(text, '/'), text + 3);
    EXPECT_EQ(bv_os_strrchr(text, 'x'), nullptr);
    EXPECT_EQ(bv_os_strstr(text, "b/"), text + 2);
    EXPECT_EQ(bv_os_strstr(text, "c/"), nullptr);
}

TEST(Strings, StrtolTellsWhereItStopped)
{
    const char text[] = "0x1fz";
    char *end = nullptr;
    EXPECT_EQ(bv_os_strtol(text, &end, 16), 0x1f);
    EXPECT_EQ(end, text + 4);
    EXPECT_EQ(bv_os_strtol("077", nullptr, 0), 63);
    EXPECT_EQ(bv_os_strtol("-9", nullptr, 10), -9);
}

TEST(Strings, StrtokWalksOnFromItsHiddenPosition)
{
    char text[] = "a,,b;c";
    EXPECT_STREQ(bv_os_strtok(text, ",;"), "a");
    EXPECT_STREQ(bv_os_strtok(nullptr, ",;"), "b");
    EXPECT_STREQ(bv_os_strtok(nullptr, ",;"), "c");
    EXPECT_EQ(bv_os_strtok(nullptr, ",;"), nullptr);
}

TEST(Strings, StrsepKeepsEmptyFields)
{
    char text[] = "a,,b";
    char *rest = text;
    EXPECT_STREQ(bv_os_strsep(&rest, ","), "a");
    EXPECT_STREQ(bv_os_strsep(&rest, ","), "");
    EXPECT_STREQ(bv_os_strsep(&rest, ","), "b");
    EXPECT_EQ(rest, nullptr);
    EXPECT_EQ(bv_os_strsep(&rest, ","), nullptr);
}

TEST(Isspace, IsOneForSpaceAndNineToThirteenOnly)
{
    for (uint32_t ch = 0; ch <= 0x200; ++ch)
        EXPECT_EQ(bv_os_isspace(ch), ch == 32 || (ch >= 9 && ch <= 13) ? 1 : 0) << ch;
    EXPECT_EQ(bv_os_isspace(0x120), 0);
    EXPECT_EQ(bv_os_isspace(0x80000020), 0);
    EXPECT_EQ(bv_os_isspace(0xffffffff), 0);
}
