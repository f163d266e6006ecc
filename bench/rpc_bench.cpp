// A remote call and its answer, beside a bare object on the same bus that takes the same fields,
// answers with the same fields and completes in the same way; and that beside messages relayed by
// hand over unix sockets, caller - relay - owner - relay - caller, as the bus daemon does. Runs in
// a private root. Names are WORK/SIZE/WHO; compare rows of one WORK/SIZE within one run.

#include "tests/support/bus.h"

#include <bv/os.h>
#include <bv/status.h>
#include <bv/ubus.h>

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint32_t kSizes[] = {56, 4096};
constexpr uint32_t kEnvelope = 100; // about what the bus adds to the bytes of a call

uint8_t g_data[4096];

// ---- the library's owner ----

uint32_t echo(void *, uint32_t)
{
    return BV_OK;
}

int register_echo()
{
    return bv_ubus_server_reg("echo", echo);
}

[[noreturn]] void serve_bv()
{
    bv_ubus_server_init(nullptr, register_echo);
    _exit(1);
}

// ---- the bare object ----

enum { kFunc, kLen, kData, kFields };
const blobmsg_policy kRequest[kFields] = {
    {"func", BLOBMSG_TYPE_STRING}, {"len", BLOBMSG_TYPE_INT32}, {"data", BLOBMSG_TYPE_UNSPEC}};
const blobmsg_policy kReply[kFields] = {
    {"return", BLOBMSG_TYPE_INT32}, {"len", BLOBMSG_TYPE_INT32}, {"data", BLOBMSG_TYPE_UNSPEC}};

int answer_bare(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                blob_attr *message)
{
    static blob_buf reply;
    blob_attr *fields[kFields];
    blobmsg_parse(kRequest, kFields, fields, blob_data(message),
                  static_cast<unsigned>(blob_len(message)));
    if (fields[kData] == nullptr)
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf_init(&reply, 0);
    blobmsg_add_u32(&reply, "return", 0);
    blobmsg_add_u32(&reply, "len", blobmsg_get_u32(fields[kLen]));
    blobmsg_add_field(&reply, BLOBMSG_TYPE_UNSPEC, "data", blobmsg_data(fields[kData]),
                      static_cast<unsigned>(blobmsg_data_len(fields[kData])));
    ubus_send_reply(ctx, req, reply.head);
    ubus_complete_deferred_request(ctx, req, UBUS_STATUS_OK);
    return UBUS_STATUS_OK;
}

[[noreturn]] void serve_bare()
{
    static const ubus_method methods[] = {{"method", answer_bare, 0, 0, kRequest, kFields}};
    static ubus_object_type type = {"bare", 0, methods, 1};
    static ubus_object object;
    object.name = "bare";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 1;
    ubus_context *ctx = ubus_connect(nullptr);
    ubus_add_object(ctx, &object);
    ubus_add_uloop(ctx);
    uloop_run();
    _exit(1);
}

struct Bare {
    ubus_context *ctx;
    uint32_t id;
    blob_buf request;
} g_bare;

void take_bare(ubus_request *req, int, blob_attr *message)
{
    blob_attr *fields[kFields];
    blobmsg_parse(kReply, kFields, fields, blob_data(message),
                  static_cast<unsigned>(blob_len(message)));
    const auto *size = static_cast<const uint32_t *>(req->priv);
    if (fields[kData] != nullptr && blobmsg_data_len(fields[kData]) == *size)
        memcpy(g_data, blobmsg_data(fields[kData]), *size);
}

bool call_bare(uint32_t size)
{
    blob_buf_init(&g_bare.request, 0);
    blobmsg_add_string(&g_bare.request, "func", "echo");
    blobmsg_add_u32(&g_bare.request, "len", size);
    blobmsg_add_field(&g_bare.request, BLOBMSG_TYPE_UNSPEC, "data", g_data, size);
    return ubus_invoke(g_bare.ctx, g_bare.id, "method", g_bare.request.head, take_bare, &size,
                       3000) == UBUS_STATUS_OK;
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

// ---- set-up and rows ----

template <typename Serve>
void start(Serve serve)
{
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        serve();
    }
}

void start_relay()
{
    int near[2], far[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, near) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM, 0, far) != 0)
        abort();
    start([&] { relay(near[1], far[0]); });
    start([&] { relay(far[1], far[1]); });
    g_relay = near[0];
}

void connect_all()
{
    g_bare.ctx = ubus_connect(nullptr);
    if (g_bare.ctx == nullptr)
        abort();
    while (ubus_lookup_id(g_bare.ctx, "bare", &g_bare.id) != UBUS_STATUS_OK)
        usleep(1000);
    do {
        usleep(1000);
        bv_ubus_client_init(nullptr);
    } while (bv_ubus_client_call("echo", g_data, 56) != BV_OK);
}

template <typename Call>
void add(const char *work, uint32_t size, const char *who, Call call)
{
    const std::string name = std::string(work) + "/" + std::to_string(size) + "B/" + who;
    auto run = [call, size](benchmark::State &state) {
        for (auto _ : state)
            if (!call(size))
                abort();
    };
    benchmark::RegisterBenchmark(name.c_str(), run)->UseRealTime()->Unit(benchmark::kMicrosecond);
}

} // namespace

int main(int argc, char **argv)
{
    BusDaemon daemon;
    start(serve_bv);
    start(serve_bare);
    start_relay();
    connect_all();

    for (uint32_t size : kSizes) {
        add("rpc", size, "bv",
            [](uint32_t n) { return bv_ubus_client_call("echo", g_data, n) == BV_OK; });
        add("rpc", size, "bare-object", call_bare);
        add("bus", size, "bv-bus", call_bare); // the daemon, without the library's calls
        add("bus", size, "4-hop-relay", call_relay);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
