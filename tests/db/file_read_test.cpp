// SPDX-License-Identifier: ISC
// Loading data files: what each element becomes, whatever the file holds.

#include "db/database.h"

#include <algorithm>
#include <climits>
#include <numeric>
#include <random>

namespace {

// Two small families, "a" (uint id, default 7; string name, default none) and "b" (uchar).
class DbFileReading : public Db {
protected:
    void SetUp() override { start_over(); }

    void start_over()
    {
        free_instances();
        ASSERT_EQ(bv_db_init(), BV_OK);
        a = user_family("a", {{"id", "uint", 4, "7"}, {"name", "string", 8, "none"}});
        b = user_family("b", {{"level", "uchar", 1, "3"}});
    }

    static int load(const std::string &text)
    {
        write_file(kUserFile, text);
        return bv_db_user_read(&g_st_db_mng.user_list, kUserFile);
    }

    // Loads elements of family a; b is absent.
    static int load_a(const std::string &elements) { return load("{\"a\":[" + elements + "]}"); }

    // The instances of family a in list order, "NUMBER=ID/NAME" each.
    std::string instances() const
    {
        std::string out;
        for (int number : numbers(a)) {
            char image[13] = {};
            EXPECT_EQ(bv_db_read("a", image, 12, static_cast<uint32_t>(number)), BV_OK);
            uint32_t id;
            memcpy(&id, image, sizeof id);
            out += (out.empty() ? "" : " ") + std::to_string(number) + "=" + std::to_string(id) +
                   "/" + (image + 4);
        }
        return out;
    }

    bv_db_family *a = nullptr;
    bv_db_family *b = nullptr;
};

TEST_F(DbFileReading, TakesEveryFamilyInAnyOrderAmongOthers)
{
    EXPECT_EQ(load(R"({"x":[],"b":[{"inst":"1","para":{"level":"9"}}],"y":1,
                       "a":[{"z":1,"para":{"more":"1","name":"five","id":"50","id2":"3"},"inst":"5"},
                            {"inst":"2","para":{"id":"20","name":"two"}}]})"),
              BV_OK);
    EXPECT_EQ(instances(), "5=50/five 2=20/two");
    EXPECT_EQ(a->inst_count, 2);
    EXPECT_EQ(a->inst_max, 5);
    EXPECT_EQ(image_of(b, 1), Bytes{9});
}

TEST_F(DbFileReading, ElementsBecomeInstances)
{
    const struct {
        const char *what, *elements, *instances;
        int highest;
    } rows[] = {
        {"later of two keys counts", R"({"inst":"1","para":{"id":"1","name":"x","id":"2"}})",
         "1=2/x", 1},
        {"missing parameter has the value of the element before, the default at first",
         R"({"inst":"1","para":{"name":"one"}},{"inst":"2","para":{"id":"20"}},
            {"inst":"3","para":{}},{"inst":"4","para":{"id":null,"name":"four"}})",
         "1=7/one 2=20/one 3=20/one 4=20/four", 4},
        {"skipped element carries nothing over", R"({"para":{"id":"99"}},{"inst":"1","para":{}})",
         "1=7/none", 1},
        {"para that is not an object has no values",
         R"({"inst":"1","para":[{"id":"9"}]},{"inst":"2","para":"id"},{"inst":"3","para":9})",
         "1=7/none 2=7/none 3=7/none", 3},
        {"later of two elements with one number wins",
         R"({"inst":"1","para":{"id":"10","name":"first"}},{"inst":"1","para":{"id":"11"}})",
         "1=11/first", 1},
        {"numbers below 1 leave the highest at 1",
         R"({"inst":"-5","para":{}},{"inst":"0","para":{}})", "-5=7/none 0=7/none", 1},
        {"numbers are quoted or not, and a number counts as its text",
         R"({"inst":"12","para":{"id":"1"}},{"inst":13,"para":{"id":2}},
            {"inst":"-4","para":{"id":"3"}},{"inst":"x","para":{"id":"4"}},
            {"inst":99999999999,"para":{"id":"5"}},{"inst":-99999999999,"para":{"id":"6"}})",
         "12=1/none 13=2/none -4=3/none 0=4/none 2147483647=5/none -2147483648=6/none", INT_MAX},
        {"integer that is not a number is 0, and a large one survives",
         R"({"inst":"1","para":{"id":"many"}},{"inst":"2","para":{"id":"4294967295"}},
            {"inst":"3","para":{"id":3000000000}})",
         "1=0/none 2=4294967295/none 3=3000000000/none", 3},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        start_over();
        EXPECT_EQ(load_a(row.elements), BV_OK);
        EXPECT_EQ(instances(), row.instances);
        EXPECT_EQ(a->inst_max, row.highest);
    }
}

