// SPDX-License-Identifier: ISC
// The bus: messages, the loop, connections, callers and an owner.

#include "sweep/sweep.h"

#include "support/files.h"

#include <bv/status.h>
#include <bv/ubus.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sweep {

namespace {

blob_buf g_buf;
ubus_context *g_connection;
json_object *g_tree;
int g_pipe[2] = {-1, -1};
uloop_fd g_watch;
uloop_timeout g_timer;
uloop_process g_process;
char g_data[512]; // more than a buffer holds before it grows

// Every status of the bus.
const Case::Results kStatuses = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, -1};

void drop_buffer()
{
    bv_blob_buf_free(&g_buf);
    g_buf = {};
}

// A buffer whose next growth comes with the next attribute.
void a_message()
{
    bv_blobmsg_buf_init(&g_buf);
    while (static_cast<unsigned>(g_buf.buflen) - bv_blob_raw_len(g_buf.head) >= 8)
        bv_blob_put_u32(&g_buf, 1, 7);
}

void a_connection()
{
    g_connection = bv_ubus_connect(nullptr);
}

void drop_connection()
{
    if (g_connection != nullptr)
        bv_ubus_free(g_connection);
    g_connection = nullptr;
    drop_buffer();
    bv_uloop_done(); // connecting starts the loop
}

void a_loop()
{
    bv_uloop_init();
    g_watch = {};
    g_timer = {};
    g_process = {};
}

void a_pipe()
{
    a_loop();
    if (pipe(g_pipe) != 0)
        abort();
    g_watch.fd = g_pipe[0];
    g_watch.cb = [](uloop_fd *, unsigned) {};
}

void drop_loop()
{
    if (g_watch.registered)
        uloop_fd_delete(&g_watch);
    uloop_timeout_cancel(&g_timer);
    uloop_process_delete(&g_process);
    bv_uloop_done();
    for (int &fd : g_pipe) {
        give_back(fd);
        fd = -1;
    }
}

void end_the_loop(uloop_timeout *)
{
    uloop_end();
}

// What the owner answers with: every byte raised by 1.
uint32_t raise_bytes(void *data, uint32_t len)
{
    auto *bytes = static_cast<uint8_t *>(data);
    for (uint32_t i = 0; i < len; i++)
        ++bytes[i];
    return 42;
}

int register_functions()
{
    return bv_ubus_server_reg("raise", raise_bytes);
}

int64_t call_owner()
{
    memset(g_data, 'a', sizeof g_data);
    return bv_ubus_client_call("raise", g_data, sizeof g_data);
}

bool answer_is_right()
{
    return g_data[0] == 'b' && g_data[sizeof g_data - 1] == 'b';
}

void end_client()
{
    bv_ubus_client_exit();
    bv_uloop_done();
}

void note_reply(ubus_request *, int, blob_attr *) {}

} // namespace

// An attribute or field that takes a buffer that grows.
#define APPENDS(function, ...)                                                                     \
    Case(#function).prepared_by(a_message).calls(                                                  \
        [] { return function(&g_buf, __VA_ARGS__) ? 0 : -1; })
#define ADDS(function, ...) CALL(function, &g_buf, __VA_ARGS__).prepared_by(a_message)

std::vector<Case> message_cases()
{
    static const uint8_t attribute[8] = {1, 0, 0, 8, 1, 2, 3, 4};
    const auto tree = [](const char *name, json_object *(*make)(const char *), const char *from) {
        return Case(name)
            .prepared_by([] { write_file("/scratch/tree.json", "{\"a\":1}"); })
            .calls([=] {
                g_tree = make(from);
                return g_tree == nullptr ? -1 : 0;
            })
            .cleaned_by([] { json_object_put(g_tree); });
    };
    return usually(
        {-1}, drop_buffer,
        {{
            CALL(bv_blob_buf_init, &g_buf, 1).or_fails_with({-ENOMEM}),
            CALL(bv_blobmsg_buf_init, &g_buf).or_fails_with({-ENOMEM}),
            APPENDS(bv_blob_put_u8, 1, 1),
            APPENDS(bv_blob_put_u16, 1, 1),
            APPENDS(bv_blob_put_u32, 1, 1),
            APPENDS(bv_blob_put_string, 1, "text"),
            APPENDS(bv_blob_put, 1, g_data, 300),
            APPENDS(bv_blob_put_raw, attribute, sizeof attribute),
            ADDS(bv_blobmsg_add_u8, "n", 1),
            ADDS(bv_blobmsg_add_u16, "n", 1),
            ADDS(bv_blobmsg_add_u32, "n", 1),
            ADDS(bv_blobmsg_add_string, "n", "text"),
            ADDS(bv_blobmsg_add_field, 0, "n", g_data, 300),
            tree("bv_json_object_from_file", bv_json_object_from_file, "/scratch/tree.json"),
            tree("bv_json_tokener_parse", bv_json_tokener_parse, "{\"a\":1}"),
        }});
}

