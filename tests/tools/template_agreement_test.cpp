// SPDX-License-Identifier: ISC
// What bv-template passes, the library takes whole and keeps through a rewrite: tried with random
// templates, many of them faulty. The seed is fixed: a failure can be repeated.

#include "tools/tool.h"

#include <bv/db.h>
#include <bv/status.h>

#include <random>

namespace {

constexpr char kFamily[] = "agreed.json";
constexpr char kTemplate[] = "/etc/template/agreed.json";
constexpr char kData[] = "/config/work/userdata.json";

class Random {
public:
    bool chance(int percent) { return below(100) < percent; }
    int below(int limit) { return static_cast<int>(engine_() % static_cast<uint32_t>(limit)); }
    template <typename Choices>
    const auto &pick(const Choices &choices)
    {
        return choices[static_cast<size_t>(below(static_cast<int>(std::size(choices))))];
    }

private:
    std::mt19937 engine_{20261120};
};

// JSON that is mostly not what a member should be.
std::string odd_token(Random &random)
{
    static const Words tokens = words(
        R"(0 -0 1.5 1e3 0.10 null true [1] {} 18446744073709551615 18446744073709551616
           -9223372036854775809 "" "\u00201" "1x" "a\u0000b" "\u00fc\u0020\ud83d\ude00" "\ud800"
           "say\"x\"" "tab\t" "\/")");
    return random.pick(tokens);
}

struct ParameterKind {
    const char *type;
    const char *len;
    const char *values[3];
};

std::string element(Random &random, int number)
{
    const ParameterKind kinds[] = {
        {"string", "8", {"\"\"", "\"abc\"", "\"sevench\""}},
        {"char", "1", {"\"-128\"", "127", "\"+7\""}},
        {"uchar", "1", {"\"255\"", "0", "\"007\""}},
        {"short", "2", {"\"-32768\"", "32767", "\"5\""}},
        {"ushort", "\"2\"", {"\"65535\"", "1500", "\"0\""}},
        {"int", "4", {"\"-2147483648\"", "12", "\"2147483647\""}},
        {"uint", "4", {"\"4294967295\"", "4294967295", "\"1\""}},
        {"mac", "6", {"\"2:0:0:0:A:f\"", "\"00:11:22:33:44:55\"", "\"AA:bb:1:2:3:4\""}},
        {"ip", "4", {"\"10.0.0.1\"", "\"0.0.0.0\"", "\"255.255.255.255\""}}};
    const ParameterKind &kind = random.pick(kinds);
    const std::string members[] = {"\"name\":\"p" + std::to_string(number) + "\"",
                                   std::string("\"type\":\"") + kind.type + "\"",
                                   std::string("\"len\":") + kind.len,
                                   std::string("\"value\":") + random.pick(kind.values)};
    const char *keys[] = {"\"name\"", "\"type\"", "\"len\"", "\"value\"", "\"len\\u0000x\""};
    std::string out;
    for (const std::string &member : members)
        if (!random.chance(1))
            out += (out.empty() ? "{" : ",") + member;
    if (random.chance(10))
        out += std::string(",") + random.pick(keys) + ":" + odd_token(random);
    return out + "}";
}

// The template, in which now and then one element's name or value is anything.
std::string random_template(Random &random, int elements)
{
    std::string out;
    for (int i = 0; i < elements; ++i)
        out += (i == 0 ? "" : ",\n") + element(random, i);
    if (random.chance(40))
        out += std::string(",\n{\"name\":") + odd_token(random) +
               ",\"type\":\"string\",\"len\":32,\"value\":" + odd_token(random) + "}";
    return "{\"para\":[" + out + "]}";
}

std::string image_of_instance_1(const bv_db_family &family)
{
    std::string image(static_cast<size_t>(family.image_size), '\0');
    EXPECT_EQ(bv_db_read(kFamily, &image[0], static_cast<uint32_t>(image.size()), 1), BV_OK);
    return image;
}

int taken(const bv_db_family &family)
{
    int count = 0;
    while (count < family.para_count && family.para[count].valid == 1)
        ++count;
    return count;
}

TEST(TemplateAgreement, TemplateThatPassesIsTakenWholeAndSurvivesRewrite)
{
    Random random;
    ASSERT_EQ(bv_db_init(), BV_OK);
    ASSERT_EQ(bv_db_reg_user(kFamily), BV_OK);
    bv_db_ready();
    int passed = 0, refused = 0;
    for (int round = 0; round < 150 && !HasFailure(); ++round) {
        const std::string text = random_template(random, 1 + random.below(6));
        SCOPED_TRACE(text);
        write_file(kTemplate, text);
        if (run_tool({"check", kTemplate}).status != 0) {
            ++refused;
            continue;
        }
        ++passed;
        bv_db_template();
        const bv_db_family *family = bv_db_hash_find(kFamily);
        ASSERT_NE(family, nullptr);
        EXPECT_EQ(taken(*family), family->para_count);
        EXPECT_GT(family->para_count, 0);

        const std::string image = image_of_instance_1(*family);
        EXPECT_EQ(bv_db_commit(), BV_OK);
        bv_db_start();
        EXPECT_EQ(bv_db_inst_getnum(kFamily), 1) << "the rewritten file must load";
        EXPECT_EQ(image_of_instance_1(*bv_db_hash_find(kFamily)), image);
        EXPECT_EQ(run_tool({"data", kData}).output, "");
    }
    EXPECT_GT(passed, 30);
    EXPECT_GT(refused, 30);
}

} // namespace
