// SPDX-License-Identifier: ISC
// Tables of published vectors under data/, and bytes that repeat from run to run.
#ifndef BV_TESTS_CRYPTO_VECTORS_H
#define BV_TESTS_CRYPTO_VECTORS_H

#include "support/hex.h"

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using Row = std::vector<std::string>;

// The rows of a table, each split into its columns.
inline std::vector<Row> read_rows(const std::string &file)
{
    std::ifstream in(std::string(BV_TEST_SOURCE_DIR) + "/crypto/data/" + file);
    std::vector<Row> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        Row row;
        std::istringstream columns(line);
        for (std::string column; std::getline(columns, column, '|');)
            row.push_back(column);
        rows.push_back(row);
    }
    return rows;
}

// A column of bytes: text:CHARACTERS, hex:DIGITS or repeat:COUNT:DIGITS.
inline std::string bytes_of(const std::string &column)
{
    const size_t colon = column.find(':');
    const std::string kind = column.substr(0, colon);
    const std::string value = column.substr(colon + 1);
    if (kind == "text")
        return value;
    if (kind == "hex")
        return from_hex(value);
    if (kind != "repeat")
        abort();
    const std::string unit = from_hex(value.substr(value.find(':') + 1));
    std::string bytes;
    for (int i = 0; i < std::stoi(value); i++)
        bytes += unit;
    return bytes;
}

// The same on every machine and in every run.
class RandomBytes {
public:
    explicit RandomBytes(unsigned seed) : engine_(seed) {}

    std::string bytes(size_t length)
    {
        std::string text(length, 0);
        for (char &c : text)
            c = static_cast<char>(engine_());
        return text;
    }

    // At least low, below high.
    size_t number(size_t low, size_t high) { return low + engine_() % (high - low); }

private:
    std::mt19937 engine_;
};

inline const uint8_t *u8(const std::string &bytes)
{
    return reinterpret_cast<const uint8_t *>(bytes.data());
}

#endif
