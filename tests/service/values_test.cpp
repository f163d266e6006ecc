/* SPDX-License-Identifier: ISC */
#include "service/fixture.h"

using namespace bv::service;

namespace {

const ::Parameters kTypes = {{"s", "string", 4, "abc"},  {"c", "char", 1, "-1"},
                             {"uc", "uchar", 1, "1"},    {"sh", "short", 2, "-2"},
                             {"us", "ushort", 2, "2"},   {"i", "int", 4, "-3"},
                             {"ui", "uint", 4, "3"},     {"m", "mac", 6, "02:00:00:00:00:01"},
                             {"ip", "ip", 4, "10.0.0.1"}};

class Values : public Parts {
protected:
    void SetUp() override
    {
        Parts::SetUp();
        ASSERT_EQ(start_service({family_of("t.json", kTypes)}), BV_SERVICE_ENDED);
    }
    static int32_t set(const std::string &name, const std::string &value)
    {
        return request(R"({"t.json":[{"inst":"1","para":{")" + name + "\":\"" + value + "\"}}]}");
    }
};

} // namespace

TEST_F(Values, ExtremesOfEachTypeComeBackAsTheyWere)
{
    const std::string all =
        R"({"s":"","c":"-128","uc":"255","sh":"-32768","us":"65535","i":"-2147483648",)"
        R"("ui":"4294967295","m":"ff:ff:ff:ff:ff:ff","ip":"255.255.255.255"})";
    ASSERT_EQ(request(R"({"t.json":[{"inst":"1","para":)" + all + "}]}"), BV_OK) << words();
    EXPECT_EQ(values("t.json", 1), all);
}

TEST_F(Values, WhatDoesNotFitIsRefusedByName)
{
    const std::string before = values("t.json", 1);
    const struct {
        const char *name, *value;
    } cases[] = {{"s", "abcd"},    {"s", "a\\\"b"},     {"s", "a\\\\"},       {"s", "\\u0001"},
                 {"s", "\\u0000"}, {"c", "128"},        {"uc", "-1"},         {"sh", "32768"},
                 {"us", "65536"},  {"i", "2147483648"}, {"ui", "4294967296"}, {"ui", ""},
                 {"i", "1x"},      {"m", "02:00:00"},   {"ip", "1.2.3"},      {"none", "1"}};
    for (const auto &one : cases) {
        EXPECT_EQ(set(one.name, one.value), BV_ERR_INVALID) << one.name << " " << one.value;
        EXPECT_EQ(words().rfind(std::string("t.json.") + one.name + ":", 0), 0u) << words();
    }
    EXPECT_EQ(values("t.json", 1), before);
}

TEST_F(Values, ShorterTextLeavesNothingOfTheLongerOne)
{
    ASSERT_EQ(set("s", "xyz"), BV_OK);
    ASSERT_EQ(set("s", "q"), BV_OK);
    const bv_db_family *family = bv_db_hash_find("t.json");
    EXPECT_EQ(memcmp(bv_db_data_get_inst(const_cast<bv_db_family *>(family), 1)->image, "q\0\0", 4),
              0);
}

TEST_F(Values, ConversionShowsNothingOfTheOneBefore)
{
    const auto text = [](const char *type, int32_t len, const char *value) {
        bv_db_para para = {1, 0, len, "p", "", ""};
        strcpy(para.type, type);
        return std::string(value_text(para, reinterpret_cast<const uint8_t *>(value)));
    };
    EXPECT_EQ(text("string", 8, "abcdefgh"), "abcdefgh");
    EXPECT_EQ(text("string", 4, "wxyz"), "wxyz");
    EXPECT_EQ(text("unknown", 4, "wxyz"), "");
}

TEST_F(Values, TextThatGetsTooLongStaysAsItWas)
{
    const std::string piece(kMaxText / 4 + 1, 'x');
    Text text;
    for (int i = 0; i < 4; ++i)
        text.put(piece.c_str());
    EXPECT_TRUE(text.failed);
    EXPECT_EQ(text.length, 3 * piece.size());
}

TEST_F(Values, QuotedTextsComeBackFromJson)
{
    const std::string odd = "a\"\\\n\x01\x7f\xc3\xa4/";
    Text text;
    text.quote(odd.c_str());
    for (const char byte : std::string(text.bytes))
        EXPECT_GE(static_cast<unsigned char>(byte), 0x20) << text.bytes;
    json_object *tree = json_tokener_parse(text.bytes);
    ASSERT_NE(tree, nullptr) << text.bytes;
    EXPECT_EQ(json_object_get_string(tree), odd);
    json_object_put(tree);
}

TEST_F(Values, HiddenFamilyShowsNoValues)
{
    bv_service_family hidden = *listed("t.json");
    hidden.flags = BV_SERVICE_HIDDEN;
    const Family family(hidden);
    Text text;
    put_instance(text, family, -5, family.record->default_image);
    EXPECT_STREQ(text.bytes, R"({"inst":"-5","para":{}})");
}
