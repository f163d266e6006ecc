// SPDX-License-Identifier: ISC
// The daemon's ids, with a random source that has bad luck.

#include <cstring>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

extern "C" {
#include <libubox/avl.h>
#include <libubox/list.h>

void ids_init(struct avl_tree *tree);
bool ids_insert(struct avl_tree *tree, struct avl_node *node, uint32_t *id);
ssize_t getrandom(void *buffer, size_t length, unsigned int flags);
}

namespace {

std::vector<uint32_t> g_draws; // what the random source gives, in order; then it fails

struct Record {
    struct avl_node node;
    uint32_t id;
};

} // namespace

ssize_t getrandom(void *buffer, size_t length, unsigned int)
{
    if (g_draws.empty() || length != sizeof(uint32_t))
        return -1;
    memcpy(buffer, g_draws.data(), length);
    g_draws.erase(g_draws.begin());
    return ssize_t(length);
}

TEST(Ids, SkipsReservedOnesAndThoseThatConfuseAClient)
{
    struct avl_tree tree;
    Record record = {};
    ids_init(&tree);
    g_draws = {0, 1, 1023, 0x01000000, 1024};
    EXPECT_TRUE(ids_insert(&tree, &record.node, &record.id));
    EXPECT_EQ(record.id, 1024u);
}

TEST(Ids, SkipsThoseInUse)
{
    struct avl_tree tree;
    Record one = {}, two = {};
    ids_init(&tree);
    g_draws = {5000, 5000, 5000, 6000};
    EXPECT_TRUE(ids_insert(&tree, &one.node, &one.id));
    EXPECT_TRUE(ids_insert(&tree, &two.node, &two.id));
    EXPECT_EQ(two.id, 6000u);
    uint32_t key = 5000;
    EXPECT_EQ(avl_find(&tree, &key), &one.node);
}

TEST(Ids, StayUniqueWithoutARandomSource)
{
    struct avl_tree tree;
    std::vector<Record> records(2000);
    ids_init(&tree);
    g_draws.clear();
    for (Record &record : records)
        ASSERT_TRUE(ids_insert(&tree, &record.node, &record.id));
    EXPECT_EQ(tree.count, records.size());
}
