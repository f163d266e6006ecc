// The scanner behind bv-template, on good texts and on garbage.

#include <bv/ubus.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

extern "C" {
#include "tools/template/json.h"
}

namespace {

using Tree = std::unique_ptr<json, void (*)(json *)>;

json_fault g_fault;

// Reads from memory that ends where the text ends, so that the sanitizer sees a step beyond.
Tree parse(const std::string &text)
{
    std::unique_ptr<char[]> exact(new char[text.size()]);
    text.copy(exact.get(), text.size());
    return {json_parse(exact.get(), text.size(), &g_fault), json_free};
}

std::string fault_in(const std::string &text)
{
    Tree tree = parse(text);
    return tree != nullptr ? "none" : std::to_string(g_fault.line) + ": " + g_fault.what;
}

TEST(Json, KnowsTheLineOfEveryValueAndName)
{
    Tree tree = parse("\n{ \"a\" :\n 1,\r\n\"b\": [ true,\n\n\"x\\ny\n\", null\n] }\n");
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(tree->line, 2u);
    const json *a = tree->first, *b = a->next;
    EXPECT_EQ(a->name_line, 2u);
    EXPECT_EQ(a->line, 3u);
    EXPECT_EQ(b->line, 4u);
    EXPECT_EQ(b->first->type, JSON_TRUTH);
    EXPECT_EQ(b->first->next->line, 6u);
    EXPECT_STREQ(b->first->next->text, "x\ny\n");
    EXPECT_EQ(b->first->next->next->line, 7u);
    EXPECT_EQ(b->first->next->next->next, nullptr);
}

TEST(Json, DecodesEscapes)
{
    Tree tree =
        parse(R"("\"\\\/\b\f\n\r\t\u0041\u00e9\u7f51\ud83d\ude00\ud83d!\ude00\ud83d\u0041")");
    ASSERT_NE(tree, nullptr);
    EXPECT_STREQ(tree->text, "\"\\/\b\f\n\r\tA\xc3\xa9\xe7\xbd\x91\xf0\x9f\x98\x80"
                             "\xef\xbf\xbd!\xef\xbf\xbd\xef\xbf\xbd"
                             "A");
    Tree zero = parse(R"("a\u0000b")");
    ASSERT_NE(zero, nullptr);
    EXPECT_EQ(std::string(zero->text, zero->length), std::string("a\0b", 3));
}

TEST(Json, KeepsNumbersAsTheyStand)
{
    for (const char *number : {"0", "-0", "17", "-1.50", "1e9", "2E-3", "3.0e+7"}) {
        Tree tree = parse(number);
        ASSERT_NE(tree, nullptr) << number;
        EXPECT_EQ(tree->type, JSON_NUMBER);
        EXPECT_STREQ(tree->text, number);
    }
    for (const char *bad : {"-", "+1", ".5", "1.", "01", "1e", "0x10", "1e+", "NaN"})
        EXPECT_NE(fault_in(bad), "none") << bad;
}

TEST(Json, TakesTheLastOfTwoMembersOfOneName)
{
    Tree tree = parse(R"({"a":1,"b":null,"a":2})");
    ASSERT_NE(tree, nullptr);
    EXPECT_STREQ(json_member(tree.get(), "a")->text, "2");
    EXPECT_EQ(json_member(tree.get(), "b"), nullptr);
    EXPECT_EQ(json_member(tree.get(), "c"), nullptr);
    EXPECT_EQ(json_member(tree->first, "a"), nullptr);
}

TEST(Json, SaysWhereItEnds)
{
    using namespace std::string_literals;
    EXPECT_EQ(fault_in(""), "1: a value is expected");
    EXPECT_EQ(fault_in("{\n\"a\"}"), "2: ':' is expected");
    EXPECT_EQ(fault_in("{\n\n,}"), "3: a text in double quotes is expected");
    EXPECT_EQ(fault_in("{\"a\":1,\n}"), "2: a text in double quotes is expected");
    EXPECT_EQ(fault_in("[1\n2]"), "2: ',' or ']' is expected");
    EXPECT_EQ(fault_in("{\"a\":1\n\"b\":2}"), "2: ',' or '}' is expected");
    EXPECT_EQ(fault_in("[1,]"), "1: a value is expected");
    EXPECT_EQ(fault_in("\"a\nb"), "2: a text has no end");
    EXPECT_EQ(fault_in("\"a\\"), "1: a backslash in front of nothing that can be escaped");
    EXPECT_EQ(fault_in("\"\\x\""), "1: a backslash in front of nothing that can be escaped");
    EXPECT_EQ(fault_in("\"\\u12g4\""), "1: \\u needs four hexadecimal digits");
    EXPECT_EQ(fault_in("\"a\0b\""s), "1: a zero byte");
    EXPECT_EQ(fault_in("{}\n}"), "2: something follows the end");
    EXPECT_EQ(fault_in("{}\0"s), "1: something follows the end");
}

TEST(Json, StopsWhereTheLibraryStopsNesting)
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
        Tree tree = parse(bad);
        EXPECT_EQ(tree == nullptr, g_fault.what != nullptr) << bad;
    }
}

} // namespace
