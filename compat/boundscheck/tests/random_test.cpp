// SPDX-License-Identifier: ISC
// Random calls, the same on every run. They are compared with slow models, and with the C library
// where both promise the same. Garbage formats and inputs must neither touch a byte outside the
// buffers nor take long.

#include "support/guarded.h"

#include <gtest/gtest.h>
#include <securec.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <random>

namespace {

class Random {
public:
    unsigned below(unsigned limit) { return static_cast<unsigned>(engine_() % limit); }
    bool one_in(unsigned n) { return below(n) == 0; }
    char of(const std::string &characters)
    {
        return characters[below(unsigned(characters.size()))];
    }

    std::string text(const std::string &characters, unsigned longest)
    {
        std::string text;
        for (unsigned left = below(longest + 1); left != 0; --left)
            text += of(characters);
        return text;
    }

private:
    std::mt19937 engine_{20261120};
};

constexpr int kSmallArena = 24;

// A slow model of a call: what it must return and leave in the buffer.
struct Outcome {
    errno_t code;
    std::string arena;
};

Outcome emptied(std::string arena, size_t dst, errno_t code)
{
    arena[dst] = '\0';
    return {code, arena};
}

size_t length_in(const std::string &arena, size_t at, size_t most)
{
    size_t length = 0;
    while (length < most && arena[at + length] != '\0')
        ++length;
    return length;
}

bool ranges_meet(size_t a, size_t a_size, size_t b, size_t b_size)
{
    for (size_t i = a; i < a + a_size; ++i) {
        if (i >= b && i < b + b_size)
            return true;
    }
    return false;
}

Outcome model_strcpy(const std::string &arena, size_t dst, size_t dmax, size_t src)
{
    size_t length = length_in(arena, src, dmax);
    if (length == dmax)
        return emptied(arena, dst, ERANGE_AND_RESET);
    if (dst == src)
        return {EOK, arena};
    if (ranges_meet(dst, length + 1, src, length + 1))
        return emptied(arena, dst, EOVERLAP_AND_RESET);
    return {EOK, std::string(arena).replace(dst, length + 1, arena, src, length + 1)};
}

Outcome model_strcat(const std::string &arena, size_t dst, size_t dmax, size_t src)
{
    size_t used = length_in(arena, dst, dmax);
    size_t added = length_in(arena, src, dmax - used);
    bool overlap = (dst < src && src <= dst + used + added) || (src < dst && dst <= src + added);
    if (overlap && used == dmax && src == dst + dmax)
        return emptied(arena, dst, EINVAL_AND_RESET);
    if (overlap)
        return emptied(arena, dst, EOVERLAP_AND_RESET);
    if (used == dmax)
        return emptied(arena, dst, EINVAL_AND_RESET);
    if (used + added >= dmax || dst == src)
        return emptied(arena, dst, ERANGE_AND_RESET);
    return {EOK, std::string(arena).replace(dst + used, added + 1, arena, src, added + 1)};
}

// One directive of the common shape with a value for it; both printers get the same.
template <typename Print>
int print_directive(Random &random, std::string *format, Print print)
{
    *format = random.text("ab", 2) + "%" + random.text("-+ #0", 3);
    if (random.one_in(2))
        *format += std::to_string(random.below(40));
    if (random.one_in(2))
        *format += "." + (random.one_in(4) ? "" : std::to_string(random.below(40)));

    static const long long kValues[] = {0, 1, -1, 7, 8, 255, 4096, INT_MAX, INT_MIN, 1234567890123};
    static const double kFloats[] = {0.0, -0.0, 1.0, 0.1, -2.5, 1e10, 1e-5, 12345.678, 1e300};
    long long value = kValues[random.below(10)];
    switch (random.below(6)) {
    case 0:
        *format += random.one_in(2) ? "s|" : "hs";
        return print(format->c_str(), "a string");
    case 1:
        *format += "c";
        return print(format->c_str(), 'c');
    case 2:
        *format += std::string(1, random.of("eEfFgG")) + "x";
        return print(format->c_str(), kFloats[random.below(9)]);
    case 3:
        *format += std::string("ll") + random.of("diouxX");
        return print(format->c_str(), value);
    case 4:
        *format += std::string(random.one_in(2) ? "hh" : "h") + random.of("diouxX");
        return print(format->c_str(), static_cast<int>(value));
    default:
        *format += random.of("diouxX");
        return print(format->c_str(), static_cast<int>(value));
    }
}

} // namespace

TEST(BoundscheckRandom, StringCopiesAndAppendsDoWhatASlowModelDoes)
{
    Random random;
    int accepted = 0;
    for (int i = 0; i < 40000; ++i) {
        std::string arena(kSmallArena * 2, '\0'); // the second half stays zero: every string ends
        for (int at = 0; at < kSmallArena; ++at)
            arena[size_t(at)] = random.one_in(4) ? '\0' : random.of("abcdef");
        size_t dst = random.below(kSmallArena), src = random.below(kSmallArena);
        size_t dmax = 1 + random.below(kSmallArena - 1);
        SCOPED_TRACE(testing::Message() << dst << " " << dmax << " " << src << " " << arena);

        std::string copied = arena, joined = arena;
        Outcome copy = model_strcpy(arena, dst, dmax, src);
        ASSERT_EQ(strcpy_s(&copied[dst], dmax, &copied[src]), copy.code);
        ASSERT_EQ(copied, copy.arena);
        Outcome join = model_strcat(arena, dst, dmax, src);
        ASSERT_EQ(strcat_s(&joined[dst], dmax, &joined[src]), join.code);
        ASSERT_EQ(joined, join.arena);
        accepted += (copy.code == EOK) + (join.code == EOK);
    }
    EXPECT_GT(accepted, 1000);
}

