// SPDX-License-Identifier: ISC
// The tree that finds instances by number during a load: it may not grow deep, or a load of many
// instances takes minutes.

#include "db/instance_index.h"

#include "db/database.h"

#include <algorithm>

namespace bv {

// Nodes on the longest way down, once all instances are in the tree.
struct InstanceIndexDepth {
    static size_t of(InstanceIndex &index)
    {
        index.catch_up();
        return below(index.root_);
    }

private:
    static size_t below(const InstanceIndex::Node *node)
    {
        return node == nullptr ? 0 : 1 + std::max(below(node->child[0]), below(node->child[1]));
    }
};

} // namespace bv

namespace {

constexpr unsigned kInstances = 2048;

// The bits of i, `distance` apart from the lowest one given.
uint32_t spread(uint32_t i, unsigned distance, unsigned lowest)
{
    uint32_t out = 0;
    for (unsigned bit = 0; bit < 11; ++bit)
        out |= (i >> bit & 1) << (distance * bit + lowest);
    return out;
}

TEST_F(Db, IndexOfInstancesIsNeverDeeperThanANumberHasBits)
{
    const struct {
        const char *what;
        uint32_t (*number)(uint32_t i);
    } rows[] = {
        {"ascending", [](uint32_t i) { return i; }},
        {"descending", [](uint32_t i) { return kInstances - i; }},
        {"negative", [](uint32_t i) { return 0u - i; }},
        {"every other bit", [](uint32_t i) { return spread(i, 2, 0); }},
        {"every other bit, the odd ones", [](uint32_t i) { return spread(i, 2, 1); }},
        {"highest bits only", [](uint32_t i) { return spread(i, 1, 20); }},
    };
    bv_db_family *family = user_family("hosts", {{"id", "uint", 4, "0"}});
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        bv::InstanceIndex index(*family);
        for (uint32_t i = 0; i < kInstances; ++i)
            ASSERT_EQ(bv_db_data_add_inst(family, nullptr, 0, static_cast<int>(row.number(i))), 0);
        const size_t depth = bv::InstanceIndexDepth::of(index);
        EXPECT_GT(depth, 10u) << "2048 instances need 11 levels at least";
        EXPECT_LE(depth, 33u);
        bv_db_data_free(family);
    }
}

} // namespace
