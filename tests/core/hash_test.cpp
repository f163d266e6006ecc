/* SPDX-License-Identifier: ISC */
#include <bv/hash.h>

#include <bv/status.h>

#include "support/capture_stdout.h"
#include "support/dirty_heap.h"
#include "support/faults.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

// An entry as it is linked in a bucket, to look past the interface.
struct Entry {
    bv_list_head link;
    const uint8_t *key;
    void *data;
};

// The largest number of buckets that one allocation holds.
constexpr uint32_t kMostBuckets = 1310720 / sizeof(bv_list_head);

struct Key {
    uint8_t bytes[4];
};

Key key_of(uint32_t number)
{
    Key key = {{static_cast<uint8_t>(number), static_cast<uint8_t>(number >> 8), 0, 0}};
    return key;
}

// A table with 4-byte keys and records, gone at the end of the test.
class Hash : public testing::Test {
protected:
    void TearDown() override { bv_hash_exit(table); }

    void make(uint32_t hashsize) { table = bv_hash_init(hashsize, sizeof(Key), sizeof(uint32_t)); }

    int32_t put(uint32_t number, uint32_t value)
    {
        return bv_hash_insert(table, key_of(number).bytes, &value);
    }

    void put_all(std::initializer_list<uint32_t> numbers)
    {
        for (uint32_t number : numbers)
            ASSERT_EQ(put(number, number * 10), BV_OK);
    }

    void expect_only(uint32_t number, uint32_t value)
    {
        EXPECT_EQ(table->currnum, 1u);
        ASSERT_NE(find(number), nullptr);
        EXPECT_EQ(*find(number), value);
    }

    void expect_empty(uint32_t bucket)
    {
        EXPECT_EQ(table->buckets[bucket].next, &table->buckets[bucket]);
        EXPECT_EQ(table->buckets[bucket].prev, &table->buckets[bucket]);
    }

    void remove(uint32_t number) { bv_hash_remove(table, key_of(number).bytes); }

    uint32_t *find(uint32_t number)
    {
        return static_cast<uint32_t *>(bv_hash_find(table, key_of(number).bytes));
    }

    const Entry *entry(uint32_t bucket, uint32_t position)
    {
        bv_list_head *link = table->buckets[bucket].next;
        while (position-- > 0)
            link = link->next;
        return reinterpret_cast<const Entry *>(link);
    }

    std::string dump()
    {
        CaptureStdout out;
        bv_hash_dump(table);
        return out.stop();
    }

    bv_hash *table = nullptr;
};

std::string entry_line(uint32_t bucket, uint32_t position, const Entry *entry)
{
    char line[128];
    snprintf(line, sizeof(line), "\r\n[%04u-%04u]keyobject:%08x dataobject:%08x", bucket, position,
             static_cast<unsigned>(reinterpret_cast<uintptr_t>(entry->key)),
             static_cast<unsigned>(reinterpret_cast<uintptr_t>(entry->data)));
    return line;
}

// A whole dump of a table with 4-byte keys and records.
std::string dump_of(uint32_t hashsize, uint32_t currnum, const std::string &entries)
{
    const std::string line = "\r\n===============================================";
    return line + "\r\nhashsize:" + std::to_string(hashsize) +
           " keysize:4 datasize:4 currnum:" + std::to_string(currnum) + " " +
           "\r\n-----------------------------------------------" + entries + line + "\r\n";
}

} // namespace

TEST_F(Hash, NewTableHasItsGeometryAndEmptyBuckets)
{
    dirty_heap();
    table = bv_hash_init(5, 6, 7);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->magic, 0x42524F56u);
    EXPECT_EQ(table->hashsize, 5u);
    EXPECT_EQ(table->keysize, 6u);
    EXPECT_EQ(table->datasize, 7u);
    EXPECT_EQ(table->currnum, 0u);
    for (uint32_t bucket = 0; bucket < 5; bucket++)
        expect_empty(bucket);
}

TEST_F(Hash, ZeroInTheGeometryMakesNoTable)
{
    EXPECT_EQ(bv_hash_init(0, 1, 1), nullptr);
    EXPECT_EQ(bv_hash_init(1, 0, 1), nullptr);
    EXPECT_EQ(bv_hash_init(1, 1, 0), nullptr);
}

