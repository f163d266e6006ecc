/* SPDX-License-Identifier: ISC */
#include "support/guarded.h"

#include <gtest/gtest.h>
#include <securec.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdint>

namespace {

// Prints into a buffer of exactly size bytes before an unmapped page.
template <typename... Arguments>
int print(Guarded &dest, const char *format, Arguments... arguments)
{
    return sprintf_s(dest.data(), dest.size(), format, arguments...);
}

// The text that a format gives when there is room, or a note of the failure.
template <typename... Arguments>
std::string text_of(const char *format, Arguments... arguments)
{
    Guarded dest(2048);
    int length = print(dest, format, arguments...);
    return length < 0 ? "<" + std::to_string(length) + ">"
                      : std::string(dest.data(), static_cast<size_t>(length));
}

template <typename... Arguments>
std::string counted(size_t size, size_t count, int expected, const char *format,
                    Arguments... arguments)
{
    Guarded dest(size);
    EXPECT_EQ(snprintf_s(dest.data(), size, count, format, arguments...), expected);
    return dest.bytes();
}

// Sets a locale with a multibyte encoding for one test.
class Utf8 {
public:
    Utf8() : there_(setlocale(LC_CTYPE, "C.UTF-8") != nullptr) {}
    ~Utf8() { setlocale(LC_CTYPE, "C"); }
    bool there() const { return there_; }

private:
    bool there_;
};

} // namespace

TEST(BoundscheckPrint, EverySizeOfDestinationHoldsTheWholeTextOrNothing)
{
    const std::string whole = "name=  -42 0x00ff 3.50 c 100%";
    for (size_t size = 1; size <= whole.size() + 2; ++size) {
        SCOPED_TRACE(size);
        Guarded dest(size);
        int length = print(dest, "%s=%5d %#06x %.2f %c %d%%", "name", -42, 255, 3.5, 'c', 100);
        if (size > whole.size()) {
            EXPECT_EQ(length, static_cast<int>(whole.size()));
            EXPECT_EQ(dest.data(), whole);
            continue;
        }
        EXPECT_EQ(length, -1);
        std::string left = whole.substr(0, size);
        left[0] = left[size - 1] = '\0';
        EXPECT_EQ(dest.bytes(), left);
    }
}

TEST(BoundscheckPrint, BytesAfterTheTextKeepTheirValues)
{
    Guarded dest(16);
    EXPECT_EQ(print(dest, "%.1f", 0.5), 3);
    EXPECT_EQ(dest.bytes(), std::string("0.5\0", 4) + std::string(12, '\xee'));
    Guarded refused(300);
    EXPECT_EQ(print(refused, "%.200f%n", 0.5, nullptr), -1);
    EXPECT_EQ(refused.data()[0], '\0');
    EXPECT_EQ(refused.data()[201], '0');
    EXPECT_EQ(refused.data()[202], '\xee');
}

TEST(BoundscheckPrint, BadDestinationsAreLeftAlone)
{
    char byte = 'k';
    for (size_t bad : {size_t{0}, size_t{SECUREC_STRING_MAX_LEN} + 1, SIZE_MAX}) {
        EXPECT_EQ(sprintf_s(&byte, bad, "x"), -1);
        EXPECT_EQ(snprintf_s(&byte, bad, 1, "x"), -1);
        EXPECT_EQ(snprintf_s(&byte, bad, 1, nullptr), -1);
    }
    EXPECT_EQ(byte, 'k');
    EXPECT_EQ(sprintf_s(nullptr, 8, "x"), -1);
    EXPECT_EQ(snprintf_s(nullptr, 8, 4, "x"), -1);
}

TEST(BoundscheckPrint, StringOf64KiBFitsExactlyOrNotAtAll)
{
    std::string text(65535, 't');
    Guarded exact(65536), small(65535);
    EXPECT_EQ(print(exact, "%s", text.c_str()), 65535);
    EXPECT_EQ(exact.data(), text);
    EXPECT_EQ(print(small, "%s", text.c_str()), -1);
    EXPECT_EQ(small.data()[0], '\0');
    EXPECT_EQ(small.data()[65534], '\0');
}

TEST(BoundscheckPrint, PrecisionBoundsWhatIsReadOfAString)
{
    Guarded source(std::string(6, 's')); // no NUL before the unmapped page
    EXPECT_EQ(text_of("[%.6s]", source.data()), "[ssssss]");
    EXPECT_EQ(text_of("[%.*s]", 6, source.data()), "[ssssss]");
    EXPECT_EQ(text_of("[%9.3s]", source.data()), "[      sss]");
    EXPECT_EQ(text_of("[%-9.3s]", source.data()), "[sss      ]");
}

