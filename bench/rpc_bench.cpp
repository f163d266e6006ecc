// SPDX-License-Identifier: ISC
// A remote call and its answer, beside a bare object on the same bus that takes the same fields and
// answers with the same fields and one status; and that beside messages relayed by
// hand over unix sockets, caller - relay - owner - relay - caller, as the bus daemon does. Runs in
// a private root. Names are WORK/SIZE/WHO; compare rows of one WORK/SIZE within one run. How one
// owner fares with several callers is in rows callers-COUNT/WHO.

#include "bench/bus_owners.h"
#include "tests/support/bus.h"

#include <bv/status.h>
#include <bv/ubus.h>

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <signal.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kSizes[] = {56, 4096};
constexpr uint32_t kEnvelope = 100; // about what the bus adds to the bytes of a call

constexpr int kMostCallers = 8;

uint8_t g_data[4096];

// Runs a function in a process that ends with this one.
template <typename Run>
pid_t start_child(Run run)
{
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        run();
        _exit(0);
    }
    return pid;
}

// ---- the relay ----

int g_relay;

bool move_bytes(int fd, uint8_t *bytes, uint32_t size)
{
    for (uint32_t done = 0; done < size;) {
        const ssize_t got = recv(fd, bytes + done, size - done, 0);
        if (got <= 0)
            return false;
        done += static_cast<uint32_t>(got);
    }
    return true;
}

// Sends every message that comes to `from` on to `to`, and what comes back to where it came from.
// Messages start with their own size.
[[noreturn]] void relay(int from, int to)
{
    static uint8_t bytes[8192];
    for (;;) {
        for (int way = 0; way < 2; way++) {
            uint32_t size;
            const int in = way == 0 ? from : to;
            if (recv(in, bytes, sizeof size, MSG_PEEK | MSG_WAITALL) != sizeof size)
                _exit(0);
            memcpy(&size, bytes, sizeof size);
            if (!move_bytes(in, bytes, size) ||
                send(from == to || way == 1 ? from : to, bytes, size, 0) < 0)
                _exit(0);
            if (from == to)
                break;
        }
    }
}

bool call_relay(uint32_t size)
{
    static uint8_t bytes[8192];
    const uint32_t total = size + kEnvelope;
    memcpy(bytes, &total, sizeof total);
    return send(g_relay, bytes, total, 0) == static_cast<ssize_t>(total) &&
           move_bytes(g_relay, bytes, total);
}

// ---- callers at once ----

// A process that makes a batch of calls whenever it is told to. The first calls after a start find
// the owner perhaps not there yet, so it connects until one works.
class Caller {
public:
    Caller(void (*connect)(), bool (*call)(uint32_t size))
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
            abort();
        fd_ = ends[0];
        start_child([=] {
            char byte;
            connect();
            while (recv(ends[1], &byte, 1, 0) == 1) {
                for (int i = 0; i < kBatch; i++)
                    if (!call(kSizes[0]))
                        abort();
                send(ends[1], &byte, 1, 0);
            }
        });
        close(ends[1]);
    }
    void begin() { send(fd_, "", 1, 0); }
    void wait()
    {
        char byte;
        if (recv(fd_, &byte, 1, 0) != 1)
            abort();
    }

    static constexpr int kBatch = 50;

private:
    int fd_;
};

void many_callers(benchmark::State &state, std::vector<Caller> &callers, size_t count)
{
    for (auto _ : state) {
        for (size_t i = 0; i < count; i++)
            callers[i].begin();
        for (size_t i = 0; i < count; i++)
            callers[i].wait();
    }
    state.SetItemsProcessed(state.iterations() * Caller::kBatch * static_cast<int64_t>(count));
}

// ---- set-up and rows ----

void connect_bv()
{
    do {
        usleep(1000);
        bv_ubus_client_init(nullptr);
    } while (bv_ubus_client_call("echo", g_data, kSizes[0]) != BV_OK);
}

void connect_bare()
{
    while (!bare_connect())
        usleep(1000);
}

bool call_bv(uint32_t size)
{
    return bv_ubus_client_call("echo", g_data, size) == BV_OK;
}

bool call_bare(uint32_t size)
{
    return bare_call(g_data, size);
}

void start_relay()
{
    int near[2], far[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, near) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM, 0, far) != 0)
        abort();
    start_child([&] { relay(near[1], far[0]); });
    start_child([&] { relay(far[1], far[1]); });
    g_relay = near[0];
}

// The owner's instructions are counted too, and printed when it ends.
void stop(pid_t pid)
{
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

void add(const char *work, uint32_t size, const char *who, bool (*call)(uint32_t size))
{
    const std::string name = std::string(work) + "/" + std::to_string(size) + "B/" + who;
    auto run = [call, size](benchmark::State &state) {
        for (auto _ : state)
            if (!call(size))
                abort();
    };
    benchmark::RegisterBenchmark(name.c_str(), run)->UseRealTime();
}

void add_callers(const char *who, std::vector<Caller> &callers)
{
    for (size_t count = 1; count <= callers.size(); count++) {
        const std::string name = "callers-" + std::to_string(count) + "/" + who;
        auto run = [&callers, count](benchmark::State &state) {
            many_callers(state, callers, count);
        };
        benchmark::RegisterBenchmark(name.c_str(), run)->UseRealTime();
    }
}

} // namespace

int main(int argc, char **argv)
{
    BusDaemon daemon;
    const pid_t bv = start_child(serve_bv), bare = start_child(serve_bare);
    start_relay();
    std::vector<Caller> bv_callers, bare_callers;
    for (int i = 0; i < kMostCallers; i++) {
        bv_callers.emplace_back(connect_bv, call_bv);
        bare_callers.emplace_back(connect_bare, call_bare);
    }
    connect_bare();
    connect_bv();

    for (uint32_t size : kSizes) {
        add("rpc", size, "bv", call_bv);
        add("rpc", size, "bare-object", call_bare);
        add("bus", size, "bv", call_bare); // the daemon, without the library's calls
        add("bus", size, "4-hop-relay", call_relay);
    }
    add_callers("bv", bv_callers);
    add_callers("bare-object", bare_callers);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    stop(bv);
    stop(bare);
    return 0;
}
