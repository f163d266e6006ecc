#include "db/database.h"

#include <algorithm>
#include <climits>
#include <ctime>
#include <numeric>
#include <random>

namespace {

using Numbers = std::vector<int>;

// Two small families, "a" (uint id, default 7; string name, default none) and "b" (uchar).
class DbFileReading : public Db {
protected:
    void SetUp() override
    {
        Db::SetUp();
        a = user_family("a", {{"id", "uint", 4, "7"}, {"name", "string", 8, "none"}});
        b = user_family("b", {{"level", "uchar", 1, "3"}});
    }

    static int load(const std::string &text)
    {
        put_file(kUserFile, text);
        return bv_db_user_read(&g_st_db_mng.user_list, kUserFile);
    }

    // Loads elements of family a; b is absent.
    static int load_a(const std::string &elements) { return load("{\"a\":[" + elements + "]}"); }

    static uint32_t id(int number)
    {
        uint8_t image[12] = {};
        EXPECT_EQ(bv_db_read("a", image, sizeof image, static_cast<uint32_t>(number)), BV_OK);
        uint32_t out;
        memcpy(&out, image, sizeof out);
        return out;
    }

    static std::string name(int number)
    {
        char image[13] = {};
        EXPECT_EQ(bv_db_read("a", image, 12, static_cast<uint32_t>(number)), BV_OK);
        return image + 4;
    }

    bv_db_family *a = nullptr;
    bv_db_family *b = nullptr;
};

TEST_F(DbFileReading, TakesEveryElementInOrder)
{
    EXPECT_EQ(load(R"({"a":[{"inst":"5","para":{"id":"50","name":"five"}},
                            {"inst":"2","para":{"id":"20","name":"two"}}],
                       "b":[{"inst":"1","para":{"level":"9"}}]})"),
              BV_OK);
    EXPECT_EQ(numbers(a), (Numbers{5, 2}));
    EXPECT_EQ(a->inst_count, 2);
    EXPECT_EQ(a->inst_max, 5);
    EXPECT_EQ(id(5), 50u);
    EXPECT_EQ(name(5), "five");
    EXPECT_EQ(id(2), 20u);
    EXPECT_EQ(name(2), "two");
    EXPECT_EQ(image_of(b, 1), Bytes{9});
}

TEST_F(DbFileReading, ReadsBackWhatWasWritten)
{
    add_instance(a, 3, {"4294967295", "x y"});
    add_instance(a, -1, {"2147483648", ""});
    Bytes third = image_of(a, 3), minus = image_of(a, -1);
    EXPECT_EQ(bv_db_user_write(&g_st_db_mng.user_list, kUserFile), BV_OK);
    bv_db_data_free(a);
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, kUserFile), BV_OK);
    EXPECT_EQ(numbers(a), (Numbers{3, -1}));
    EXPECT_EQ(image_of(a, 3), third);
    EXPECT_EQ(id(-1), 2147483648u);
    EXPECT_EQ(name(-1), "");
    EXPECT_EQ(image_of(a, -1).size(), minus.size());
}

TEST_F(DbFileReading, AMissingFileMakesNoInstance)
{
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, "/config/work/none.json"), -1);
    EXPECT_EQ(numbers(a), Numbers{});
    EXPECT_EQ(id(1), 7u) << "instance 1 reads as the defaults";
}

TEST_F(DbFileReading, WhatIsNoJsonMakesNoInstance)
{
    std::string whole = R"({"a":[{"inst":"5","para":{"id":"50"}}]})";
    const std::string texts[] = {"",
                                 "\n",
                                 "garbage",
                                 "{",
                                 "{\"a\":[",
                                 "\xff\xff",
                                 "null",
                                 whole.substr(0, whole.size() / 2),
                                 whole.substr(0, whole.size() - 1),
                                 std::string(200, '['),
                                 R"({"a":[{"inst":"5","para":{"name":"un"quoted"}}]})"};
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        EXPECT_EQ(load(text), -1);
        EXPECT_EQ(numbers(a), Numbers{});
        EXPECT_EQ(numbers(b), Numbers{});
    }
}

