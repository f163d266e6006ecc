#include "db/database.h"

#include <climits>
#include <csignal>

namespace {

using Numbers = std::vector<int>;

// A family "hosts" of 4 bytes whose template default is 7, and one without parameters, "bare".
class DbAccess : public Db {
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

TEST_F(DbAccess, AddedOnesAreReadBackByNumber)
{
    EXPECT_EQ(add(5, 50), BV_OK);
    EXPECT_EQ(add(2, 20), BV_OK);
    EXPECT_EQ(value(5), 50u);
    EXPECT_EQ(value(2), 20u);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 2);
    EXPECT_EQ(numbers(hosts), (Numbers{5, 2})) << "in the order of adding";
}

TEST_F(DbAccess, ANumberIsTakenOnce)
{
    EXPECT_EQ(add(5, 50), BV_OK);
    EXPECT_EQ(add(5, 51), BV_ERR_EXISTS);
    EXPECT_EQ(value(5), 50u);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 1);
}

TEST_F(DbAccess, UnknownFamiliesHaveTheirOwnCode)
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

TEST_F(DbAccess, AbsentOnesHaveTheirOwnCodeAndLeaveOutputsAlone)
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

TEST_F(DbAccess, Instance1ReadsAsTheDefaultsUntilItExists)
{
    EXPECT_EQ(value(1), 7u);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 0) << "reading makes none";
    add(2, 20);
    EXPECT_EQ(value(1), 7u) << "other instances make no difference";
    add(1, 10);
    EXPECT_EQ(value(1), 10u);
}

TEST_F(DbAccess, WriteNeverMakesOneNotEvenInstance1)
{
    uint32_t buf = 5;
    EXPECT_EQ(bv_db_write("hosts", &buf, sizeof buf, 1), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 0);
    add(1, 10);
    EXPECT_EQ(bv_db_write("hosts", &buf, sizeof buf, 1), BV_OK);
    EXPECT_EQ(value(1), 5u);
    EXPECT_EQ(default_image(hosts), bytes_of<uint32_t>(7)) << "the defaults never change";
}

TEST_F(DbAccess, AWalkGoesInListOrder)
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

TEST_F(DbAccess, NumbersAreTheSameBitsSignedOrNot)
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

TEST_F(DbAccess, NewNumbersFollowTheHighest)
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

TEST_F(DbAccess, NoNumberFollowsTheHighestPossible)
{
    add(INT_MAX, 1);
    uint32_t number;
    EXPECT_EXIT(bv_db_inst_getnew("hosts", &number), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(DbAccess, DeletedOnesAreGone)
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

TEST_F(DbAccess, AShortReadBufferIsClearedAndNotReported)
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

TEST_F(DbAccess, AShortBufferForTheDefaultsIsClearedToo)
{
    Bytes buf(4, 0xee);
    EXPECT_EQ(bv_db_read("hosts", buf.data(), 3, 1), BV_OK);
    EXPECT_EQ(buf, (Bytes{0, 0, 0, 0xee}));
}

TEST_F(DbAccess, ALongReadBufferKeepsItsRest)
{
    add(1, 0xffffffffu);
    Bytes buf(8, 0xee);
    EXPECT_EQ(bv_db_read("hosts", buf.data(), 8, 1), BV_OK);
    EXPECT_EQ(buf, (Bytes{0xff, 0xff, 0xff, 0xff, 0xee, 0xee, 0xee, 0xee}));
}

// Whoever passes -1 for a buffer "of any size" gets nothing.
TEST_F(DbAccess, AReadBufferOf2GiBOrMoreIsLeftAlone)
{
    add(1, 0xffffffffu);
    add(2, 0xffffffffu);
    uint32_t buf = 77, number = 0;
    for (uint32_t buflen : {0x80000000u, 0xffffffffu}) {
        EXPECT_EQ(bv_db_read("hosts", &buf, buflen, 1), BV_OK);
        EXPECT_EQ(bv_db_read_first("hosts", &buf, buflen, &number), BV_OK);
        EXPECT_EQ(number, 1u);
        EXPECT_EQ(bv_db_read_next("hosts", &buf, buflen, 1, &number), BV_OK);
        EXPECT_EQ(number, 2u);
        EXPECT_NE(bv_db_data_get_context(hosts, bv_db_data_get_inst(hosts, 1), &buf, buflen), 0);
        EXPECT_EQ(buf, 77u);
    }
    EXPECT_EQ(bv_db_read("hosts", &buf, 0x7fffffffu, 1), BV_OK);
    EXPECT_EQ(buf, 0xffffffffu);
}

TEST_F(DbAccess, AShortWriteChangesTheFirstBytesOnly)
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

TEST_F(DbAccess, ALongOrNullWriteClearsTheImageAndIsNotReported)
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

TEST_F(DbAccess, AFamilyWithoutImageHasInstancesOfNothing)
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

TEST_F(DbAccess, NullPlacesFailAndNullBuffersCopyNothing)
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

TEST_F(DbAccess, AWalkGoesOnBehindTheFirstOfANumberThatStandsTwice)
{
    for (uint32_t value : {10u, 11u, 12u})
        ASSERT_EQ(bv_db_data_add_inst(hosts, &value, sizeof value, value == 12 ? 2 : 1), BV_OK);
    uint32_t number = 0, buf = 0;
    EXPECT_EQ(bv_db_read_next("hosts", &buf, 4, 1, &number), BV_OK);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(buf, 11u);
}

} // namespace
