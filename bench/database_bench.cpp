// SPDX-License-Identifier: ISC
// The configuration database: one read beside the look-up in it, a start beside json-c parsing the
// same files, a commit beside json-c printing the tree that the written file holds. Runs in a
// private root. Names are WORK/WHO; compare rows of one WORK within one run. --families=N, the
// first argument, asks for another size than 100 families.

#include "bench/families.h"

#include <bv/db.h>
#include <bv/hash.h>
#include <bv/status.h>
#include <bv/ubus.h>

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::vector<std::string> g_names;

int64_t families()
{
    return static_cast<int64_t>(g_names.size());
}

void read_bv(benchmark::State &state)
{
    uint8_t image[kImageSize];
    for (auto _ : state) {
        for (const std::string &name : g_names) {
            bv_db_read(name.c_str(), image, sizeof image, 1);
            benchmark::DoNotOptimize(image);
        }
    }
    state.SetItemsProcessed(state.iterations() * families());
}

void write_bv(benchmark::State &state)
{
    uint8_t image[kImageSize];
    bv_db_read(g_names[0].c_str(), image, sizeof image, 1);
    for (auto _ : state)
        for (const std::string &name : g_names)
            if (bv_db_write(name.c_str(), image, sizeof image, 1) != BV_OK)
                abort();
    state.SetItemsProcessed(state.iterations() * families());
}

void read_find(benchmark::State &state)
{
    std::vector<std::vector<uint8_t>> keys;
    for (const std::string &name : g_names) {
        keys.emplace_back(sizeof(bv_db_family::name), uint8_t{0});
        memcpy(keys.back().data(), name.data(), name.size());
    }
    for (auto _ : state)
        for (const auto &key : keys)
            benchmark::DoNotOptimize(bv_hash_find(g_st_db_mng.table, key.data()));
    state.SetItemsProcessed(state.iterations() * families());
}

void start_bv(benchmark::State &state)
{
    for (auto _ : state)
        bv_db_start();
}

json_object *parse(const char *path)
{
    json_object *tree = json_object_from_file(path);
    if (tree == nullptr)
        abort();
    return tree;
}

void start_json(benchmark::State &state)
{
    for (auto _ : state) {
        for (const std::string &name : g_names)
            json_object_put(parse(name.c_str()));
        json_object_put(parse(kUserFile));
    }
}

void commit_bv(benchmark::State &state)
{
    for (auto _ : state)
        if (bv_db_commit() != BV_OK)
            abort();
}

constexpr int kStyle = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_PRETTY_TAB;

void commit_json_file(benchmark::State &state)
{
    json_object *tree = parse(kUserFile);
    for (auto _ : state)
        if (json_object_to_file_ext("/config/work/json-c.json", tree, kStyle) != 0)
            abort();
    json_object_put(tree);
    remove("/config/work/json-c.json");
}

// Printing alone, into json-c's own memory.
void commit_json_text(benchmark::State &state)
{
    json_object *tree = parse(kUserFile);
    for (auto _ : state)
        benchmark::DoNotOptimize(json_object_to_json_string_ext(tree, kStyle));
    json_object_put(tree);
}

BENCHMARK(read_bv)->Name("db-read/bv");
BENCHMARK(write_bv)->Name("db-write/bv");
BENCHMARK(read_find)->Name("db-read/hash-find");
BENCHMARK(read_find)->Name("db-write/hash-find");
BENCHMARK(start_bv)->Name("db-load/bv")->Unit(benchmark::kMicrosecond);
BENCHMARK(start_json)->Name("db-load/json-c-parse")->Unit(benchmark::kMicrosecond);
BENCHMARK(commit_bv)->Name("db-commit/bv")->Unit(benchmark::kMicrosecond);
BENCHMARK(commit_json_file)->Name("db-commit/json-c-to-file")->Unit(benchmark::kMicrosecond);
BENCHMARK(commit_json_text)->Name("db-commit/json-c-to-memory")->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv)
{
    int count = kFamilies;
    if (argc > 1 && sscanf(argv[1], "--families=%d", &count) == 1) {
        argv++;
        argc--;
    }
    g_names = make_families(count);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