TEST_F(DbFileReading, AFolderIsNoFile)
{
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, "/config/work"), -1);
}

TEST_F(DbFileReading, NullArgumentsFail)
{
    put_file(kUserFile, "{}");
    EXPECT_EQ(bv_db_user_read(nullptr, kUserFile), -1);
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, nullptr), -1);
}

TEST_F(DbFileReading, AnAbsentFamilyGetsExactlyInstance1WithTheDefaults)
{
    for (const char *text :
         {"{}", "{\"c\":[]}", "{\"a\":null,\"b\":null}", "[]", "[1,2]", "7\n", "\"a\"", "true\n"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(load(text), BV_OK);
        EXPECT_EQ(numbers(a), Numbers{1});
        EXPECT_EQ(numbers(b), Numbers{1});
        EXPECT_EQ(id(1), 7u);
        EXPECT_EQ(name(1), "none");
        EXPECT_EQ(image_of(b, 1), Bytes{3});
        bv_db_data_free(a);
        bv_db_data_free(b);
    }
}

TEST_F(DbFileReading, AbsentFamilyKeepsItsInstancesAndGetsOneInstance1)
{
    add_instance(a, 4, {"40", "four"});
    EXPECT_EQ(load("{}"), BV_OK);
    EXPECT_EQ(load("{}"), BV_OK);
    EXPECT_EQ(numbers(a), (Numbers{4, 1}));
    EXPECT_EQ(a->inst_count, 2);
    EXPECT_EQ(a->inst_max, 4);
    EXPECT_EQ(numbers(b), Numbers{1}) << "loading twice adds no second one";
}

TEST_F(DbFileReading, AnAbsentFamilyTakesWhatTheWorkingImageHolds)
{
    EXPECT_EQ(load_a(R"({"inst":"5","para":{"id":"50","name":"five"}})"), BV_OK);
    bv_db_data_free(a);
    EXPECT_EQ(load("{}"), BV_OK);
    EXPECT_EQ(id(1), 50u);
    EXPECT_EQ(name(1), "five");
}

TEST_F(DbFileReading, AFamilyThatIsNoArrayHasNoElements)
{
    for (const char *value :
         {"{}", "{\"0\":{\"inst\":\"1\",\"para\":{}}}", "7", "\"x\"", "false", "[]"}) {
        SCOPED_TRACE(value);
        EXPECT_EQ(load(std::string("{\"a\":") + value + "}"), BV_OK);
        EXPECT_EQ(numbers(a), Numbers{});
    }
}

TEST_F(DbFileReading, AnElementThatLacksSomethingIsSkipped)
{
    const char *broken[] = {R"({"para":{"id":"1"}})",
                            R"({"inst":"1"})",
                            R"({"inst":null,"para":{}})",
                            R"({"inst":"1","para":null})",
                            "null",
                            "[]",
                            "7",
                            "\"x\"",
                            "{}"};
    for (const char *text : broken) {
        SCOPED_TRACE(text);
        EXPECT_EQ(load_a(std::string(text) + R"(,{"inst":"5","para":{"id":"50"}})"), BV_OK);
        EXPECT_EQ(numbers(a), Numbers{5});
        EXPECT_EQ(id(5), 50u);
        bv_db_data_free(a);
    }
}

TEST_F(DbFileReading, MembersMayStandInAnyOrderAmongOthers)
{
    EXPECT_EQ(load(R"({"x":[],"b":[{"inst":"1","para":{"level":"9"}}],"y":1,
                       "a":[{"z":1,"para":{"more":"1","name":"five","id":"50","id2":"3"},"inst":"5"}]})"),
              BV_OK);
    EXPECT_EQ(numbers(a), Numbers{5});
    EXPECT_EQ(id(5), 50u);
    EXPECT_EQ(name(5), "five");
    EXPECT_EQ(image_of(b, 1), Bytes{9});
}

TEST_F(DbFileReading, OfAKeyThatStandsTwiceTheLaterCounts)
{
    EXPECT_EQ(load_a(R"({"inst":"1","para":{"id":"1","name":"x","id":"2"}})"), BV_OK);
    EXPECT_EQ(id(1), 2u);
}

