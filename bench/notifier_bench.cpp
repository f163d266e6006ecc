// SPDX-License-Identifier: ISC
// From posting an event to its callback, beside a bare semaphore from one thread to another. Only
// the way there is timed; the way back tells the posting thread that it may go on. Names are
// WORK/WHO; compare rows of one WORK within one run.

#include <bv/notifier.h>
#include <bv/status.h>

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <semaphore.h>

namespace {

using Clock = std::chrono::steady_clock;

sem_t g_there, g_back;
Clock::time_point g_arrived;
constexpr uint32_t kEvent = 5;

// The thread that waits for the bare semaphore.
void *answer(void *)
{
    for (;;) {
        sem_wait(&g_there);
        g_arrived = Clock::now();
        sem_post(&g_back);
    }
}

void called(void *, uint32_t)
{
    g_arrived = Clock::now();
    sem_post(&g_back);
}

template <typename Post>
void time_posts(benchmark::State &state, Post post)
{
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        post();
        sem_wait(&g_back);
        state.SetIterationTime(std::chrono::duration<double>(g_arrived - start).count());
    }
}

void event_bv(benchmark::State &state)
{
    const char payload[64] = "eth0.2";
    time_posts(state, [&] {
        if (bv_notifier_send(kEvent, payload, sizeof payload) != BV_OK)
            abort();
    });
}

void event_semaphore(benchmark::State &state)
{
    time_posts(state, [] { sem_post(&g_there); });
}

} // namespace

int main(int argc, char **argv)
{
    pthread_t thread;
    sem_init(&g_there, 0, 0);
    sem_init(&g_back, 0, 0);
    if (pthread_create(&thread, nullptr, answer, nullptr) != 0 || bv_notifier_init() != BV_OK)
        return 1;
    bv_notifier_reg(kEvent, called);

    benchmark::RegisterBenchmark("event/bv", event_bv)->UseManualTime();
    benchmark::RegisterBenchmark("event/semaphore", event_semaphore)->UseManualTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
