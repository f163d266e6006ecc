// SPDX-License-Identifier: ISC
// Memory: what a refused allocation leaves, and who frees which block. Families are loaded and
// reset for years, and only the old defaults of a reload may stay allocated.

#include "db/database.h"

#include "support/capture_stdout.h"
#include "support/faults.h"
#include "support/sanitized.h"

#include <json-c/json.h>

#include <functional>
#include <map>
#include <unistd.h>

namespace {

// Files parsed beforehand. The JSON parser does not survive a refused allocation, and its own
// blocks are not the library's, so the library gets the finished tree of such a file.
std::map<std::string, json_object *> g_parsed;

json_object *parse(const char *path)
{
    return next_function<json_object *(const char *)>("json_object_from_file")(path);
}

void parse_beforehand(const std::string &path)
{
    json_object *tree = parse(path.c_str());
    ASSERT_NE(tree, nullptr) << path;
    g_parsed[path] = tree;
}

// Releases the trees, which only this file may still hold. For an object or array that is empty,
// json-c 0.19 returns 0 although it frees it; so none is empty by then.
void forget_parsed()
{
    for (const auto &[path, tree] : g_parsed) {
        if (json_object_is_type(tree, json_type_array))
            json_object_array_add(tree, nullptr);
        else
            json_object_object_add(tree, "last", nullptr);
        EXPECT_EQ(json_object_put(tree), 1) << "someone still holds " << path;
    }
    g_parsed.clear();
}

} // namespace

extern "C" json_object *json_object_from_file(const char *path)
{
    for (const auto &file : g_parsed)
        if (file.first == path)
            return json_object_get(file.second);
    return parse(path);
}

namespace {

constexpr char kLanPath[] = "/etc/template/lan.json";

class DbAllocation : public Db {
protected:
    void TearDown() override
    {
        forget_parsed();
        Db::TearDown();
    }

    // An empty database; the template of 38 bytes is installed.
    static void start_over()
    {
        free_instances();
        ASSERT_EQ(bv_db_init(), BV_OK);
    }