TEST_F(DbFileReading, AMissingParameterHasTheValueOfTheElementBefore)
{
    EXPECT_EQ(load_a(R"({"inst":"1","para":{"name":"one"}},
                        {"inst":"2","para":{"id":"20"}},
                        {"inst":"3","para":{}},
                        {"inst":"4","para":{"id":null,"name":"four"}})"),
              BV_OK);
    EXPECT_EQ(id(1), 7u) << "the template's default at first";
    EXPECT_EQ(name(1), "one");
    EXPECT_EQ(id(2), 20u);
    EXPECT_EQ(name(2), "one");
    EXPECT_EQ(id(3), 20u);
    EXPECT_EQ(name(3), "one");
    EXPECT_EQ(id(4), 20u);
    EXPECT_EQ(name(4), "four");
}

TEST_F(DbFileReading, ASkippedElementCarriesNothingOver)
{
    EXPECT_EQ(load_a(R"({"para":{"id":"99"}},{"inst":"1","para":{}})"), BV_OK);
    EXPECT_EQ(id(1), 7u);
}

TEST_F(DbFileReading, ValuesCarryOverIntoTheNextLoad)
{
    EXPECT_EQ(load_a(R"({"inst":"1","para":{"id":"50"}})"), BV_OK);
    EXPECT_EQ(load_a(R"({"inst":"2","para":{}})"), BV_OK);
    EXPECT_EQ(id(2), 50u);
}

TEST_F(DbFileReading, AParaThatIsNoObjectHoldsNoValues)
{
    EXPECT_EQ(
        load_a(
            R"({"inst":"1","para":[{"id":"9"}]},{"inst":"2","para":"id"},{"inst":"3","para":9})"),
        BV_OK);
    EXPECT_EQ(numbers(a), (Numbers{1, 2, 3}));
    EXPECT_EQ(id(3), 7u);
}

TEST_F(DbFileReading, TheLaterOfTwoElementsWithOneNumberWins)
{
    EXPECT_EQ(load_a(R"({"inst":"1","para":{"id":"10","name":"first"}},
                        {"inst":"1","para":{"id":"11"}})"),
              BV_OK);
    EXPECT_EQ(numbers(a), Numbers{1});
    EXPECT_EQ(a->inst_count, 1);
    EXPECT_EQ(id(1), 11u);
    EXPECT_EQ(name(1), "first");
}

TEST_F(DbFileReading, AnExistingInstanceIsOverwritten)
{
    add_instance(a, 1, {"10", "first"});
    EXPECT_EQ(load_a(R"({"inst":"1","para":{"id":"11","name":"new"}})"), BV_OK);
    EXPECT_EQ(numbers(a), Numbers{1});
    EXPECT_EQ(id(1), 11u);
    EXPECT_EQ(name(1), "new");
}

TEST_F(DbFileReading, OfSeveralInstancesWithOneNumberTheFirstIsOverwritten)
{
    uint8_t level = 1;
    for (int number : {4, 2, 4, 2})
        ASSERT_EQ(bv_db_data_add_inst(b, &level, 1, number), BV_OK);
    EXPECT_EQ(load(R"({"b":[{"inst":"2","para":{"level":"20"}},
                            {"inst":"4","para":{"level":"40"}}]})"),
              BV_OK);
    Bytes levels;
    for (bv_list_head *link = b->inst_list.next; link != &b->inst_list; link = link->next)
        levels.push_back(*reinterpret_cast<bv_db_inst *>(link)->image);
    EXPECT_EQ(levels, (Bytes{40, 20, 1, 1}));
    EXPECT_EQ(b->inst_count, 4);
}

