/* SPDX-License-Identifier: ISC */
#include "vector_file.h"

#include "support/hex.h"

#include <climits>
#include <cstdlib>
#include <fstream>

namespace {

Vector parse_line(const std::string &line)
{
    Vector vector;
    size_t start = line.find('\t');
    vector.function = line.substr(0, start);
    while (start != std::string::npos) {
        size_t end = line.find('\t', start + 1);
        std::string field = line.substr(start + 1, end - start - 1);
        size_t equals = field.find('=');
        vector.fields[field.substr(0, equals)] = field.substr(equals + 1);
        start = end;
    }
    return vector;
}

bool holds_here(const Vector &vector)
{
    return vector.fields.count("bits") == 0 ||
           vector.integer("bits") == static_cast<int>(sizeof(long) * CHAR_BIT);
}

} // namespace

std::vector<Vector> vectors_of(const std::string &function)
{
    std::vector<Vector> vectors;
    std::ifstream file(BV_TEST_SOURCE_DIR "/../compat/boundscheck/tests/vectors.txt");
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, function.size() + 1, function + "\t") != 0)
            continue;
        Vector vector = parse_line(line);
        if (holds_here(vector))
            vectors.push_back(vector);
    }
    return vectors;
}

std::optional<std::string> parse_quoted(const std::string &value)
{
    if (value == "NULL")
        return std::nullopt;
    std::string text;
    for (size_t i = 1; i + 1 < value.size(); ++i) {
        if (value[i] != '\\') {
            text += value[i];
        } else if (value[++i] == 'x') {
            text += from_hex(value.substr(i + 1, 2));
            i += 2;
        } else {
            text += value[i];
        }
    }
    return text;
}

std::string Vector::text(const std::string &key) const
{
    return fields.at(key);
}

size_t Vector::size(const std::string &key) const
{
    unsigned long long value = std::strtoull(text(key).c_str(), nullptr, 10);
    return value > SIZE_MAX ? SIZE_MAX : static_cast<size_t>(value);
}

int Vector::integer(const std::string &key) const
{
    return std::atoi(text(key).c_str());
}

std::string Vector::bytes(const std::string &key) const
{
    return text(key) == "-" ? "" : from_hex(text(key));
}

std::optional<std::string> Vector::quoted(const std::string &key) const
{
    return parse_quoted(text(key));
}

std::vector<std::string> Vector::numbered(const std::string &stem) const
{
    std::vector<std::string> values;
    for (int i = 1; fields.count(stem + std::to_string(i)) != 0; ++i)
        values.push_back(text(stem + std::to_string(i)));
    return values;
}

std::string Vector::name() const
{
    return text("id") + ": " + text("note");
}
