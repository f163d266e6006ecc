// Identifiers that compile wherever the header is included.

#include "tools/template/identifier.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Keywords of both languages, types that the header itself uses, and what compilers define as
// macros without being asked. Blanks around each word.
constexpr char kClaimed[] =
    " EOF LANGUAGE_C MIPSEB MIPSEL NULL R3000 alignas alignof and and_eq asm assert auto "
    "bitand bitor bool break case catch char char16_t char32_t char8_t class co_await "
    "co_return co_yield compl concept const const_cast consteval constexpr constinit continue "
    "decltype default delete do double dynamic_cast else enum errno explicit export extern "
    "false float for friend goto i386 if inline int int16_t int32_t int8_t linux long mips "
    "mutable namespace new noexcept not not_eq nullptr offsetof operator or or_eq private "
    "protected public register reinterpret_cast requires restrict return short signed sizeof "
    "static static_assert static_cast stderr stdin stdout struct switch template this "
    "thread_local throw true try typedef typeid typename typeof typeof_unqual uint16_t "
    "uint32_t uint8_t union unix unsigned using virtual void volatile wchar_t while xor "
    "xor_eq ";

// Whether a list holds the word that is the first `length` bytes of a text.
bool is_listed(const char *list, const char *word, size_t length)
{
    for (const char *at = list; (at = strchr(at, ' ')) != nullptr; ++at)
        if (strncmp(at + 1, word, length) == 0 && at[1 + length] == ' ')
            return true;
    return false;
}

// The limits that <stdint.h> defines, which the header includes: INT8_MAX, INT_FAST8_MIN, ...
bool is_limit(const char *name)
{
    static constexpr char kTypes[][12] = {
        "INT8_",       "INT16_",   "INT32_",  "INT64_",  "INT_",  "INTPTR_",  "INTMAX_",
        "UINT8_",      "UINT16_",  "UINT32_", "UINT64_", "UINT_", "UINTPTR_", "UINTMAX_",
        "SIG_ATOMIC_", "PTRDIFF_", "SIZE_",   "WCHAR_",  "WINT_"};
    const char *end = strrchr(name, '_');
    if (end == nullptr || !is_listed(" _MAX _MIN _WIDTH ", end, strlen(end)))
        return false;
    for (const char *type : kTypes)
        if (strncmp(name, type, strlen(type)) == 0)
            return true;
    return false;
}

// ASCII only, whatever the locale.
bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_taken(char *const *identifiers, size_t count, const char *candidate)
{
    for (size_t i = 0; i < count; ++i)
        if (strcmp(identifiers[i], candidate) == 0)
            return true;
    return false;
}

} // namespace

namespace tools {

char *make_identifier(const char *name, size_t length)
{
    auto *identifier = static_cast<char *>(malloc(length + 3)); // a letter, '_', terminator
    if (identifier == nullptr)
        return nullptr;
    char *to = identifier;
    if (length == 0 || !is_letter(name[0]))
        *to++ = 'p';
    for (size_t i = 0; i < length; ++i)
        *to++ = is_letter(name[i]) || is_digit(name[i]) ? name[i] : '_';
    *to = '\0';
    if (is_listed(kClaimed, identifier, strlen(identifier)) || is_limit(identifier))
        memcpy(to, "_", 2);
    return identifier;
}

char *distinguish_last(char *const *identifiers, size_t count)
{
    char *last = identifiers[count - 1];
    if (!is_taken(identifiers, count - 1, last))
        return last;
    const size_t size = strlen(last) + 16;
    auto *candidate = static_cast<char *>(malloc(size));
    if (candidate == nullptr)
        return nullptr;
    unsigned number = 2;
    do
        snprintf(candidate, size, "%s_%u", last, number++);
    while (is_taken(identifiers, count - 1, candidate));
    free(last);
    return candidate;
}

} // namespace tools
