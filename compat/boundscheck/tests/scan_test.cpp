/* SPDX-License-Identifier: ISC */
#include "support/guarded.h"

#include <gtest/gtest.h>
#include <securec.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdint>

namespace {

constexpr int kOld = 0x5a5a5a5a;

// Scans one int; kOld stays where nothing was stored.
int scan_int(const char *input, const char *format, int *value)
{
    GuardedString guarded{std::string(input)}, guarded_format{std::string(format)};
    *value = kOld;
    return sscanf_s(guarded.c_str(), guarded_format.c_str(), value);
}

void expect_int(const char *input, const char *format, int result, int value)
{
    int read;
    EXPECT_EQ(scan_int(input, format, &read), result) << '"' << input << "\" " << format;
    EXPECT_EQ(read, value) << '"' << input << "\" " << format;
}

// Scans one text into a buffer of exactly size bytes before an unmapped page.
std::string scan_text(const char *input, const char *format, size_t size, int expected)
{
    GuardedString guarded{std::string(input)};
    Guarded buffer(size, '#');
    EXPECT_EQ(sscanf_s(guarded.c_str(), format, buffer.data(), size), expected)
        << '"' << input << "\" " << format << " into " << size;
    return buffer.bytes();
}

template <typename T>
T scan_value(const char *input, const char *format)
{
    T value{};
    EXPECT_EQ(sscanf_s(input, format, &value), 1) << '"' << input << "\" " << format;
    return value;
}

std::string operator""_b(const char *text, size_t size)
{
    return std::string(text, size);
}

} // namespace

TEST(BoundscheckScan, PrefixWithoutDigitsIsNotANumber)
{
    for (const char *format : {"%x", "%X", "%i"}) {
        expect_int("0x", format, -1, kOld);
        expect_int("0xg", format, 0, kOld);
        expect_int("-0X ", format, 0, kOld);
        expect_int("0x1F", format, 1, 31);
        expect_int("-0x10", format, 1, -16);
        expect_int("0 x", format, 1, 0);
    }
    expect_int("0x1f", "%1x", 1, 0);
    expect_int("0x1f", "%2i", 0, kOld);
    expect_int("+0x1f", "%4i", 1, 1);
    expect_int("0x1f", "%u", 1, 0);
    expect_int("0x1f", "%o", 1, 0);
}

TEST(BoundscheckScan, BaseFollowsTheConversionOrForIThePrefix)
{
    expect_int("19", "%i", 1, 19);
    expect_int("019", "%i", 1, 1);
    expect_int("19", "%o", 1, 1);
    expect_int("1fG", "%x", 1, 0x1f);
    expect_int("019", "%d", 1, 19);
    expect_int("12", "%D", 1, 12);
    expect_int("12", "%O", 1, 10);
    expect_int("12", "%U", 1, 12);
    expect_int("0", "%1i", 1, 0);
}

TEST(BoundscheckScan, SignCountsInTheWidthAndNeedsADigit)
{
    expect_int("-123", "%3d", 1, -12);
    expect_int("-5", "%1d", 0, kOld);
    expect_int("-", "%1d", -1, kOld);
    expect_int("+", "%d", -1, kOld);
    expect_int("+-5", "%d", 0, kOld);
    expect_int("- 5", "%d", 0, kOld);
    expect_int("   +5", "%2d", 1, 5);
}

TEST(BoundscheckScan, ValuesOutOfRangeAreClampedTo64BitsAndThenCut)
{
    expect_int("2147483648", "%d", 1, INT_MIN);
    expect_int("4294967296", "%d", 1, 0);
    expect_int("9223372036854775808", "%d", 1, -1);
    expect_int("-9223372036854775809", "%d", 1, 0);
    expect_int("4294967297", "%u", 1, 1);
    expect_int("18446744073709551616", "%u", 1, -1);
    expect_int("-18446744073709551616", "%u", 1, -1);
    expect_int("-4294967296", "%u", 1, 0);
    expect_int("-4294967297", "%u", 1, -1);
    expect_int("-100000001", "%x", 1, -1);
    expect_int("-100000000", "%x", 1, 0);
}

