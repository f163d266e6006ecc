// SPDX-License-Identifier: ISC
// bv_service_run(): checks the structure, loads the families, and serves until it is told to end.
//
// Signals and bv_service_end() write to a pipe, which the loop watches and the pauses wait on. What
// is in the pipe stays there, so a signal counts whenever it comes: also between connecting to the
// bus and the loop's first wait.

#include "service/internal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "tools/template/values.h"

namespace bv::service {

const struct bv_service *g_service;

namespace {

// Without a bus, the next attempt comes after this.
constexpr int kPauseMs = 1000;
// A bus that is alive greets at once.
constexpr int kGreetingMs = 3000;

int g_end_pipe[2] = {-1, -1};
uloop_fd g_end_watch;
Published g_published;

// ---- the structure ----

// A table of the structure. Each entry begins with its name.
struct Table {
    const char *what;
    const void *entries;
    uint32_t count;
    uint32_t entry_size;
    uint32_t longest_name;
    bool (*is_valid)(const void *entry); // the rest of an entry; null: there is none

    const char *entry(uint32_t index) const
    {
        return static_cast<const char *>(entries) + index * entry_size;
    }
    const char *name(uint32_t index) const
    {
        return *reinterpret_cast<const char *const *>(entry(index));
    }
};

bool is_family(const void *entry)
{
    const auto *family = static_cast<const bv_service_family *>(entry);
    return family->store <= BV_SERVICE_FACTORY && (family->flags & ~BV_SERVICE_HIDDEN) == 0;
}

bool is_function(const void *entry)
{
    return static_cast<const bv_service_function *>(entry)->handler != nullptr;
}

template <uint32_t highest>
bool is_number(const void *entry)
{
    return static_cast<const bv_service_name *>(entry)->number <= highest;
}

const char *find_fault(const Table &table, uint32_t index)
{
    if (table.entries == nullptr)
        return "is missing: the table is null";
    const char *name = table.name(index);
    tools::Reason why;
    if (name == nullptr || *name == '\0' || strlen(name) > table.longest_name ||
        !tools::text_survives(name, strlen(name), why))
        return "has no name, or one that is too long or has a quote or backslash";
    for (uint32_t i = 0; i < index; ++i)
        if (strcmp(table.name(i), name) == 0)
            return "has a name that is there twice";
    const bool is_valid = table.is_valid == nullptr || table.is_valid(table.entry(index));
    return is_valid ? nullptr : "has a store, flags, a handler or a number that cannot be";
}

int check_tables(const bv_service &service)
{
    // Templates are found by at most 204 characters, and functions registered by 255.
    const Table tables[] = {
        {"families", service.families, service.n_families, sizeof(*service.families), 204,
         is_family},
        {"functions", service.functions, service.n_functions, sizeof(*service.functions), 255,
         is_function},
        {"writers", service.writers, service.n_writers, sizeof(*service.writers), 255, nullptr},
        {"modules", service.modules, service.n_modules, sizeof(*service.modules), 255,
         is_number<9>},
        {"levels", service.levels, service.n_levels, sizeof(*service.levels), 255, is_number<7>}};
    for (const Table &table : tables) {
        for (uint32_t i = 0; i < table.count; ++i) {
            const char *fault = find_fault(table, i);
            if (fault == nullptr)
                continue;
            say("bv_service_run: %s[%" PRIu32 "] %s", table.what, i, fault);
            return BV_SERVICE_BAD_USE;
        }
    }
    return 0;
}

int check_structure(const bv_service *service)
{
    const char *fault = nullptr;
    if (g_service != nullptr)
        fault = "it runs already";
    else if (service == nullptr || service->size != sizeof(*service))
        fault = "the member size is not sizeof(struct bv_service) of this library";
    else if (!is_service_name(service->name))
        fault = "name: 1 to 100 characters of a-z, A-Z, 0-9, '-', '_' and '.' are allowed";
    else if (service->object != nullptr &&
             (*service->object == '\0' || strlen(service->object) > 127 ||
              strpbrk(service->object, "\"\\") != nullptr))
        fault = "object: 1 to 127 characters without quotes and backslashes are allowed";
    else if ((service->flags & ~BV_SERVICE_COMMIT_AT_END) != 0)
        fault = "flags: unknown ones are set";
    if (fault == nullptr)
        return check_tables(*service);
    say("bv_service_run: %s", fault);
    return BV_SERVICE_BAD_USE;
}

// ---- the end ----

// Takes SIGTERM and SIGINT; connecting to the bus would take them otherwise.
struct Signals {
    struct sigaction old[2];
    Signals()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { bv_service_end(); };
        action.sa_flags = SA_RESTART;
        sigaction(SIGTERM, &action, &old[0]);
        sigaction(SIGINT, &action, &old[1]);
    }
    ~Signals()
    {
        sigaction(SIGTERM, &old[0], nullptr);
        sigaction(SIGINT, &old[1], nullptr);
    }
    Signals(const Signals &) = delete;
};

// Whether the service is to end; waits for it at most so long.
bool is_ending(int wait_ms)
{
    pollfd end = {g_end_pipe[0], POLLIN, 0};
    int ready;
    do
        ready = poll(&end, 1, wait_ms);
    while (ready < 0 && errno == EINTR);
    return ready > 0;
}

// ---- serving ----

// The registration callback: everything that one run of the loop needs.
int prepare()
{
    for (uint32_t i = 0; i < g_service->n_functions; ++i)
        bv_ubus_server_reg(g_service->functions[i].name, g_service->functions[i].handler);
    if (bv_uloop_init() != 0)
        return 0; // the server finds the same and returns
    g_published = publish();
    // The functions alone are not enough: the loop ends in its first turn, as the pipe can be
    // written at once.
    const bool serves = g_published == Published::Yes;
    g_end_watch.fd = g_end_pipe[serves ? 0 : 1];
    g_end_watch.cb = [](uloop_fd *, unsigned) { uloop_end(); };
    bv_uloop_fd_add(&g_end_watch, serves ? ULOOP_READ : ULOOP_WRITE);
    return 0;
}

// Serves until the bus goes or the service ends. False when an object's name is taken.
bool serve()
{
    g_published = Published::NoBus;
    if (!is_bus_alive(g_end_pipe[0]))
        return true;
    const int32_t status = bv_ubus_server_init(object_name(), prepare);
    bv_uloop_fd_delete(&g_end_watch);
    unpublish();
    return status != UBUS_STATUS_INVALID_ARGUMENT && g_published != Published::NameTaken;
}

int serve_until_end()
{
    bool said = false;
    bool was_taken = false;
    for (; !is_ending(0); is_ending(kPauseMs)) {
        const bool taken = !serve();
        if (is_ending(0))
            break;
        // The bus may not have noticed yet that an earlier process with this name has ended.
        if (taken && was_taken) {
            say("another process serves the object %s or %s%s: end it first", object_name(),
                g_service->name, kObjectSuffix);
            return BV_SERVICE_NAME_TAKEN;
        }
        was_taken = taken;
        said = said && g_published != Published::Yes; // otherwise there was a bus
        if (!said && !taken)
            say("no connection to the bus: trying again each second; is its daemon running?");
        said = said || !taken;
    }
    return BV_SERVICE_ENDED;
}

int start_and_serve()
{
    if (bv_libraries_init() != BV_OK || !open_object()) {
        say("no memory: the library could not start");
        return BV_SERVICE_NO_MEMORY;
    }
    int status = load();
    if (status == 0 && g_service->start != nullptr)
        status = g_service->start();
    if (status != 0)
        return status;
    status = serve_until_end();
    if ((g_service->flags & BV_SERVICE_COMMIT_AT_END) != 0)
        bv_service_commit();
    if (g_service->end != nullptr)
        g_service->end();
    return status;
}

} // namespace