    static int read_lan() { return bv_db_template_read_single(kLanPath, bv_db_hash_find("lan")); }
};

// Calls action() with the first, second ... allocation refused until none is; afterwards() looks
// around after each refusal. Returns the statuses of the refused calls.
template <typename Action, typename Afterwards>
std::vector<int> refuse_each(Action action, Afterwards afterwards)
{
    std::vector<int> statuses;
    for (unsigned n = 1;; ++n) {
        SCOPED_TRACE(n);
        int status;
        bool refused;
        {
            FailAllocation nth(n);
            status = action();
            refused = nth.happened();
        }
        if (!refused) {
            EXPECT_EQ(status, BV_OK);
            return statuses;
        }
        statuses.push_back(status);
        afterwards();
    }
}

TEST(DbAllocationAtInit, WithoutATableInitFailsAndCallsAreHarmless)
{
    EXPECT_EQ(refuse_each(bv_db_init,
                          [] {
                              EXPECT_EQ(g_st_db_mng.table, nullptr);
                              EXPECT_EQ(bv_db_reg_user("lan"), BV_OK);
                              EXPECT_EQ(bv_db_hash_find("lan"), nullptr);
                              EXPECT_EQ(bv_db_hash_add("lan"), nullptr);
                              EXPECT_EQ(bv_db_start(), BV_OK);
                              EXPECT_EQ(bv_db_hash_free(), BV_OK);
                          }),
              (std::vector<int>{BV_ERR_MEMORY, BV_ERR_MEMORY}));
}

TEST_F(DbAllocation, RefusedCallsLeaveTheDatabaseAsItWas)
{
    static uint8_t image[38];
    const auto nothing_registered = [] {
        for (const bv_list_head *list :
             {&g_st_db_mng.user_list, &g_st_db_mng.private_list, &g_st_db_mng.factory_list})
            EXPECT_EQ(names(*list), Names{});
    };
    const auto no_family = [] {
        EXPECT_EQ(families(), Names{});
        EXPECT_EQ(bv_db_hash_find("lan"), nullptr);
    };
    const auto no_instances = [] {
        const bv_db_family *family = bv_db_hash_find("lan");
        EXPECT_EQ(numbers(family), Numbers{});
        EXPECT_EQ(family->inst_count, 0);
        EXPECT_EQ(family->inst_max, 0);
    };
    const auto no_parameters = [] {
        expect_no_parameters(bv_db_hash_find("lan"));
        EXPECT_STREQ(bv_db_hash_find("lan")->getfunc, "get");
        EXPECT_EQ(bv_db_inst_getnum("lan"), 0);
        uint8_t buf[38] = {9};
        EXPECT_EQ(bv_db_read("lan", buf, sizeof buf, 1), BV_OK);
        EXPECT_EQ(buf[0], 9) << "no image to copy";
    };
    const auto add_family = [] { bv_db_hash_add("lan"); };
    const auto add_lan = [] {
        bv_db_hash_add("lan");
        EXPECT_EQ(read_lan(), BV_OK);
    };
    const auto add_lan_of_one = [&] {
        add_lan();
        add_instance(bv_db_hash_find("lan"), 1, {"10.0.0.1", "9000", "a"});
    };
    const auto add_one_byte = [] {
        bv_db_hash_add("lan");
        EXPECT_EQ(bv_db_template_read_single("/etc/template/one", bv_db_hash_find("lan")), BV_OK);
    };
    const auto nothing = [] {};
    const std::vector<int> kNever, kOnce = {BV_ERR_MEMORY}, kTwice = {BV_ERR_MEMORY, BV_ERR_MEMORY};
    const std::vector<int> kFamily = {-1, -1, -1};
    const std::vector<int> kTemplate = {BV_ERR_MEMORY, -1, -1}; // the table, the two images
    const struct {
        const char *what;
        std::function<void()> prepare;
        std::function<int()> call;
        std::vector<int> statuses;
        std::function<void()> unchanged;
    } rows[] = {
        {"user", nothing, [] { return bv_db_reg_user("x"); }, kOnce, nothing_registered},
        {"private", nothing, [] { return bv_db_reg_private("x"); }, kOnce, nothing_registered},
        {"factory", nothing, [] { return bv_db_reg_factory("x"); }, kOnce, nothing_registered},
        {"family", nothing, [] { return bv_db_hash_add("lan") == nullptr ? -1 : 0; }, kFamily,
         no_family},
        {"template", add_family, read_lan, kTemplate, no_parameters},
        {"template again", add_lan_of_one, read_lan, kTemplate, no_parameters},
        {"largest template", add_family,
         [] { return bv_db_template_read_single("/etc/template/large", bv_db_hash_find("lan")); },
         kTemplate, no_parameters},
        {"instance", add_lan, [] { return bv_db_inst_add("lan", image, 38, 4); }, kTwice,
         no_instances},
        {"instance of one byte", add_one_byte, [] { return bv_db_inst_add("lan", image, 1, 4); },
         kTwice, no_instances},
        {"instance of nothing", add_family, [] { return bv_db_inst_add("lan", nullptr, 0, 4); },
         kOnce, no_instances},
        {"read", add_lan_of_one, [] { return bv_db_read("lan", image, 38, 1); }, kNever, nothing},
        {"write", add_lan_of_one, [] { return bv_db_write("lan", image, 38, 1); }, kNever, nothing},
    };
    install("lan.json", kLan);
    install("one", std::vector<Parameter>{{"id", "uchar", 1, "1"}});
    install("large", std::vector<Parameter>(425, {"p", "uchar", 1, "1"}));
    for (const char *path : {kLanPath, "/etc/template/one", "/etc/template/large"})
        parse_beforehand(path);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        start_over();
        row.prepare();
        const auto again = [&] {
            row.unchanged();
            EXPECT_EQ(row.call(), BV_OK) << "the same call again";
            start_over();
            row.prepare();
        };
        EXPECT_EQ(refuse_each(row.call, again), row.statuses);
    }
}

TEST_F(DbAllocation, TreesOfFilesAreReleasedEvenIfTheFileIsRefused)
{
    install("lan.json", kLan);
    bv_db_reg_user(kLanPath);
    write_file(kUserFile, "{\"/etc/template/lan.json\":[" + stored(1) + "]}");
    parse_beforehand(kLanPath);
    parse_beforehand(kUserFile);
    EXPECT_EQ(bv_db_start(), BV_OK);
    EXPECT_EQ(bv_db_inst_getnum(kLanPath), 1);
    forget_parsed();

    for (const char *text : {"{}", "{\"para\":7}", "{\"para\":[]}", "[]"}) {
        SCOPED_TRACE(text);
        install("lan.json", std::string(text));
        parse_beforehand(kLanPath);
        bv_db_template_read_single(kLanPath, bv_db_hash_find(kLanPath));
        forget_parsed();
    }
}

