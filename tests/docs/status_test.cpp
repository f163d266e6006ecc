// SPDX-License-Identifier: ISC
// The page of the status codes and the texts of the codes, against their header.

#include "docs/page.h"

#include <bv/status.h>
#include <bv/ubus.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
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

// Each match of a pattern in the page.
std::vector<std::smatch> rows_of_the_page(const char *pattern)
{
    static const std::string page = source_file("docs/status.md");
    const std::regex row(pattern);
    return {std::sregex_iterator(page.begin(), page.end(), row), {}};
}

TEST(StatusPage, HasEveryCodeWithItsValueAndText)
{
    Codes on_page;
    for (const std::smatch &row : rows_of_the_page(R"(\n\* (\S+) `(BV_\w+)`: ([^.]+)\.)")) {
        on_page[row[2]] = value_of(row[1]);
        EXPECT_EQ(row[3], bv_status_text(value_of(row[1])));
    }
    EXPECT_GT(on_page.size(), 15u);
    EXPECT_EQ(on_page, codes_of_the_header());
}

TEST(StatusPage, HasTheTextsOfTheBus)
{
    const std::vector<std::smatch> rows = rows_of_the_page(R"(\n\* (\d+) ([^`.]+)\.)");
    EXPECT_EQ(rows.size(), 6u);
    for (const std::smatch &row : rows)
        EXPECT_EQ(row[2], bv_bus_status_text(value_of(row[1])));
}

TEST(StatusText, IsDifferentForEveryCodeAndSaysWhenItIsUnknown)
{
    const Codes codes = codes_of_the_header();
    std::set<std::string> texts = {"unknown status"};
    for (const auto &[name, code] : codes)
        texts.insert(bv_status_text(code));
    EXPECT_EQ(texts.size(), codes.size() + 1);
    EXPECT_STREQ(bv_status_text(int32_t{BV_ERR_FAILED}), bv_status_text(UINT32_MAX));

    std::set<std::string> bus_texts = {"unknown status"};
    for (int status = UBUS_STATUS_OK; status <= UBUS_STATUS_SYSTEM_ERROR; ++status)
        bus_texts.insert(bv_bus_status_text(status));
    EXPECT_EQ(bus_texts.size(), 15u);

    for (int64_t code : {int64_t{0x10000001}, INT64_MAX, int64_t{-2}, int64_t{14}}) {
        EXPECT_STREQ(bv_status_text(code), "unknown status");
        EXPECT_STREQ(bv_bus_status_text(code), "unknown status");
    }
}

} // namespace
