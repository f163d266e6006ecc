// SPDX-License-Identifier: ISC
// The hash table, in the geometries of its two users: the configuration database (2048 buckets,
// 1024-byte keys) and the registry of remote functions (8196 buckets, whose mask leaves eight in
// use, 256-byte keys).
//
// A look-up cannot do without hashing the whole key and comparing it once; the peer does just that.
// Names are WORK/WHO; compare rows of one WORK within one run. How the time grows with the number
// of entries is in rows GEOMETRY-ENTRIES/OPERATION.

#include <bv/db.h>
#include <bv/hash.h>
#include <bv/ubus.h>

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Geometry {
    const char *user;
    uint32_t buckets;
    uint32_t key_size;
    uint32_t record_size;
    const char *first_word; // of its names
};

constexpr Geometry kDatabase = {"database", 2048, 1024, sizeof(bv_db_family),
                                "/etc/template/family-"};
constexpr Geometry kRegistry = {"registry", 8196, 256, sizeof(bv_ubus_handler), "wan_get_"};

constexpr uint32_t kKeys = 100;

using Key = std::vector<uint8_t>;

std::vector<Key> make_keys(const Geometry &geometry, uint32_t count, uint32_t first = 0)
{
    std::vector<Key> keys(count, Key(geometry.key_size, 0));
    for (uint32_t i = 0; i < count; i++) {
        const std::string name = geometry.first_word + std::to_string(first + i);
        memcpy(keys[i].data(), name.data(), name.size());
    }
    return keys;
}

bv_hash *make_table(const Geometry &geometry, const std::vector<Key> &keys)
{
    static uint8_t record[sizeof(bv_db_family)];
    bv_hash *table = bv_hash_init(geometry.buckets, geometry.key_size, geometry.record_size);
    for (const Key &key : keys)
        if (bv_hash_insert(table, key.data(), record) != 0)
            abort();
    return table;
}

void find_bv(benchmark::State &state, const Geometry &geometry, uint32_t entries)
{
    const std::vector<Key> keys = make_keys(geometry, entries);
    bv_hash *table = make_table(geometry, keys);
    for (auto _ : state)
        for (const Key &key : keys)
            benchmark::DoNotOptimize(bv_hash_find(table, key.data()));
    state.SetItemsProcessed(state.iterations() * entries);
    bv_hash_exit(table);
}

void find_absent(benchmark::State &state, const Geometry &geometry, uint32_t entries)
{
    const std::vector<Key> absent = make_keys(geometry, kKeys, entries);
    bv_hash *table = make_table(geometry, make_keys(geometry, entries));
    for (auto _ : state)
        for (const Key &key : absent)
            benchmark::DoNotOptimize(bv_hash_find(table, key.data()));
    state.SetItemsProcessed(state.iterations() * kKeys);
    bv_hash_exit(table);
}

// Puts all entries into a new table and destroys it.
void fill(benchmark::State &state, const Geometry &geometry, uint32_t entries)
{
    const std::vector<Key> keys = make_keys(geometry, entries);
    for (auto _ : state)
        bv_hash_exit(make_table(geometry, keys));
    state.SetItemsProcessed(state.iterations() * entries);
}

void hash_and_compare(benchmark::State &state, const Geometry &geometry, uint32_t entries)
{
    const std::vector<Key> keys = make_keys(geometry, entries), stored = keys;
    for (auto _ : state) {
        for (uint32_t i = 0; i < entries; i++) {
            benchmark::DoNotOptimize(bv_os_jhash(keys[i].data(), geometry.key_size, 0));
            benchmark::DoNotOptimize(memcmp(stored[i].data(), keys[i].data(), geometry.key_size));
        }
    }
    state.SetItemsProcessed(state.iterations() * entries);
}

using Run = void (*)(benchmark::State &state, const Geometry &geometry, uint32_t entries);

void add(const std::string &name, Run run, const Geometry &geometry, uint32_t entries)
{
    benchmark::RegisterBenchmark(name.c_str(), run, geometry, entries);
}

void add_growth(const Geometry &geometry)
{
    for (uint32_t entries : {10u, 20u, 50u, 100u, 200u, 500u, 1000u, 2048u}) {
        const std::string name = std::string(geometry.user) + "-" + std::to_string(entries) + "/";
        add(name + "find", find_bv, geometry, entries);
        add(name + "find-absent", find_absent, geometry, entries);
        add(name + "fill", fill, geometry, entries);
    }
}

} // namespace

int main(int argc, char **argv)
{
    add("hash-find/bv", find_bv, kDatabase, kKeys);
    add("hash-find/hash-and-memcmp", hash_and_compare, kDatabase, kKeys);
    add("registry-find/bv", find_bv, kRegistry, kKeys);
    add("registry-find/hash-and-memcmp", hash_and_compare, kRegistry, kKeys);
    add_growth(kDatabase);
    add_growth(kRegistry);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