TEST_F(DbAllocation, LoadInAnyOrderNeedsNoMemoryBeyondItsInstances)
{
    install("lan.json", kLan);
    bv_db_reg_user(kLanPath);
    std::vector<std::string> elements;
    for (int number : {3, 1, 2, 1, 4, 3})
        elements.push_back(
            stored(number, "\"mtu\":\"" + std::to_string(1000 + elements.size()) + "\""));
    write_file(kUserFile, "{\"/etc/template/lan.json\":[" + listed(elements) + "]}");
    parse_beforehand(kLanPath);
    parse_beforehand(kUserFile);
    ASSERT_EQ(bv_db_start(), BV_OK);
    Bytes images[4];
    for (int i = 0; i < 4; ++i)
        images[i] = image_of(bv_db_hash_find(kLanPath), i + 1);

    ASSERT_EQ(bv_db_template(), BV_OK);
    int whole = 0;
    const auto statuses =
        refuse_each([] { return bv_db_user_read(&g_st_db_mng.user_list, kUserFile); },
                    [&] {
                        const bv_db_family *lan = bv_db_hash_find(kLanPath);
                        if (numbers(lan) == Numbers{3, 1, 2, 4}) {
                            ++whole;
                            for (int i = 0; i < 4; ++i)
                                EXPECT_EQ(image_of(lan, i + 1), images[i]) << i + 1;
                        }
                        bv_db_template();
                    });
    EXPECT_EQ(statuses, std::vector<int>(8 + 4, BV_OK)) << "four instances, four index entries";
    EXPECT_EQ(whole, 4) << "without an index entry the list is walked";
}

TEST_F(DbAllocation, StartWithoutMemoryLoadsLessAndLeavesAUsableDatabase)
{
    install("lan.json", kLan);
    bv_db_reg_user(kLanPath);
    write_file(kUserFile, "{\"/etc/template/lan.json\":[" + listed({stored(1), stored(2)}) + "]}");
    parse_beforehand(kLanPath);
    parse_beforehand(kUserFile);
    const auto loaded_less = [] {
        EXPECT_LT(bv_db_inst_getnum(kLanPath), 2);
        EXPECT_EQ(bv_db_user_write(&g_st_db_mng.user_list, "/scratch/walk"), BV_OK);
    };
    EXPECT_EQ(refuse_each(bv_db_start, loaded_less), std::vector<int>(3 + 3 + 4, BV_OK))
        << "the family, its template, two instances";
    EXPECT_EQ(numbers(bv_db_hash_find(kLanPath)), (Numbers{1, 2}));
}

// Opening takes memory in the C library, and some have emptied the file by then; the text takes
// none.
TEST_F(DbAllocation, WriteWithoutMemoryIsWholeOrTheFileCannotBeOpened)
{
    user_family("lan.json", kLan);
    ASSERT_EQ(bv_db_user_write(&g_st_db_mng.user_list, kPrivateFile), BV_OK);
    std::string whole = read_file(kPrivateFile);
    CaptureStdout out;
    int status = BV_OK;
    const auto statuses = refuse_each(
        [&] { return status = bv_db_user_write(&g_st_db_mng.user_list, kUserFile); },
        [&] {
            EXPECT_EQ(status, read_file(kUserFile) == whole ? BV_OK : BV_ERR_WRITE_OPEN);
            EXPECT_EQ(unlink(kUserFile), 0);
        });
    EXPECT_EQ(out.stop(), "");
    EXPECT_GE(statuses.size(), 1u);
    EXPECT_EQ(read_file(kUserFile), whole);
}

using Sizes = std::vector<size_t>;
using Addresses = std::vector<const void *>;

constexpr size_t kTableSize = 3 * sizeof(bv_db_para);
constexpr size_t kLanAllocation = 64;

class DbHeap : public Db {
protected:
    void SetUp() override
    {
        if (kSanitized)
            GTEST_SKIP() << "sanitisers do not survive a free() of the program's own";
        Db::SetUp();
        install("lan.json", kLan);
        parse_beforehand(kLanPath);
    }
    void TearDown() override
    {
        forget_parsed();
        Db::TearDown();
    }

    // A family with its template, and no instances.
    bv_db_family *lan()
    {
        bv_db_family *family = bv_db_hash_add(kLanPath);
        EXPECT_EQ(bv_db_template_read_single(kLanPath, family), BV_OK);
        return family;
    }

