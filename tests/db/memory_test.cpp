// Each allocation of the database refused in turn: early return, nothing half done, and the same
// call works afterwards.
//
// The JSON parser underneath does not survive a refusal of its own, so files are parsed
// beforehand here: the library then gets the finished tree, and all that is refused is its own.

#include "db/database.h"

#include "support/capture.h"
#include "support/faults.h"

#include <json-c/json.h>

#include <dlfcn.h>
#include <unistd.h>

namespace {

constexpr size_t kTableSize = 3 * 3084;
constexpr size_t kLanAllocation = 64;
constexpr char kLanPath[] = "/etc/template/lan.json";

struct Parsed {
    const char *path;
    json_object *tree;
};
Parsed g_parsed[] = {{kLanPath, nullptr}, {kUserFile, nullptr}};

json_object *parse(const char *path)
{
    auto real =
        reinterpret_cast<json_object *(*)(const char *)>(dlsym(RTLD_NEXT, "json_object_from_file"));
    return real(path);
}

void parse_beforehand()
{
    for (Parsed &file : g_parsed)
        file.tree = parse(file.path);
}

class DbMemory : public Db {
protected:
    int read_lan() { return bv_db_template_read_single(kLanPath, family); }

    bv_db_family *family = nullptr;
};

// Calls action() with the first, second ... allocation refused until none is; afterwards() sees
// the result of each refusal. Returns how many there were.
template <typename Action, typename Afterwards>
int refuse_each(Action action, Afterwards afterwards)
{
    for (unsigned n = 1;; ++n) {
        SCOPED_TRACE(n);
        int status;
        bool refused;
        {
            FailAllocation nth(n);
            status = action();
            refused = nth.happened();
        }
        if (!refused)
            return static_cast<int>(n) - 1;
        afterwards(status);
    }
}

TEST(DbMemoryAtInit, WithoutATableInitFailsAndCallsAreHarmless)
{
    int refused = refuse_each(bv_db_init, [](int status) {
        EXPECT_EQ(status, BV_ERR_MEMORY);
        EXPECT_EQ(g_st_db_mng.table, nullptr);
        EXPECT_EQ(bv_db_reg_user("lan"), BV_OK);
        EXPECT_EQ(bv_db_hash_find("lan"), nullptr);
        EXPECT_EQ(bv_db_hash_add("lan"), nullptr);
        EXPECT_EQ(bv_db_start(), BV_OK);
        EXPECT_EQ(bv_db_hash_free(), BV_OK);
    });
    EXPECT_EQ(refused, 2);
}

TEST_F(DbMemory, ARegistrationRefusedIsNotLinked)
{
    for (auto reg : {bv_db_reg_user, bv_db_reg_private, bv_db_reg_factory}) {
        int refused = refuse_each([&] { return reg("lan"); },
                                  [](int status) { EXPECT_EQ(status, BV_ERR_MEMORY); });
        EXPECT_EQ(refused, 1);
    }
    EXPECT_EQ(names(g_st_db_mng.user_list), std::vector<std::string>{"lan"});
}

TEST_F(DbMemory, AFamilyRefusedIsNotLinked)
{
    int refused = refuse_each([] { return bv_db_hash_add("lan") == nullptr ? -1 : 0; },
                              [](int status) {
                                  EXPECT_EQ(status, -1);
                                  EXPECT_EQ(g_st_db_mng.family_list.next, &g_st_db_mng.family_list);
                                  EXPECT_EQ(bv_db_hash_find("lan"), nullptr);
                              });
    EXPECT_EQ(refused, 3);
    EXPECT_NE(bv_db_hash_find("lan"), nullptr);
}

TEST_F(DbMemory, ATemplateWithoutTableOrImagesLeavesNoParameters)
{
    install("lan.json", kLan);
    family = bv_db_hash_add("lan.json");
    {
        FailAllocationsOfSize table(kTableSize);
        EXPECT_EQ(read_lan(), BV_ERR_MEMORY);
        EXPECT_EQ(table.happened(), 1u);
    }
    expect_no_parameters(family);
    {
        FailAllocationsOfSize image(kLanAllocation);
        EXPECT_EQ(read_lan(), -1);
        EXPECT_GE(image.happened(), 1u);
    }
    expect_no_parameters(family);
    EXPECT_EQ(bv_db_inst_getnum("lan.json"), 0);
    uint8_t buf[38] = {9};
    EXPECT_EQ(bv_db_read("lan.json", buf, sizeof buf, 1), BV_OK);
    EXPECT_EQ(buf[0], 9) << "no image to copy";

    EXPECT_EQ(read_lan(), BV_OK);
    EXPECT_EQ(family->image_size, 38);
}

TEST_F(DbMemory, TheLargestTemplateWithoutMemoryIsNoWrongTemplate)
{
    install("lan.json", std::vector<Parameter>(425, {"p", "uchar", 1, "1"}));
    family = bv_db_hash_add("lan.json");
    FailAllocationsOfSize table(425 * 3084);
    EXPECT_EQ(read_lan(), BV_ERR_MEMORY);
    EXPECT_EQ(table.happened(), 1u);
    expect_no_parameters(family);
}

TEST_F(DbMemory, EveryRefusalDuringATemplateLeavesItWholeOrEmpty)
{
    install("lan.json", kLan);
    family = bv_db_hash_add("lan.json");
    parse_beforehand();
    std::vector<int> statuses;
    refuse_each([&] { return read_lan(); },
                [&](int status) {
                    statuses.push_back(status);
                    expect_no_parameters(family);
                    EXPECT_STREQ(family->getfunc, "get");
                });
    EXPECT_EQ(statuses, (std::vector<int>{BV_ERR_MEMORY, -1, -1})) << "the table, the two images";
    EXPECT_EQ(family->image_size, 38);
}

TEST_F(DbMemory, ARefusalWhileReadingAgainLeavesTheFamilyEmpty)
{
    install("lan.json", kLan);
    family = bv_db_hash_add("lan.json");
    parse_beforehand();
    for (unsigned n = 1; n <= 3; ++n) {
        ASSERT_EQ(read_lan(), BV_OK);
        add_instance(family, 1, {"10.0.0.1", "9000", "a"});
        FailAllocation nth(n);
        EXPECT_NE(read_lan(), BV_OK);
        expect_no_parameters(family);
        EXPECT_EQ(bv_db_inst_getnum("lan.json"), 0);
    }
}

TEST_F(DbMemory, ParsedTreesAreReleased)
{
    install("lan.json", kLan);
    bv_db_reg_user(kLanPath);
    put_file(kUserFile, R"({"/etc/template/lan.json":[{"inst":"1","para":{}}]})");
    parse_beforehand();
    EXPECT_EQ(bv_db_start(), BV_OK);
    EXPECT_EQ(bv_db_inst_getnum(kLanPath), 1);
    for (Parsed &file : g_parsed) {
        EXPECT_EQ(json_object_put(file.tree), 1) << "someone still holds " << file.path;
        file.tree = nullptr;
    }
}

TEST_F(DbMemory, TreesOfTemplatesThatAreRefusedAreReleased)
{
    family = bv_db_hash_add("lan.json");
    for (const char *text : {"{}", "{\"para\":7}", "{\"para\":[]}", "[]"}) {
        SCOPED_TRACE(text);
        install("lan.json", text);
        g_parsed[0].tree = parse(kLanPath);
        ASSERT_NE(g_parsed[0].tree, nullptr);
        read_lan();
        EXPECT_EQ(json_object_put(g_parsed[0].tree), 1);
        g_parsed[0].tree = nullptr;
    }
}

TEST_F(DbMemory, AnInstanceRefusedIsNotLinked)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    Bytes image(38, 1);
    int refused = refuse_each([&] { return bv_db_inst_add("lan.json", image.data(), 38, 4); },
                              [&](int status) {
                                  EXPECT_EQ(status, BV_ERR_MEMORY);
                                  EXPECT_EQ(numbers(lan), std::vector<int>{});
                                  EXPECT_EQ(lan->inst_count, 0);
                                  EXPECT_EQ(lan->inst_max, 0);
                              });
    EXPECT_EQ(refused, 2);
    EXPECT_EQ(image_of(lan, 4), image);
}

