/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/faults.h"
#include "support/hex.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <regex.h>
#include <string>
#include <vector>

namespace {

int g_compiled;
int g_freed;

// The hex text, cut down to what a caller's buffer of that size gets.
std::string hex(const std::vector<uint8_t> &data, uint32_t outsize = 512)
{
    std::string out(outsize, '?');
    EXPECT_EQ(bv_os_tohexstr(data.data(), static_cast<uint32_t>(data.size()), out.data(), outsize),
              0);
    return out;
}

// The slow way: append two digits at a time through the bounded printer, twice over.
std::string hex_by_printing(const std::vector<uint8_t> &data)
{
    char a[512] = "";
    char b[512] = "";
    for (uint8_t byte : data) {
        bv_os_sprintf(a, sizeof a, "%s%02x", b, byte);
        bv_os_sprintf(b, sizeof b, "%s", a);
    }
    return b;
}

std::vector<uint8_t> numbered(size_t count)
{
    std::vector<uint8_t> data(count);
    for (size_t i = 0; i < count; ++i)
        data[i] = static_cast<uint8_t>(i * 37 + i / 256 + 11); // no two runs of 256 alike
    return data;
}

} // namespace

BV_INTERPOSE(regcomp, "regcomp", int, (regex_t * expression, const char *pattern, int flags))
{
    ++g_compiled;
    EXPECT_EQ(flags, REG_EXTENDED);
    int result = BV_NEXT(regcomp)(expression, pattern, flags);
    g_freed += result != 0 ? 1 : 0; // nothing to free
    return result;
}

BV_INTERPOSE(regfree, "regfree", void, (regex_t * expression))
{
    ++g_freed;
    BV_NEXT(regfree)(expression);
}

TEST(Match, FindsAnExtendedExpressionAnywhere)
{
    EXPECT_EQ(bv_os_match("eth0.100", "^eth[0-9]+"), 0);
    EXPECT_EQ(bv_os_match("eth0.100", "^wlan"), -1);
    EXPECT_EQ(bv_os_match("br-lan", "lan$"), 0);
    EXPECT_EQ(bv_os_match("abc", "b"), 0);
    EXPECT_EQ(bv_os_match("abc", "(x|c){1}"), 0);
    EXPECT_EQ(bv_os_match("ABC", "abc"), -1); // case counts
    EXPECT_EQ(bv_os_match("", "^$"), 0);
}

TEST(Match, PatternThatDoesNotCompileMatchesNothing)
{
    EXPECT_EQ(bv_os_match("abc", "("), -1);
    EXPECT_EQ(bv_os_match("abc", "[a"), -1);
    EXPECT_EQ(bv_os_match("abc", "a{2,1}"), -1);
    EXPECT_EQ(bv_os_match(nullptr, "a"), -1);
    EXPECT_EQ(bv_os_match("a", nullptr), -1);
}

TEST(Match, GivesTheExpressionBackWhetherItMatchesOrNot)
{
    g_compiled = g_freed = 0;
    bv_os_match("abc", "b");
    bv_os_match("abc", "x");
    bv_os_match("abc", "(");
    EXPECT_EQ(g_compiled, 3);
    EXPECT_EQ(g_freed, 3);
}

TEST(MatchSpecialChar, FindsPunctuationAndWhiteSpace)
{
    EXPECT_EQ(bv_os_match_special_char("abc123"), -1);
    EXPECT_EQ(bv_os_match_special_char("abc-1"), 0);
    EXPECT_EQ(bv_os_match_special_char("a b"), 0);
    EXPECT_EQ(bv_os_match_special_char(""), -1);
    EXPECT_EQ(bv_os_match_special_char(nullptr), -1);
    EXPECT_EQ(bv_os_match_special_char("abcdefgh!"), 0);
}