    int add(uint32_t number) { return bv_db_inst_add(kLanPath, image.data(), 38, number); }

    // How many blocks a call takes and does not free. Its nth allocation is refused.
    template <typename Call>
    static size_t blocks_kept(Call call, int status = BV_OK, unsigned refused = 0)
    {
        HeapWatch watch(refused);
        EXPECT_EQ(call(), status);
        watch.stop();
        return watch.taken().size() - watch.given_back().size();
    }

    const Bytes image = Bytes(38, 1);
};

TEST_F(DbHeap, InstanceIsTwoBlocksAndDeletingFreesBoth)
{
    bv_db_family *family = lan();
    HeapWatch watch;
    ASSERT_EQ(add(7), BV_OK);
    watch.stop();
    EXPECT_EQ(watch.taken(), (Sizes{sizeof(bv_db_inst), kLanAllocation}));

    const bv_db_inst *instance = bv_db_data_get_inst(family, 7);
    const Addresses blocks = {instance->image, instance};
    EXPECT_EQ(bv_db_inst_del(kLanPath, 7), BV_OK);
    EXPECT_EQ(watch.given_back(), blocks);
    EXPECT_TRUE(watch.unlinked(blocks[1])) << "a late use of its links is found";
}

TEST_F(DbHeap, RefusedCallsFreeWhatTheyTook)
{
    bv_db_family *family = bv_db_hash_add(kLanPath);
    const auto read = [family] { return bv_db_template_read_single(kLanPath, family); };
    for (unsigned refused : {2, 3})
        EXPECT_EQ(blocks_kept(read, -1, refused), 0u) << refused;
    ASSERT_EQ(read(), BV_OK);
    EXPECT_EQ(blocks_kept([this] { return add(7); }, BV_ERR_MEMORY, 2), 0u);
}

TEST_F(DbHeap, FreeingAFamilysInstancesFreesAllOfThem)
{
    bv_db_family *family = lan();
    HeapWatch watch;
    for (uint32_t number : {1, 2, 3})
        ASSERT_EQ(add(number), BV_OK);
    watch.stop();
    EXPECT_EQ(bv_db_data_free(family), BV_OK);
    EXPECT_EQ(watch.given_back().size(), 6u);
}

TEST_F(DbHeap, OnlyTheOldDefaultsOfAReloadStayAllocated)
{
    bv_db_family *family = bv_db_hash_add(kLanPath);
    HeapWatch watch;
    ASSERT_EQ(bv_db_template_read_single(kLanPath, family), BV_OK);
    watch.stop();
    EXPECT_EQ(watch.taken(), (Sizes{kTableSize, kLanAllocation, kLanAllocation}));

    const Addresses blocks = {family->para, family->working_image};
    ASSERT_EQ(bv_db_template_read_single(kLanPath, family), BV_OK);
    EXPECT_EQ(watch.given_back(), blocks);
}

TEST_F(DbHeap, FreeingTheTableFreesAllButTheDefaults)
{
    HeapWatch watch;
    bv_db_family *family = lan();
    ASSERT_EQ(add(1), BV_OK);
    watch.stop();
    const void *defaults = family->default_image;
    const size_t taken = watch.taken().size();
    EXPECT_EQ(taken, 3u + 3 + 2) << "the family, its template, an instance";

    EXPECT_EQ(bv_db_hash_free(), BV_OK);
    const Addresses given_back = watch.given_back();
    EXPECT_EQ(given_back.size(), taken - 1);
    for (const void *block : given_back)
        EXPECT_NE(block, defaults);
}

TEST_F(DbHeap, LoadKeepsItsInstancesAndNothingElseAndAWriteNothing)
{
    bv_db_family *family = lan();
    bv_db_reg_user(kLanPath);
    std::vector<std::string> elements;
    for (int number : {3, 1, 2, 1, 4, 3, 6})
        elements.push_back(stored(number));
    write_file(kUserFile, "{\"/etc/template/lan.json\":[" + listed(elements) + "]}");
    parse_beforehand(kUserFile);

    bv_list_head *list = &g_st_db_mng.user_list;
    EXPECT_EQ(blocks_kept([&] { return bv_db_user_read(list, kUserFile); }), 2 * 5u);
    EXPECT_EQ(numbers(family), (Numbers{3, 1, 2, 4, 6}));
    EXPECT_EQ(blocks_kept([&] { return bv_db_user_write(list, kUserFile); }), 0u);
}

} // namespace