TEST(BoundscheckScan, EachLengthStoresItsOwnSizeAndSaturatesAtItsOwnEnds)
{
    EXPECT_EQ(scan_value<long long>("9223372036854775808", "%lld"), LLONG_MAX);
    EXPECT_EQ(scan_value<long long>("-9223372036854775809", "%Ld"), LLONG_MIN);
    EXPECT_EQ(scan_value<unsigned long long>("18446744073709551616", "%qu"), ULLONG_MAX);
    EXPECT_EQ(scan_value<unsigned long long>("-4294967298", "%llu"), 0 - 4294967298ull);
    EXPECT_EQ(scan_value<intmax_t>("-3", "%jd"), -3);
    EXPECT_EQ(scan_value<size_t>("77", "%zu"), 77u);
    EXPECT_EQ(scan_value<ptrdiff_t>("-77", "%td"), -77);
    EXPECT_EQ(scan_value<long>("99999999999999999999", "%ld"), LONG_MAX);
    EXPECT_EQ(scan_value<long>("-99999999999999999999", "%ld"), LONG_MIN);
    EXPECT_EQ(scan_value<unsigned long>("99999999999999999999", "%lu"), ULONG_MAX);
    EXPECT_EQ(scan_value<short>("70000", "%hd"), 4464);
    EXPECT_EQ(scan_value<signed char>("300", "%hhd"), 44);
    EXPECT_EQ(scan_value<unsigned char>("1ff", "%hhx"), 255);
    EXPECT_EQ(scan_value<long long>("5", "%I64d"), 5);
    EXPECT_EQ(scan_value<uintptr_t>("1234", "%p"), 0x1234u);

    for (auto [format, size] : {std::pair<const char *, size_t>{"%hhd", 1},
                                {"%hd", 2},
                                {"%d", 4},
                                {"%ld", sizeof(long)},
                                {"%lld", 8},
                                {"%zd", sizeof(size_t)},
                                {"%p", sizeof(void *)},
                                {"%hhn", 1},
                                {"%n", 4},
                                {"%lln", 8},
                                {"%f", sizeof(float)},
                                {"%lf", sizeof(double)},
                                {"%Lf", sizeof(long double)}}) {
        Guarded object(size); // a larger store would end the test
        EXPECT_GE(sscanf_s("7", format, object.data()), 0) << format;
        EXPECT_NE(object.bytes(), std::string(size, '\xee')) << format;
    }
}

TEST(BoundscheckScan, MismatchAfterALookAtTheEndOfTheInputIsAnEarlyEnd)
{
    int value;
    EXPECT_EQ(sscanf_s("abc", "abcd"), -1);
    EXPECT_EQ(sscanf_s("abc", "abx"), 0);
    EXPECT_EQ(sscanf_s("abc", "abc"), 0);
    EXPECT_EQ(sscanf_s("abc", "abc "), -1);
    EXPECT_EQ(sscanf_s(" ", " "), -1);
    EXPECT_EQ(sscanf_s("5", "%*d"), 0);
    EXPECT_EQ(sscanf_s("5", "%*d%d", &value), 0);
    EXPECT_EQ(sscanf_s("x", "%n x", &value), 0);
    EXPECT_EQ(sscanf_s("x ", "x%d", &value), -1);
}

TEST(BoundscheckScan, NullPointerIsAnErrorUnlessTheInputEndedAfterAConversion)
{
    int value;
    void *null = nullptr;
    EXPECT_EQ(sscanf_s("12", "%d", null), -1);
    EXPECT_EQ(sscanf_s("1 2 ", "%d%d", &value, null), -1);
    EXPECT_EQ(sscanf_s("1 2", "%d%d", &value, null), 1);
    EXPECT_EQ(sscanf_s("x", "%d", null), 0);
    EXPECT_EQ(sscanf_s("1.5", "%f", null), -1);
    EXPECT_EQ(sscanf_s("5", "%n", null), -1);
    EXPECT_EQ(sscanf_s("5 ", "%s", null, size_t{8}), -1);
    EXPECT_EQ(sscanf_s("5 ", "%d %s", &value, null, size_t{8}), 1);
}

TEST(BoundscheckScan, BadDirectivesAreErrorsUnlessTheyMatchThemselves)
{
    for (const char *format : {"%", "%5", "%l", "%*", "%1$d", "%'d", "% d", "%+d", "%-5d", "%.3d",
                               "%#x", "%a", "%A", "%m", "%ms", "%k", "%214748370d", "%$"}) {
        expect_int("12", format, -1, kOld);
    }
    int value;
    EXPECT_EQ(sscanf_s("1 2", "%d%k", &value), -1);
    EXPECT_EQ(sscanf_s("1 ", "%d%k", &value), 1);
    expect_int(" k12", "%k%d", 1, 12);
    expect_int("+d12", "%+d%d", 1, 12);
    expect_int("12", "%214748369d", 1, 12);
    expect_int("0012", "%214748370%d", -1, kOld);
}

