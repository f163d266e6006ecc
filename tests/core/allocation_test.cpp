// SPDX-License-Identifier: ISC
// Who takes memory and who gives it back: tables, queues and events own copies, and a gateway runs
// for years. Not for sanitised builds, see HeapWatch.

#include <bv/hash.h>
#include <bv/notifier.h>
#include <bv/queue.h>

#include <bv/status.h>

#include "support/faults.h"
#include "support/process.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <vector>

namespace {

using Sizes = std::vector<size_t>;
using Addresses = std::vector<const void *>;

// An entry as it is linked in a bucket.
struct Entry {
    bv_list_head link;
    const uint8_t *key;
    void *data;
};

int32_t put(bv_hash *table, uint8_t number)
{
    const uint8_t key[4] = {number, 0, 0, 0};
    const uint64_t value = number;
    return bv_hash_insert(table, key, &value);
}

// The blocks of all entries, in the order in which a table gives them back.
Addresses entry_blocks(const bv_hash *table)
{
    Addresses blocks;
    for (uint32_t i = 0; i < table->hashsize; i++) {
        for (bv_list_head *link = table->buckets[i].next; link != &table->buckets[i];
             link = link->next) {
            const Entry *entry = reinterpret_cast<const Entry *>(link);
            blocks.insert(blocks.end(), {entry->data, entry->key, entry});
        }
    }
    return blocks;
}

} // namespace

TEST(HashAllocation, EntryIsThreeBlocksGivenBackAsRecordKeyAndNode)
{
    bv_hash *table = bv_hash_init(8, 4, 8);
    HeapWatch watch;
    put(table, 1);
    watch.stop();
    Sizes sizes = watch.taken();
    std::sort(sizes.begin(), sizes.end());
    EXPECT_EQ(sizes, (Sizes{4, 8, sizeof(Entry)}));

    const Addresses blocks = entry_blocks(table);
    const uint8_t key[4] = {1, 0, 0, 0};
    bv_hash_remove(table, key);
    EXPECT_EQ(watch.given_back(), blocks);
    EXPECT_TRUE(watch.unlinked(blocks[2])) << "a late use of its links is found";
    bv_hash_exit(table);
}

TEST(HashAllocation, OverwritingAndFindingTakeNone)
{
    bv_hash *table = bv_hash_init(8, 4, 8);
    ASSERT_EQ(put(table, 1), BV_OK);
    const uint8_t key[4] = {1, 0, 0, 0};
    HeapWatch watch;
    put(table, 1);
    bv_hash_find(table, key);
    watch.stop();
    EXPECT_EQ(watch.taken(), Sizes{});
    bv_hash_exit(table);
}

TEST(HashAllocation, ExitGivesAllBackBucketByBucketThenTheArrayThenTheHeader)
{
    HeapWatch watch;
    bv_hash *table = bv_hash_init(8, 4, 8);
    for (uint8_t number : {2, 1, 11, 7}) // buckets 6, 0, 0, 6
        put(table, number);
    watch.stop();
    ASSERT_EQ(watch.taken().size(), 2 + 4 * 3u);

    Addresses all = entry_blocks(table);
    all.insert(all.end(), {table->buckets, table});
    bv_hash_exit(table);
    EXPECT_EQ(watch.given_back(), all);
}

TEST(QueueAllocation, MessageIsOneBlockGivenBackUnlinkedWhenItIsReceived)
{
    bv_queue *queue = nullptr;
    ASSERT_EQ(bv_queue_init(&queue, 2), BV_OK);
    HeapWatch watch;
    bv_queue_send(queue, "abcde", 5);
    watch.stop();
    ASSERT_EQ(watch.taken().size(), 1u);
    const bv_list_head *message = queue->messages.next;

    char buffer[5];
    ASSERT_EQ(bv_queue_recv(queue, buffer, 5), BV_OK);
    EXPECT_EQ(watch.given_back(), (Addresses{message}));
    EXPECT_TRUE(watch.unlinked(message)) << "a late use of its links is found";
    bv_queue_free(&queue);
}

TEST(QueueAllocation, FreeGivesBackTheQueueAndNotItsMessages)
{
    bv_queue *queue = nullptr;
    HeapWatch watch;
    bv_queue_init(&queue, 2);
    bv_queue_send(queue, "a", 1);
    watch.stop();
    ASSERT_EQ(watch.taken().size(), 2u);
    const bv_queue *freed = queue;
    EXPECT_EQ(bv_queue_free(&queue), BV_OK);
    EXPECT_EQ(watch.given_back(), (Addresses{freed}));
}

namespace {

std::atomic<bool> g_entered{false};
std::atomic<bool> g_leave{false};

void stay(void *, uint32_t)
{
    g_entered = true;
    while (!g_leave)
        usleep(1000);
}

} // namespace

TEST(NotifierAllocation, EventIsOneBlockGivenBackWithOrWithoutCallbacks)
{
    ASSERT_EQ(bv_notifier_init(), 0);
    bv_notifier_reg(1, [](void *, uint32_t) {});
    for (uint32_t type : {1u, 2u, 14u, 0xffffffffu}) { // a callback, none, no such types
        HeapWatch watch;
        bv_notifier_send(type, "abcde", 5);
        watch.stop();
        EXPECT_EQ(watch.taken(), (Sizes{2 * sizeof(void *) + 8 + 5 + 1})) << type;
        EXPECT_TRUE(eventually([&] { return watch.given_back().size() == 1; })) << type;
    }
}

TEST(NotifierAllocation, EventStaysUntilItsCallbacksAreDone)
{
    ASSERT_EQ(bv_notifier_init(), 0);
    bv_notifier_reg(1, stay);
    HeapWatch watch;
    bv_notifier_send(1, "x", 1);
    watch.stop();
    ASSERT_TRUE(eventually([] { return g_entered.load(); }));
    EXPECT_EQ(watch.given_back(), Addresses{});
    g_leave = true;
    EXPECT_TRUE(eventually([&] { return watch.given_back().size() == 1; }));
}

TEST(NotifierAllocation, RegistrationIsOneBlockAndAnIgnoredOneNone)
{
    ASSERT_EQ(bv_notifier_init(), 0);
    HeapWatch watch;
    bv_notifier_reg(14, stay);
    bv_notifier_reg(1, nullptr);
    bv_notifier_reg(1, stay);
    watch.stop();
    EXPECT_EQ(watch.taken(), (Sizes{3 * sizeof(void *)}));
}
