// SPDX-License-Identifier: ISC
// A debug message whose switch is on, beside printing and sending the same number of bytes by hand.
// Both send to one socket without a reader, so the network is as cheap as it gets and what the
// library adds weighs most; and one whose switch is off, as nearly all are. Names are WORK/WHO;
// compare rows of one WORK within one run.

#include <bv/debug.h>
#include <bv/os.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr char kFormat[] = "interface %s: state %d -> %d after %u ms";
constexpr int kLength = 10 + 44; // of the datagram: header and text
sockaddr_in g_collector;

void remote_bv(benchmark::State &state)
{
    for (auto _ : state)
        bv_debug_remote(1, 2, 3, 4, kFormat, "eth0.2", 3, 4, 1250u);
}

void remote_off(benchmark::State &state)
{
    for (auto _ : state)
        bv_debug_remote(1, 2, 4, 5, "state %d", 5);
}

void remote_bare(benchmark::State &state)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    char text[256];
    for (auto _ : state) {
        const int length = snprintf(text + 10, sizeof text - 10, kFormat, "eth0.2", 3, 4, 1250u);
        if (length + 10 != kLength)
            abort();
        sendto(fd, text, kLength, 0, reinterpret_cast<const sockaddr *>(&g_collector),
               sizeof g_collector);
    }
    close(fd);
}

// A socket on loopback, and the debug channel pointed at it.
void make_collector()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    socklen_t size = sizeof g_collector;
    g_collector.sin_family = AF_INET;
    g_collector.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&g_collector), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&g_collector), &size) != 0)
        abort();

    bv_debug_init();
    const bv_debug_cfg cfg = {g_collector.sin_addr.s_addr, ntohs(g_collector.sin_port), 0};
    bv_debug_set_cfg(&cfg);
    bv_debug_set_switch(3, 4, 1);

    char first[256];
    bv_debug_remote(1, 2, 3, 4, kFormat, "eth0.2", 3, 4, 1250u);
    if (recv(fd, first, sizeof first, MSG_DONTWAIT) != kLength) {
        fprintf(stderr, "debug_bench: the first message did not arrive\n");
        abort();
    }
}

} // namespace

int main(int argc, char **argv)
{
    make_collector();
    benchmark::RegisterBenchmark("debug-on/bv", remote_bv);
    benchmark::RegisterBenchmark("debug-off/bv", remote_off);
    benchmark::RegisterBenchmark("debug-on/snprintf-and-sendto", remote_bare);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
