// SPDX-License-Identifier: ISC
// Bytes as hexadecimal digits and back.
#ifndef BV_TESTS_SUPPORT_HEX_H
#define BV_TESTS_SUPPORT_HEX_H

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

inline std::string to_hex(const void *data, size_t length)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < length; i++) {
        const uint8_t byte = static_cast<const uint8_t *>(data)[i];
        out += kDigits[byte >> 4];
        out += kDigits[byte & 15];
    }
    return out;
}

// Of a string or a vector of bytes.
template <typename Bytes>
std::string to_hex(const Bytes &bytes)
{
    return to_hex(bytes.data(), bytes.size());
}

// Blanks and newlines between the digits are fine.
template <typename Bytes = std::string>
Bytes from_hex(const std::string &digits)
{
    Bytes bytes;
    std::string pair;
    for (char c : digits) {
        if (isspace(static_cast<unsigned char>(c)))
            continue;
        pair += c;
        if (pair.size() == 2) {
            bytes.push_back(
                static_cast<typename Bytes::value_type>(strtoul(pair.c_str(), nullptr, 16)));
            pair.clear();
        }
    }
    return bytes;
}

#endif
