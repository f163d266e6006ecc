/* SPDX-License-Identifier: ISC */
#include <algorithm>
#include <gtest/gtest.h>
#include <libubox/avl-cmp.h>
#include <libubox/avl.h>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

struct Item {
    int number = 0;
    std::string name;
    avl_node node = {};
};

int compare_numbers(const void *k1, const void *k2, void *)
{
    int a = *static_cast<const int *>(k1), b = *static_cast<const int *>(k2);

    return a < b ? -1 : a > b;
}

// Height of a subtree; fails when a node's balance, its parent or its place is wrong.
int height(const avl_node *node, const avl_node *parent)
{
    if (!node)
        return 0;

    int left = height(node->left, node), right = height(node->right, node);
    EXPECT_EQ(node->parent, parent);
    EXPECT_EQ(node->balance, right - left);
    EXPECT_LE(std::abs(right - left), 1);
    EXPECT_TRUE(node->leader);
    return std::max(left, right) + 1;
}

class AvlNumbers : public testing::TestWithParam<bool> {
protected:
    avl_tree tree;
    std::list<Item> items;
    std::vector<Item *> order; // what the list must look like

    void SetUp() override { avl_init(&tree, compare_numbers, GetParam(), nullptr); }

    static bool before(const Item *a, int number) { return a->number < number; }
    static bool after(int number, const Item *a) { return number < a->number; }

    std::vector<Item *>::iterator lower(int number)
    {
        return std::lower_bound(order.begin(), order.end(), number, before);
    }
    std::vector<Item *>::iterator upper(int number)
    {
        return std::upper_bound(order.begin(), order.end(), number, after);
    }

    void insert(int number)
    {
        items.emplace_back();
        Item *item = &items.back();
        bool refused = !GetParam() && lower(number) != upper(number);

        item->number = number;
        item->node.key = &item->number;
        ASSERT_EQ(avl_insert(&tree, &item->node), refused ? -1 : 0);
        if (!refused)
            order.insert(upper(number), item);
    }

    void remove(size_t index)
    {
        avl_delete(&tree, &order[index]->node);
        EXPECT_EQ(order[index]->node.list.next, nullptr);
        EXPECT_EQ(order[index]->node.list.prev, nullptr);
        order.erase(order.begin() + static_cast<std::ptrdiff_t>(index));
    }

    void check()
    {
        std::vector<Item *> found;
        Item *item;

        avl_for_each_element(&tree, item, node) found.push_back(item);
        ASSERT_EQ(found, order);
        ASSERT_EQ(tree.count, order.size());
        ASSERT_EQ(avl_is_empty(&tree), order.empty());
        height(tree.root, nullptr);
        for (size_t i = 0; i < order.size(); i++)
            ASSERT_EQ(order[i]->node.leader, i == 0 || order[i - 1]->number != order[i]->number);
    }

    void check_finds(int number)
    {
        Item *item = nullptr;
        auto low = lower(number), high = upper(number);

        EXPECT_EQ(avl_find_element(&tree, &number, item, node), low == high ? nullptr : *low);
        EXPECT_EQ(avl_find_ge_element(&tree, &number, item, node),
                  low == order.end() ? nullptr : *low);
        EXPECT_EQ(avl_find_le_element(&tree, &number, item, node),
                  high == order.begin() ? nullptr : high[-1]);
    }
};

TEST_P(AvlNumbers, StayInOrderAndBalanceThroughRandomChanges)
{
    std::mt19937 random(1);

    for (int round = 0; round < 3000; round++) {
        bool growing = round / 500 % 2 == 0;
        if (order.empty() || random() % 10 < (growing ? 7u : 3u))
            insert(static_cast<int>(random() % 200));
        else
            remove(random() % order.size());
        if (round % 7 == 0)
            check();
        check_finds(static_cast<int>(random() % 210) - 5);
        if (HasFatalFailure())
            return;
    }
    while (!order.empty()) {
        remove(random() % order.size());
        check();
    }
    EXPECT_EQ(tree.root, nullptr);
}

TEST_P(AvlNumbers, AscendingAndDescendingInsertionsKeepItFlat)
{
    for (int i = 0; i < 1024; i++)
        insert(i);
    check();
    EXPECT_LE(height(tree.root, nullptr), 11);
    for (int i = 0; i < 1024; i++)
        insert(-i);
    check();
    for (int i = 0; i < 700; i++)
        remove(0);
    check();
    while (!order.empty())
        remove(order.size() - 1);
    check();
}

TEST_P(AvlNumbers, EmptyTreeFindsNothing)
{
    check();
    check_finds(1);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutDuplicates, AvlNumbers, testing::Bool());

