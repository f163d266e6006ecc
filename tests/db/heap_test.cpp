// Who frees which block: families are loaded and reset for years, and only the old defaults of a
// reload may stay allocated.

#include "db/database.h"
#include "db/parsed.h"

#include "support/heap.h"

namespace {

using Sizes = std::vector<size_t>;
using Addresses = std::vector<const void *>;

constexpr size_t kTableSize = 3 * sizeof(bv_db_para);
constexpr size_t kLanAllocation = 64;
constexpr char kLanPath[] = "/etc/template/lan.json";

class DbHeap : public Db {
protected:
    void SetUp() override
    {
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

} // namespace