TEST(BoundscheckScan, PercentSkipsBlanksAndMustThenMatch)
{
    int value;
    EXPECT_EQ(sscanf_s("50  %7", "%*d%%%d", &value), 1);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(sscanf_s("50x", "%d%%", &value), -1);
    EXPECT_EQ(sscanf_s("x", "%%"), -1);
}

TEST(BoundscheckScan, WidthZeroStopsTheScan)
{
    expect_int("12", "%0d", 0, kOld);
    expect_int("-12", "%0d", 0, kOld);
    int first, second = kOld;
    EXPECT_EQ(sscanf_s("12 34", "%d%0d", &first, &second), 1);
    EXPECT_EQ(second, kOld);
}

TEST(BoundscheckScan, TextThatFillsItsBufferFitsAndOneByteMoreDoesNot)
{
    EXPECT_EQ(scan_text("hello", "%s", 6, 1), "hello\0"_b);
    EXPECT_EQ(scan_text("hello", "%s", 5, 0), "\0ell#"_b);
    EXPECT_EQ(scan_text("hello w", "%s", 6, 1), "hello\0"_b);
    EXPECT_EQ(scan_text("hello", "%4s", 5, 1), "hell\0"_b);
    EXPECT_EQ(scan_text("hello", "%4s", 4, 0), "\0el#"_b);
    EXPECT_EQ(scan_text("hello", "%[a-z]", 5, 0), "\0ell#"_b);
    EXPECT_EQ(scan_text("hello", "%s", 1, 0), "\0"_b);
    EXPECT_EQ(scan_text("hello", "%5c", 5, 1), "hello");
    EXPECT_EQ(scan_text("hello", "%5c", 4, 0), "\0ell"_b);
    EXPECT_EQ(scan_text("hi", "%5c", 5, 1), "hi###");
    EXPECT_EQ(scan_text("h", "%c", 1, 1), "h");
}

TEST(BoundscheckScan, StringOf64KiBFitsItsBufferExactly)
{
    GuardedString input(std::string(65536, 's'));
    Guarded buffer(65537), small(65536);
    EXPECT_EQ(sscanf_s(input.c_str(), "%s", buffer.data(), buffer.size()), 1);
    EXPECT_EQ(buffer.bytes(), input.bytes());
    EXPECT_EQ(sscanf_s(input.c_str(), "%s", small.data(), small.size()), 0);
    EXPECT_EQ(small.data()[0], '\0');
}

TEST(BoundscheckScan, BadSizeLeavesTheBufferAloneAndStops)
{
    char buffer[8] = "old";
    for (size_t bad : {size_t{0}, size_t{SECUREC_STRING_MAX_LEN} + 1, SIZE_MAX}) {
        EXPECT_EQ(sscanf_s("new", "%s", buffer, bad), 0);
        EXPECT_EQ(sscanf_s("new", "%c", buffer, bad), 0);
        EXPECT_EQ(sscanf_s("new", "%[a-z]", buffer, bad), 0);
    }
    EXPECT_STREQ(buffer, "old");
    EXPECT_EQ(sscanf_s("new", "%s", buffer, size_t{SECUREC_STRING_MAX_LEN}), 1);
    EXPECT_STREQ(buffer, "new");
}

#if SIZE_MAX > UINT32_MAX
TEST(BoundscheckScan, OnlyTheLowHalfOfASizeCountsBecauseCallersPassInts)
{
    char buffer[8] = "old";
    EXPECT_EQ(sscanf_s("new", "%s", buffer, UINT64_C(0xffffffff00000008)), 1);
    EXPECT_STREQ(buffer, "new");
    EXPECT_EQ(sscanf_s("x", "%s", buffer, UINT64_C(0x100000000)), 0);
    EXPECT_STREQ(buffer, "new");
}
#endif

TEST(BoundscheckScan, BufferTooSmallEndsTheScanAndLeavesLaterArgumentsAlone)
{
    int first = 0, last = kOld;
    char text[3];
    EXPECT_EQ(sscanf_s("12 hello 34", "%d%s%d", &first, text, sizeof(text), &last), 1);
    EXPECT_EQ(first, 12);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(last, kOld);
}

TEST(BoundscheckScan, SuppressedTextTakesNoArguments)
{
    int value;
    EXPECT_EQ(sscanf_s("ab cd9 7", "%*s%*[a-d ]%*c%d", &value), 1);
    EXPECT_EQ(value, 7);
}