TEST_F(DbFileReading, NumbersAreToldApartByAllTheirBits)
{
    const Numbers all = {INT_MAX, INT_MIN, 0, -1, 1, 2, 0x40000000, -0x40000000, 0x10000, 3};
    std::string elements;
    for (int round = 0; round < 2; ++round)
        for (size_t i = 0; i < all.size(); ++i)
            elements += (elements.empty() ? "" : ",") + ("{\"inst\":" + std::to_string(all[i])) +
                        ",\"para\":{\"id\":" + std::to_string(100 * round + static_cast<int>(i)) +
                        "}}";
    EXPECT_EQ(load_a(elements), BV_OK);
    EXPECT_EQ(numbers(a), all);
    EXPECT_EQ(a->inst_max, INT_MAX);
    for (size_t i = 0; i < all.size(); ++i)
        EXPECT_EQ(id(all[i]), 100 + i) << all[i];
}

// A walk over the list for every element would take minutes of processor time here.
TEST_F(DbFileReading, AHundredThousandInstancesInAnyOrderAreLoadedInSeconds)
{
    Numbers all(100000);
    std::iota(all.begin(), all.end(), -30000);
    std::shuffle(all.begin(), all.end(), std::mt19937(1));
    std::string elements;
    for (int number : all)
        elements += (elements.empty() ? "" : ",") + ("{\"inst\":" + std::to_string(number)) +
                    ",\"para\":{\"id\":" + std::to_string(number + 30000) + "}}";

    clock_t start = clock();
    EXPECT_EQ(load_a(elements), BV_OK);
    EXPECT_LT((clock() - start) / CLOCKS_PER_SEC, 30);
    EXPECT_EQ(a->inst_count, 100000);
    EXPECT_EQ(a->inst_max, 69999);
    EXPECT_TRUE(numbers(a) == all);
    EXPECT_EQ(id(-30000), 0u);
    EXPECT_EQ(id(69999), 99999u);
}

// Every other bit of these numbers is 0: whoever finds them by those bits walks a list after all.
TEST_F(DbFileReading, NumbersThatDifferInEveryOtherBitOnlyAreNoSlower)
{
    const auto seconds = [](unsigned distance) {
        std::string elements;
        for (unsigned i = 0; i < 32768; ++i) {
            unsigned number = 0;
            for (unsigned bit = 0; bit < 15; ++bit)
                number |= (i >> bit & 1) << (distance * bit + distance - 1);
            elements +=
                (i == 0 ? "" : ",") + ("{\"inst\":" + std::to_string(number)) + ",\"para\":{}}";
        }
        clock_t start = clock();
        // The second time all of them are there.
        EXPECT_EQ(load_a(elements), BV_OK);
        EXPECT_EQ(load_a(elements), BV_OK);
        return static_cast<double>(clock() - start) / CLOCKS_PER_SEC;
    };
    const double neighbours = seconds(1);
    bv_db_data_free(a);
    EXPECT_LT(seconds(2), 4 * neighbours + 0.5);
    EXPECT_EQ(a->inst_count, 32768);
}

// The record is public: a load must not believe what a service wrote there.
TEST_F(DbFileReading, WrongHighestNumberMakesNoSecondInstanceOfANumberAndIsSetRight)
{
    add_instance(a, 3, {"30", "three"});
    a->inst_max = 1;
    EXPECT_EQ(load_a(R"({"inst":"3","para":{"id":"31"}})"), BV_OK);
    EXPECT_EQ(numbers(a), (Numbers{3}));
    EXPECT_EQ(id(3), 31u);

    a->inst_max = INT_MAX;
    EXPECT_EQ(load_a(R"({"inst":"2","para":{}})"), BV_OK);
    EXPECT_EQ(a->inst_max, 3);
}

TEST_F(DbFileReading, FieldsThatAServiceFilledToTheEndAreTerminated)
{
    memset(a->name, 'n', sizeof a->name);
    memset(b->para[0].name, 'p', sizeof b->para[0].name);
    const std::string name(1023, 'n'), parameter(1023, 'p');
    EXPECT_EQ(load("{\"" + name + "\":[{\"inst\":1,\"para\":{}}],\"b\":[{\"inst\":1,\"para\":{\"" +
                   parameter + "\":\"9\"}}]}"),
              BV_OK);
    EXPECT_EQ(numbers(a), Numbers{1});
    EXPECT_EQ(image_of(b, 1), Bytes{9});
}

