// SPDX-License-Identifier: ISC
// Reads vectors.txt, whose head explains the format.
#ifndef COMPAT_UBOX_TESTS_VECTOR_FILE_H
#define COMPAT_UBOX_TESTS_VECTOR_FILE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

using Words = std::vector<std::string>;

struct Vector {
    std::string name;
    std::string kind;
    std::vector<Words> lines;

    // The words after the first line that starts with this one, or null.
    const Words *find(const std::string &first) const;
    // The only word after it; "" when there is no such line.
    std::string text(const std::string &first) const;
    // The same as a number, with a default.
    long long number(const std::string &first, long long otherwise = 0) const;
    bool is_quirk() const;
};

std::vector<Vector> load_vectors(const std::string &kind);

std::vector<uint8_t> bytes_of(const std::string &word); // hex, "-" or fill:HH:N
std::string hex_of(const void *data, size_t length);    // "-" for none

// A quoted string, rep:c:N or NULL.
std::optional<std::string> string_of(const std::string &word);

#endif
