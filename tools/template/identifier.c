/* Identifiers that compile wherever the header is included. */
#include "template/identifier.h"

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Keywords of both languages, types that the header itself uses, and what compilers define as
 * macros without being asked. */
static const char *const claimed[] = {"EOF",           "LANGUAGE_C",    "MIPSEB",
                                      "MIPSEL",        "NULL",          "R3000",
                                      "alignas",       "alignof",       "and",
                                      "and_eq",        "asm",           "assert",
                                      "auto",          "bitand",        "bitor",
                                      "bool",          "break",         "case",
                                      "catch",         "char",          "char16_t",
                                      "char32_t",      "char8_t",       "class",
                                      "co_await",      "co_return",     "co_yield",
                                      "compl",         "concept",       "const",
                                      "const_cast",    "consteval",     "constexpr",
                                      "constinit",     "continue",      "decltype",
                                      "default",       "delete",        "do",
                                      "double",        "dynamic_cast",  "else",
                                      "enum",          "errno",         "explicit",
                                      "export",        "extern",        "false",
                                      "float",         "for",           "friend",
                                      "goto",          "i386",          "if",
                                      "inline",        "int",           "int16_t",
                                      "int32_t",       "int8_t",        "linux",
                                      "long",          "mips",          "mutable",
                                      "namespace",     "new",           "noexcept",
                                      "not",           "not_eq",        "nullptr",
                                      "offsetof",      "operator",      "or",
                                      "or_eq",         "private",       "protected",
                                      "public",        "register",      "reinterpret_cast",
                                      "requires",      "restrict",      "return",
                                      "short",         "signed",        "sizeof",
                                      "static",        "static_assert", "static_cast",
                                      "stderr",        "stdin",         "stdout",
                                      "struct",        "switch",        "template",
                                      "this",          "thread_local",  "throw",
                                      "true",          "try",           "typedef",
                                      "typeid",        "typename",      "typeof",
                                      "typeof_unqual", "uint16_t",      "uint32_t",
                                      "uint8_t",       "union",         "unix",
                                      "unsigned",      "using",         "virtual",
                                      "void",          "volatile",      "wchar_t",
                                      "while",         "xor",           "xor_eq"};

static bool is_claimed(const char *name)
{
    size_t i;

    for (i = 0; i < sizeof(claimed) / sizeof(claimed[0]); i++)
        if (strcmp(claimed[i], name) == 0)
            return true;
    return false;
}

/* The limits that <stdint.h> defines, which the header includes. */
static bool is_limit(const char *name)
{
    static const char *const types[] = {
        "INT8_",       "INT16_",   "INT32_",  "INT64_",  "INT_",  "INTPTR_",  "INTMAX_",
        "UINT8_",      "UINT16_",  "UINT32_", "UINT64_", "UINT_", "UINTPTR_", "UINTMAX_",
        "SIG_ATOMIC_", "PTRDIFF_", "SIZE_",   "WCHAR_",  "WINT_"};
    const char *end = strrchr(name, '_');
    size_t i;

    if (end == NULL ||
        (strcmp(end, "_MAX") != 0 && strcmp(end, "_MIN") != 0 && strcmp(end, "_WIDTH") != 0))
        return false;
    for (i = 0; i < sizeof(types) / sizeof(types[0]); i++)
        if (strncmp(types[i], name, strlen(types[i])) == 0)
            return true;
    return false;
}

/* ASCII only, whatever the locale. */
static bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

char *identifier_make(const char *name, size_t length)
{
    char *identifier = malloc(length + 3); /* one letter in front, '_' behind, terminator */
    char *to = identifier;
    size_t i;

    if (identifier == NULL)
        return NULL;
    if (length == 0 || !is_letter(name[0]))
        *to++ = 'p';
    for (i = 0; i < length; i++)
        *to++ = is_letter(name[i]) || is_digit(name[i]) ? name[i] : '_';
    *to = '\0';
    if (is_claimed(identifier) || is_limit(identifier))
        memcpy(to, "_", 2);
    return identifier;
}

static bool is_taken(char *const *identifiers, size_t count, const char *candidate)
{
    size_t i;

    for (i = 0; i < count; i++)
        if (strcmp(identifiers[i], candidate) == 0)
            return true;
    return false;
}

char *identifier_distinguish(char *const *identifiers, size_t count)
{
    char *last = identifiers[count - 1];
    size_t size = strlen(last) + 16;
    unsigned number = 2;
    char *candidate;

    if (!is_taken(identifiers, count - 1, last))
        return last;
    candidate = malloc(size);
    if (candidate == NULL)
        return NULL;
    do
        snprintf(candidate, size, "%s_%u", last, number++);
    while (is_taken(identifiers, count - 1, candidate));
    free(last);
    return candidate;
}
