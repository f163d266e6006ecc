// The hash table with the geometry of the configuration database: 2048 buckets, 1024-byte keys.
//
// A look-up cannot do without hashing the whole key and comparing it once; the peer does just that.
// Names are WORK/WHO; compare rows of one WORK within one run.

#include <bv/db.h>
#include <bv/hash.h>

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kBuckets = 2048;
constexpr uint32_t kKeySize = 1024;
constexpr uint32_t kKeys = 100;

using Key = std::vector<uint8_t>;

std::vector<Key> make_keys()
{
    std::vector<Key> keys(kKeys, Key(kKeySize, 0));
    for (uint32_t i = 0; i < kKeys; i++) {
        const std::string name = "/etc/template/family-" + std::to_string(i) + ".json";
        memcpy(keys[i].data(), name.data(), name.size());
    }
    return keys;
}

void find_bv(benchmark::State &state)
{
    const std::vector<Key> keys = make_keys();
    bv_hash *table = bv_hash_init(kBuckets, kKeySize, sizeof(bv_db_family));
    static bv_db_family record;
    for (const Key &key : keys)
        if (bv_hash_insert(table, key.data(), &record) != BV_OK)
            abort();

    for (auto _ : state)
        for (const Key &key : keys)
            benchmark::DoNotOptimize(bv_hash_find(table, key.data()));
    state.SetItemsProcessed(state.iterations() * kKeys);
    bv_hash_exit(table);
}

void hash_and_compare(benchmark::State &state)
{
    const std::vector<Key> keys = make_keys(), stored = make_keys();
    for (auto _ : state) {
        for (uint32_t i = 0; i < kKeys; i++) {
            benchmark::DoNotOptimize(bv_os_jhash(keys[i].data(), kKeySize, 0));
            benchmark::DoNotOptimize(memcmp(stored[i].data(), keys[i].data(), kKeySize));
        }
    }
    state.SetItemsProcessed(state.iterations() * kKeys);
}

BENCHMARK(find_bv)->Name("hash-find/bv");
BENCHMARK(hash_and_compare)->Name("hash-find/hash-and-memcmp");

} // namespace

BENCHMARK_MAIN();
