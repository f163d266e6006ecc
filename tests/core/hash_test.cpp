#include <bv/hash.h>

#include <bv/status.h>

#include "support/capture.h"
#include "support/dirty_heap.h"
#include "support/faults.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>

namespace {

// An entry as it lies in a bucket, for looking behind the table's back.
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

const char kDumpTop[] = "\r\n===============================================";
const char kDumpRule[] = "\r\n-----------------------------------------------";
const char kDumpEnd[] = "\r\n===============================================\r\n";

} // namespace

TEST_F(Hash, ANewTableHasItsGeometryAndEmptyRings)
{
    dirty_heap();
    table = bv_hash_init(5, 6, 7);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->magic, 0x42524F56u);
    EXPECT_EQ(table->hashsize, 5u);
    EXPECT_EQ(table->keysize, 6u);
    EXPECT_EQ(table->datasize, 7u);
    EXPECT_EQ(table->currnum, 0u);
    for (uint32_t i = 0; i < 5; i++) {
        EXPECT_EQ(table->buckets[i].next, &table->buckets[i]);
        EXPECT_EQ(table->buckets[i].prev, &table->buckets[i]);
    }
}

TEST_F(Hash, AZeroInTheGeometryMakesNoTable)
{
    EXPECT_EQ(bv_hash_init(0, 1, 1), nullptr);
    EXPECT_EQ(bv_hash_init(1, 0, 1), nullptr);
    EXPECT_EQ(bv_hash_init(1, 1, 0), nullptr);
}

TEST_F(Hash, TheBucketArrayIsAsLargeAsOneAllocationAllows)
{
    make(kMostBuckets);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(put(1, 10), BV_OK);
    ASSERT_NE(find(1), nullptr);

    CaptureStdout refusal;
    EXPECT_EQ(bv_hash_init(kMostBuckets + 1, 4, 4), nullptr);
}

TEST_F(Hash, ABucketArrayBeyond32BitsIsRefusedAndNotCutShort)
{
    CaptureStdout refusal;
    EXPECT_EQ(bv_hash_init(0x10000001, 4, 4), nullptr); // 16 bytes each: 2^32 + 16
    EXPECT_EQ(bv_hash_init(0x20000001, 4, 4), nullptr); // 8 bytes each: 2^32 + 8
    EXPECT_EQ(bv_hash_init(0xffffffff, 4, 4), nullptr);
}

TEST_F(Hash, NoMemoryForHeaderOrBucketsMakesNoTable)
{
    for (unsigned nth = 1; nth <= 2; nth++) {
        CaptureStdout refusal;
        FailAllocation fail(nth);
        bv_hash *none = bv_hash_init(16, 4, 4);
        EXPECT_TRUE(fail.happened()) << nth;
        EXPECT_EQ(none, nullptr) << nth;
    }
}

TEST_F(Hash, FindsWhatWasStoredAsACopy)
{
    make(16);
    uint32_t value = 4711;
    Key key = key_of(1);
    ASSERT_EQ(bv_hash_insert(table, key.bytes, &value), BV_OK);
    value = 0;
    memset(&key, 0xff, sizeof(key));

    ASSERT_NE(find(1), nullptr);
    EXPECT_EQ(*find(1), 4711u);
    EXPECT_EQ(find(2), nullptr);
    EXPECT_EQ(table->currnum, 1u);
}

TEST_F(Hash, KeysDifferInTheirLastByteToo)
{
    table = bv_hash_init(1024, 1024, 4);
    uint8_t first[1024] = {}, second[1024] = {};
    second[1023] = 1;
    const uint32_t one = 1, two = 2;
    ASSERT_EQ(bv_hash_insert(table, first, &one), BV_OK);
    ASSERT_EQ(bv_hash_insert(table, second, &two), BV_OK);
    EXPECT_EQ(*static_cast<uint32_t *>(bv_hash_find(table, first)), 1u);
    EXPECT_EQ(*static_cast<uint32_t *>(bv_hash_find(table, second)), 2u);
}

