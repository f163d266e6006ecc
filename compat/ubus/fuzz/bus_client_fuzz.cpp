// SPDX-License-Identifier: ISC
// What a bus may send to a client, and what handlers do meanwhile. The client library's code runs
// here, and its socket reads a stream, which is complete from the start, record by record. Calls made
// inside handlers go on reading where the outer one stopped; at the end the connection is lost.
//
// Input: a length in one byte and so many actions, one for each handler that runs (see act());
// then records. The first byte of one says how:
//   0x80  the bytes go out as they are; otherwise type, sequence number, peer (4 bytes) and body,
//         and the header with the right lengths is made here
//   0x40  the record begins another stream, for after a reconnection
//   0x10  it comes 40 times, from callers that take turns
//   0x20  the first of the bytes says which of the next allocations fails
// then a length in one byte and the bytes. Objects have the ids 0x10001 and up, in the order in
// which the stream gives them; requests are numbered from 1.

#include "failing_memory.h"
#include "fuzz/input.h"

#include <deque>
#include <fcntl.h>
#include <sys/socket.h>
#include <vector>

#include <libubox/usock.h>
#include <libubus.h>

#include "wire.h"

namespace {

constexpr uint32_t kSelf = 0x12345678;
constexpr uint32_t kObject = 0x10001;
constexpr size_t kHeader = 12;
constexpr int kRepetitions = 40;

ubus_context *g_bus; // null once freed
std::string g_script;
using Stream = std::deque<std::string>;
std::deque<Stream> g_streams; // of the next connection and those after it
Stream g_records;             // of this one, those not read yet
int g_far_end = -1;
unsigned g_depth; // of method handlers

std::vector<ubus_request_data> g_deferred;
ubus_method g_methods[2];
ubus_object_type g_type;
ubus_object g_objects[2];
blob_buf g_message;

int act(ubus_request_data *request);

// ---- the bus

std::string header(uint8_t type, uint16_t seq, uint32_t peer, size_t body)
{
    uint8_t bytes[kHeader] = {0, type, static_cast<uint8_t>(seq >> 8), static_cast<uint8_t>(seq)};
    put_be32(put_be32(bytes + 4, peer), static_cast<uint32_t>(body + 4));
    return std::string(reinterpret_cast<char *>(bytes), sizeof bytes);
}

// The library's own stream must be in step, no matter what it was sent.
void check_output()
{
    std::string output;
    char part[16384];
    for (ssize_t got; (got = recv(g_far_end, part, sizeof part, 0)) > 0;)
        output.append(part, static_cast<size_t>(got));
    for (size_t at = 0; at < output.size();) {
        const auto *bytes = reinterpret_cast<const uint8_t *>(output.data()) + at;
        FUZZ_CHECK(output.size() - at >= kHeader);
        const size_t body = get_be32(bytes + 8);
        FUZZ_CHECK(bytes[0] == 0 && bytes[1] > UBUS_MSG_HELLO && bytes[1] < UBUS_MSG_MONITOR);
        FUZZ_CHECK(body >= 4 && body <= UBUS_MAX_MSGLEN && body <= output.size() - at - 8);
        at += 8 + body;
    }
}

void hang_up()
{
    if (g_far_end < 0)
        return;
    check_output();
    close(g_far_end);
    g_far_end = -1;
}

// ---- what a program does with what it is given

void look_at(const blob_attr *attr)
{
    if (attr != nullptr)
        fuzz::touch(attr, blob_raw_len(attr));
}

void take_data(ubus_request *request, int, blob_attr *data)
{
    look_at(data);
    FUZZ_CHECK(request->ctx != nullptr);
    act(nullptr);
}

void take_object(ubus_context *, ubus_object_data *object, void *)
{
    fuzz::touch(object->path, strlen(object->path) + 1);
    look_at(object->signature);
    act(nullptr);
}

int handle(ubus_context *bus, ubus_object *object, ubus_request_data *request, const char *method,
           blob_attr *data)
{
    FUZZ_CHECK(bus == g_bus && object->id == request->object);
    FUZZ_CHECK(g_depth++ == 0); // never nested
    const std::string name(method);
    const std::string bytes(static_cast<const char *>(blob_data(data)), blob_len(data));
    const int result = act(request);
    if (g_bus != nullptr) { // both stay until the end, no matter what came meanwhile
        FUZZ_CHECK(name == method);
        FUZZ_CHECK(memcmp(bytes.data(), blob_data(data), bytes.size()) == 0);
        if (request->acl.user != nullptr)
            FUZZ_CHECK(strlen(request->acl.user) + strlen(request->acl.group) < SIZE_MAX);
    }
    --g_depth;
    return result;
}

void watched(ubus_context *, ubus_object *)
{
    act(nullptr);
}

void lost(ubus_context *bus)
{
    FUZZ_CHECK(bus == g_bus);
    act(nullptr);
}

blob_attr *small_message()
{
    blob_buf_init(&g_message, 0);
    blob_put(&g_message, 5, "text", 5);
    return g_message.head;
}

void call(uint32_t object)
{
    ubus_invoke(g_bus, object, "method", nullptr, take_data, nullptr, 1);
}

void complete_deferred()
{
    while (g_bus != nullptr && !g_deferred.empty()) {
        ubus_request_data request = g_deferred.back();
        g_deferred.pop_back();
        ubus_send_reply(g_bus, &request, small_message());
        ubus_complete_deferred_request(g_bus, &request, 0);
    }
}

void reconnect()
{
    hang_up();
    ubus_reconnect(g_bus, "bus");
}

void free_bus()
{
    ubus_free(g_bus);
    g_bus = nullptr;
}

int act(ubus_request_data *request)
{
    if (g_script.empty() || g_bus == nullptr)
        return 0;
    const char action = g_script[0];
    uint32_t id;

    g_script.erase(0, 1);
    switch (action % 12) {
    case 1:
        call(kObject);
        break;
    case 2:
        call(4711);
        break;
    case 3:
        ubus_lookup_id(g_bus, "path", &id);
        break;
    case 4:
        ubus_lookup(g_bus, nullptr, take_object, nullptr);
        break;
    case 5:
        ubus_add_object(g_bus, &g_objects[1]);
        break;
    case 6:
        ubus_remove_object(g_bus, &g_objects[1]);
        break;
    case 7:
        complete_deferred();
        break;
    case 8:
        reconnect();
        break;
    case 9:
        free_bus();
        break;
    case 10:
        if (request != nullptr)
            ubus_send_reply(g_bus, request, small_message());
        break;
    case 11:
        if (request != nullptr) {
            g_deferred.emplace_back();
            ubus_defer_request(g_bus, request, &g_deferred.back());
        }
        break;
    default:
        break;
    }
    return action;
}

// ---- input

std::string framed(fuzz::Input input)
{
    const uint8_t type = input.byte();
    const uint8_t seq = input.byte();
    const uint32_t peer = input.word();
    const std::string body = input.rest();
    return header(type, seq, peer, body.size()) + body;
}

void read_input(fuzz::Input input)
{
    g_script = input.piece();
    g_streams.assign(1, {});
    while (!input.empty()) {
        const uint8_t how = input.byte();
        std::string bytes = input.piece();
        if ((how & 0x40) != 0)
            g_streams.emplace_back();
        if ((how & 0x20) != 0 && !bytes.empty()) {
            fuzz::g_allocations_left = static_cast<uint8_t>(bytes[0]);
            bytes.erase(0, 1);
        }
        if ((how & 0x80) == 0)
            bytes =
                framed(fuzz::Input(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()));
        for (int i = (how & 0x10) != 0 ? kRepetitions : 1; i > 0 && !bytes.empty(); --i) {
            if (i > 1 && bytes.size() > 7)
                bytes[7] = static_cast<char>(bytes[7] ^ 1);
            g_streams.back().push_back(bytes);
        }
    }
}

void prepare_objects()
{
    memset(g_objects, 0, sizeof g_objects);
    static const blobmsg_policy policy = {"parameter", BLOBMSG_TYPE_STRING};
    g_methods[0] = {"method", handle, 0, 0, &policy, 1};
    g_methods[1] = {nullptr, handle, 0, 0, nullptr, 0};
    g_type = {"type", 0, g_methods, 2};
    g_objects[0].name = "first";
    g_objects[1].name = "second";
    for (ubus_object &object : g_objects) {
        object.type = &g_type;
        object.methods = g_methods;
        object.n_methods = 2;
        object.subscribe_cb = watched;
    }
    g_objects[1].n_methods = 1;
}

} // namespace