class AvlNames : public testing::Test {
protected:
    avl_tree tree;
    std::vector<std::unique_ptr<Item>> items;

    void SetUp() override
    {
        avl_init(&tree, avl_strcmp, true, nullptr);
        for (const char *name : {"delta", "alpha", "charlie", "bravo", "bravo", "alpha"})
            add(name);
    }

    void add(const char *name)
    {
        items.push_back(std::make_unique<Item>());
        items.back()->name = name;
        items.back()->number = static_cast<int>(items.size());
        items.back()->node.key = items.back()->name.c_str();
        EXPECT_EQ(avl_insert(&tree, &items.back()->node), 0);
    }

    std::string listed()
    {
        std::string all;
        Item *item;

        avl_for_each_element(&tree, item, node) all +=
            item->name[0] + std::to_string(item->number) + " ";
        return all;
    }
};

TEST_F(AvlNames, EqualKeysKeepTheirOrderAndTheFirstLeads)
{
    EXPECT_EQ(listed(), "a2 a6 b4 b5 c3 d1 ");
    EXPECT_EQ(avl_find(&tree, "bravo"), &items[3]->node);
    avl_delete(&tree, &items[3]->node);
    EXPECT_EQ(avl_find(&tree, "bravo"), &items[4]->node);
    EXPECT_TRUE(items[4]->node.leader);
    add("bravo");
    EXPECT_EQ(listed(), "a2 a6 b5 b7 c3 d1 ");
}

TEST_F(AvlNames, FirstAndLastAreRecognised)
{
    Item *item = nullptr;

    EXPECT_EQ(avl_first_element(&tree, item, node), items[1].get());
    EXPECT_EQ(avl_last_element(&tree, item, node), items[0].get());
    EXPECT_TRUE(avl_is_first(&tree, &items[1]->node));
    EXPECT_FALSE(avl_is_first(&tree, &items[5]->node));
    EXPECT_TRUE(avl_is_last(&tree, &items[0]->node));
    EXPECT_EQ(avl_next_element(items[1].get(), node), items[5].get());
    EXPECT_EQ(avl_prev_element(items[5].get(), node), items[1].get());
}

TEST_F(AvlNames, RangesIncludeBothEnds)
{
    std::string all;
    Item *item = nullptr;
    Item *first = avl_find_ge_element(&tree, "b", item, node);
    Item *last = avl_find_le_element(&tree, "cz", item, node);

    avl_for_element_range(first, last, item, node) all += std::to_string(item->number);
    EXPECT_EQ(all, "453");
}

TEST_F(AvlNames, SafeWalkAllowsRemovalOfTheCurrentElement)
{
    Item *item, *next;

    avl_for_each_element_safe(&tree, item, node, next)
    {
        if (item->name == "bravo" || item->name == "delta")
            avl_delete(&tree, &item->node);
    }
    EXPECT_EQ(listed(), "a2 a6 c3 ");
    EXPECT_EQ(tree.count, 3u);
}

TEST_F(AvlNames, RemovingAllVisitsEachElementWhichMayBeFreed)
{
    int visited = 0;
    Item *item, *next;

    avl_remove_all_elements(&tree, item, node, next)
    {
        visited++;
        items[static_cast<size_t>(item->number) - 1].reset();
    }
    EXPECT_EQ(visited, 6);
    EXPECT_TRUE(avl_is_empty(&tree));
    EXPECT_EQ(tree.root, nullptr);
    add("new");
    EXPECT_EQ(listed(), "n7 ");
    avl_remove_all_elements(&tree, item, node, next) {}
    avl_remove_all_elements(&tree, item, node, next)
    {
        ADD_FAILURE() << "it was empty";
    }
}

TEST(AvlCmp, ComparatorGetsTheTreesPointer)
{
    static int seen;
    avl_tree tree;
    Item a, b;

    avl_init(
        &tree,
        [](const void *, const void *, void *ptr) {
            ++*static_cast<int *>(ptr);
            return 1;
        },
        false, &seen);
    avl_insert(&tree, &a.node);
    avl_insert(&tree, &b.node);
    EXPECT_EQ(seen, 1);
}

TEST(AvlCmp, ByteStringsCompareOverTheGivenLength)
{
    void *three = reinterpret_cast<void *>(3);

    EXPECT_EQ(avl_blobcmp("ab\0c", "ab\0d", three), 0);
    EXPECT_LT(avl_blobcmp("ab\0c", "ab\1c", three), 0);
    EXPECT_GT(avl_strcmp("b", "a", nullptr), 0);
}

} // namespace
