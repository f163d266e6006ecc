#include "db/database.h"

#include <climits>
#include <csignal>

namespace {

using Numbers = std::vector<int>;

// A family "hosts" of 4 bytes whose template default is 7, and one without parameters, "bare".
class DbInstances : public Db {
protected:
    void SetUp() override
    {
        Db::SetUp();
        hosts = user_family("hosts", {{"id", "uint", 4, "7"}});
        ASSERT_EQ(hosts->image_size, 4);
        bare = bv_db_hash_add("bare");
    }

    int add(uint32_t number, uint32_t value)
    {
        return bv_db_inst_add("hosts", &value, sizeof value, number);
    }

    // The value of an instance, by the public call; 0xdead for a failure.
    uint32_t value(uint32_t number)
    {
        uint32_t out = 0;
        return bv_db_read("hosts", &out, sizeof out, number) == BV_OK ? out : 0xdead;
    }

    bv_db_family *hosts = nullptr;
    bv_db_family *bare = nullptr;
};

TEST_F(DbInstances, AddedOnesAreReadBackByNumber)
{
    EXPECT_EQ(add(5, 50), BV_OK);
    EXPECT_EQ(add(2, 20), BV_OK);
    EXPECT_EQ(value(5), 50u);
    EXPECT_EQ(value(2), 20u);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 2);
    EXPECT_EQ(numbers(hosts), (Numbers{5, 2})) << "in the order of adding";
}

TEST_F(DbInstances, ANumberIsTakenOnce)
{
    EXPECT_EQ(add(5, 50), BV_OK);
    EXPECT_EQ(add(5, 51), BV_ERR_EXISTS);
    EXPECT_EQ(value(5), 50u);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 1);
}

TEST_F(DbInstances, UnknownFamiliesHaveTheirOwnCode)
{
    uint32_t buf = 77, number = 78;
    for (const char *name : {"none", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(bv_db_inst_add(name, &buf, 4, 1), BV_ERR_NO_FAMILY);
        EXPECT_EQ(bv_db_inst_del(name, 1), BV_ERR_NO_FAMILY);
        EXPECT_EQ(bv_db_inst_getnew(name, &number), BV_ERR_NO_FAMILY);
        EXPECT_EQ(bv_db_read(name, &buf, 4, 1), BV_ERR_NO_FAMILY);
        EXPECT_EQ(bv_db_read_first(name, &buf, 4, &number), BV_ERR_NO_FAMILY);
        EXPECT_EQ(bv_db_read_next(name, &buf, 4, 1, &number), BV_ERR_NO_FAMILY);
        EXPECT_EQ(bv_db_write(name, &buf, 4, 1), BV_ERR_NO_FAMILY);
        EXPECT_EQ(bv_db_inst_getnum(name), 0);
    }
    EXPECT_EQ(buf, 77u);
    EXPECT_EQ(number, 78u);
}

TEST_F(DbInstances, AbsentOnesHaveTheirOwnCodeAndLeaveOutputsAlone)
{
    uint32_t buf = 77, number = 78;
    EXPECT_EQ(bv_db_inst_del("hosts", 3), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read("hosts", &buf, 4, 3), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read("hosts", &buf, 4, 0), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read_first("hosts", &buf, 4, &number), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read_next("hosts", &buf, 4, 3, &number), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_write("hosts", &buf, 4, 3), BV_ERR_NO_INSTANCE);
    add(3, 30);
    EXPECT_EQ(bv_db_read_next("hosts", &buf, 4, 3, &number), BV_ERR_NO_INSTANCE) << "the last";
    EXPECT_EQ(buf, 77u);
    EXPECT_EQ(number, 78u);
}

TEST_F(DbInstances, Instance1ReadsAsTheDefaultsUntilItExists)
{
    EXPECT_EQ(value(1), 7u);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 0) << "reading makes none";
    add(2, 20);
    EXPECT_EQ(value(1), 7u) << "other instances make no difference";
    add(1, 10);
    EXPECT_EQ(value(1), 10u);
}