TEST_F(DbMemory, AnInstanceOfOneByteIsRefusedWithoutThatByte)
{
    user_family("one.json", {{"id", "uchar", 1, "1"}});
    const uint8_t byte = 2;
    EXPECT_EQ(refuse_each([&] { return bv_db_inst_add("one.json", &byte, 1, 1); },
                          [](int status) { EXPECT_EQ(status, BV_ERR_MEMORY); }),
              2);
}

TEST_F(DbMemory, ALoadInAnyOrderNeedsNoMemoryBeyondItsInstances)
{
    install("lan.json", kLan);
    bv_db_reg_user(kLanPath);
    std::string text;
    for (int number : {3, 1, 2, 1, 4, 3})
        text += (text.empty() ? "" : ",") + ("{\"inst\":" + std::to_string(number)) +
                ",\"para\":{\"mtu\":\"" + std::to_string(1000 + text.size()) + "\"}}";
    put_file(kUserFile, "{\"/etc/template/lan.json\":[" + text + "]}");
    ASSERT_EQ(bv_db_start(), BV_OK);
    bv_db_family *lan = bv_db_hash_find(kLanPath);
    Bytes images[4];
    for (int i = 0; i < 4; ++i)
        images[i] = image_of(lan, i + 1);

    parse_beforehand();
    ASSERT_EQ(bv_db_template(), BV_OK);
    int whole = 0;
    int refused = refuse_each([] { return bv_db_user_read(&g_st_db_mng.user_list, kUserFile); },
                              [&](int status) {
                                  EXPECT_EQ(status, BV_OK);
                                  lan = bv_db_hash_find(kLanPath);
                                  if (numbers(lan) == std::vector<int>{3, 1, 2, 4}) {
                                      ++whole;
                                      for (int i = 0; i < 4; ++i)
                                          EXPECT_EQ(image_of(lan, i + 1), images[i]) << i + 1;
                                  }
                                  bv_db_template();
                              });
    EXPECT_EQ(refused, 8 + 4) << "four instances, and four entries to find them quickly";
    EXPECT_EQ(whole, 4) << "without an entry the list is walked";
}