TEST_F(Hash, BucketArrayMayFillOneAllocationAndNoMore)
{
    make(kMostBuckets);
    ASSERT_NE(table, nullptr);
    put_all({1});
    ASSERT_NE(find(1), nullptr);

    CaptureStdout refusal;
    // The second and third make 2^32 and a few bytes, of 16 and of 8 bytes each.
    for (uint32_t buckets : {kMostBuckets + 1, 0x10000001u, 0x20000001u, 0xffffffffu})
        EXPECT_EQ(bv_hash_init(buckets, 4, 4), nullptr) << buckets;
}

TEST_F(Hash, FindsWhatWasStoredAsACopy)
{
    make(16);
    uint32_t value = 4711;
    Key key = key_of(1);
    ASSERT_EQ(bv_hash_insert(table, key.bytes, &value), BV_OK);
    value = 0;
    memset(&key, 0xff, sizeof(key));
    expect_only(1, 4711);
    EXPECT_EQ(find(2), nullptr);
}

// Keys are compared in steps of several bytes on some machines: every byte counts there too,
// wherever the caller's key is. With one bucket all keys meet.
TEST_F(Hash, KeysOfAnySizeAndAddressDifferInAnyByte)
{
    const uint32_t record = 7;
    std::vector<uint32_t> sizes = {1024};
    for (uint32_t size = 1; size <= 40; size++)
        sizes.push_back(size);
    for (uint32_t size : sizes) {
        SCOPED_TRACE(size);
        bv_hash *small = bv_hash_init(1, size, sizeof record);
        ASSERT_NE(small, nullptr);
        uint8_t key[1024], moved[1028];
        for (uint32_t i = 0; i < sizeof key; i++)
            key[i] = static_cast<uint8_t>(3 * i + 1);
        ASSERT_EQ(bv_hash_insert(small, key, &record), BV_OK);

        for (uint32_t offset = 0; offset < 4; offset++) {
            memcpy(moved + offset, key, size);
            EXPECT_NE(bv_hash_find(small, moved + offset), nullptr);
            for (uint32_t i = 0; i < size; i++) {
                moved[offset + i] ^= 0x80;
                EXPECT_EQ(bv_hash_find(small, moved + offset), nullptr) << "byte " << i;
                moved[offset + i] ^= 0x80;
            }
        }
        bv_hash_exit(small);
    }
}

TEST_F(Hash, StoringAKeyAgainOverwritesItsRecordInPlace)
{
    make(16);
    put_all({1});
    uint32_t *record = find(1);
    ASSERT_EQ(put(1, 20), BV_OK);
    expect_only(1, 20);
    EXPECT_EQ(find(1), record);

    *record = 30; // and it may be stored from where it was found
    EXPECT_EQ(bv_hash_insert(table, key_of(1).bytes, record), BV_OK);
    expect_only(1, 30);
    EXPECT_EQ(find(1), record);
}

TEST_F(Hash, FullTableRefusesEvenAStoredKey)
{
    make(1);
    put_all({1});
    EXPECT_EQ(put(2, 20), BV_ERR_FULL);
    EXPECT_EQ(put(1, 30), BV_ERR_FULL);
    expect_only(1, 10);

    remove(1);
    put_all({2});
}

TEST_F(Hash, EntriesAreInTheBucketOfTheirKeysHashUnderTheMask)
{
    make(64);
    for (uint32_t i = 0; i < 64; i++)
        ASSERT_EQ(put(i, i), BV_OK);
    EXPECT_EQ(put(100, 0), BV_ERR_FULL) << "as many entries as buckets";
    for (uint32_t bucket = 0; bucket < 64; bucket++) {
        for (bv_list_head *link = table->buckets[bucket].next; link != &table->buckets[bucket];
             link = link->next)
            EXPECT_EQ(bv_os_jhash(reinterpret_cast<Entry *>(link)->key, 4, 0) & 63, bucket);
    }
}

TEST_F(Hash, SizeThatIsNotAPowerOfTwoKeepsItsMaskAndItsCapacity)
{
    make(8196); // masks with 8195: two bits of the low end, one of the high one
    for (uint32_t i = 0; i < 8196; i++)
        ASSERT_EQ(put(i, i), BV_OK);
    EXPECT_EQ(put(9000, 0), BV_ERR_FULL);

    std::set<uint32_t> used;
    for (uint32_t bucket = 0; bucket < 8196; bucket++) {
        if (table->buckets[bucket].next != &table->buckets[bucket])
            used.insert(bucket);
    }
    EXPECT_EQ(used, (std::set<uint32_t>{0, 1, 2, 3, 8192, 8193, 8194, 8195}));
    for (uint32_t i = 0; i < 8196; i++)
        ASSERT_EQ(*find(i), i);
}