TEST(BoundscheckPrint, CountKeepsTheFirstCharactersOfALongerText)
{
    EXPECT_EQ(counted(8, 3, -1, "hello"), std::string("hel\0\xee\xee\xee\xee", 8));
    EXPECT_EQ(counted(8, 0, -1, "%d", 5), std::string("\0\xee\xee\xee\xee\xee\xee\xee", 8));
    EXPECT_EQ(counted(8, 5, 5, "hello"), std::string("hello\0\xee\xee", 8));
    EXPECT_EQ(counted(8, 0, 0, ""), std::string("\0\xee\xee\xee\xee\xee\xee\xee", 8));
    EXPECT_EQ(counted(8, 3, -1, "%.4f", 0.125), std::string("0.1\0\xee\xee\xee\xee", 8));
}

TEST(BoundscheckPrint, CountOfTheWholeSizeOrMoreDoesNotAllowTruncation)
{
    EXPECT_EQ(counted(4, 4, -1, "hello"), std::string("\0el\0", 4));
    EXPECT_EQ(counted(4, 2147483646, -1, "hello"), std::string("\0el\0", 4));
    EXPECT_EQ(counted(4, 2147483646, 3, "abc"), std::string("abc\0", 4));
    EXPECT_EQ(counted(4, 2147483647, -1, "abc"), std::string("\0\xee\xee\xee", 4));
    EXPECT_EQ(counted(4, SIZE_MAX, -1, "abc"), std::string("\0\xee\xee\xee", 4));
    EXPECT_EQ(counted(4, 2, -1, nullptr), std::string("\0\xee\xee\xee", 4));
    EXPECT_EQ(counted(8, 3, -1, "ab%n", nullptr), std::string("\0b\xee\xee\xee\xee\xee\xee", 8));
}

TEST(BoundscheckPrint, RefusedDirectivesFailTheCallAndNeverTouchTheirArgument)
{
    for (const char *format :
         {"%n",   "%hn",  "%hhn",   "%ln",         "%lln",         "%zn",
          "%5n",  "%-n",  "%.3n",   "%a",          "%A",           "%m",
          "%b",   "%B",   "%[",     "%D",          "%U",           "%O",
          "%'d",  "%1$d", "%5%",    "%-%",         "%l%",          "%",
          "abc%", "%5",   "%.",     "%l",          "% ",           "%5*d",
          "%*5d", "%**d", "%.-5d",  "%.5.2d",      "%..d",         "%.5*d",
          "%l5d", "%h-d", "%\351d", "%k",          "%r",           "%v",
          "%y",   "%W",   "%H",     "%214748370d", "%.214748370s", "%9999999999999999999999d"}) {
        SCOPED_TRACE(format);
        Guarded nothing(0); // writing to it would end the test
        Guarded dest(64);
        EXPECT_EQ(sprintf_s(dest.data(), 64, format, nothing.data(), nothing.data()), -1);
        EXPECT_EQ(dest.data()[0], '\0');
    }
}

TEST(BoundscheckPrint, OverflowBeforeABadDirectiveIsAnOverflow)
{
    Guarded dest(4);
    EXPECT_EQ(snprintf_s(dest.data(), 4, 3, "abcd%n", nullptr), -1);
    EXPECT_STREQ(dest.data(), "abc");
    EXPECT_EQ(snprintf_s(dest.data(), 4, 3, "abc%n", nullptr), -1);
    EXPECT_STREQ(dest.data(), "");
}

TEST(BoundscheckPrint, WidthMaximaAreDifferentForNumbersAndStars)
{
    EXPECT_EQ(text_of("%.214748369s", "abc"), "abc");
    EXPECT_EQ(text_of("%.*s", 214748360, "abc"), "abc");
    EXPECT_EQ(text_of("%.*s", 214748361, "abc"), "<-1>");
    EXPECT_EQ(text_of("%.*s", INT_MIN, "abc"), "abc");

    Guarded dest(8); // refused: nothing is written; accepted: the text does not fit
    EXPECT_EQ(print(dest, "%*d", INT_MIN, 5), -1);
    EXPECT_EQ(print(dest, "%*d", -214748361, 5), -1);
    EXPECT_EQ(dest.bytes(), std::string("\0\xee\xee\xee\xee\xee\xee\xee", 8));
    EXPECT_EQ(print(dest, "%*d", -214748360, 5), -1);
    EXPECT_EQ(dest.bytes(), std::string("\0      \0", 8));
    EXPECT_EQ(print(dest, "%214748369d", 5), -1);
    EXPECT_EQ(dest.bytes(), std::string("\0      \0", 8));
}

