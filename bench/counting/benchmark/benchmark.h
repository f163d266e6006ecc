// SPDX-License-Identifier: ISC
// What the benchmarks use of Google Benchmark, for counting instead of timing: PROGRAM NAME COUNT
// runs one benchmark's loop COUNT times, and the emulator's plugin counts the instructions of the
// process. The difference of two runs is free of what starting up takes. Prints how many items one
// iteration handles, and the compiler's version.

#ifndef BV_BENCH_COUNTING_BENCHMARK_H
#define BV_BENCH_COUNTING_BENCHMARK_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>

namespace benchmark {

template <typename T>
void DoNotOptimize(T &&value)
{
    asm volatile("" : : "r"(&value) : "memory");
}

class State {
public:
    struct [[maybe_unused]] Value {};
    struct Iterator {
        int64_t left;
        bool operator!=(const Iterator &other) const { return left != other.left; }
        void operator++() { --left; }
        Value operator*() const { return {}; }
    };

    explicit State(int64_t count) : count_(count) {}
    Iterator begin() const { return {count_}; }
    Iterator end() const { return {0}; }
    int64_t iterations() const { return count_; }
    long long items() const { return items_ == 0 ? 1 : items_ / count_; } // of one iteration
    void SetItemsProcessed(int64_t items) { items_ = items; }
    void SetIterationTime(double) {}
    [[noreturn]] void SkipWithError(const char *message)
    {
        fprintf(stderr, "%s\n", message);
        exit(1);
    }
    std::map<std::string, double> counters;

private:
    int64_t count_;
    int64_t items_ = 0;
};

// Times are not taken, so how does not matter.
struct Benchmark {
    std::function<void(State &)> run;

    Benchmark *UseRealTime() { return this; }
    Benchmark *UseManualTime() { return this; }
};

inline std::map<std::string, Benchmark> g_benchmarks;
inline char **g_arguments;

template <typename Run, typename... Arguments>
Benchmark *RegisterBenchmark(const char *name, Run run, Arguments... arguments)
{
    Benchmark &benchmark = g_benchmarks[name];
    benchmark.run = [=](State &state) { run(state, arguments...); };
    return &benchmark;
}

inline void Initialize(int *, char **argv)
{
    g_arguments = argv;
}

inline void RunSpecifiedBenchmarks()
{
    const char *name = g_arguments[1], *count = name == nullptr ? nullptr : g_arguments[2];
    if (count == nullptr || g_benchmarks.count(name) == 0) {
        fprintf(stderr, "usage: PROGRAM NAME COUNT; names are\n");
        for (const auto &benchmark : g_benchmarks)
            fprintf(stderr, "  %s\n", benchmark.first.c_str());
        exit(2);
    }
    State state(atoll(count));
    g_benchmarks[name].run(state);
    printf("items %lld, compiler %s\n", state.items(), __VERSION__);
    fflush(stdout);
}

} // namespace benchmark

#endif