TEST_F(DbMemory, AnInstanceOfNothingNeedsOneAllocation)
{
    bv_db_hash_add("bare");
    EXPECT_EQ(refuse_each([] { return bv_db_inst_add("bare", nullptr, 0, 1); },
                          [](int status) { EXPECT_EQ(status, BV_ERR_MEMORY); }),
              1);
}

// Opening takes memory in the C library, of which some have emptied the file by then; the text
// takes none, and nobody prints about it.
TEST_F(DbMemory, WithoutMemoryAWriteIsWholeOrTheFileCannotBeOpened)
{
    user_family("lan.json", kLan);
    ASSERT_EQ(bv_db_user_write(&g_st_db_mng.user_list, kPrivateFile), BV_OK);
    std::string whole = file_text(kPrivateFile);
    CaptureStdout out;
    int refused = refuse_each(
        [] { return bv_db_user_write(&g_st_db_mng.user_list, kUserFile); },
        [&](int status) {
            EXPECT_EQ(status, file_text(kUserFile) == whole ? BV_OK : BV_ERR_WRITE_OPEN);
            EXPECT_EQ(unlink(kUserFile), 0);
        });
    EXPECT_EQ(out.stop(), "");
    EXPECT_GE(refused, 1);
    EXPECT_EQ(file_text(kUserFile), whole);
}

TEST_F(DbMemory, ReadsNeedNone)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    add_instance(lan, 1, {"10.0.0.1", "9000", "a"});
    uint8_t buf[38];
    EXPECT_EQ(refuse_each([&] { return bv_db_read("lan.json", buf, sizeof buf, 1); }, [](int) {}),
              0);
    EXPECT_EQ(refuse_each([&] { return bv_db_write("lan.json", buf, sizeof buf, 1); }, [](int) {}),
              0);
}

TEST_F(DbMemory, EveryRefusalDuringAStartIsSurvived)
{
    install("lan.json", kLan);
    bv_db_reg_user(kLanPath);
    put_file(kUserFile, R"({"/etc/template/lan.json":[{"inst":"1","para":{"mtu":"9000"}},
                                                       {"inst":"2","para":{"mtu":"1400"}}]})");
    parse_beforehand();
    int refused = refuse_each(bv_db_start, [](int status) {
        EXPECT_EQ(status, BV_OK);
        EXPECT_LT(bv_db_inst_getnum(kLanPath), 2);
        EXPECT_EQ(bv_db_user_write(&g_st_db_mng.user_list, "/scratch/walk"), BV_OK);
    });
    EXPECT_EQ(refused, 3 + 3 + 4) << "the family, its template, two instances";
    EXPECT_EQ(numbers(bv_db_hash_find(kLanPath)), (std::vector<int>{1, 2}));
}

} // namespace

extern "C" json_object *json_object_from_file(const char *path)
{
    for (const Parsed &file : g_parsed)
        if (file.tree != nullptr && strcmp(path, file.path) == 0)
            return json_object_get(file.tree);
    return parse(path);
}