TEST(BoundscheckPrint, NullPointersPrintTheSameOnEveryCLibrary)
{
    const char *null = nullptr;
    EXPECT_EQ(text_of("%s|%10s|%-8s|", null, null, null), "(null)|    (null)|(null)  |");
    EXPECT_EQ(text_of("%.3s|%.0s|%.6s|%ls", null, null, null, null), "(nu||(null)|(null)");
    EXPECT_EQ(text_of("%p|%8p|%08p|%-8p|", null, null, null, null),
              "(nil)|   (nil)|   (nil)|(nil)   |");
}

TEST(BoundscheckPrint, PointersAreHexWithAPrefixWhateverTheFlags)
{
    void *pointer = reinterpret_cast<void *>(uintptr_t{0x1f});
    EXPECT_EQ(text_of("%p|%+p|% p|%.9p|%#p", pointer, pointer, pointer, pointer, pointer),
              "0x1f|0x1f|0x1f|0x1f|0x1f");
    EXPECT_EQ(text_of("%8p|%-8p|%08p", pointer, pointer, pointer), "    0x1f|0x1f    |0x00001f");
}

TEST(BoundscheckPrint, IntegersAreCutToTheirLengthLetter)
{
    EXPECT_EQ(text_of("%hhd %hd %hhu %hu", 300, 70000, 300, 70000), "44 4464 44 4464");
    EXPECT_EQ(text_of("%hhx %hx %ho", -1, -1, -1), "ff ffff 177777");
    EXPECT_EQ(text_of("%lld %llu", LLONG_MIN, ULLONG_MAX),
              "-9223372036854775808 18446744073709551615");
    EXPECT_EQ(text_of("%Ld %qd %jd", -1LL, -2LL, intmax_t{-3}), "-1 -2 -3");
    EXPECT_EQ(text_of("%zu %Zu %td", size_t{1}, size_t{2}, ptrdiff_t{-3}), "1 2 -3");
    EXPECT_EQ(text_of("%ld %lu", LONG_MIN, ULONG_MAX),
              std::to_string(LONG_MIN) + " " + std::to_string(ULONG_MAX));
    EXPECT_EQ(text_of("%d %i %u", INT_MIN, INT_MAX, UINT_MAX), "-2147483648 2147483647 4294967295");
}

TEST(BoundscheckPrint, FlagsAndPrecisionOfIntegersFollowTheLanguage)
{
    EXPECT_EQ(text_of("%+d|% d|%+ d|%+u|% u", 5, 5, 5, 5u, 5u), "+5| 5|+5|5|5");
    EXPECT_EQ(text_of("%05d|%-05d|%05.2d|%05d", 7, 7, 7, -7), "00007|7    |   07|-0007");
    EXPECT_EQ(text_of("[%.0d][%+.0d][%.0u][%#.0x][%#.0o]", 0, 0, 0, 0, 0), "[][+][][][0]");
    EXPECT_EQ(text_of("%#o %#x %#X %#o %#x %#.3o %#.4o", 8, 255, 255, 0, 0, 8, 8),
              "010 0xff 0XFF 0 0 010 0010");
    EXPECT_EQ(text_of("%#08x|%#-8x|%#8.4x", 255, 255, 255), "0x0000ff|0xff    |  0x00ff");
}

TEST(BoundscheckPrint, IntegersHaveAtMost512DigitsButAnyWidth)
{
    EXPECT_EQ(text_of("%.512d", 7), std::string(511, '0') + "7");
    EXPECT_EQ(text_of("%.513d", 7), std::string(511, '0') + "7");
    EXPECT_EQ(text_of("%#.9999x", 7), "0x" + std::string(511, '0') + "7");
    EXPECT_EQ(text_of("%-.9999d", -7), "-" + std::string(511, '0') + "7");
    EXPECT_EQ(text_of("%600.520d", 7), std::string(88, ' ') + std::string(511, '0') + "7");
}

TEST(BoundscheckPrint, NulCharacterIsPrintedAndCounted)
{
    EXPECT_EQ(text_of("a%cb%3c|%-3c|%03c", 0, 'x', 'y', 'z'), std::string("a\0b  x|y  |  z", 14));
    EXPECT_EQ(text_of("%c", 0x141), "A");
}

