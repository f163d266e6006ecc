// SPDX-License-Identifier: ISC
// Bounded scans: arbitrary formats, and single directives into places of exactly their size.
//
// Input: a byte for the directive and one for the capacity of a text, a piece (the format), then
// the text to scan.

#include <securec.h>

#include "fuzz/input.h"
#include "low_memory.h"

#include <cwchar>

#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

struct NumberDirective {
    const char *format;
    size_t size;
};
constexpr NumberDirective kNumbers[] = {
    {"%hhd", sizeof(char)},       {"%hu", sizeof(short)},    {"%d", sizeof(int)},
    {"%5i", sizeof(int)},         {"%lx", sizeof(long)},     {"%llo", sizeof(long long)},
    {"%zu", sizeof(size_t)},      {"%jd", sizeof(intmax_t)}, {"%td", sizeof(ptrdiff_t)},
    {"%p", sizeof(void *)},       {"%f", sizeof(float)},     {"%lg", sizeof(double)},
    {"%Le", sizeof(long double)}, {"%*d%n", sizeof(int)}};

struct TextDirective {
    const char *format;
    bool wide;
    bool terminated;
};
constexpr TextDirective kTexts[] = {
    {"%s", false, true},    {"%4s", false, true},       {"%c", false, false},
    {"%7c", false, false},  {"%[a-z0-9]", false, true}, {"%3[^\n]", false, true},
    {"%ls", true, true},    {"%3S", true, true},        {"%lc", true, false},
    {"%l[ab]", true, true}, {" %s", false, true},       {"%[]x-]", false, true}};

template <typename T, size_t N>
const T &pick(const T (&table)[N], uint8_t index)
{
    return table[index % N];
}

void scan_number(const NumberDirective &directive, const char *text)
{
    fuzz::Block place(directive.size);
    const int stored = sscanf_s(text, directive.format, place.bytes());
    FUZZ_CHECK(stored >= -1 && stored <= 1);
}

void scan_text(const TextDirective &directive, size_t capacity, const char *text)
{
    fuzz::Block place(capacity * (directive.wide ? sizeof(wchar_t) : 1));
    const int stored = sscanf_s(text, directive.format, place.bytes(), capacity);
    FUZZ_CHECK(stored >= -1 && stored <= 1);
    if (stored != 1 || !directive.terminated)
        return;
    if (directive.wide)
        FUZZ_CHECK(wmemchr(place.as<wchar_t>(), L'\0', capacity) != nullptr);
    else
        FUZZ_CHECK(memchr(place.bytes(), '\0', capacity) != nullptr);
}

void scan_anything(char *format, const char *text)
{
    static char *const low = fuzz::map_low_memory();
    const int stored = sscanf_s(text, format, FUZZ_TWENTY(low));
    FUZZ_CHECK(stored >= -1 && stored <= 10);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    const uint8_t which = input.byte();
    const size_t capacity = input.byte() % 32;
    const std::string format_text = input.piece();
    fuzz::Block format(format_text + '\0');
    fuzz::Block text(input.rest() + '\0');

    if (fuzz::needs_few_arguments(format_text))
        scan_anything(format.text(), text.text());
    scan_number(pick(kNumbers, which), text.text());
    scan_text(pick(kTexts, which), capacity, text.text());
    return 0;
}