TEST_F(DbFileReading, NumbersBelow1LeaveTheHighestAt1)
{
    EXPECT_EQ(load_a(R"({"inst":"-5","para":{}},{"inst":"0","para":{}})"), BV_OK);
    EXPECT_EQ(numbers(a), (Numbers{-5, 0}));
    EXPECT_EQ(a->inst_max, 1);
}

TEST_F(DbFileReading, NumbersComeQuotedOrNot)
{
    EXPECT_EQ(load_a(R"({"inst":"12","para":{"id":"1"}},
                        {"inst":13,"para":{"id":2}},
                        {"inst":"-4","para":{"id":"3"}},
                        {"inst":"x","para":{"id":"4"}},
                        {"inst":99999999999,"para":{"id":"5"}},
                        {"inst":-99999999999,"para":{"id":"6"}})"),
              BV_OK);
    EXPECT_EQ(numbers(a), (Numbers{12, 13, -4, 0, INT_MAX, INT_MIN}));
    EXPECT_EQ(id(13), 2u) << "a number counts as its text";
}

TEST_F(DbFileReading, AnIntegerThatIsNoneIs0AndALargeOneSurvives)
{
    EXPECT_EQ(load_a(R"({"inst":"1","para":{"id":"many"}},
                        {"inst":"2","para":{"id":"4294967295"}},
                        {"inst":"3","para":{"id":3000000000}})"),
              BV_OK);
    EXPECT_EQ(id(1), 0u);
    EXPECT_EQ(id(2), 4294967295u);
    EXPECT_EQ(id(3), 3000000000u);
}

TEST_F(DbFileReading, LongValuesAreCut)
{
    std::string text(3000, 'v');
    EXPECT_EQ(load_a("{\"inst\":\"1\",\"para\":{\"id\":\"1\",\"name\":\"" + text + "\"}}"), BV_OK);
    EXPECT_EQ(name(1), "vvvvvvv");
    EXPECT_EQ(std::string(a->para[1].value), std::string(1023, 'v'));
}

TEST_F(DbFileReading, WhatLiesBehindTheDescriptorsIsNone)
{
    a->para_count = 1;
    EXPECT_EQ(load_a(R"({"inst":"1","para":{"id":"50","name":"new"}})"), BV_OK);
    EXPECT_STREQ(a->para[0].value, "50");
    EXPECT_STREQ(a->para[1].value, "none");
}

TEST_F(DbFileReading, FamiliesWithoutImageAreSkipped)
{
    bv_db_reg_user("bare");
    bv_db_hash_add("bare");
    bv_db_reg_user("unread");
    EXPECT_EQ(load(R"({"bare":[{"inst":"1","para":{}}],"unread":[{"inst":"1","para":{}}]})"),
              BV_OK);
    EXPECT_EQ(bv_db_inst_getnum("bare"), 0);
    EXPECT_EQ(bv_db_hash_find("unread"), nullptr);
}

TEST_F(DbFileReading, ANegativeImageSizeIsNotZero)
{
    bv_db_family *odd = user_family("odd", {{"p", "uint", -4, "1"}});
    EXPECT_EQ(load(R"({"odd":[{"inst":"3","para":{"p":"9"}}]})"), BV_OK);
    EXPECT_EQ(numbers(odd), Numbers{3});
    EXPECT_EQ(bv_db_user_write(&g_st_db_mng.user_list, kUserFile), BV_OK);
    EXPECT_NE(file_text(kUserFile).find("\"p\":\"9\""), std::string::npos) << "as it stands";
}

TEST_F(DbFileReading, OnlyTheFamiliesOfTheListAreTouched)
{
    bv_db_reg_private("b");
    put_file(kPrivateFile, R"({"a":[{"inst":"9","para":{}}],"b":[{"inst":"8","para":{}}]})");
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.private_list, kPrivateFile), BV_OK);
    EXPECT_EQ(numbers(a), Numbers{});
    EXPECT_EQ(numbers(b), Numbers{8});
}

} // namespace
