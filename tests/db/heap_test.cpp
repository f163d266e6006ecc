// Who gives memory back: families are loaded and reset for years, and only the old defaults of a
// reload may stay behind.
//
// Templates and files are parsed beforehand, so that only the library's own blocks are counted.

#include "db/database.h"

#include "support/faults.h"

#include <json-c/json.h>

#include <dlfcn.h>

namespace {

using Sizes = std::vector<size_t>;
using Addresses = std::vector<const void *>;

constexpr size_t kTableSize = 3 * sizeof(bv_db_para);
constexpr size_t kLanAllocation = 64;
constexpr char kLanPath[] = "/etc/template/lan.json";

json_object *g_tree; // what a file has in it, if it was parsed beforehand

json_object *parse(const char *path)
{
    auto real =
        reinterpret_cast<json_object *(*)(const char *)>(dlsym(RTLD_NEXT, "json_object_from_file"));
    return real(path);
}

class DbHeap : public Db {
protected:
    void SetUp() override
    {
        Db::SetUp();
        install("lan.json", kLan);
        g_tree = parse(kLanPath);
    }
    void TearDown() override
    {
        json_object_put(g_tree);
        Db::TearDown();
    }

    // A family with its template, and no instances.
    bv_db_family *lan()
    {
        bv_db_family *family = bv_db_hash_add(kLanPath);
        EXPECT_EQ(bv_db_template_read_single(kLanPath, family), BV_OK);
        return family;
    }

    int add(int number)
    {
        return bv_db_inst_add(kLanPath, image.data(), 38, static_cast<uint32_t>(number));
    }

    const Bytes image = Bytes(38, 1);
};

} // namespace

extern "C" json_object *json_object_from_file(const char *path)
{
    return g_tree != nullptr ? json_object_get(g_tree) : parse(path);
}

TEST_F(DbHeap, AnInstanceIsTwoBlocksAndDeletingGivesBothBack)
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

TEST_F(DbHeap, AnInstanceWithoutMemoryForItsImageIsGivenBack)
{
    lan();
    HeapWatch watch(2);
    ASSERT_EQ(add(7), BV_ERR_MEMORY);
    watch.stop();
    EXPECT_EQ(watch.taken(), Sizes{sizeof(bv_db_inst)});
    EXPECT_EQ(watch.given_back().size(), 1u);
}

TEST_F(DbHeap, FreeingAFamilysInstancesGivesAllOfThemBack)
{
    bv_db_family *family = lan();
    HeapWatch watch;
    for (int number : {1, 2, 3})
        ASSERT_EQ(add(number), BV_OK);
    watch.stop();
    EXPECT_EQ(bv_db_data_free(family), BV_OK);
    EXPECT_EQ(watch.given_back().size(), 6u);
}

TEST_F(DbHeap, OnlyTheOldDefaultsOfAReloadStayBehind)
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

TEST_F(DbHeap, ATemplateWithoutMemoryForAnImageGivesTheRestBack)
{
    bv_db_family *family = bv_db_hash_add(kLanPath);
    for (unsigned refused : {2, 3}) {
        SCOPED_TRACE(refused);
        HeapWatch watch(refused);
        ASSERT_EQ(bv_db_template_read_single(kLanPath, family), -1);
        watch.stop();
        EXPECT_EQ(watch.taken().size(), refused - 1);
        EXPECT_EQ(watch.given_back().size(), refused - 1);
    }
}

TEST_F(DbHeap, FreeingTheTableGivesBackAllButTheDefaults)
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

TEST_F(DbHeap, ALoadKeepsItsInstancesAndNothingElse)
{
    bv_db_family *family = lan();
    bv_db_reg_user(kLanPath);
    json_object_put(g_tree);
    std::string text;
    for (int number : {3, 1, 2, 1, 4, 3, 6})
        text +=
            (text.empty() ? "" : ",") + ("{\"inst\":" + std::to_string(number)) + ",\"para\":{}}";
    put_file(kUserFile, "{\"/etc/template/lan.json\":[" + text + "]}");
    g_tree = parse(kUserFile);

    HeapWatch watch;
    ASSERT_EQ(bv_db_user_read(&g_st_db_mng.user_list, kUserFile), BV_OK);
    watch.stop();
    EXPECT_EQ(numbers(family), (std::vector<int>{3, 1, 2, 4, 6}));
    EXPECT_EQ(watch.taken().size() - watch.given_back().size(), 2 * 5u);
}

TEST_F(DbHeap, AWriteKeepsNothing)
{
    lan();
    bv_db_reg_user(kLanPath);
    HeapWatch watch;
    ASSERT_EQ(bv_db_user_write(&g_st_db_mng.user_list, kUserFile), BV_OK);
    watch.stop();
    EXPECT_EQ(watch.given_back().size(), watch.taken().size());
}
