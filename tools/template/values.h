// SPDX-License-Identifier: ISC
// Texts that fit the types of parameters.
#ifndef TOOLS_TEMPLATE_VALUES_H
#define TOOLS_TEMPLATE_VALUES_H

#include "db/types.h"

#include <cstddef>
#include <cstdint>

namespace tools {

// Characters that a name, type or value may have.
constexpr size_t kMaxText = bv::kParameterTextSize - 1;

// Why something does not fit.
struct Reason {
    char text[160];

    // Prints the text. Returns false, so that callers can return that.
    bool set(const char *format, ...) __attribute__((format(printf, 2, 3)));
};

constexpr bool is_number(const bv::ParameterType &type)
{
    return type.kind == bv::TypeKind::Signed || type.kind == bv::TypeKind::Unsigned;
}

// Reads a whole decimal number. False when the text is anything else, or too long for 64 bits.
bool parse_decimal(const char *text, int64_t &number);

// Whether a text is stored unchanged in `len` bytes of a type.
bool value_fits(const bv::ParameterType &type, int32_t len, const char *text, Reason &why);

// Whether a text can be written into a data file, where nothing is escaped, and read again. It may
// contain zero bytes.
bool text_survives(const char *text, size_t length, Reason &why);

} // namespace tools

#endif
