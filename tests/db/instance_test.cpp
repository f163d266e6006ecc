// SPDX-License-Identifier: ISC
// Instances: added, read, written, walked and deleted, by family name and by family record.

#include "db/database.h"

#include <climits>
#include <csignal>

namespace {

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

    // Adds an instance even if its number is taken.
    void add_again(int number, uint32_t value)
    {
        EXPECT_EQ(bv_db_data_add_inst(hosts, &value, sizeof value, number), BV_OK);
    }

    // The value of an instance; 0xdead for a failure.
    uint32_t value(uint32_t number)
    {
        uint32_t out = 0;
        return bv_db_read("hosts", &out, sizeof out, number) == BV_OK ? out : 0xdead;
    }

    // The number that the next instance would get.
    uint32_t fresh_number()
    {
        uint32_t number = 0;
        EXPECT_EQ(bv_db_inst_getnew("hosts", &number), BV_OK);
        return number;
    }

    bv_db_family *hosts = nullptr;
    bv_db_family *bare = nullptr;
};

TEST_F(DbInstances, AddedInstancesAreReadBackByNumber)
{
    EXPECT_EQ(add(5, 50), BV_OK);
    EXPECT_EQ(add(2, 20), BV_OK);
    EXPECT_EQ(value(5), 50u);
    EXPECT_EQ(value(2), 20u);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 2);
    EXPECT_EQ(numbers(hosts), (Numbers{5, 2})) << "in the order of adding";

    EXPECT_EQ(add(5, 51), BV_ERR_EXISTS);
    EXPECT_EQ(value(5), 50u);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 2);
}

TEST_F(DbInstances, UnknownFamilyHasItsOwnCode)
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

TEST_F(DbInstances, AbsentInstanceHasItsOwnCodeAndLeavesOutputsAlone)
{
    uint32_t buf = 77, number = 78;
    EXPECT_EQ(bv_db_inst_del("hosts", 3), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read("hosts", &buf, 4, 3), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read("hosts", &buf, 4, 0), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read_first("hosts", &buf, 4, &number), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read_next("hosts", &buf, 4, 3, &number), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_write("hosts", &buf, 4, 3), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_write("hosts", &buf, 4, 1), BV_ERR_NO_INSTANCE) << "not even instance 1";
    add(3, 30);
    EXPECT_EQ(bv_db_read_next("hosts", &buf, 4, 3, &number), BV_ERR_NO_INSTANCE) << "the last";
    EXPECT_EQ(buf, 77u);
    EXPECT_EQ(number, 78u);
}

TEST_F(DbInstances, Instance1ReadsAsDefaultsUntilItExists)
{
    EXPECT_EQ(value(1), 7u);
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 0) << "reading adds nothing";
    add(2, 20);
    EXPECT_EQ(value(1), 7u) << "other instances make no difference";
    add(1, 10);
    EXPECT_EQ(value(1), 10u);
    uint32_t buf = 5;
    EXPECT_EQ(bv_db_write("hosts", &buf, sizeof buf, 1), BV_OK);
    EXPECT_EQ(value(1), 5u);
    EXPECT_EQ(default_image(hosts), bytes_of<uint32_t>(7)) << "the defaults never change";
}

TEST_F(DbInstances, WalkFollowsTheList)
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
    EXPECT_EQ(fresh_number(), 2u) << "all below 1: the highest counts as 1";
}

TEST_F(DbInstances, NewNumbersFollowTheHighest)
{
    EXPECT_EQ(fresh_number(), 1u) << "in a new family";
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 0) << "nothing is added";
    add(1, 10);
    EXPECT_EQ(fresh_number(), 2u);
    add(40, 10);
    add(7, 10);
    EXPECT_EQ(fresh_number(), 41u);
    bv_db_inst_del("hosts", 40);
    EXPECT_EQ(fresh_number(), 8u) << "deleting the highest lowers it";
    bv_db_inst_del("hosts", 7);
    bv_db_inst_del("hosts", 1);
    EXPECT_EQ(fresh_number(), 2u) << "an emptied family starts from 1, not 0";
    EXPECT_EQ(hosts->inst_max, 1);
}

TEST_F(DbInstances, HighestIsWorkedOutFromTheListNotTheRecord)
{
    hosts->inst_max = 99;
    add(3, 30);
    EXPECT_EQ(hosts->inst_max, 3);
    EXPECT_EQ(bv_db_data_get_inst_max(hosts), 3);
}