TEST_F(DbInstances, WriteNeverMakesOneNotEvenInstance1)
{
    uint32_t buf = 5;
    EXPECT_EQ(bv_db_write("hosts", &buf, sizeof buf, 1), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 0);
    add(1, 10);
    EXPECT_EQ(bv_db_write("hosts", &buf, sizeof buf, 1), BV_OK);
    EXPECT_EQ(value(1), 5u);
    EXPECT_EQ(default_image(hosts), bytes_of<uint32_t>(7)) << "the defaults never change";
}

TEST_F(DbInstances, AWalkGoesInListOrder)
{
    add(9, 90);
    add(1, 10);
    add(4, 40);
    Numbers seen;
    uint32_t number = 0, buf = 0;
    for (int status = bv_db_read_first("hosts", &buf, 4, &number); status == BV_OK;
         status = bv_db_read_next("hosts", &buf, 4, number, &number)) {
        EXPECT_EQ(buf, number * 10);
        seen.push_back(static_cast<int>(number));
    }
    EXPECT_EQ(seen, (Numbers{9, 1, 4}));
}

TEST_F(DbInstances, NumbersAreTheSameBitsSignedOrNot)
{
    EXPECT_EQ(add(0xffffffffu, 1), BV_OK);
    EXPECT_EQ(add(0x80000000u, 2), BV_OK);
    EXPECT_EQ(add(0, 3), BV_OK);
    EXPECT_EQ(numbers(hosts), (Numbers{-1, INT_MIN, 0}));
    EXPECT_EQ(value(0xffffffffu), 1u);
    uint32_t number = 0, buf;
    EXPECT_EQ(bv_db_read_first("hosts", &buf, 4, &number), BV_OK);
    EXPECT_EQ(number, 0xffffffffu);
    EXPECT_EQ(bv_db_inst_getnew("hosts", &number), BV_OK);
    EXPECT_EQ(number, 2u) << "all below 1: the highest counts as 1";
}

TEST_F(DbInstances, NewNumbersFollowTheHighest)
{
    uint32_t number = 0;
    EXPECT_EQ(bv_db_inst_getnew("hosts", &number), BV_OK);
    EXPECT_EQ(number, 1u) << "in a new family";
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 0) << "nothing is made";
    add(1, 10);
    bv_db_inst_getnew("hosts", &number);
    EXPECT_EQ(number, 2u);
    add(40, 10);
    add(7, 10);
    bv_db_inst_getnew("hosts", &number);
    EXPECT_EQ(number, 41u);
    bv_db_inst_del("hosts", 40);
    bv_db_inst_getnew("hosts", &number);
    EXPECT_EQ(number, 8u) << "deleting the highest lowers it";
    bv_db_inst_del("hosts", 7);
    bv_db_inst_del("hosts", 1);
    bv_db_inst_getnew("hosts", &number);
    EXPECT_EQ(number, 2u) << "an emptied family starts from 1, not 0";
    EXPECT_EQ(hosts->inst_max, 1);
}

TEST_F(DbInstances, TheHighestIsRecomputedFromTheList)
{
    hosts->inst_max = 99;
    add(3, 30);
    EXPECT_EQ(hosts->inst_max, 3);
    EXPECT_EQ(bv_db_data_get_inst_max(hosts), 3);
}