TEST_F(DbFileReading, ElementThatLacksSomethingIsSkipped)
{
    for (const char *text :
         {R"({"para":{"id":"1"}})", R"({"inst":"1"})", R"({"inst":null,"para":{}})",
          R"({"inst":"1","para":null})", "null", "[]", "7", "\"x\"", "{}"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(load_a(text + ("," + stored(5, R"("id":"50")"))), BV_OK);
        EXPECT_EQ(instances(), "5=50/none");
        bv_db_data_free(a);
    }
}

TEST_F(DbFileReading, ReadsBackWhatWasWritten)
{
    add_instance(a, 3, {"4294967295", "x y"});
    add_instance(a, -1, {"2147483648", ""});
    EXPECT_EQ(bv_db_user_write(&g_st_db_mng.user_list, kUserFile), BV_OK);
    bv_db_data_free(a);
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, kUserFile), BV_OK);
    EXPECT_EQ(instances(), "3=4294967295/x y -1=2147483648/");
}

TEST_F(DbFileReading, FileThatIsMissingOrNotJsonLoadsNothing)
{
    const std::string whole = R"({"a":[{"inst":"5","para":{"id":"50"}}]})";
    std::vector<std::string> texts = {whole.substr(0, whole.size() / 2),
                                      whole.substr(0, whole.size() - 1), std::string(200, '[')};
    for (const char *text : {"", "\n", "garbage", "{", "{\"a\":[", "\xff\xff", "null",
                             R"({"a":[{"inst":"5","para":{"name":"un"quoted"}}]})"})
        texts.push_back(text);
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        EXPECT_EQ(load(text), -1);
    }
    for (const char *path : {"/config/work/none.json", "/config/work", ""})
        EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, path), -1) << path;
    write_file(kUserFile, "{}");
    EXPECT_EQ(bv_db_user_read(nullptr, kUserFile), -1);
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, nullptr), -1);
    EXPECT_EQ(numbers(a), Numbers{});
    EXPECT_EQ(numbers(b), Numbers{});
}

