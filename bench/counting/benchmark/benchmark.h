// SPDX-License-Identifier: ISC
// What the benchmarks use of Google Benchmark, for counting instead of timing: PROGRAM NAME COUNT
// runs one benchmark's loop COUNT times, and something outside (callgrind, an emulator) counts the
// instructions of the process. The difference of two runs is free of what starting up takes.
// Prints how many items one iteration handles.

#ifndef BV_BENCH_COUNTING_BENCHMARK_H
#define BV_BENCH_COUNTING_BENCHMARK_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <list>
#include <string>

namespace benchmark {

enum TimeUnit { kNanosecond, kMicrosecond, kMillisecond };

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
    int64_t items() const { return items_ == 0 ? 1 : items_ / count_; } // of one iteration
    void SetItemsProcessed(int64_t items) { items_ = items; }
    void SetBytesProcessed(int64_t) {}
    void SetIterationTime(double) {}
    void SkipWithError(const char *message)
    {
        fprintf(stderr, "%s\n", message);
        exit(1);
    }

private:
    int64_t count_;
    int64_t items_ = 0;
};

struct Benchmark {
    std::string name;
    std::function<void(State &)> run;

    Benchmark *Name(const char *text)
    {
        name = text;
        return this;
    }
    Benchmark *Unit(TimeUnit) { return this; }
    Benchmark *UseRealTime() { return this; }
    Benchmark *UseManualTime() { return this; }
};

inline std::list<Benchmark> &all()
{
    static std::list<Benchmark> benchmarks;
    return benchmarks;
}

template <typename Run, typename... Arguments>
Benchmark *RegisterBenchmark(const char *name, Run run, Arguments... arguments)
{
    all().push_back({name, [=](State &state) { run(state, arguments...); }});
    return &all().back();
}

struct Arguments {
    std::string name;
    int64_t count = 0;
};

inline Arguments &arguments()
{
    static Arguments given;
    return given;
}

inline void Initialize(int *argc, char **argv)
{
    if (*argc >= 3)
        arguments() = {argv[1], atoll(argv[2])};
}

inline void RunSpecifiedBenchmarks()
{
    for (Benchmark &benchmark : all()) {
        if (benchmark.name != arguments().name)
            continue;
        State state(arguments().count);
        benchmark.run(state);
        printf("items %lld\n", static_cast<long long>(state.items()));
        fflush(stdout);
        return;
    }
    fprintf(stderr, "usage: PROGRAM NAME COUNT; names are\n");
    for (const Benchmark &benchmark : all())
        fprintf(stderr, "  %s\n", benchmark.name.c_str());
    exit(2);
}

} // namespace benchmark

#define BV_BENCHMARK_AT(line) benchmark_at_##line
#define BV_BENCHMARK_NAME(line) BV_BENCHMARK_AT(line)
#define BENCHMARK(function)                                                                        \
    [[maybe_unused]] static benchmark::Benchmark *BV_BENCHMARK_NAME(__LINE__) =                    \
        benchmark::RegisterBenchmark(#function, function)

#define BENCHMARK_MAIN()                                                                           \
    int main(int argc, char **argv)                                                                \
    {                                                                                              \
        benchmark::Initialize(&argc, argv);                                                        \
        benchmark::RunSpecifiedBenchmarks();                                                       \
    }                                                                                              \
    static_assert(true, "")

#endif