// The library dials: the other end is the next stream.
int usock(int, const char *, const char *)
{
    if (g_streams.empty())
        return -1;
    int ends[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    hang_up();
    g_far_end = ends[1];
    fcntl(g_far_end, F_SETFL, O_NONBLOCK);
    const std::string hello = header(UBUS_MSG_HELLO, 0, kSelf, 0);
    (void)!send(g_far_end, hello.data(), hello.size(), MSG_NOSIGNAL);
    shutdown(g_far_end, SHUT_WR); // readable from now on
    g_records = g_streams.front();
    g_streams.pop_front();
    return ends[0];
}

// The library reads: a record, or as much of one as there is room for.
ssize_t recv(int fd, void *buffer, size_t size, int)
{
    if (fd == g_far_end)
        return read(fd, buffer, size);
    if (g_records.empty())
        return 0;
    std::string &record = g_records.front();
    const size_t length = std::min(size, record.size());
    memcpy(buffer, record.data(), length);
    record.erase(0, length);
    if (record.empty())
        g_records.pop_front();
    return static_cast<ssize_t>(length);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    read_input(fuzz::Input(data, size));
    prepare_objects();
    g_depth = 0;
    g_bus = ubus_connect("bus");
    if (g_bus != nullptr) {
        g_bus->connection_lost = lost;
        ubus_add_object(g_bus, &g_objects[0]);
    }
    if (g_bus != nullptr)
        ubus_add_uloop(g_bus);
    if (g_bus != nullptr)
        call(4711);
    for (int turn = 0; turn < 3 && g_bus != nullptr; ++turn) {
        if (g_bus->pending_timer.pending)
            uloop_timeout_set(&g_bus->pending_timer, 0); // saves a millisecond
        uloop_run_timeout(0);
    }
    complete_deferred();
    if (g_bus != nullptr)
        free_bus();
    g_deferred.clear();
    fuzz::g_allocations_left = 0;
    hang_up();
    return 0;
}
