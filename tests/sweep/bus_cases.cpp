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
const std::vector<int64_t> kStatuses = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, -1};

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

template <typename Put>
Case appends(const char *name, Put put)
{
    Case c(name);
    c.prepared_by(a_message).calls([put] { return put() ? 0 : -1; }).or_fails_with({-1});
    c.cleaned_by(drop_buffer);
    return c;
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

std::vector<Case> message_cases()
{
    return {
        Case("bv_blob_buf_init")
            .calls([] { return bv_blob_buf_init(&g_buf, 1); })
            .or_fails_with({-ENOMEM})
            .cleaned_by(drop_buffer),
        Case("bv_blobmsg_buf_init")
            .calls([] { return bv_blobmsg_buf_init(&g_buf); })
            .or_fails_with({-ENOMEM})
            .cleaned_by(drop_buffer),
        appends("bv_blob_put_u8", [] { return bv_blob_put_u8(&g_buf, 1, 1) != nullptr; }),
        appends("bv_blob_put_u16", [] { return bv_blob_put_u16(&g_buf, 1, 1) != nullptr; }),
        appends("bv_blob_put_u32", [] { return bv_blob_put_u32(&g_buf, 1, 1) != nullptr; }),
        appends("bv_blob_put_string",
                [] { return bv_blob_put_string(&g_buf, 1, "text") != nullptr; }),
        appends("bv_blob_put", [] { return bv_blob_put(&g_buf, 1, g_data, 300) != nullptr; }),
        appends("bv_blob_put_raw",
                [] {
                    const uint8_t attribute[8] = {1, 0, 0, 8, 1, 2, 3, 4};
                    return bv_blob_put_raw(&g_buf, attribute, sizeof attribute) != nullptr;
                }),
        appends("bv_blobmsg_add_u8", [] { return bv_blobmsg_add_u8(&g_buf, "n", 1) == 0; }),
        appends("bv_blobmsg_add_u16", [] { return bv_blobmsg_add_u16(&g_buf, "n", 1) == 0; }),
        appends("bv_blobmsg_add_u32", [] { return bv_blobmsg_add_u32(&g_buf, "n", 1) == 0; }),
        appends("bv_blobmsg_add_string",
                [] { return bv_blobmsg_add_string(&g_buf, "n", "text") == 0; }),
        appends("bv_blobmsg_add_field",
                [] { return bv_blobmsg_add_field(&g_buf, 0, "n", g_data, 300) == 0; }),
        Case("bv_json_object_from_file")
            .prepared_by([] { write_file("/scratch/tree.json", "{\"a\":1}"); })
            .calls([] {
                g_tree = bv_json_object_from_file("/scratch/tree.json");
                return g_tree == nullptr ? -1 : 0;
            })
            .or_fails_with({-1})
            .cleaned_by([] { json_object_put(g_tree); }),
        Case("bv_json_tokener_parse")
            .calls([] {
                g_tree = bv_json_tokener_parse("{\"a\":1}");
                return g_tree == nullptr ? -1 : 0;
            })
            .or_fails_with({-1})
            .cleaned_by([] { json_object_put(g_tree); }),
    };
}

std::vector<Case> loop_cases()
{
    return {
        Case("bv_uloop_init")
            .calls([] { return bv_uloop_init(); })
            .or_fails_with({-1})
            .cleaned_by(bv_uloop_done),
        Case("bv_uloop_done").prepared_by(a_loop).calls([] {
            bv_uloop_done();
            return 0;
        }),
        Case("bv_uloop_fd_add")
            .prepared_by(a_pipe)
            .calls([] { return bv_uloop_fd_add(&g_watch, ULOOP_READ); })
            .or_fails_with({-1})
            .cleaned_by(drop_loop),
        Case("bv_uloop_fd_delete")
            .prepared_by([] {
                a_pipe();
                bv_uloop_fd_add(&g_watch, ULOOP_READ);
            })
            .calls([] { return bv_uloop_fd_delete(&g_watch); })
            .or_fails_with({-1})
            .cleaned_by(drop_loop),
        Case("bv_uloop_run")
            .prepared_by([] {
                a_pipe();
                bv_uloop_fd_add(&g_watch, ULOOP_READ);
                g_timer.cb = end_the_loop;
                bv_uloop_timeout_set(&g_timer, 100); // late enough for a slow machine to wait
            })
            .calls([] { return bv_uloop_run(); })
            .cleaned_by(drop_loop),
        // A start without a bus fails, and leaves the registry in place.
        Case("bv_ubus_server_reg")
            .prepared_by([] { bv_ubus_server_init(kOwner, nullptr); })
            .calls([] { return bv_ubus_server_reg("raise", raise_bytes); })
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
    return {
        Case("bv_ubus_connect")
            .calls([] {
                a_connection();
                return g_connection == nullptr ? -1 : 0;
            })
            .or_fails_with({-1})
            .cleaned_by(drop_connection),
        Case("bv_ubus_free")
            .prepared_by(a_connection)
            .calls([] {
                bv_ubus_free(g_connection);
                g_connection = nullptr;
                return 0;
            })
            .cleaned_by(drop_connection),
        Case("bv_ubus_lookup_id")
            .prepared_by(a_connection)
            .calls([] {
                uint32_t id = 0;
                return bv_ubus_lookup_id(g_connection, kOwner, &id);
            })
            .or_fails_with(kStatuses)
            .cleaned_by(drop_connection),
        Case("bv_ubus_add_object")
            .prepared_by(a_connection)
            .calls([] {
                static ubus_object object;
                object = {};
                object.name = "another";
                return bv_ubus_add_object(g_connection, &object);
            })
            .or_fails_with(kStatuses)
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
                static uint32_t id;
                if (bv_ubus_lookup_id(g_connection, kOwner, &id) != 0)
                    return 4;
                return bv_ubus_invoke(g_connection, id, "method", g_buf.head, note_reply, nullptr,
                                      500);
            })
            .or_fails_with(kStatuses)
            .cleaned_by(drop_connection),
        Case("bv_ubus_client_init")
            .calls([] { return bv_ubus_client_init(kOwner); })
            .or_fails_with({-1})
            .works_when([] { return call_owner() == 42 && answer_is_right(); })
            .cleaned_by(end_client),
        Case("bv_ubus_client_call")
            .is_honest()
            .prepared_by([] { bv_ubus_client_init(kOwner); })
            .calls(call_owner)
            .returns({42})
            .or_fails_with({2, 4, 7, 10, BV_ERR_INVALID})
            .works_when(answer_is_right)
            .cleaned_by(end_client),
        Case("bv_ubus_client_exit")
            .prepared_by([] { bv_ubus_client_init(kOwner); })
            .calls([] {
                bv_ubus_client_exit();
                return 0;
            })
            .cleaned_by(end_client),
    };
}

// ---- an owner, called by a process that ends its loop when it has an answer ----

namespace {

constexpr char kSweptOwner[] = "swept-owner";
pid_t g_caller = -1;
int *const g_nobody = nullptr;

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
        waitpid(g_caller, g_nobody, 0);
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