// Keys are compared in steps of several bytes on some machines: every byte counts there too,
// wherever the caller's key lies. With one bucket all keys meet.
TEST_F(Hash, KeysOfAnySizeAndAddressDifferInAnyByte)
{
    const uint32_t record = 7;
    for (uint32_t size = 1; size <= 40; size++) {
        SCOPED_TRACE(size);
        bv_hash *small = bv_hash_init(1, size, sizeof record);
        ASSERT_NE(small, nullptr);
        uint8_t room[48];
        for (uint32_t i = 0; i < sizeof room; i++)
            room[i] = static_cast<uint8_t>(3 * i + 1);
        ASSERT_EQ(bv_hash_insert(small, room, &record), BV_OK);

        for (uint32_t offset = 0; offset < 4; offset++) {
            uint8_t moved[48];
            memcpy(moved + offset, room, size);
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
    ASSERT_EQ(put(1, 10), BV_OK);
    const uint32_t *before = find(1);
    ASSERT_EQ(put(1, 20), BV_OK);
    EXPECT_EQ(table->currnum, 1u);
    EXPECT_EQ(find(1), before);
    EXPECT_EQ(*find(1), 20u);
}

TEST_F(Hash, ARecordThatWasFoundMayBeStoredAgain)
{
    make(16);
    ASSERT_EQ(put(1, 10), BV_OK);
    uint32_t *record = find(1);
    *record = 20;
    EXPECT_EQ(bv_hash_insert(table, key_of(1).bytes, record), BV_OK);
    EXPECT_EQ(find(1), record);
    EXPECT_EQ(*record, 20u);
}

TEST_F(Hash, AFullTableRefusesEvenAStoredKey)
{
    make(1);
    ASSERT_EQ(put(1, 10), BV_OK);
    EXPECT_EQ(put(2, 20), BV_ERR_FULL);
    EXPECT_EQ(put(1, 30), BV_ERR_FULL);
    EXPECT_EQ(*find(1), 10u);

    remove(1);
    EXPECT_EQ(put(2, 20), BV_OK);
}

TEST_F(Hash, TakesAsManyEntriesAsBuckets)
{
    make(100);
    for (uint32_t i = 0; i < 100; i++)
        ASSERT_EQ(put(i, i * 3), BV_OK);
    EXPECT_EQ(put(100, 0), BV_ERR_FULL);
    EXPECT_EQ(table->currnum, 100u);
    for (uint32_t i = 0; i < 100; i++) {
        ASSERT_NE(find(i), nullptr);
        EXPECT_EQ(*find(i), i * 3);
    }
}

TEST_F(Hash, TheBucketIsTheKeysHashUnderTheMask)
{
    make(64);
    for (uint32_t i = 0; i < 64; i++)
        ASSERT_EQ(put(i, i), BV_OK);
    for (uint32_t bucket = 0; bucket < 64; bucket++) {
        for (bv_list_head *link = table->buckets[bucket].next; link != &table->buckets[bucket];
             link = link->next)
            EXPECT_EQ(bv_os_jhash(reinterpret_cast<Entry *>(link)->key, 4, 0) & 63, bucket);
    }
}

TEST_F(Hash, ASizeThatIsNoPowerOfTwoKeepsItsMaskAndItsCapacity)
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
    EXPECT_EQ(*find(8195), 8195u);
}

TEST_F(Hash, AnyMissingAllocationLeavesTheTableAsItWas)
{
    make(16);
    ASSERT_EQ(put(1, 10), BV_OK);
    for (unsigned nth = 1; nth <= 3; nth++) { // entry, key, record
        CaptureStdout refusal;
        const uint32_t value = 20;
        const Key key = key_of(2);
        FailAllocation fail(nth);
        const int32_t result = bv_hash_insert(table, key.bytes, &value);
        EXPECT_TRUE(fail.happened()) << nth;
        EXPECT_EQ(refusal.stop(), "malloc fail\n") << nth;
        EXPECT_EQ(result, BV_ERR_MEMORY) << nth;
        EXPECT_EQ(table->currnum, 1u) << nth;
        EXPECT_EQ(find(2), nullptr) << nth;
    }
    EXPECT_EQ(put(2, 20), BV_OK);
}

TEST_F(Hash, KeysAndRecordsAboveOneAllocationAreRefusedAtInsert)
{
    CaptureStdout refusal;
    const uint32_t too_large = 1310721;
    std::string bytes(too_large, 'k');
    const auto *key = reinterpret_cast<const uint8_t *>(bytes.data());

    table = bv_hash_init(4, too_large, 4);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(bv_hash_insert(table, key, "abc"), BV_ERR_MEMORY);
    bv_hash_exit(table);

    table = bv_hash_init(4, 4, too_large);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(bv_hash_insert(table, key, key), BV_ERR_MEMORY);
    EXPECT_EQ(table->currnum, 0u);
}

TEST_F(Hash, RemovingTakesOneEntryAndLeavesItsNeighbours)
{
    make(8);
    for (uint32_t i : {1u, 11u, 44u, 52u}) // one chain, in bucket 0
        ASSERT_EQ(put(i, i), BV_OK);
    ASSERT_EQ(entry(0, 3)->link.next, &table->buckets[0]);

    remove(11); // from the middle
    remove(52); // the last
    remove(1);  // the first
    EXPECT_EQ(table->currnum, 1u);
    EXPECT_EQ(find(11), nullptr);
    EXPECT_EQ(*find(44), 44u);
    EXPECT_EQ(entry(0, 0)->link.next, &table->buckets[0]);
    EXPECT_EQ(entry(0, 0)->link.prev, &table->buckets[0]);

    remove(44);
    EXPECT_EQ(table->buckets[0].next, &table->buckets[0]);
    EXPECT_EQ(table->buckets[0].prev, &table->buckets[0]);
}

TEST_F(Hash, RemovingWhatIsNotThereDoesNothing)
{
    make(16);
    ASSERT_EQ(put(1, 10), BV_OK);
    remove(2);
    EXPECT_EQ(table->currnum, 1u);
    EXPECT_EQ(*find(1), 10u);
}

TEST_F(Hash, AnEntryIsRemovedByItsOwnKeyCopy)
{
    make(4);
    ASSERT_EQ(put(1, 10), BV_OK);
    const uint32_t bucket = bv_os_jhash(key_of(1).bytes, 4, 0) & 3;
    bv_hash_remove(table, entry(bucket, 0)->key);
    EXPECT_EQ(table->currnum, 0u);
}

TEST_F(Hash, WithoutATableOrAKeyEveryCallFails)
{
    const uint32_t value = 1;
    const Key key = key_of(1);
    CaptureStdout out;
    EXPECT_EQ(bv_hash_insert(nullptr, key.bytes, &value), -1);
    EXPECT_EQ(bv_hash_find(nullptr, key.bytes), nullptr);
    bv_hash_remove(nullptr, key.bytes);
    bv_hash_dump(nullptr);
    bv_hash_exit(nullptr);

    make(16);
    ASSERT_EQ(put(1, 10), BV_OK);
    EXPECT_EQ(bv_hash_insert(table, nullptr, &value), -1);
    EXPECT_EQ(bv_hash_find(table, nullptr), nullptr);
    bv_hash_remove(table, nullptr);
    EXPECT_EQ(table->currnum, 1u);
    EXPECT_EQ(out.stop(), "");
}

TEST_F(Hash, AWrongMagicMakesEveryCallFail)
{
    const Key key = key_of(1);
    const uint32_t value = 1;
    make(16);
    ASSERT_EQ(put(1, 10), BV_OK);
    table->magic = 0x564F5242;

    CaptureStdout out;
    EXPECT_EQ(bv_hash_insert(table, key.bytes, &value), -1);
    EXPECT_EQ(bv_hash_find(table, key.bytes), nullptr);
    bv_hash_remove(table, key.bytes);
    bv_hash_dump(table);
    bv_hash_exit(table); // leaves it alone: the table is used below
    EXPECT_EQ(out.stop(), "");

    table->magic = 0x42524F56;
    EXPECT_EQ(table->currnum, 1u);
    EXPECT_EQ(*find(1), 10u);
}

TEST_F(Hash, TheMagicIsTestedBeforeTheRoom)
{
    make(1);
    ASSERT_EQ(put(1, 10), BV_OK);
    table->magic = 0;
    EXPECT_EQ(put(2, 20), -1);
    table->magic = 0x42524F56;
}

TEST_F(Hash, TheDumpShowsEntriesInOrderOfInsertionWithTheirAddresses)
{
    make(2);
    ASSERT_EQ(put(7, 70), BV_OK);
    ASSERT_EQ(put(8, 80), BV_OK); // shares bucket 0 with 7

    EXPECT_EQ(dump(), std::string(kDumpTop) + "\r\nhashsize:2 keysize:4 datasize:4 currnum:2 " +
                          kDumpRule + entry_line(0, 0, entry(0, 0)) +
                          entry_line(0, 1, entry(0, 1)) + kDumpEnd);
    EXPECT_EQ(*static_cast<uint32_t *>(entry(0, 0)->data), 70u);
    EXPECT_EQ(*static_cast<uint32_t *>(entry(0, 1)->data), 80u);
}

TEST_F(Hash, TheDumpNumbersEntriesWithinTheirBucket)
{
    make(8);
    for (uint32_t i : {1u, 2u, 11u, 7u}) // buckets 0, 6, 0, 6
        ASSERT_EQ(put(i, i), BV_OK);
    EXPECT_EQ(dump(), std::string(kDumpTop) + "\r\nhashsize:8 keysize:4 datasize:4 currnum:4 " +
                          kDumpRule + entry_line(0, 0, entry(0, 0)) +
                          entry_line(0, 1, entry(0, 1)) + entry_line(6, 0, entry(6, 0)) +
                          entry_line(6, 1, entry(6, 1)) + kDumpEnd);
    EXPECT_EQ(*static_cast<uint32_t *>(entry(0, 1)->data), 11u);
    EXPECT_EQ(*static_cast<uint32_t *>(entry(6, 1)->data), 7u);
}

TEST_F(Hash, AnEmptiedTableDumpsItsHeadOnly)
{
    make(16);
    for (uint32_t i = 0; i < 10; i++)
        ASSERT_EQ(put(i, i), BV_OK);
    for (uint32_t i = 0; i < 10; i++)
        remove(i);
    EXPECT_EQ(dump(), std::string(kDumpTop) + "\r\nhashsize:16 keysize:4 datasize:4 currnum:0 " +
                          kDumpRule + kDumpEnd);
}