bool is_service_name(const char *name)
{
    static constexpr char kCharacters[] = "abcdefghijklmnopqrstuvwxyz"
                                          "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
    const size_t length = name != nullptr ? strspn(name, kCharacters) : 0;
    return length >= 1 && length <= kMaxServiceName && name[length] == '\0';
}

// The bus library waits for the daemon's first message without limit, so a connection of our own
// looks for it first.
bool is_bus_alive(int end_fd)
{
    const sockaddr_un address = {AF_UNIX, "/var/run/ubus/ubus.sock"};
    const int bus = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool connected =
        connect(bus, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    bool alive = !connected && errno == ENOENT; // the library may know another path
    if (connected) {
        pollfd ready[] = {{bus, POLLIN, 0}, {end_fd, POLLIN, 0}};
        char byte;
        alive = poll(ready, 2, kGreetingMs) > 0 && read(bus, &byte, 1) == 1;
    }
    close(bus);
    return alive;
}

} // namespace bv::service

using namespace bv::service;

int bv_service_run(const struct bv_service *service)
{
    int status = check_structure(service);
    if (status != 0)
        return status;
    if (pipe2(g_end_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        say("%s: no pipe: %s", service->name, strerror(errno));
        return BV_SERVICE_NO_MEMORY;
    }
    {
        const Signals signals;
        g_service = service;
        status = start_and_serve();
        close_object();
        g_service = nullptr;
    }
    for (int &fd : g_end_pipe) {
        close(fd);
        fd = -1;
    }
    return status;
}

// Also the signal handler's: it only writes a byte. A full pipe ends the service too.
void bv_service_end(void)
{
    const int saved = errno;
    const ssize_t written = write(g_end_pipe[1], "", 1);
    (void)written;
    errno = saved;
}