std::vector<Case> loop_cases()
{
    const auto a_watch = [] {
        a_pipe();
        bv_uloop_fd_add(&g_watch, ULOOP_READ);
    };
    return {
        CALL(bv_uloop_init).or_fails_with({-1}).cleaned_by(bv_uloop_done),
        RUN(bv_uloop_done).prepared_by(a_loop),
        CALL(bv_uloop_fd_add, &g_watch, ULOOP_READ)
            .prepared_by(a_pipe)
            .or_fails_with({-1})
            .cleaned_by(drop_loop),
        CALL(bv_uloop_fd_delete, &g_watch)
            .prepared_by(a_watch)
            .or_fails_with({-1})
            .cleaned_by(drop_loop),
        CALL(bv_uloop_run)
            .prepared_by([a_watch] {
                a_watch();
                g_timer.cb = end_the_loop;
                bv_uloop_timeout_set(&g_timer, 100); // late enough for a slow machine to wait
            })
            .cleaned_by(drop_loop),
        // A start without a bus fails, and leaves the registry in place.
        CALL(bv_ubus_server_reg, "raise", raise_bytes)
            .prepared_by([] { bv_ubus_server_init(kOwner, nullptr); })
            .or_fails_with({BV_ERR_MEMORY})
            .cleaned_by(bv_uloop_done),
        Case("bv_uloop_process_add")
            .prepared_by([] {
                a_loop();
                g_process.pid = fork();
                if (g_process.pid == 0) {
                    usleep(200000); // the loop waits for it, also on a slow machine
                    _exit(0);
                }
                g_process.cb = [](uloop_process *, int) { uloop_end(); };
            })
            .calls([] {
                const int result = bv_uloop_process_add(&g_process);
                if (result == 0)
                    bv_uloop_run(); // where children are waited for
                return result;
            })
            .or_fails_with({-1})
            .cleaned_by(drop_loop),
    };
}

std::vector<Case> client_cases()
{
    static uint32_t id;
    static ubus_object object;
    const auto a_client = [] { bv_ubus_client_init(kOwner); };
    const std::vector<Case> connections = {
        Case("bv_ubus_connect")
            .calls([] {
                a_connection();
                return g_connection == nullptr ? -1 : 0;
            })
            .or_fails_with({-1}),
        Case("bv_ubus_free").prepared_by(a_connection).calls([] {
            bv_ubus_free(g_connection);
            g_connection = nullptr;
            return 0;
        }),
        CALL(bv_ubus_lookup_id, g_connection, kOwner, &id).prepared_by(a_connection),
        CALL(bv_ubus_add_object, g_connection, &object)
            .prepared_by([] {
                a_connection();
                object = {};
                object.name = "another";
            })
            .cleaned_by([] {
                drop_connection();
                usleep(20000); // the bus learns of it
            }),
        Case("bv_ubus_invoke")
            .prepared_by([] {
                a_connection();
                bv_blobmsg_buf_init(&g_buf);
                bv_blobmsg_add_string(&g_buf, "func", "raise");
                bv_blobmsg_add_u32(&g_buf, "len", 4);
                bv_blobmsg_add_field(&g_buf, BLOBMSG_TYPE_UNSPEC, "data", "abcd", 4);
                g_data[0] = 0;
            })
            .calls([] {
                if (bv_ubus_lookup_id(g_connection, kOwner, &id) != 0)
                    return 4;
                return bv_ubus_invoke(g_connection, id, "method", g_buf.head, note_reply, nullptr,
                                      500);
            }),
    };
    const std::vector<Case> callers = {
        CALL(bv_ubus_client_init, kOwner).or_fails_with({-1}).works_when([] {
            return call_owner() == 42 && answer_is_right();
        }),
        Case("bv_ubus_client_call")
            .is_honest()
            .prepared_by(a_client)
            .calls(call_owner)
            .returns({42})
            .or_fails_with({2, 4, 7, 10, BV_ERR_INVALID})
            .works_when(answer_is_right),
        RUN(bv_ubus_client_exit).prepared_by(a_client),
    };
    std::vector<Case> all = usually(kStatuses, drop_connection, {connections});
    for (const Case &c : usually({}, end_client, {callers}))
        all.push_back(c);
    return all;
}

// ---- an owner, called by a process that ends its loop when it has an answer ----

namespace {

constexpr char kSweptOwner[] = "swept-owner";
pid_t g_caller = -1;

void end_loop_on_signal(int)
{
    uloop_end();
}

// Tries for a while; a signal alone does not end a loop that has not begun, so they repeat.
[[noreturn]] void call_and_end(pid_t owner, int ready)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The connection of an earlier run would stay open through us, and its object on the bus.
    for (int fd = 3; fd < 256; fd++) {
        if (fd != ready)
            give_back(fd);
    }
    give_back(ready);
    for (int attempt = 0; attempt < 25; attempt++) {
        if (bv_ubus_client_init(kSweptOwner) == BV_OK && call_owner() == 42)
            break;
        usleep(20000);
    }
    for (;;) {
        kill(owner, SIGUSR1);
        usleep(20000);
    }
}

void a_caller()
{
    struct sigaction action = {};
    action.sa_handler = end_loop_on_signal;
    sigaction(SIGUSR1, &action, nullptr);
    const pid_t owner = getpid();
    int ready[2];
    if (pipe(ready) != 0)
        abort();
    g_caller = fork();
    if (g_caller == 0)
        call_and_end(owner, ready[1]);
    give_back(ready[1]);
    char none;
    if (read(ready[0], &none, 1) != 0) // its end: the caller holds nothing of ours any more
        abort();
    give_back(ready[0]);
}

void drop_caller()
{
    if (g_caller > 0) {
        kill(g_caller, SIGKILL);
        waitpid(g_caller, nullptr, 0);
    }
    g_caller = -1;
    bv_uloop_done(); // left running by a start that failed
}

} // namespace

std::vector<Case> owner_cases()
{
    return {
        Case("bv_ubus_server_init")
            .prepared_by(a_caller)
            .calls([] { return bv_ubus_server_init(kSweptOwner, register_functions); })
            .or_fails_with(kStatuses)
            // The connection of a run that ended stays until the next one starts.
            .keeps_descriptors(1)
            .cleaned_by(drop_caller),
    };
}

int run_owner()
{
    return bv_ubus_server_init(kOwner, register_functions);
}

} // namespace sweep