TEST_F(DbFileReading, AbsentFamilyGetsInstance1OfTheDefaults)
{
    for (const char *text :
         {"{}", "{\"c\":[]}", "{\"a\":null,\"b\":null}", "[]", "[1,2]", "7\n", "\"a\"", "true\n"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(load(text), BV_OK);
        EXPECT_EQ(instances(), "1=7/none");
        EXPECT_EQ(numbers(b), Numbers{1});
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

TEST_F(DbFileReading, ValuesCarryOverIntoTheNextLoad)
{
    EXPECT_EQ(load_a(R"({"inst":"1","para":{"id":"50","name":"five"}})"), BV_OK);
    EXPECT_EQ(load_a(R"({"inst":"2","para":{}})"), BV_OK);
    EXPECT_EQ(instances(), "1=50/five 2=50/five");
    bv_db_data_free(a);
    EXPECT_EQ(load("{}"), BV_OK);
    EXPECT_EQ(instances(), "1=50/five") << "the working image, for an absent family";
}

TEST_F(DbFileReading, FamilyThatIsNotAnArrayHasNoElements)
{
    for (const char *value :
         {"{}", "{\"0\":{\"inst\":\"1\",\"para\":{}}}", "7", "\"x\"", "false", "[]"}) {
        SCOPED_TRACE(value);
        EXPECT_EQ(load(std::string("{\"a\":") + value + "}"), BV_OK);
        EXPECT_EQ(numbers(a), Numbers{});
    }
}

TEST_F(DbFileReading, ExistingInstanceIsOverwritten)
{
    add_instance(a, 1, {"10", "first"});
    EXPECT_EQ(load_a(R"({"inst":"1","para":{"id":"11","name":"new"}})"), BV_OK);
    EXPECT_EQ(instances(), "1=11/new");
}

TEST_F(DbFileReading, FirstOfSeveralInstancesWithOneNumberIsOverwritten)
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

// Loads every number twice, in this order; the second value must be found at the number's place.
TEST_F(DbFileReading, EveryNumberIsFoundAgainWhateverTheOrder)
{
    Numbers shuffled(20000);
    std::iota(shuffled.begin(), shuffled.end(), -6000);
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(1));
    for (const Numbers &all :
         {Numbers{INT_MAX, INT_MIN, 0, -1, 1, 2, 0x40000000, -0x40000000, 0x10000, 3}, shuffled}) {
        start_over();
        std::vector<std::string> elements;
        for (const char *digit : {"1", "2"})
            for (size_t i = 0; i < all.size(); ++i)
                elements.push_back(stored(all[i], "\"id\":" + (digit + std::to_string(i))));
        EXPECT_EQ(load_a(listed(elements)), BV_OK);
        EXPECT_TRUE(numbers(a) == all);
        EXPECT_EQ(a->inst_count, static_cast<int>(all.size()));
        EXPECT_EQ(a->inst_max, *std::max_element(all.begin(), all.end()));
        size_t wrong = 0;
        for (size_t i = 0; i < all.size(); ++i) {
            const auto id = static_cast<uint32_t>(std::stoul("2" + std::to_string(i)));
            uint32_t got = 0;
            Bytes image = image_of(a, all[i]);
            memcpy(&got, image.data(), sizeof got);
            wrong += got != id;
            if (all.size() > 100)
                i += 97; // finding each by a walk over the list takes long
        }
        EXPECT_EQ(wrong, 0u);
    }
}

// The record is public: a load must not believe what a service wrote there.
TEST_F(DbFileReading, WrongHighestNumberIsCorrectedAndMakesNoSecondInstance)
{
    add_instance(a, 3, {"30", "three"});
    a->inst_max = 1;
    EXPECT_EQ(load_a(R"({"inst":"3","para":{"id":"31"}})"), BV_OK);
    EXPECT_EQ(instances(), "3=31/three");

    a->inst_max = INT_MAX;
    EXPECT_EQ(load_a(R"({"inst":"2","para":{}})"), BV_OK);
    EXPECT_EQ(a->inst_max, 3);
}

TEST_F(DbFileReading, FieldsThatAServiceFilledToTheEndAreTerminated)
{
    memset(a->name, 'n', sizeof a->name);
    memset(b->para[0].name, 'p', sizeof b->para[0].name);
    EXPECT_EQ(load("{\"" + std::string(1023, 'n') + "\":[" + stored(1) + "],\"b\":[" +
                   stored(1, "\"" + std::string(1023, 'p') + "\":\"9\"") + "]}"),
              BV_OK);
    EXPECT_EQ(numbers(a), Numbers{1});
    EXPECT_EQ(image_of(b, 1), Bytes{9});
}

TEST_F(DbFileReading, LongValuesAreCut)
{
    EXPECT_EQ(load_a(stored(1, "\"id\":\"1\",\"name\":\"" + std::string(3000, 'v') + "\"")), BV_OK);
    EXPECT_EQ(instances(), "1=1/vvvvvvv");
    EXPECT_EQ(std::string(a->para[1].value), std::string(1023, 'v'));
}

TEST_F(DbFileReading, DescriptorsBeyondTheirCountAreIgnored)
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
    EXPECT_EQ(load("{\"bare\":[" + stored(1) + "],\"unread\":[" + stored(1) + "]}"), BV_OK);
    EXPECT_EQ(bv_db_inst_getnum("bare"), 0);
    EXPECT_EQ(bv_db_hash_find("unread"), nullptr);
}

TEST_F(DbFileReading, NegativeImageSizeIsNotZero)
{
    bv_db_family *odd = user_family("odd", {{"p", "uint", -4, "1"}});
    EXPECT_EQ(load(R"({"odd":[{"inst":"3","para":{"p":"9"}}]})"), BV_OK);
    EXPECT_EQ(numbers(odd), Numbers{3});
    EXPECT_EQ(bv_db_user_write(&g_st_db_mng.user_list, kUserFile), BV_OK);
    EXPECT_NE(read_file(kUserFile).find("\"p\":\"9\""), std::string::npos);
}

TEST_F(DbFileReading, OnlyFamiliesOfTheListAreTouched)
{
    bv_db_reg_private("b");
    write_file(kPrivateFile, "{\"a\":[" + stored(9) + "],\"b\":[" + stored(8) + "]}");
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.private_list, kPrivateFile), BV_OK);
    EXPECT_EQ(numbers(a), Numbers{});
    EXPECT_EQ(numbers(b), Numbers{8});
}

} // namespace