TEST(BoundscheckScan, SetsKnowRangesNegationBracketsAndDashes)
{
    EXPECT_EQ(scan_text("]a^-b", "%[]^a-]", 8, 1), "]a^-\0###"_b);
    EXPECT_EQ(scan_text("ab]c", "%[^]]", 4, 1), "ab\0#"_b);
    EXPECT_EQ(scan_text("z-ay", "%[z-a]", 8, 1), "z-a\0####"_b);
    EXPECT_EQ(scan_text("abc-ed", "%[a-c-e]", 8, 1), "abc-e\0##"_b);
    EXPECT_EQ(scan_text("\x80\xc3\xff!", "%[\x80-\xff]", 8, 1), "\x80\xc3\xff\0####"_b);
    EXPECT_EQ(scan_text("aab", "%[a-a]", 8, 1), "aa\0#####"_b);
    EXPECT_EQ(scan_text(" \t\nx", "%[ \t\n]", 8, 1), " \t\n\0####"_b);
    EXPECT_EQ(scan_text("A-BC", "%[AB-]", 8, 1), "A-B\0####"_b);
    EXPECT_EQ(scan_text("b", "%[a]", 8, 0), "########");
    EXPECT_EQ(scan_text(" a", "%[a]", 8, 0), "########");
    EXPECT_EQ(scan_text("abcd", "%2[a-z]", 8, 1), "ab\0#####"_b);
}

TEST(BoundscheckScan, UnfinishedSetEmptiesTheBufferAndIsNotReadBeyondItsEnd)
{
    for (const char *format : {"%[", "%[^", "%[]", "%[^]", "%[a", "%[a-", "%[a-z", "%[]-"}) {
        SCOPED_TRACE(format);
        GuardedString guarded{std::string(format)};
        Guarded buffer(4, '#');
        EXPECT_EQ(sscanf_s("abc", guarded.c_str(), buffer.data(), size_t{4}), 0);
        EXPECT_EQ(buffer.bytes(), "\0###"_b);
        EXPECT_EQ(sscanf_s("", guarded.c_str(), buffer.data(), size_t{4}), -1);
    }
}

TEST(BoundscheckScan, EmptyInputEmptiesTheBufferOfAFirstTextConversionOnly)
{
    EXPECT_EQ(scan_text("", "%s", 4, -1), "\0###"_b);
    EXPECT_EQ(scan_text("", "x %3[a-z]", 4, -1), "\0###"_b);
    EXPECT_EQ(scan_text("", "%hc", 4, -1), "\0###"_b);
    EXPECT_EQ(scan_text("", "%[a-z", 4, -1), "####");
    EXPECT_EQ(scan_text("", "%*s", 4, -1), "####");
    EXPECT_EQ(scan_text("", "%%%s", 4, -1), "####");
    EXPECT_EQ(scan_text("", "%d", 4, -1), "####");
    EXPECT_EQ(scan_text("  ", "%s", 4, -1), "####");
    EXPECT_EQ(sscanf_s("", "%s", nullptr, size_t{4}), -1);
    char buffer[4] = "old";
    EXPECT_EQ(sscanf_s("", "%s", buffer, size_t{0}), -1);
    EXPECT_STREQ(buffer, "old");
    wchar_t wide[2] = {L'a', L'b'};
    EXPECT_EQ(sscanf_s("", "%ls", wide, size_t{2}), -1);
    EXPECT_EQ(wide[0], L'\0');
    EXPECT_EQ(wide[1], L'b');
}

TEST(BoundscheckScan, NullInputOrFormatTouchesNothing)
{
    char buffer[4] = "old";
    EXPECT_EQ(sscanf_s(nullptr, "%s", buffer, sizeof(buffer)), -1);
    EXPECT_EQ(sscanf_s("new", nullptr, buffer, sizeof(buffer)), -1);
    EXPECT_STREQ(buffer, "old");
}

