// SPDX-License-Identifier: ISC
// Bounded prints: arbitrary formats, and single directives with arbitrary values.
//
// Input: a byte for the room, one for the directive, two words (the value), a piece (flags, width
// and precision), then the format.

#include <securec.h>

#include "fuzz/input.h"
#include "low_memory.h"

#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

constexpr size_t kPlenty = 8192;

// The same print into a room of plenty, into `room` bytes, and cut to `room` characters: all
// three must agree about the text.
template <typename... Arguments>
void print_thrice(size_t room, const char *format, Arguments... arguments)
{
    fuzz::Block whole(kPlenty);
    const int length = sprintf_s(whole.text(), kPlenty, format, arguments...);
    FUZZ_CHECK(length < static_cast<int>(kPlenty));
    FUZZ_CHECK(length >= 0 ? whole.text()[length] == '\0' : whole.text()[0] == '\0');

    fuzz::Block tight(room);
    const int fitted = sprintf_s(tight.text(), room, format, arguments...);
    const bool fits = length >= 0 && static_cast<size_t>(length) < room;
    FUZZ_CHECK(fitted == (fits ? length : -1));
    if (fits)
        FUZZ_CHECK(memcmp(tight.text(), whole.text(), static_cast<size_t>(length) + 1) == 0);
    else if (room > 0)
        FUZZ_CHECK(tight.text()[0] == '\0');

    fuzz::Block cut(room + 1);
    const int kept = snprintf_s(cut.text(), room + 1, room, format, arguments...);
    if (length < 0)
        return;
    if (static_cast<size_t>(length) <= room) {
        FUZZ_CHECK(kept == length);
    } else {
        FUZZ_CHECK(kept == -1 && cut.text()[room] == '\0');
        FUZZ_CHECK(memcmp(cut.text(), whole.text(), room) == 0);
    }
}

enum class Kind { kInt, kLong, kLongLong, kDouble, kLongDouble, kText };
struct Directive {
    const char *letters;
    Kind kind;
};
constexpr Directive kDirectives[] = {
    {"d", Kind::kInt},         {"u", Kind::kInt},    {"hhx", Kind::kInt},
    {"ho", Kind::kInt},        {"c", Kind::kInt},    {"ld", Kind::kLong},
    {"lX", Kind::kLong},       {"zu", Kind::kLong},  {"lld", Kind::kLongLong},
    {"jo", Kind::kLongLong},   {"e", Kind::kDouble}, {"f", Kind::kDouble},
    {"g", Kind::kDouble},      {"G", Kind::kDouble}, {"Lf", Kind::kLongDouble},
    {"Lg", Kind::kLongDouble}, {"s", Kind::kText}};

double as_double(uint64_t bits)
{
    double number;
    memcpy(&number, &bits, sizeof number);
    return number;
}

void print_one(size_t room, const Directive &directive, const std::string &modifiers,
               uint64_t value, const std::string &text)
{
    const std::string format = "<%" + modifiers + directive.letters + ">";
    fuzz::Block bytes(text + '\0');
    switch (directive.kind) {
    case Kind::kInt:
        return print_thrice(room, format.c_str(), static_cast<int>(value));
    case Kind::kLong:
        return print_thrice(room, format.c_str(), static_cast<long>(value));
    case Kind::kLongLong:
        return print_thrice(room, format.c_str(), static_cast<long long>(value));
    case Kind::kDouble:
        return print_thrice(room, format.c_str(), as_double(value));
    case Kind::kLongDouble:
        return print_thrice(room, format.c_str(), static_cast<long double>(as_double(value)));
    case Kind::kText:
        return print_thrice(room, format.c_str(), bytes.text());
    }
}

void print_anything(size_t room, const char *format)
{
    static char *const low = fuzz::map_low_memory();
    memcpy(low, "t\0\0\0x\0\0\0\0\0\0", 12); // a text, also as wide characters
    // Where arguments travel in registers, floating ones have registers of their own, and a long
    // double takes two places on the stack though registers are left.
    print_thrice(room, format, FUZZ_TWENTY(low), FUZZ_FIVE(low), FUZZ_FIVE(0.5), FUZZ_FIVE(0.5));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    const size_t room = input.byte();
    const Directive &directive =
        kDirectives[input.byte() % (sizeof kDirectives / sizeof kDirectives[0])];
    const uint64_t high = input.word();
    const uint64_t value = high << 32 | input.word();
    std::string modifiers = input.piece();
    const auto is_modifier = [](char c) { return strchr("-+ #0123456789.", c) != nullptr; };
    modifiers.resize(static_cast<size_t>(
        std::find_if_not(modifiers.begin(), modifiers.end(), is_modifier) - modifiers.begin()));
    const std::string format_text = input.rest();

    print_one(room, directive, modifiers.c_str(), value, format_text);
    fuzz::Block format(format_text + '\0');
    if (fuzz::needs_few_arguments(format_text))
        print_anything(room, format.text());
    return 0;
}