TEST(BoundscheckRandom, DirectivesPrintAsTheCLibraryPrintsThem)
{
    Random random;
    int fitting = 0;
    for (int i = 0; i < 40000; ++i) {
        size_t size = random.one_in(2) ? 1 + random.below(20) : 512;
        Guarded ours(size), theirs(size);
        int wanted = 0;
        std::string format;
        int result = print_directive(random, &format, [&](const char *text, auto argument) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
            wanted = snprintf(theirs.data(), size, text, argument);
#pragma GCC diagnostic pop
            return sprintf_s(ours.data(), size, text, argument);
        });
        SCOPED_TRACE(format);
        if (wanted < 0) // some C libraries refuse sizes that mean nothing to a conversion (%hs)
            continue;
        bool fits = static_cast<size_t>(wanted) < size;
        if (!fits)
            theirs.data()[0] = '\0';
        ASSERT_EQ(result, fits ? wanted : -1);
        ASSERT_EQ(ours.bytes(), theirs.bytes());
        fitting += fits;
    }
    EXPECT_GT(fitting, 10000);
}

TEST(BoundscheckRandom, IntegersScanAsTheCLibraryScansThem)
{
    // Without signs, prefixes and empty inputs, where the two differ on purpose.
    Random random;
    int stored = 0;
    for (int i = 0; i < 40000; ++i) {
        std::string input = "1" + random.text("0123456789 ,:ab", 14);
        std::string format;
        for (int directive = 0; directive < 3; ++directive) {
            format += "%";
            if (random.one_in(3))
                format += std::to_string(1 + random.below(4));
            format += random.of("duox");
            format += random.text(" ,:", 1);
        }
        unsigned ours[3] = {9, 9, 9}, theirs[3] = {9, 9, 9};
        SCOPED_TRACE(testing::Message() << '"' << input << "\" " << format);
        int result = sscanf_s(input.c_str(), format.c_str(), &ours[0], &ours[1], &ours[2]);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        ASSERT_EQ(result,
                  sscanf(input.c_str(), format.c_str(), &theirs[0], &theirs[1], &theirs[2]));
#pragma GCC diagnostic pop
        ASSERT_EQ(memcmp(ours, theirs, sizeof(ours)), 0);
        stored += result;
    }
    EXPECT_GT(stored, 40000);
}

TEST(BoundscheckRandom, GarbageFormatsPrintNothingOutsideTheDestination)
{
    Random random;
    alignas(16) char text[32] = "text"; // also ends a wide string
    int refused = 0, printed = 0;
    for (int i = 0; i < 40000; ++i) {
        GuardedString format(
            "%" + random.text("%%-+ #0123459.*hlLqzZjtNwIdiouxXcspeEfFgGSCnamkb\xe9", 12));
        size_t size = 1 + random.below(64);
        Guarded dest(size);
        int result = sprintf_s(dest.data(), size, format.c_str(), text, text, text, text, text,
                               text, text, text, text, text, text, text, text, text, text, text);
        ASSERT_LT(result, static_cast<int>(size));
        ASSERT_GE(result, -1);
        if (result < 0)
            ASSERT_EQ(dest.data()[0], '\0');
        else
            ASSERT_EQ(dest.data()[result], '\0');
        ++(result < 0 ? refused : printed);
    }
    EXPECT_GT(refused, 1000);
    EXPECT_GT(printed, 1000);
}

// Numbers take one argument and text takes two, so a format has the one kind or the other.
TEST(BoundscheckRandom, GarbageNumberScansWriteNothingOutsideTheirObjects)
{
    Random random;
    int stored = 0;
    for (int i = 0; i < 40000; ++i) {
        GuardedString input(random.text("0123456789abcdefxX+-.eE %k\t\xe9", 24));
        GuardedString format("%" + random.text("%%%*0123hlLqjztINFdiouxXpnefgk ,-\xe9", 12));
        alignas(16) char object[16 + 16];
        memset(object, '#', sizeof(object));
        int result = sscanf_s(input.c_str(), format.c_str(), object, object, object, object, object,
                              object, object, object, object, object, object, object, object);
        ASSERT_GE(result, -1);
        ASSERT_LE(result, 13);
        ASSERT_EQ(std::string(object + 16, 16), std::string(16, '#'));
        stored += result > 0;
    }
    EXPECT_GT(stored, 1000);
}

TEST(BoundscheckRandom, GarbageTextScansWriteNothingOutsideTheirBuffers)
{
    Random random;
    int stored = 0;
    for (int i = 0; i < 40000; ++i) {
        GuardedString input(random.text("0123456789abc %]-^k\t\xe9", 24));
        GuardedString format("%" + random.text("%%%*0123hs[]^-ac-k ,\xe9", 12));
        size_t size = 1 + random.below(16);
        Guarded to(size);
        int result =
            sscanf_s(input.c_str(), format.c_str(), to.data(), size, to.data(), size, to.data(),
                     size, to.data(), size, to.data(), size, to.data(), size, to.data(), size);
        ASSERT_GE(result, -1);
        ASSERT_LE(result, 7);
        stored += result > 0;
    }
    EXPECT_GT(stored, 1000);
}