TEST_F(Hash, InsertWithoutMemoryLeavesTheTableAsItWas)
{
    make(16);
    put_all({1});
    for (unsigned nth = 1; nth <= 3; nth++) { // entry, key, record
        SCOPED_TRACE(nth);
        CaptureStdout refusal;
        const uint32_t value = 20;
        const Key key = key_of(2);
        FailAllocation fail(nth);
        const int32_t result = bv_hash_insert(table, key.bytes, &value);
        EXPECT_TRUE(fail.happened());
        EXPECT_EQ(refusal.stop(), "malloc fail\n");
        EXPECT_EQ(result, BV_ERR_MEMORY);
        expect_only(1, 10);
        EXPECT_EQ(find(2), nullptr);
    }
}

TEST_F(Hash, KeysAndRecordsLargerThanOneAllocationAreRefusedAtInsert)
{
    CaptureStdout refusal;
    const uint32_t too_large = 1310721;
    const std::vector<uint8_t> bytes(too_large, 'k');
    const std::pair<uint32_t, uint32_t> sizes[] = {{too_large, 4}, {4, too_large}};
    for (const auto &[keysize, datasize] : sizes) {
        bv_hash_exit(table);
        table = bv_hash_init(4, keysize, datasize);
        ASSERT_NE(table, nullptr);
        EXPECT_EQ(bv_hash_insert(table, bytes.data(), bytes.data()), BV_ERR_MEMORY);
        EXPECT_EQ(table->currnum, 0u);
    }
}

TEST_F(Hash, RemovingTakesOneEntryAndLeavesItsNeighbours)
{
    make(8);
    put_all({1, 11, 44, 52}); // one chain, in bucket 0
    ASSERT_EQ(entry(0, 3)->link.next, &table->buckets[0]);

    remove(11); // from the middle
    remove(52); // the last
    remove(1);  // the first
    remove(2);  // was never there
    EXPECT_EQ(find(11), nullptr);
    expect_only(44, 440);
    EXPECT_EQ(entry(0, 0)->link.next, &table->buckets[0]);
    EXPECT_EQ(entry(0, 0)->link.prev, &table->buckets[0]);

    bv_hash_remove(table, entry(0, 0)->key); // by the entry's own copy of its key
    EXPECT_EQ(table->currnum, 0u);
    expect_empty(0);
}

TEST_F(Hash, CallsWithoutTableOrKeyOrWithAWrongMagicDoNothing)
{
    make(1);
    put_all({1});
    const uint32_t value = 2;
    const Key key = key_of(1);
    struct {
        const char *name;
        bv_hash *table;
        const uint8_t *key;
        uint32_t magic;
    } const rows[] = {
        {"no table", nullptr, key.bytes, 0x42524F56},
        {"no key", table, nullptr, 0x42524F56},
        {"wrong magic, found before a full table", table, key.bytes, 0x564F5242},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        table->magic = row.magic;
        CaptureStdout out;
        EXPECT_EQ(bv_hash_insert(row.table, row.key, &value), -1);
        EXPECT_EQ(bv_hash_find(row.table, row.key), nullptr);
        bv_hash_remove(row.table, row.key);
        if (row.key != nullptr) {
            bv_hash_dump(row.table);
            bv_hash_exit(row.table); // leaves it alone: the table is used below
        }
        EXPECT_EQ(out.stop(), "");
        table->magic = 0x42524F56;
        expect_only(1, 10);
    }
}

TEST_F(Hash, DumpNumbersEntriesWithinTheirBucketAndShowsTheirAddresses)
{
    make(8);
    put_all({1, 2, 11, 7}); // buckets 0, 6, 0, 6
    EXPECT_EQ(dump(), dump_of(8, 4,
                              entry_line(0, 0, entry(0, 0)) + entry_line(0, 1, entry(0, 1)) +
                                  entry_line(6, 0, entry(6, 0)) + entry_line(6, 1, entry(6, 1))));
    EXPECT_EQ(*static_cast<uint32_t *>(entry(0, 1)->data), 110u);
    EXPECT_EQ(*static_cast<uint32_t *>(entry(6, 1)->data), 70u);

    for (uint32_t number : {1, 2, 11, 7})
        remove(number);
    EXPECT_EQ(dump(), dump_of(8, 0, ""));
}
