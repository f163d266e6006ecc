// SPDX-License-Identifier: ISC
// The database stores something of any value without complaint. This is stricter: a text fits when
// it comes back as the same value.

#include "tools/template/values.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

using bv::ParameterType;
using tools::Reason;

bool number_fits(const ParameterType &type, const char *text, Reason &why)
{
    const bool is_signed = type.kind == bv::TypeKind::Signed;
    const int64_t highest = UINT32_MAX >> (32 - 8 * type.size + (is_signed ? 1 : 0));
    const int64_t lowest = is_signed ? -highest - 1 : 0;
    int64_t number;
    return (tools::parse_decimal(text, number) && number >= lowest && number <= highest) ||
           why.set("'%.40s' is not a number from %" PRId64 " to %" PRId64 ", as type %s needs",
                   text, lowest, highest, type.name);
}

bool string_fits(int32_t len, const char *text, Reason &why)
{
    const size_t length = strlen(text);
    return (len > 0 && length < static_cast<size_t>(len)) ||
           why.set("text of %zu byte%s is too long: len %" PRId32 " holds %" PRId32
                   " and the zero byte at its end",
                   length, length == 1 ? "" : "s", len, std::max(len - 1, 0));
}

// Six groups of one or two hexadecimal digits.
bool is_mac(const char *at)
{
    for (int group = 0; group < 6; ++group) {
        const size_t digits = strspn(at, "0123456789abcdefABCDEF");
        at += digits + 1;
        if (digits < 1 || digits > 2 || at[-1] != (group < 5 ? ':' : '\0'))
            return false;
    }
    return true;
}

bool is_ip(const char *text)
{
    in_addr address;
    return inet_pton(AF_INET, text, &address) == 1;
}

} // namespace

bool tools::Reason::set(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return false;
}

bool tools::parse_decimal(const char *text, int64_t &number)
{
    const bool negative = *text == '-';
    const char *at = text + (negative || *text == '+' ? 1 : 0);
    if (*at == '\0')
        return false;
    for (number = 0; *at >= '0' && *at <= '9'; ++at) {
        if (number > (INT64_MAX - 9) / 10)
            return false;
        number = number * 10 + (*at - '0');
    }
    if (negative)
        number = -number;
    return *at == '\0';
}

bool tools::value_fits(const ParameterType &type, int32_t len, const char *text, Reason &why)
{
    switch (type.kind) {
    case bv::TypeKind::String:
        return string_fits(len, text, why);
    case bv::TypeKind::Signed:
    case bv::TypeKind::Unsigned:
        return number_fits(type, text, why);
    case bv::TypeKind::Mac:
        return is_mac(text) ||
               why.set("'%.40s' is not a MAC address, as in 02:00:00:00:00:01", text);
    case bv::TypeKind::Ip:
        return is_ip(text) || why.set("'%.40s' is not an IPv4 address, as in 192.168.1.1", text);
    }
    return false;
}

bool tools::text_survives(const char *text, size_t length, Reason &why)
{
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const char *what = byte == '"'    ? "a double quote"
                           : byte == '\\' ? "a backslash"
                           : byte < 0x20  ? "a control character"
                                          : nullptr;
        if (what != nullptr)
            return why.set("%s does not survive a rewrite of the data file", what);
    }
    return length <= kMaxText || why.set("its %zu bytes are more than %zu", length, kMaxText);
}