TEST_F(DbInstances, NoNumberFollowsTheHighestPossible)
{
    add(INT_MAX, 1);
    uint32_t number;
    EXPECT_EXIT(bv_db_inst_getnew("hosts", &number), ::testing::KilledBySignal(SIGABRT), "");
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
    EXPECT_EXIT(bv_db_inst_del("hosts", 1), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(DbInstances, DeletedOnesAreGone)
{
    add(1, 10);
    add(2, 20);
    add(3, 30);
    EXPECT_EQ(bv_db_inst_del("hosts", 2), BV_OK);
    EXPECT_EQ(numbers(hosts), (Numbers{1, 3}));
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 2);
    EXPECT_EQ(bv_db_inst_del("hosts", 2), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(value(2), 0xdeadu);
}

TEST_F(DbInstances, AShortReadBufferIsClearedAndNotReported)
{
    add(1, 0xffffffffu);
    for (uint32_t number : {1u, 2u}) {
        if (number == 2)
            add(2, 0xffffffffu);
        Bytes buf(8, 0xee);
        EXPECT_EQ(bv_db_read("hosts", buf.data(), 3, number), BV_OK);
        EXPECT_EQ(buf, (Bytes{0, 0, 0, 0xee, 0xee, 0xee, 0xee, 0xee}));
    }
    Bytes buf(8, 0xee);
    uint32_t number = 0;
    EXPECT_EQ(bv_db_read_first("hosts", buf.data(), 3, &number), BV_OK);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(buf, (Bytes{0, 0, 0, 0xee, 0xee, 0xee, 0xee, 0xee}));
    EXPECT_EQ(bv_db_read_next("hosts", buf.data(), 4, 1, &number), BV_OK);
    EXPECT_EQ(buf, (Bytes{0xff, 0xff, 0xff, 0xff, 0xee, 0xee, 0xee, 0xee}));
    EXPECT_EQ(bv_db_read_next("hosts", buf.data(), 2, 1, &number), BV_OK);
    EXPECT_EQ(buf, (Bytes{0, 0, 0xff, 0xff, 0xee, 0xee, 0xee, 0xee}));
    EXPECT_EQ(bv_db_read("hosts", buf.data(), 0, 1), BV_OK);
    EXPECT_EQ(buf, (Bytes{0, 0, 0xff, 0xff, 0xee, 0xee, 0xee, 0xee}));
}

TEST_F(DbInstances, AShortBufferForTheDefaultsIsClearedToo)
{
    Bytes buf(4, 0xee);
    EXPECT_EQ(bv_db_read("hosts", buf.data(), 3, 1), BV_OK);
    EXPECT_EQ(buf, (Bytes{0, 0, 0, 0xee}));
}

TEST_F(DbInstances, ALongReadBufferKeepsItsRest)
{
    add(1, 0xffffffffu);
    Bytes buf(8, 0xee);
    EXPECT_EQ(bv_db_read("hosts", buf.data(), 8, 1), BV_OK);
    EXPECT_EQ(buf, (Bytes{0xff, 0xff, 0xff, 0xff, 0xee, 0xee, 0xee, 0xee}));
}

TEST_F(DbInstances, AShortWriteChangesTheFirstBytesOnly)
{
    add(1, 0xffffffffu);
    uint8_t buf[2] = {1, 2};
    EXPECT_EQ(bv_db_write("hosts", buf, 2, 1), BV_OK);
    EXPECT_EQ(image_of(hosts, 1), (Bytes{1, 2, 0xff, 0xff}));
    EXPECT_EQ(bv_db_write("hosts", buf, 0, 1), BV_OK);
    EXPECT_EQ(image_of(hosts, 1), (Bytes{1, 2, 0xff, 0xff}));
    EXPECT_EQ(bv_db_inst_add("hosts", buf, 2, 2), BV_OK);
    EXPECT_EQ(image_of(hosts, 2), (Bytes{1, 2, 0, 0}));
}

TEST_F(DbInstances, ALongOrNullWriteClearsTheImageAndIsNotReported)
{
    add(1, 0xffffffffu);
    Bytes buf(5, 0x11);
    EXPECT_EQ(bv_db_write("hosts", buf.data(), 5, 1), BV_OK);
    EXPECT_EQ(image_of(hosts, 1), Bytes(4));
    add(2, 0xffffffffu);
    EXPECT_EQ(bv_db_write("hosts", nullptr, 4, 2), BV_OK);
    EXPECT_EQ(image_of(hosts, 2), Bytes(4));
    EXPECT_EQ(bv_db_inst_add("hosts", buf.data(), 0xffffffffu, 3), BV_OK);
    EXPECT_EQ(image_of(hosts, 3), Bytes(4));
    EXPECT_EQ(bv_db_inst_add("hosts", nullptr, 4, 4), BV_OK);
    EXPECT_EQ(image_of(hosts, 4), Bytes(4));
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 4);
}

TEST_F(DbInstances, AnImageIsAllocatedInStepsOf32ZeroedBytes)
{
    add(1, 0xffffffffu);
    bv_db_inst *instance = bv_db_data_get_inst(hosts, 1);
    EXPECT_EQ(Bytes(instance->image + 4, instance->image + 32), Bytes(28));
}

TEST_F(DbInstances, AFamilyWithoutImageHasInstancesOfNothing)
{
    Bytes buf(4, 0xee);
    uint32_t number = 0;
    EXPECT_EQ(bv_db_read("bare", buf.data(), 4, 1), BV_OK);
    EXPECT_EQ(bv_db_inst_add("bare", buf.data(), 4, 3), BV_OK);
    EXPECT_EQ(bv_db_data_get_inst(bare, 3)->image, nullptr);
    EXPECT_EQ(bv_db_write("bare", buf.data(), 4, 3), BV_OK);
    EXPECT_EQ(bv_db_read("bare", buf.data(), 4, 3), BV_OK);
    EXPECT_EQ(bv_db_read_first("bare", buf.data(), 4, &number), BV_OK);
    EXPECT_EQ(number, 3u);
    EXPECT_EQ(buf, Bytes(4, 0xee));
    EXPECT_EQ(bv_db_inst_del("bare", 3), BV_OK);
}

TEST_F(DbInstances, NullPlacesFailAndNullBuffersCopyNothing)
{
    add(1, 10);
    add(2, 20);
    uint32_t buf = 0;
    EXPECT_EQ(bv_db_read_first("hosts", &buf, 4, nullptr), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read_next("hosts", &buf, 4, 1, nullptr), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_inst_getnew("hosts", nullptr), BV_ERR_NO_FAMILY);
    EXPECT_EQ(buf, 0u);
    EXPECT_EQ(bv_db_read("hosts", nullptr, 4, 1), BV_OK);
}

TEST_F(DbInstances, RecordLevelLooksUpTheFirstOfItsNumber)
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
    uint32_t behind = 0;
    buf = 0;
    EXPECT_EQ(bv_db_read_next("hosts", &buf, 4, 1, &behind), BV_OK);
    EXPECT_EQ(behind, 1u);
    EXPECT_EQ(buf, 11u);
    EXPECT_EQ(bv_db_data_del_inst(hosts, first), 0);
    EXPECT_EQ(bv_db_data_get_inst(hosts, 1), second);
    EXPECT_EQ(bv_db_data_get_inst_next(hosts, 1, &number)->number, 2);
    EXPECT_EQ(number, 2);
    EXPECT_EQ(bv_db_data_get_inst_next(hosts, 2, &number), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_next(hosts, 9, &number), nullptr);
    EXPECT_EQ(number, 2) << "untouched without an instance";
}

TEST_F(DbInstances, RecordLevelReportsTheCopy)
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

TEST_F(DbInstances, RecordLevelRefusesNull)
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
    EXPECT_EQ(value(1), 10u);
}

TEST_F(DbInstances, TheReadyFlagIsSetForGood)
{
    EXPECT_EQ(bv_db_status(), 0);
    EXPECT_EQ(bv_db_ready(), BV_OK);
    EXPECT_EQ(bv_db_status(), 1);
    EXPECT_EQ(bv_db_ready(), BV_OK);
    EXPECT_EQ(bv_db_status(), 1);
}

} // namespace
