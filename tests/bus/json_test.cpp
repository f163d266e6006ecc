// SPDX-License-Identifier: ISC
// JSON wrappers: each does what the function underneath does.

#include <bv/ubus.h>

#include "support/files.h"

#include <gtest/gtest.h>

namespace {

constexpr char kText[] = R"({"name":"eth0","mtu":1500,"big":99999999999,"quoted":"42",)"
                         R"("list":[10,"x",null],"none":null,"on":true,"table":{"k":1}})";

class Json : public testing::Test {
protected:
    Json() : root(bv_json_tokener_parse(kText)) { EXPECT_NE(root, nullptr); }
    ~Json() override { bv_json_object_put(root); }

    json_object *get(const char *key) const { return bv_json_object_object_get(root, key); }

    json_object *root;
};

} // namespace

TEST_F(Json, ValuesAreFoundByKey)
{
    EXPECT_STREQ(bv_json_object_get_string(get("name")), "eth0");
    EXPECT_EQ(bv_json_object_get_int(get("mtu")), 1500);
    EXPECT_EQ(bv_json_object_get_int(bv_json_object_object_get(get("table"), "k")), 1);
    EXPECT_EQ(get("absent"), nullptr);
    EXPECT_EQ(get("none"), nullptr);
    EXPECT_EQ(bv_json_object_object_get(get("list"), "k"), nullptr);
    EXPECT_EQ(bv_json_object_object_get(nullptr, "k"), nullptr);
}

TEST_F(Json, ArraysHaveALengthAndElements)
{
    EXPECT_EQ(bv_json_object_array_length(get("list")), 3u);
    EXPECT_EQ(bv_json_object_get_int(bv_json_object_array_get_idx(get("list"), 0)), 10);
    EXPECT_STREQ(bv_json_object_get_string(bv_json_object_array_get_idx(get("list"), 1)), "x");
    EXPECT_EQ(bv_json_object_array_get_idx(get("list"), 2), nullptr);
    EXPECT_EQ(bv_json_object_array_get_idx(get("list"), 3), nullptr);
}

TEST_F(Json, NumbersAndTextsConvert)
{
    EXPECT_STREQ(bv_json_object_get_string(get("mtu")), "1500");
    EXPECT_EQ(bv_json_object_get_int(get("quoted")), 42);
    EXPECT_EQ(bv_json_object_get_int(get("big")), INT32_MAX);
    EXPECT_EQ(bv_json_object_get_int(get("name")), 0);
    EXPECT_EQ(bv_json_object_get_int(nullptr), 0);
    EXPECT_EQ(bv_json_object_get_string(nullptr), nullptr);
}

TEST_F(Json, TypesAreRecognised)
{
    EXPECT_EQ(bv_json_object_is_type(root, json_type_object), 1);
    EXPECT_EQ(bv_json_object_is_type(root, json_type_array), 0);
    EXPECT_EQ(bv_json_object_is_type(get("list"), json_type_array), 1);
    EXPECT_EQ(bv_json_object_is_type(get("mtu"), json_type_int), 1);
    EXPECT_EQ(bv_json_object_is_type(get("name"), json_type_string), 1);
    EXPECT_EQ(bv_json_object_is_type(get("on"), json_type_boolean), 1);
    EXPECT_EQ(bv_json_object_is_type(nullptr, json_type_null), 1);
}

TEST(JsonParse, TextThatIsNotJsonIsNull)
{
    EXPECT_EQ(bv_json_tokener_parse("{\"a\":"), nullptr);
    EXPECT_EQ(bv_json_tokener_parse("nonsense"), nullptr);
    EXPECT_EQ(bv_json_tokener_parse(""), nullptr);
}

TEST(JsonParse, FilesAreRead)
{
    write_file("/scratch/good.json", kText);
    write_file("/scratch/bad.json", "{\"a\":");
    json_object *root = bv_json_object_from_file("/scratch/good.json");
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(bv_json_object_get_int(bv_json_object_object_get(root, "mtu")), 1500);
    EXPECT_EQ(bv_json_object_put(root), 1);
    EXPECT_EQ(bv_json_object_from_file("/scratch/bad.json"), nullptr);
    EXPECT_EQ(bv_json_object_from_file("/scratch/absent.json"), nullptr);
}

TEST(JsonParse, LastReferenceFreesAnObject)
{
    json_object *root = bv_json_tokener_parse("[1]");
    json_object_get(root);
    EXPECT_EQ(bv_json_object_put(root), 0);
    EXPECT_EQ(bv_json_object_put(root), 1);
    EXPECT_EQ(bv_json_object_put(nullptr), 0);
}
