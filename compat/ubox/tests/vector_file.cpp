/* SPDX-License-Identifier: ISC */
#include "vector_file.h"

#include "support/hex.h"

#include <cstdlib>
#include <fstream>

namespace {

// Words are separated by blanks; a quoted string is one word and keeps its quotes.
Words split(const std::string &line)
{
    Words words;
    size_t at = 0;

    while ((at = line.find_first_not_of(' ', at)) != std::string::npos) {
        size_t end = line[at] == '"' ? line.find('"', at + 1) + 1 : line.find(' ', at);

        if (end == std::string::npos)
            end = line.size();
        words.push_back(line.substr(at, end - at));
        at = end;
    }
    return words;
}

// "fill:61:200" and "rep:n:256": the middle and the count.
bool repeated(const std::string &word, const char *prefix, std::string *what, size_t *count)
{
    size_t length = std::string(prefix).size();

    if (word.compare(0, length, prefix) != 0)
        return false;
    size_t colon = word.find(':', length);
    *what = word.substr(length, colon - length);
    *count = strtoul(word.c_str() + colon + 1, nullptr, 10);
    return true;
}

} // namespace

const Words *Vector::find(const std::string &first) const
{
    for (const Words &line : lines) {
        if (line[0] == first)
            return &line;
    }
    return nullptr;
}

std::string Vector::text(const std::string &first) const
{
    const Words *line = find(first);

    return line && line->size() > 1 ? (*line)[1] : "";
}

long long Vector::number(const std::string &first, long long otherwise) const
{
    const Words *line = find(first);

    return line ? strtoll((*line)[1].c_str(), nullptr, 0) : otherwise;
}

bool Vector::is_quirk() const
{
    const Words *note = find("note");

    return note && (*note)[1] == "quirk:";
}

std::vector<Vector> load_vectors(const std::string &kind)
{
    std::ifstream file(BV_TEST_SOURCE_DIR "/../compat/ubox/tests/vectors.txt");
    std::vector<Vector> found;
    std::string line;
    Vector current;

    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        Words words = split(line);
        if (words[0] == "case") {
            current = Vector{words[1], words[2], {}};
        } else if (words[0] == "end") {
            if (current.kind == kind)
                found.push_back(current);
        } else {
            current.lines.push_back(words);
        }
    }
    return found;
}

std::vector<uint8_t> bytes_of(const std::string &word)
{
    std::string what;
    size_t count;

    if (repeated(word, "fill:", &what, &count))
        return std::vector<uint8_t>(count,
                                    static_cast<uint8_t>(strtoul(what.c_str(), nullptr, 16)));

    return word == "-" ? std::vector<uint8_t>() : from_hex<std::vector<uint8_t>>(word);
}

std::string hex_of(const void *data, size_t length)
{
    return length > 0 ? to_hex(data, length) : "-";
}

std::optional<std::string> string_of(const std::string &word)
{
    std::string what;
    size_t count;

    if (word == "NULL")
        return std::nullopt;
    if (repeated(word, "rep:", &what, &count))
        return std::string(count, what[0]);
    return word.substr(1, word.size() - 2);
}
