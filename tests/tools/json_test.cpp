// SPDX-License-Identifier: ISC
// The JSON reader of bv-template, on good texts and on garbage.

#include "tools/template/json.h"

#include <bv/ubus.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using tools::Json;
using Kind = Json::Kind;

// A document in memory that ends where the text ends, so that the sanitizer sees a step past it.
struct Parsed {
    explicit Parsed(const std::string &text)
    {
        auto *block = static_cast<char *>(malloc(1 + text.size()));
        memcpy(block + 1, text.data(), text.size());
        good = document.parse(block, text.size(), fault);
    }
    const Json *operator->() const { return document.root(); }
    const Json &root() const { return *document.root(); }

    tools::JsonDocument document;
    tools::JsonFault fault;
    bool good;
};

std::string fault_in(const std::string &text)
{
    const Parsed parsed(text);
    return parsed.good ? "none" : std::to_string(parsed.fault.line) + ": " + parsed.fault.what;
}

TEST(Json, KnowsLineOfEveryValueAndName)
{
    const Parsed tree("\n{ \"a\" :\n 1,\r\n\"b\": [ true,\n\n\"x\\ny\n\", null\n] }\n");
    ASSERT_TRUE(tree.good);
    EXPECT_EQ(tree->line, 2u);
    const Json *a = tree->first, *b = a->next;
    EXPECT_EQ(a->name_line, 2u);
    EXPECT_EQ(a->line, 3u);
    EXPECT_EQ(b->line, 4u);
    EXPECT_EQ(b->first->kind, Kind::Truth);
    EXPECT_EQ(b->first->next->line, 6u);
    EXPECT_STREQ(b->first->next->text, "x\ny\n");
    EXPECT_EQ(b->first->next->next->line, 7u);
    EXPECT_EQ(b->first->next->next->next, nullptr);
}

TEST(Json, DecodesEscapes)
{
    const Parsed tree(
        R"("\"\\\/\b\f\n\r\t\u0041\u00e9\u7f51\ud83d\ude00\ud83d!\ude00\ud83d\u0041")");
    ASSERT_TRUE(tree.good);
    EXPECT_STREQ(tree->text, "\"\\/\b\f\n\r\tA\xc3\xa9\xe7\xbd\x91\xf0\x9f\x98\x80"
                             "\xef\xbf\xbd!\xef\xbf\xbd\xef\xbf\xbd"
                             "A");
    const Parsed zero(R"("a\u0000b")");
    ASSERT_TRUE(zero.good);
    EXPECT_EQ(std::string(zero->text, zero->length), std::string("a\0b", 3));
}

TEST(Json, KeepsNumbersAsWritten)
{
    for (const char *number : {"0", "-0", "17", "-1.50", "1e9", "2E-3", "3.0e+7"}) {
        const Parsed tree(number);
        ASSERT_TRUE(tree.good) << number;
        EXPECT_EQ(tree->kind, Kind::Number);
        EXPECT_STREQ(tree->text, number);
    }
    for (const char *bad : {"-", "+1", ".5", "1.", "01", "1e", "0x10", "1e+", "NaN"})
        EXPECT_NE(fault_in(bad), "none") << bad;
}

TEST(Json, TakesLastOfTwoMembersWithSameName)
{
    const Parsed tree(R"({"a":1,"b":null,"a":2})");
    ASSERT_TRUE(tree.good);
    EXPECT_STREQ(tree->member("a")->text, "2");
    EXPECT_EQ(tree->member("b"), nullptr);
    EXPECT_EQ(tree->member("c"), nullptr);
    EXPECT_EQ(tree->first->member("a"), nullptr);
}

TEST(Json, SaysInWhichLineTheFirstFaultIs)
{
    using namespace std::string_literals;
    const std::pair<std::string, const char *> rows[] = {
        {"", "1: a value is expected"},
        {"{\n\"a\"}", "2: ':' is expected"},
        {"{\n\n,}", "3: a string in double quotes is expected"},
        {"{\"a\":1,\n}", "2: a string in double quotes is expected"},
        {"[1\n2]", "2: ',' or ']' is expected"},
        {"{\"a\":1\n\"b\":2}", "2: ',' or '}' is expected"},
        {"[1,]", "1: a value is expected"},
        {"\"a\nb", "2: a string has no end"},
        {"\"a\\", "1: a backslash before something that cannot be escaped"},
        {"\"\\x\"", "1: a backslash before something that cannot be escaped"},
        {"\"\\u12g4\"", "1: \\u needs four hexadecimal digits"},
        {"\"a\0b\""s, "1: a zero byte"},
        {"{}\n}", "2: something follows the end"},
        {"{}\0"s, "1: something follows the end"}};
    for (const auto &[text, fault] : rows)
        EXPECT_EQ(fault_in(text), fault);
}

TEST(Json, StopsNestingWhereTheLibraryStops)
{
    for (const char *inside : {"", "1", "{}"}) {
        for (size_t depth = 30; depth < 34; ++depth) {
            const std::string text = std::string(depth, '[') + inside + std::string(depth, ']');
            json_object *tree = bv_json_tokener_parse(text.c_str());
            EXPECT_EQ(fault_in(text), tree != nullptr ? "none" : "1: nested too deep") << text;
            bv_json_object_put(tree);
        }
    }
    EXPECT_EQ(fault_in(std::string(31, '[') + "1" + std::string(31, ']')), "none");
    EXPECT_EQ(fault_in(std::string(1000000, '[')), "1: nested too deep");
}

TEST(Json, SurvivesEveryCutAndManyChanges)
{
    const std::string good = "{\"para\":[{\"name\":\"a\\u00e9\\ud83d\\ude00\",\"len\":-1.5e3},"
                             "[true,false,null,\"\\\\\\\"\"]]}\n";
    ASSERT_EQ(fault_in(good), "none");
    for (size_t length = 0; length + 1 < good.size(); ++length)
        EXPECT_NE(fault_in(good.substr(0, length)), "none") << length;

    const char bytes[] = "{}[]\",:\\u0ea-.\n\x80";
    uint32_t seed = 7;
    for (int round = 0; round < 20000; ++round) {
        std::string bad = good;
        for (int i = 0; i < 3; ++i) {
            seed = seed * 1664525 + 1013904223;
            bad[(seed >> 8) % bad.size()] = bytes[(seed >> 24) % sizeof bytes];
        }
        const Parsed tree(bad);
        EXPECT_EQ(tree.good, tree.fault.what == nullptr) << bad;
    }
}

} // namespace