TEST(BoundscheckScan, FloatsTakeDecimalTextOnly)
{
    EXPECT_EQ(scan_value<double>("-2.25e3", "%lf"), -2250.0);
    EXPECT_EQ(scan_value<float>("1.5", "%f"), 1.5f);
    EXPECT_EQ(scan_value<long double>("1.5", "%Lf"), 1.5L);
    EXPECT_EQ(scan_value<long double>("1.5", "%llf"), 1.5L);
    EXPECT_EQ(scan_value<double>("1e+", "%lE"), 1.0);
    EXPECT_EQ(scan_value<double>("5.", "%lg"), 5.0);
    EXPECT_EQ(scan_value<double>("+.5x", "%lG"), 0.5);
    EXPECT_EQ(scan_value<double>("12345", "%3lf"), 123.0);
    EXPECT_EQ(scan_value<double>("1e400", "%lf"), HUGE_VAL);
    double value;
    for (const char *bad : {"inf", "nan", "e5", ".e5", "-x", "+.x"})
        EXPECT_EQ(sscanf_s(bad, "%lf", &value), 0) << bad;
    for (const char *ended : {".", "-", "-."})
        EXPECT_EQ(sscanf_s(ended, "%lf", &value), -1) << ended;

    char rest[8];
    EXPECT_EQ(sscanf_s("0x10", "%lf%s", &value, rest, sizeof(rest)), 2);
    EXPECT_STREQ(rest, "x10");
    EXPECT_EQ(sscanf_s("1e+z", "%lf%s", &value, rest, sizeof(rest)), 2);
    EXPECT_STREQ(rest, "z");
}

TEST(BoundscheckScan, FloatMayHaveAnyNumberOfDigits)
{
    std::string digits = "0." + std::string(100000, '0') + "25";
    GuardedString input(digits + "e100001");
    EXPECT_EQ(scan_value<double>(input.c_str(), "%lf"), 2.5);
    GuardedString padded(std::string(127, '0') + "1");
    EXPECT_EQ(scan_value<double>(padded.c_str(), "%lf"), 1.0);
}

TEST(BoundscheckScan, OnlyANumberOutOfAFloatsRangeChangesErrno)
{
    double value;
    char text[4];
    errno = 77;
    EXPECT_EQ(sscanf_s("1.5 99999999999999999999", "%lf%s", &value, text, sizeof(text)), 1);
    EXPECT_EQ(sscanf_s("12", "%k"), -1);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(sscanf_s("1e400", "%lf", &value), 1);
    EXPECT_EQ(errno, ERANGE);
}

TEST(BoundscheckScan, BytesOutsideTheLocaleEmptyTheBufferAndKeepErrno)
{
    if (setlocale(LC_CTYPE, "C.UTF-8") == nullptr)
        GTEST_SKIP() << "no UTF-8 locale on this machine";
    wchar_t wide[4];
    errno = 77;
    EXPECT_EQ(sscanf_s("a\xff", "%ls", wide, size_t{4}), 0);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(wide[0], L'\0');
    setlocale(LC_CTYPE, "C");
}

TEST(BoundscheckScan, CountGivesTheBytesTakenButIsNotCountedItself)
{
    int count = kOld, value;
    EXPECT_EQ(sscanf_s("  12 x", "%d %n", &value, &count), 1);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(sscanf_s("abc", "ab%n", &count), 0);
    EXPECT_EQ(count, 2);
}

TEST(BoundscheckScan, WideTextIsDecodedAndItsSizeCountsCharacters)
{
    if (setlocale(LC_CTYPE, "C.UTF-8") == nullptr)
        GTEST_SKIP() << "no UTF-8 locale on this machine";
    wchar_t wide[4] = {L'#', L'#', L'#', L'#'};
    EXPECT_EQ(sscanf_s("\u00e9\u20acx y", "%ls", wide, size_t{4}), 1);
    EXPECT_EQ(std::wstring(wide), L"\u00e9\u20acx");
    EXPECT_EQ(sscanf_s("\u00e9\u20acx y", "%S", wide, size_t{3}), 0);
    EXPECT_EQ(wide[0], L'\0');
    EXPECT_EQ(sscanf_s("abc", "%C", wide, size_t{1}), 1);
    EXPECT_EQ(wide[0], L'a');
    EXPECT_EQ(sscanf_s("abcabc", "%l[a-b]", wide, size_t{3}), 1);
    EXPECT_EQ(std::wstring(wide), L"ab");
    EXPECT_EQ(sscanf_s("x", "%ls", wide, size_t{SECUREC_WCHAR_STRING_MAX_LEN} + 1), 0);
    EXPECT_EQ(std::wstring(wide), L"ab");
    char narrow[4];
    EXPECT_EQ(sscanf_s("ab", "%hS", narrow, sizeof(narrow)), 1);
    EXPECT_STREQ(narrow, "ab");
    setlocale(LC_CTYPE, "C");
}