TEST(BoundscheckPrint, FloatsReadAsTheCLibraryPrintsThem)
{
    EXPECT_EQ(text_of("%f %.0f %#.0f %e %G", 0.5, 2.5, 2.5, 12345.678, 1e-10),
              "0.500000 2 2. 1.234568e+04 1E-10");
    EXPECT_EQ(text_of("%Lf %qf %lf %hf", 1.5L, 2.5L, 3.5, 4.5),
              "1.500000 2.500000 3.500000 4.500000");
    EXPECT_EQ(text_of("%+08.2f|%-8.2f|% .1f|%*.*f", 3.14159, 3.14159, 1.0, -7, 2, 1.0),
              "+0003.14|3.14    | 1.0|1.00   ");
    EXPECT_EQ(text_of("%.300f", 1.0), "1." + std::string(300, '0'));
    EXPECT_EQ(text_of("%.*f", -1, 0.5), "0.500000");
    for (size_t zeros = 100; zeros < 200; ++zeros)
        EXPECT_EQ(text_of("%.*f|", static_cast<int>(zeros), 1.0),
                  "1." + std::string(zeros, '0') + "|");
}

TEST(BoundscheckPrint, HugeFloatPrecisionCostsNoMoreThanTheSizeOfTheDestination)
{
    Guarded dest(64);
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(print(dest, "%.214748000f", 0.1), -1);
    std::string left = "0.1000000000000000055511151231257827021181583404541015625";
    left.resize(63, '0');
    EXPECT_EQ(dest.bytes(), std::string(1, '\0') + left.substr(1) + std::string(1, '\0'));
    EXPECT_EQ(print(dest, "%.214748000g", 0.5), 3);
    EXPECT_EQ(print(dest, "%.214743388Lf", 0.5L), -1);
    EXPECT_EQ(print(dest, "%214748369f", 0.5), -1);
    EXPECT_EQ(dest.bytes(), std::string(1, '\0') + std::string(62, ' ') + std::string(1, '\0'));
}

TEST(BoundscheckPrint, FloatPrecisionNearTheMaximumDropsTheDirectiveAndKeepsItsArgument)
{
    EXPECT_EQ(text_of("[%.214748012f]%.1f", 1.5), "[]1.5");
    EXPECT_EQ(text_of("[%.214743389Lf]%.1Lf", 1.5L), "[]1.5");
}

TEST(BoundscheckPrint, LenientFormsAreAccepted)
{
    EXPECT_EQ(text_of("%5-d|%5-3d|%5+d", 42, 42, 42), "42   |42 |  +42");
    EXPECT_EQ(text_of("%Nd %I32d %I64d %I|%Iy", 1, 2, 3LL), "1 2 3 I|Iy");
    EXPECT_EQ(text_of("%lhd %hld %hhhd", 70000L, 70000L, 300), "70000 70000 44");
    EXPECT_EQ(text_of("%Id", static_cast<ptrdiff_t>(-5)), "-5");
    EXPECT_EQ(text_of("%lls %zs %js", "long", "size", "max"), "long size max"); // narrow all
    EXPECT_EQ(text_of("%llf", 1.5), "1.500000"); // a double: only L and q make it long
}

TEST(BoundscheckPrint, WideTextIsEncodedAndItsWidthCountsCharacters)
{
    Utf8 locale;
    if (!locale.there())
        GTEST_SKIP() << "no UTF-8 locale on this machine";
    EXPECT_EQ(text_of("%ls|%S|%ws", L"\u00e9x", L"\u20ac", L"w"), "\u00e9x|\u20ac|w");
    EXPECT_EQ(text_of("[%4ls][%-4ls][%.1ls]", L"\u00e9x", L"\u00e9x", L"\u00e9x"),
              "[  \u00e9x][\u00e9x  ][\u00e9]");
    EXPECT_EQ(text_of("%lc%C%3lc", L'\u00e9', L'\u20ac', L'z'), "\u00e9\u20ac  z");
    EXPECT_EQ(text_of("%hS %hC %hs", "narrow", 'n', "n"), "narrow n n");

    Guarded dest(4); // the second character is cut in the middle: it does not fit
    EXPECT_EQ(print(dest, "%ls", L"\u00e9\u20ac"), -1);
    EXPECT_EQ(dest.data()[0], '\0');
}

TEST(BoundscheckPrint, CharacterThatTheLocaleCannotEncodeFailsTheCallAndKeepsErrno)
{
    errno = 77;
    EXPECT_EQ(text_of("ab%lc", L'\u20ac'), "<-1>");
    EXPECT_EQ(text_of("ab%ls", L"x\u20ac"), "<-1>");
    EXPECT_EQ(errno, 77);
}

TEST(BoundscheckPrint, NothingSetsErrno)
{
    errno = 77;
    text_of("%s %d %f %p", "a", 1, 1.5, nullptr);
    text_of("%n", nullptr);
    Guarded dest(4);
    print(dest, "%f", 1e300);
    EXPECT_EQ(errno, 77);
}