TEST_F(DbInstances, CountersThatWouldOverflowAbort)
{
    const ::testing::KilledBySignal aborted(SIGABRT);
    add(INT_MAX, 1);
    uint32_t number;
    EXPECT_EXIT(bv_db_inst_getnew("hosts", &number), aborted, "");
    hosts->inst_count = INT_MAX;
    EXPECT_EXIT(add(1, 1), aborted, "");
    hosts->inst_count = INT_MIN;
    EXPECT_EXIT(bv_db_inst_del("hosts", INT_MAX), aborted, "");
}

TEST_F(DbInstances, DeletedInstanceIsGone)
{
    for (uint32_t number : {1, 2, 3})
        add(number, 10 * number);
    EXPECT_EQ(bv_db_inst_del("hosts", 2), BV_OK);
    EXPECT_EQ(numbers(hosts), (Numbers{1, 3}));
    EXPECT_EQ(bv_db_inst_getnum("hosts"), 2);
    EXPECT_EQ(bv_db_inst_del("hosts", 2), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(value(2), 0xdeadu);
}

// However much is asked for and wherever it comes from, the buffer's other bytes stay.
TEST_F(DbInstances, ReadClearsShortBuffersAndFillsOthersFromTheFront)
{
    const struct {
        uint32_t buflen;
        Bytes first;
    } rows[] = {{0, {}},
                {3, {0, 0, 0}},
                {4, {0xff, 0xff, 0xff, 0xff}},
                {8, {0xff, 0xff, 0xff, 0xff}},
                {0x7fffffffu, {0xff, 0xff, 0xff, 0xff}},
                {0x80000000u, {}}, // too large to be true, as -1 for "any size" is
                {0xffffffffu, {}}};
    add(1, 0xffffffffu);
    add(2, 0xffffffffu);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.buflen);
        uint32_t number = 0;
        Bytes one(8, 0xee), first = one, next = one, expected = one;
        std::copy(row.first.begin(), row.first.end(), expected.begin());
        EXPECT_EQ(bv_db_read("hosts", one.data(), row.buflen, 2), BV_OK);
        EXPECT_EQ(one, expected);
        EXPECT_EQ(bv_db_read_first("hosts", first.data(), row.buflen, &number), BV_OK);
        EXPECT_EQ(number, 1u);
        EXPECT_EQ(first, expected);
        EXPECT_EQ(bv_db_read_next("hosts", next.data(), row.buflen, 1, &number), BV_OK);
        EXPECT_EQ(number, 2u);
        EXPECT_EQ(next, expected);
    }
    bv_db_inst_del("hosts", 1);
    Bytes defaults(4, 0xee);
    EXPECT_EQ(bv_db_read("hosts", defaults.data(), 3, 1), BV_OK);
    EXPECT_EQ(defaults, (Bytes{0, 0, 0, 0xee}));
}

TEST_F(DbInstances, WriteTakesShortBuffersAndClearsForLongOrNullOnes)
{
    const uint8_t bytes[5] = {1, 2, 3, 4, 5};
    const struct {
        const void *buf;
        uint32_t buflen;
        Bytes written, added;
    } rows[] = {
        {bytes, 0, Bytes(4, 0xff), Bytes(4)},     {bytes, 2, {1, 2, 0xff, 0xff}, {1, 2, 0, 0}},
        {bytes, 4, {1, 2, 3, 4}, {1, 2, 3, 4}},   {bytes, 5, Bytes(4), Bytes(4)},
        {bytes, 0xffffffffu, Bytes(4), Bytes(4)}, {nullptr, 4, Bytes(4), Bytes(4)}};
    uint32_t number = 1;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.buflen);
        add(number, 0xffffffffu);
        EXPECT_EQ(bv_db_write("hosts", row.buf, row.buflen, number), BV_OK);
        EXPECT_EQ(image_of(hosts, static_cast<int>(number)), row.written);
        ++number;
        EXPECT_EQ(bv_db_inst_add("hosts", row.buf, row.buflen, number), BV_OK);
        EXPECT_EQ(image_of(hosts, static_cast<int>(number)), row.added);
        ++number;
    }
}