TEST(MatchSpecialChar, ClassifiesEveryByteAsAsciiInAnyLocale)
{
    setlocale(LC_ALL, "C.UTF-8");
    const std::string special = "!\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~ \t\n\v\f\r";
    for (int ch = 1; ch < 256; ++ch) {
        char text[] = {'a', static_cast<char>(ch), '\0'};
        bool expected = special.find(static_cast<char>(ch)) != std::string::npos;
        EXPECT_EQ(bv_os_match_special_char(text), expected ? 0 : -1) << ch;
    }
    setlocale(LC_ALL, "C"); // other tests may run in this process
}

TEST(Trim, CutsBothEndsInPlace)
{
    char text[] = "  ab \t";
    EXPECT_EQ(bv_os_trim(text), text + 2);
    EXPECT_EQ(memcmp(text, "  ab\0\0", 7), 0); // what leads stays as it was
}

TEST(Trim, LeavesInnerWhiteSpaceAlone)
{
    char text[] = "\r\na b\nc\v\f";
    EXPECT_STREQ(bv_os_trim(text), "a b\nc");
}

TEST(Trim, AllBlankTextGivesItsTerminatorAndIsNotChanged)
{
    char text[] = "   ";
    EXPECT_EQ(bv_os_trim(text), text + 3);
    EXPECT_EQ(memcmp(text, "   ", 4), 0);
    char empty[] = "";
    EXPECT_EQ(bv_os_trim(empty), empty);
    EXPECT_EQ(bv_os_trim(nullptr), nullptr);
}

TEST(Trim, BytesAbove127AreNotWhiteSpace)
{
    char text[] = "\xa0 x \x89";
    EXPECT_STREQ(bv_os_trim(text), "\xa0 x \x89");
}

TEST(Tohexstr, RendersLowerCaseWithTheTerminator)
{
    EXPECT_EQ(hex({0xde, 0xad, 0xbe, 0xef}, 9), std::string("deadbeef\0", 9));
}

TEST(Tohexstr, SmallBufferGetsACutTextWithoutTerminator)
{
    char out[5] = "????";
    out[4] = '!';
    EXPECT_EQ(bv_os_tohexstr("\xde\xad\xbe\xef", 4, out, 4), 0);
    EXPECT_EQ(std::string(out, 5), "dead!");
}

TEST(Tohexstr, ZerosFollowTheTextUpTo512Bytes)
{
    std::string out = hex({0x01}, 600);
    EXPECT_EQ(out.substr(0, 512), "01" + std::string(510, '\0'));
    EXPECT_EQ(out.substr(512), std::string(88, '?'));
}

TEST(Tohexstr, LargestCapacityIsFine)
{
    char out[512];
    memset(out, '?', sizeof out);
    EXPECT_EQ(bv_os_tohexstr("\xab", 1, out, 0x7fffffff), 0);
    EXPECT_EQ(std::string(out, sizeof out), "ab" + std::string(510, '\0'));
}

TEST(Tohexstr, RestartsFromEmptyAtEvery256thByte)
{
    for (size_t length : {0, 1, 254, 255, 256, 257, 300, 511, 512, 513, 1000}) {
        SCOPED_TRACE(length);
        std::vector<uint8_t> data = numbered(length);
        size_t shown = length % 256;
        std::string text = to_hex(data.data() + length - shown, shown);
        EXPECT_EQ(hex(data), text + std::string(512 - text.size(), '\0'));
        EXPECT_EQ(hex_by_printing(data), text); // and so says the bounded printer
    }
}

TEST(Tohexstr, NullAndSizesOutOfRangeDoNoHarm)
{
    char out[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(bv_os_tohexstr("x", 1, out, 0), 0);
    EXPECT_EQ(bv_os_tohexstr("x", 1, out, 0x80000000), 0);
    EXPECT_EQ(memcmp(out, "abcd", 4), 0);
    EXPECT_EQ(bv_os_tohexstr("x", 1, nullptr, 4), 0);
    EXPECT_EQ(bv_os_tohexstr(nullptr, 0, out, 4), 0);
    EXPECT_EQ(memcmp(out, "\0\0\0\0", 4), 0);
    EXPECT_EQ(bv_os_tohexstr(nullptr, 300, out, 4), 0);
    EXPECT_EQ(memcmp(out, "\0\0\0\0", 4), 0);
}
