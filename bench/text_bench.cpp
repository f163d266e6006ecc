// SPDX-License-Identifier: ISC
// Bounded copies beside the bounded-check library called directly, and hexadecimal text beside one
// bounded print for each byte. Names are WORK/SIZE/WHO; compare rows of one WORK/SIZE within one
// run.

#include <bv/os.h>

#include <securec.h>

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr uint32_t kSizes[] = {8, 64, 1024};
constexpr int kCalls = 64; // in one iteration: a copy is not longer than the loop around it

uint8_t g_from[1024];
uint8_t g_to[1024];

// What the compiler may not know when it sees a copy.
template <typename T>
T hidden(T value)
{
    asm volatile("" : "+r"(value));
    return value;
}

void copy_bv(benchmark::State &state, uint32_t size)
{
    for (auto _ : state)
        for (int i = 0; i < kCalls; i++)
            bv_os_memcpy(hidden(g_to), hidden(uint32_t{sizeof g_to}), hidden(g_from), hidden(size));
    state.SetItemsProcessed(state.iterations() * kCalls);
}

void copy_direct(benchmark::State &state, uint32_t size)
{
    for (auto _ : state)
        for (int i = 0; i < kCalls; i++)
            memcpy_s(hidden(g_to), hidden(size_t{sizeof g_to}), hidden(g_from),
                     hidden(size_t{size}));
    state.SetItemsProcessed(state.iterations() * kCalls);
}

// The buffer that the library's function works in, filled by one print a byte.
int32_t print_bytes(const uint8_t *bytes, uint32_t length, char *out, uint32_t outsize)
{
    char text[512];
    memset(text, 0, sizeof text);
    for (uint32_t i = 0; i < length; i++)
        sprintf_s(text + 2 * i, sizeof text - 2 * i, "%02x", bytes[i]);
    return bv_os_memcpy(out, outsize, text, outsize < sizeof text ? outsize : sizeof text);
}

void hex_bv(benchmark::State &state, uint32_t size)
{
    char out[512];
    for (auto _ : state) {
        bv_os_tohexstr(g_from, size, out, sizeof out);
        benchmark::DoNotOptimize(out);
    }
}

void hex_prints(benchmark::State &state, uint32_t size)
{
    char out[512], expected[512];
    bv_os_tohexstr(g_from, size, expected, sizeof expected);
    for (auto _ : state) {
        print_bytes(g_from, size, out, sizeof out);
        benchmark::DoNotOptimize(out);
    }
    if (memcmp(out, expected, sizeof out) != 0)
        abort();
}

template <typename Work>
void add(const char *work, uint32_t size, const char *who, Work run)
{
    const std::string name = std::string(work) + "/" + std::to_string(size) + "B/" + who;
    benchmark::RegisterBenchmark(name.c_str(), run, size);
}

} // namespace

int main(int argc, char **argv)
{
    for (uint32_t i = 0; i < sizeof g_from; i++)
        g_from[i] = static_cast<uint8_t>(i * 2654435761u >> 24);
    for (uint32_t size : kSizes) {
        add("copy", size, "bv", copy_bv);
        add("copy", size, "memcpy_s", copy_direct);
    }
    for (uint32_t size : {32u, 255u}) {
        add("hex", size, "bv", hex_bv);
        add("hex", size, "print-a-byte", hex_prints);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
