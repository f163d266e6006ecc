#include "db/database.h"

#include <climits>
#include <csignal>

namespace {

using Numbers = std::vector<int>;

// A family record "hosts" of 4 bytes.
class DbInstances : public Db {
protected:
    void SetUp() override
    {
        Db::SetUp();
        hosts = user_family("hosts", {{"id", "uint", 4, "7"}});
        ASSERT_EQ(hosts->image_size, 4);
    }

    int add(int number, uint32_t value)
    {
        return bv_db_data_add_inst(hosts, &value, sizeof value, number);
    }

    bv_db_family *hosts = nullptr;
};

TEST_F(DbInstances, TheHighestIsRecomputedFromTheList)
{
    hosts->inst_max = 99;
    add(3, 30);
    EXPECT_EQ(hosts->inst_max, 3);
    EXPECT_EQ(bv_db_data_get_inst_max(hosts), 3);
}

TEST_F(DbInstances, ACountAtItsTopAborts)
{
    hosts->inst_count = INT_MAX;
    EXPECT_EXIT(add(1, 1), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(DbInstances, ACountAtItsBottomAborts)
{
    add(1, 1);
    hosts->inst_count = INT_MIN;
    EXPECT_EXIT(bv_db_data_del_inst(hosts, bv_db_data_get_inst(hosts, 1)),
                ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(DbInstances, AnImageIsAllocatedInStepsOf32ZeroedBytes)
{
    add(1, 0xffffffffu);
    bv_db_inst *instance = bv_db_data_get_inst(hosts, 1);
    EXPECT_EQ(Bytes(instance->image + 4, instance->image + 32), Bytes(28));
}

TEST_F(DbInstances, AreLookedUpByTheFirstOfTheirNumber)
{
    uint32_t values[] = {10, 11, 20};
    EXPECT_EQ(bv_db_data_add_inst(hosts, &values[0], 4, 1), BV_OK);
    EXPECT_EQ(bv_db_data_add_inst(hosts, &values[1], 4, 1), BV_OK) << "duplicates are not checked";
    EXPECT_EQ(bv_db_data_add_inst(hosts, &values[2], 4, 2), BV_OK);
    EXPECT_EQ(hosts->inst_count, 3);

    int32_t number = 0;
    bv_db_inst *first = bv_db_data_get_inst_first(hosts, &number);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(bv_db_data_get_inst(hosts, 1), first);
    bv_db_inst *second = bv_db_data_get_inst_next(hosts, 1, &number);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(number, 1) << "behind the first occurrence stands the second";
    uint32_t buf = 0;
    EXPECT_EQ(bv_db_data_get_context(hosts, second, &buf, 4), 0);
    EXPECT_EQ(buf, 11u);
    EXPECT_EQ(bv_db_data_del_inst(hosts, first), 0);
    EXPECT_EQ(bv_db_data_get_inst(hosts, 1), second);
    EXPECT_EQ(bv_db_data_get_inst_next(hosts, 1, &number)->number, 2);
    EXPECT_EQ(number, 2);
    EXPECT_EQ(bv_db_data_get_inst_next(hosts, 2, &number), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_next(hosts, 9, &number), nullptr);
    EXPECT_EQ(number, 2) << "untouched without an instance";
}

TEST_F(DbInstances, TheCopyIsReported)
{
    uint32_t buf = 10;
    bv_db_data_add_inst(hosts, &buf, 4, 1);
    bv_db_inst *instance = bv_db_data_get_inst(hosts, 1);
    EXPECT_NE(bv_db_data_get_context(hosts, instance, &buf, 3), 0);
    EXPECT_NE(bv_db_data_get_context(hosts, instance, nullptr, 4), 0);
    EXPECT_EQ(bv_db_data_set_context(hosts, instance, &buf, 4), 0);
    EXPECT_EQ(bv_db_data_set_context(hosts, instance, &buf, 1), 0);
    EXPECT_NE(bv_db_data_set_context(hosts, instance, &buf, 5), 0);
    EXPECT_EQ(image_of(hosts, 1), Bytes(4));
}

TEST_F(DbInstances, WithoutAnImageACopyOfNothingSucceeds)
{
    bv_db_family *bare = bv_db_hash_add("bare");
    ASSERT_EQ(bv_db_data_add_inst(bare, nullptr, 0, 1), BV_OK);
    bv_db_inst *instance = bv_db_data_get_inst(bare, 1);
    uint32_t buf = 10;
    EXPECT_EQ(bv_db_data_set_context(bare, instance, &buf, 4), 0);
    EXPECT_EQ(bv_db_data_get_context(bare, instance, &buf, 4), 0);
    EXPECT_EQ(buf, 10u);
}

TEST_F(DbInstances, AnImageOfOneByteIsCopiedBothWays)
{
    bv_db_family *flags = user_family("flags", {{"on", "uchar", 1, "0"}});
    uint8_t byte = 5;
    ASSERT_EQ(bv_db_data_add_inst(flags, &byte, 1, 1), BV_OK);
    bv_db_inst *instance = bv_db_data_get_inst(flags, 1);
    byte = 6;
    EXPECT_EQ(bv_db_data_set_context(flags, instance, &byte, 1), 0);
    byte = 0;
    EXPECT_EQ(bv_db_data_get_context(flags, instance, &byte, 1), 0);
    EXPECT_EQ(byte, 6);
}

TEST_F(DbInstances, FreeLeavesNoneAndTheHighestAt1)
{
    add(8, 1);
    add(9, 1);
    EXPECT_EQ(bv_db_data_free(hosts), 0);
    EXPECT_EQ(hosts->inst_count, 0);
    EXPECT_EQ(hosts->inst_max, 1);
    EXPECT_EQ(numbers(hosts), Numbers{});
    int32_t number = 5;
    EXPECT_EQ(bv_db_data_get_inst_first(hosts, &number), nullptr);
    EXPECT_EQ(number, 5);
    EXPECT_EQ(bv_db_data_get_inst_max(hosts), 1);
}

TEST_F(DbInstances, NullIsRefused)
{
    uint32_t buf = 0;
    int32_t number = 0;
    add(1, 10);
    bv_db_inst *instance = bv_db_data_get_inst(hosts, 1);
    EXPECT_EQ(bv_db_data_get_inst(nullptr, 1), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_first(nullptr, &number), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_first(hosts, nullptr), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_next(nullptr, 1, &number), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_max(nullptr), 1);
    EXPECT_EQ(bv_db_data_get_context(nullptr, instance, &buf, 4), -1);
    EXPECT_EQ(bv_db_data_get_context(hosts, nullptr, &buf, 4), -1);
    EXPECT_EQ(bv_db_data_set_context(nullptr, instance, &buf, 4), -1);
    EXPECT_EQ(bv_db_data_set_context(hosts, nullptr, &buf, 4), -1);
    EXPECT_EQ(bv_db_data_add_inst(nullptr, &buf, 4, 1), -1);
    EXPECT_EQ(bv_db_data_del_inst(nullptr, instance), -1);
    EXPECT_EQ(bv_db_data_del_inst(hosts, nullptr), -1);
    EXPECT_EQ(bv_db_data_free(nullptr), -1);
    EXPECT_EQ(image_of(hosts, 1), bytes_of<uint32_t>(10));
}

} // namespace