TEST_F(DbInstances, FamilyWithoutImageHasInstancesOfNothing)
{
    Bytes buf(4, 0xee);
    uint32_t number = 0;
    EXPECT_EQ(bv_db_read("bare", buf.data(), 4, 1), BV_OK);
    EXPECT_EQ(bv_db_inst_add("bare", buf.data(), 4, 3), BV_OK);
    bv_db_inst *instance = bv_db_data_get_inst(bare, 3);
    EXPECT_EQ(instance->image, nullptr);
    EXPECT_EQ(bv_db_write("bare", buf.data(), 4, 3), BV_OK);
    EXPECT_EQ(bv_db_read("bare", buf.data(), 4, 3), BV_OK);
    EXPECT_EQ(bv_db_read_first("bare", buf.data(), 4, &number), BV_OK);
    EXPECT_EQ(number, 3u);
    EXPECT_EQ(bv_db_data_set_context(bare, instance, buf.data(), 4), 0);
    EXPECT_EQ(bv_db_data_get_context(bare, instance, buf.data(), 4), 0);
    EXPECT_EQ(buf, Bytes(4, 0xee));
    EXPECT_EQ(bv_db_inst_del("bare", 3), BV_OK);
}

TEST_F(DbInstances, ImageIsAllocatedInStepsOf32ZeroedBytes)
{
    add(1, 0xffffffffu);
    const uint8_t *image = bv_db_data_get_inst(hosts, 1)->image;
    EXPECT_EQ(Bytes(image + 4, image + 32), Bytes(28));
}

TEST_F(DbInstances, FirstOfSeveralWithOneNumberIsFoundAndWalksContinueAfterIt)
{
    add_again(1, 10);
    add_again(1, 11);
    add_again(2, 20);
    EXPECT_EQ(hosts->inst_count, 3);

    uint32_t read_number = 0, buf = 0;
    EXPECT_EQ(bv_db_read_next("hosts", &buf, 4, 1, &read_number), BV_OK);
    EXPECT_EQ(read_number, 1u);
    EXPECT_EQ(buf, 11u);

    int32_t number = 0;
    bv_db_inst *first = bv_db_data_get_inst_first(hosts, &number);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(bv_db_data_get_inst(hosts, 1), first);
    bv_db_inst *second = bv_db_data_get_inst_next(hosts, 1, &number);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(bv_db_data_del_inst(hosts, first), 0);
    EXPECT_EQ(bv_db_data_get_inst(hosts, 1), second);
    EXPECT_EQ(bv_db_data_get_inst_next(hosts, 1, &number)->number, 2);
    EXPECT_EQ(number, 2);
    EXPECT_EQ(bv_db_data_get_inst_next(hosts, 2, &number), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_next(hosts, 9, &number), nullptr);
    EXPECT_EQ(number, 2) << "left alone when there is no instance";
}

TEST_F(DbInstances, RecordCallsReportFailedCopies)
{
    add(1, 10);
    bv_db_inst *instance = bv_db_data_get_inst(hosts, 1);
    uint32_t buf = 77;
    for (uint32_t buflen : {3u, 0x80000000u, 0xffffffffu})
        EXPECT_NE(bv_db_data_get_context(hosts, instance, &buf, buflen), 0) << buflen;
    EXPECT_NE(bv_db_data_get_context(hosts, instance, nullptr, 4), 0);
    buf = 0;
    EXPECT_EQ(bv_db_data_get_context(hosts, instance, &buf, 4), 0);
    EXPECT_EQ(buf, 10u);
    EXPECT_EQ(bv_db_data_set_context(hosts, instance, &buf, 4), 0);
    EXPECT_EQ(bv_db_data_set_context(hosts, instance, &buf, 1), 0);
    EXPECT_NE(bv_db_data_set_context(hosts, instance, &buf, 5), 0);
    EXPECT_EQ(image_of(hosts, 1), Bytes(4));
}

TEST_F(DbInstances, ImageOfOneByteIsCopiedBothWays)
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

TEST_F(DbInstances, NullArgumentsFail)
{
    uint32_t buf = 0;
    int32_t number = 0;
    add(1, 10);
    add(2, 20);
    bv_db_inst *instance = bv_db_data_get_inst(hosts, 1);
    EXPECT_EQ(bv_db_read_first("hosts", &buf, 4, nullptr), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read_next("hosts", &buf, 4, 1, nullptr), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_inst_getnew("hosts", nullptr), BV_ERR_NO_FAMILY);
    EXPECT_EQ(bv_db_read("hosts", nullptr, 4, 1), BV_OK) << "a copy that fails";

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
    EXPECT_EQ(buf, 0u);
    EXPECT_EQ(image_of(hosts, 1), bytes_of<uint32_t>(10));
}

} // namespace
