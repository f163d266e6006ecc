// SPDX-License-Identifier: ISC
// The recorded calls in vectors.txt: reading the file and the values in it.
//
// Value syntax: hex is two digits a byte, "-" for no bytes; quoted text knows \\, \" and \xHH, and
// NULL without quotes is a null pointer; everything else is decimal.

#ifndef COMPAT_BOUNDSCHECK_TESTS_VECTOR_FILE_H
#define COMPAT_BOUNDSCHECK_TESTS_VECTOR_FILE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct Vector {
    std::string function;
    std::map<std::string, std::string> fields;

    std::string text(const std::string &key) const;
    // Decimal; a number that is too large for this machine's size_t becomes its largest value.
    size_t size(const std::string &key) const;
    int integer(const std::string &key) const;
    std::string bytes(const std::string &key) const;
    std::optional<std::string> quoted(const std::string &key) const;
    // The values of arg1, arg2 ... or out1, out2 ...
    std::vector<std::string> numbered(const std::string &stem) const;
    // What to show when the vector fails.
    std::string name() const;
};

// All vectors of one function that hold on this machine (a row with bits=32 or bits=64 needs a long
// of that size); none if the file cannot be read.
std::vector<Vector> vectors_of(const std::string &function);

std::optional<std::string> parse_quoted(const std::string &value);

#endif
