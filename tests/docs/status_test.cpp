// SPDX-License-Identifier: ISC
// The page of the status codes against their header.

#include "docs/page.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

using Codes = std::map<std::string, uint32_t>;

uint32_t value_of(const std::string &text)
{
    return static_cast<uint32_t>(
        strtoll(text[0] == '(' ? text.c_str() + 1 : text.c_str(), nullptr, 0));
}

// #define NAME VALUE
Codes codes_of_the_header()
{
    Codes codes;
    std::istringstream words(source_file("include/bv/status.h"));
    for (std::string word, name, value; words >> word;)
        if (word == "#define" && words >> name && name.rfind("BV_", 0) == 0 &&
            name != "BV_STATUS_H") {
            words >> value;
            codes[name] = value_of(value);
        }
    return codes;
}

// | VALUE | `NAME` | meaning | what to do |
Codes codes_of_the_page()
{
    Codes codes;
    std::istringstream lines(source_file("docs/status.md"));
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> cells;
        std::istringstream row(line);
        for (std::string cell; std::getline(row, cell, '|');)
            cells.push_back(cell);
        if (cells.size() < 5 || cells[2].rfind(" `BV_", 0) != 0)
            continue;
        EXPECT_GT(cells[3].size(), 5u) << line; // what it means
        EXPECT_GT(cells[4].size(), 5u) << line; // what to do about it
        codes[cells[2].substr(2, cells[2].size() - 4)] = value_of(cells[1].substr(1));
    }
    return codes;
}

TEST(StatusPage, HasEveryCodeWithItsValue)
{
    Codes header = codes_of_the_header();
    EXPECT_GT(header.size(), 15u);
    EXPECT_EQ(codes_of_the_page(), header);
}

} // namespace
