// SPDX-License-Identifier: ISC
// The types that a parameter may have, and the limits of a template. The database and the tools
// that check and convert parameters read this one table; a new type is a new row.
//
// Nothing here needs the library: it compiles into any program.
#ifndef BV_DB_TYPES_H
#define BV_DB_TYPES_H

#include <cstdint>

namespace bv {

// Size of a descriptor's name, type and value, NUL included.
constexpr uint32_t kParameterTextSize = 1024;

// The longest parameter in bytes. A template's element with a longer one is skipped.
constexpr int32_t kMaxParameterLength = 1023;

// The descriptors of a family share one allocation, which holds no more.
constexpr uint32_t kMaxParameters = 425;

enum class TypeKind : uint8_t { String, Signed, Unsigned, Mac, Ip };

struct ParameterType {
    char name[7];
    TypeKind kind;
    uint8_t size; // bytes in the image; 0: as many as the parameter's len
};

// The order is that of the look-up.
constexpr ParameterType kParameterTypes[] = {{"string", TypeKind::String, 0},
                                             {"char", TypeKind::Signed, 1},
                                             {"uchar", TypeKind::Unsigned, 1},
                                             {"short", TypeKind::Signed, 2},
                                             {"ushort", TypeKind::Unsigned, 2},
                                             {"int", TypeKind::Signed, 4},
                                             {"uint", TypeKind::Unsigned, 4},
                                             {"mac", TypeKind::Mac, 6},
                                             {"ip", TypeKind::Ip, 4}};

// Numbers are kept in 32 bits while they are converted.
constexpr bool numbers_fit_32_bits()
{
    for (const ParameterType &type : kParameterTypes)
        if ((type.kind == TypeKind::Signed || type.kind == TypeKind::Unsigned) &&
            (type.size < 1 || type.size > 4))
            return false;
    return true;
}
static_assert(numbers_fit_32_bits(), "a wider number needs wider conversions");

// Written out because it runs for every parameter of every instance: calls would cost more than the
// conversion itself.
inline bool same_text(const char *a, const char *b)
{
    for (; *a == *b; ++a, ++b)
        if (*a == '\0')
            return true;
    return false;
}

// The row of a type, or null for an unknown name.
inline const ParameterType *find_type(const char *name)
{
    const char first = name[0];
    for (const ParameterType &type : kParameterTypes)
        if (type.name[0] == first && same_text(type.name, name))
            return &type;
    return nullptr;
}

} // namespace bv

#endif
