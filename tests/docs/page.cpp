/* SPDX-License-Identifier: ISC */
#include "docs/page.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

// One line of a block of bytes: an offset, bytes, and a remark after four blanks.
void append_bytes(std::vector<uint8_t> &bytes, const std::string &line)
{
    std::istringstream words(line.substr(0, line.find("    ")));
    for (std::string word; words >> word;) {
        if (word.back() == ':') {
            EXPECT_EQ(strtoul(word.c_str(), nullptr, 16), bytes.size()) << line;
        } else if (word == "*" && words >> word) {
            bytes.resize(bytes.size() - 1 + strtoul(word.c_str(), nullptr, 10), bytes.back());
        } else {
            EXPECT_EQ(word.size(), 2u) << line;
            bytes.push_back(static_cast<uint8_t>(strtoul(word.c_str(), nullptr, 16)));
        }
    }
}

} // namespace

std::string source_file(const std::string &path)
{
    return read_file(std::string(BV_TEST_SOURCE_DIR) + "/../" + path);
}

std::string text_block(const std::string &name)
{
    const std::string page = source_file("docs/formats.md");
    const size_t mark = page.find("<!-- " + name + " -->\n");
    const size_t fence = page.find("```", mark);
    const size_t start = page.find('\n', fence) + 1;
    const size_t end = page.find("```\n", start);
    EXPECT_TRUE(mark != std::string::npos && end != std::string::npos) << "no block " << name;
    if (mark == std::string::npos || end == std::string::npos)
        return "";

    const std::string arrow = "→";
    std::string text = page.substr(start, end - start);
    for (size_t at; (at = text.find(arrow)) != std::string::npos;)
        text.replace(at, arrow.size(), "\t");
    return text;
}

std::vector<uint8_t> byte_block(const std::string &name)
{
    std::vector<uint8_t> bytes;
    std::istringstream lines(text_block(name));
    for (std::string line; std::getline(lines, line);)
        append_bytes(bytes, line);
    EXPECT_FALSE(bytes.empty()) << name;
    return bytes;
}
