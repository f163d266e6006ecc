// SPDX-License-Identifier: ISC
// The configuration database: one read beside the look-up in it, a start beside json-c parsing the
// same files, a commit beside json-c printing the tree that the written file holds. Runs in a
// private root. Names are WORK/WHO; compare rows of one WORK within one run. --families=N in front
// of the other arguments asks for another size than 100 families, --named after it for families
// registered by name, as services do: every load then looks for their templates with the shell.

#include "bench/families.h"

#include <bv/db.h>
#include <bv/status.h>
#include <bv/ubus.h>

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

std::vector<std::string> g_names;
bool g_named;

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

void find(benchmark::State &state)
{
    for (auto _ : state)
        for (const std::string &name : g_names)
            benchmark::DoNotOptimize(bv_db_hash_find(name.c_str()));
    state.SetItemsProcessed(state.iterations() * families());
}

// Processes and threads started so far. The private root has process numbers of its own, and the
// last word of this file is the last one given.
double processes()
{
    std::ifstream file("/proc/loadavg");
    std::string word;
    while (file >> word)
        ;
    return atof(word.c_str());
}

// Work that starts the database, and the same counted by its processes for each family.
using Start = void (*)();

void start(benchmark::State &state, Start start_once)
{
    for (auto _ : state)
        start_once();
}

void count_processes(benchmark::State &state, Start start_once)
{
    const double before = processes();
    start(state, start_once);
    state.counters["processes"] =
        (processes() - before) / static_cast<double>(state.iterations() * families());
}

void start_bv()
{
    bv_db_start();
}

json_object *parse(const char *path)
{
    json_object *tree = json_object_from_file(path);
    if (tree == nullptr)
        abort();
    return tree;
}

// One search for a template by hand: the same two lines for the shell as the library gives it, with
// the file between them read in the plainest way.
std::string find_template(const std::string &name)
{
    const std::string line = "find /etc/template -name \"" + name + "\" > /tmp/found";
    if (system(line.c_str()) != 0)
        abort();
    std::string path;
    std::getline(std::ifstream("/tmp/found"), path);
    if (system("rm -f /tmp/found >/dev/null 2>&1") != 0)
        abort();
    return path;
}

void start_json()
{
    for (const std::string &name : g_names)
        json_object_put(parse((g_named ? find_template(name) : name).c_str()));
    json_object_put(parse(kUserFile));
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

} // namespace

int main(int argc, char **argv)
{
    int count = kFamilies;
    if (argc > 1 && sscanf(argv[1], "--families=%d", &count) == 1) {
        argv++;
        argc--;
    }
    if (argc > 1 && strcmp(argv[1], "--named") == 0) {
        g_named = true;
        argv++;
        argc--;
    }
    g_names = make_families(count, g_named);
    if (g_named) { // waits for other processes
        benchmark::RegisterBenchmark("db-load/bv", start, start_bv)->UseRealTime();
        benchmark::RegisterBenchmark("db-load/find-and-json-c", start, start_json)->UseRealTime();
        benchmark::RegisterBenchmark("db-processes/bv", count_processes, start_bv);
        benchmark::RegisterBenchmark("db-processes/find-and-json-c", count_processes, start_json);
    } else {
        benchmark::RegisterBenchmark("db-load/bv", start, start_bv);
        benchmark::RegisterBenchmark("db-load/json-c-parse", start, start_json);
    }
    benchmark::RegisterBenchmark("db-read/bv", read_bv);
    benchmark::RegisterBenchmark("db-write/bv", write_bv);
    benchmark::RegisterBenchmark("db-read/find-by-name", find);
    benchmark::RegisterBenchmark("db-write/find-by-name", find);
    benchmark::RegisterBenchmark("db-commit/bv", commit_bv);
    benchmark::RegisterBenchmark("db-commit/json-c-to-file", commit_json_file);
    benchmark::RegisterBenchmark("db-commit/json-c-to-memory", commit_json_text);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
