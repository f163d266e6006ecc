/* SPDX-License-Identifier: ISC */
/*
 * What one of everything takes of the heap: prints a line "WHAT BYTES" for each, counting what was
 * asked of malloc() and its like and not given back. Its argument is the bus daemon, which it
 * starts for itself; run it in a private root.
 */
#include <bv/db.h>
#include <bv/hash.h>
#include <bv/notifier.h>
#include <bv/queue.h>
#include <bv/ubus.h>

#include <dlfcn.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static long held;

static void count(void *block, int sign)
{
    if (block != NULL)
        __atomic_fetch_add(&held, sign * (long)malloc_usable_size(block), __ATOMIC_RELAXED);
}

void *malloc(size_t size)
{
    static void *(*next)(size_t);

    if (next == NULL)
        next = (void *(*)(size_t))dlsym(RTLD_NEXT, "malloc");
    void *block = next(size);
    count(block, 1);
    return block;
}

void *calloc(size_t number, size_t size)
{
    void *block = malloc(number * size);

    if (block != NULL)
        memset(block, 0, number * size);
    return block;
}

void free(void *block)
{
    static void (*next)(void *);

    if (next == NULL)
        next = (void (*)(void *))dlsym(RTLD_NEXT, "free");
    count(block, -1);
    next(block);
}

void *realloc(void *block, size_t size)
{
    static void *(*next)(void *, size_t);

    if (next == NULL)
        next = (void *(*)(void *, size_t))dlsym(RTLD_NEXT, "realloc");
    count(block, -1);
    void *moved = next(block, size);
    count(moved != NULL ? moved : block, 1);
    return moved;
}

static long taken(void)
{
    return __atomic_exchange_n(&held, 0, __ATOMIC_RELAXED);
}

static void report(const char *what)
{
    long bytes = taken();

    printf("%s %ld\n", what, bytes);
    fflush(stdout);
    taken();
}

static void fail(const char *what)
{
    fprintf(stderr, "heap: %s\n", what);
    kill(0, SIGTERM);
    _exit(1);
}

/* ---- bus connections ---- */

static int ready[2]; /* the owner writes a byte when it serves */

static uint32_t serve(void *data, uint32_t length)
{
    (void)data;
    (void)length;
    report("owner: what a call of 64 bytes leaves");
    return 0;
}

static void serving(struct uloop_timeout *timeout)
{
    (void)timeout;
    report("owner: connection, object, registry of one function");
    if (write(ready[1], "", 1) != 1)
        fail("the owner cannot say that it serves");
}

static int register_function(void)
{
    static struct uloop_timeout now = {.cb = serving};

    bv_ubus_server_reg("serve", serve);
    return bv_uloop_timeout_set(&now, 0);
}

static pid_t start_daemon(const char *path)
{
    int status;
    pid_t daemon = fork();

    if (daemon == 0) {
        execl(path, path, (char *)NULL);
        fail("the bus daemon cannot be started");
    }
    /* Another process tries, so that the first connection of this one is the one measured. */
    pid_t prober = fork();
    if (prober == 0) {
        for (int i = 0; i < 1000 && bv_ubus_client_init("heap") != 0; i++)
            usleep(10000);
        _exit(bv_ubus_client_init("heap") == 0 ? 0 : 1);
    }
    if (waitpid(prober, &status, 0) != prober || status != 0)
        fail("the bus daemon does not come up");
    return daemon;
}

static pid_t start_owner(void)
{
    char byte;

    if (pipe(ready) != 0)
        fail("no pipe");
    pid_t owner = fork();
    if (owner == 0) {
        taken();
        bv_ubus_server_init("heap", register_function);
        _exit(1);
    }
    close(ready[1]);
    if (read(ready[0], &byte, 1) != 1)
        fail("the owner does not come up");
    return owner;
}

static int answer(struct ubus_context *bus, struct ubus_object *object,
                  struct ubus_request_data *req, const char *method, struct blob_attr *message)
{
    (void)bus, (void)object, (void)req, (void)method, (void)message;
    return 0;
}

/* What is the bus library's of all that: the same without ours. */
static void bare(void)
{
    static const struct ubus_method methods[] = {{.name = "call", .handler = answer}};
    static struct ubus_object_type type = {.name = "bare", .methods = methods, .n_methods = 1};
    static struct ubus_object object = {
        .name = "bare", .type = &type, .methods = methods, .n_methods = 1};

    taken();
    struct ubus_context *bus = ubus_connect(NULL);
    if (bus == NULL)
        fail("the bare program finds no bus");
    report("bare: connection");
    if (uloop_init() != 0 || ubus_add_object(bus, &object) != 0)
        fail("the bare object is refused");
    ubus_add_uloop(bus);
    report("bare: object");
    ubus_free(bus);
    uloop_done();
    taken();
}

static void bus(const char *path_of_daemon)
{
    static uint8_t data[64];
    pid_t daemon = start_daemon(path_of_daemon);
    pid_t owner = start_owner();

    taken();
    if (bv_ubus_client_init("heap") != 0)
        fail("the caller finds no bus");
    report("caller: connection");
    if (bv_ubus_client_call("serve", data, sizeof(data)) != 0)
        fail("the call failed");
    report("caller: what a call of 64 bytes leaves");
    bv_ubus_client_exit();
    bare();

    kill(owner, SIGKILL);
    kill(daemon, SIGKILL);
    waitpid(owner, NULL, 0);
    waitpid(daemon, NULL, 0);
    taken();
}

/* ---- everything else ---- */

/* An event lives until its callbacks have returned: this one does not. */
static void keep(void *data, uint32_t length)
{
    (void)data;
    (void)length;
    for (;;)
        pause();
}

static void events(void)
{
    static uint8_t data[64];

    bv_notifier_init();
    report("notifier and its threads");
    bv_notifier_reg(3, keep);
    report("registration of a callback");
    bv_notifier_send(3, data, sizeof(data));
    report("event of 64 bytes");
}

static void tables(void)
{
    static uint8_t key[256], data[64];
    bv_queue *queue;

    struct bv_hash *table = bv_hash_init(64, 256, 64);
    report("hash table of 64 entries, empty");
    bv_hash_insert(table, key, data);
    report("hash entry: key 256, data 64");
    bv_queue_init(&queue, 8);
    report("queue, empty");
    bv_queue_send(queue, data, sizeof(data));
    report("queued message of 64 bytes");
}

static void database(void)
{
    bv_db_init();
    report("database, empty");
    bv_db_hash_add("family");
    report("family, before its template is read");
    bv_db_inst_add("family", NULL, 0, 1);
    report("instance of a family without parameters");
    printf("parameter descriptor of a family %zu\n", sizeof(bv_db_para));
}

int main(int argc, char **argv)
{
    if (argc != 2)
        fail("usage: heap BUS-DAEMON");
    setvbuf(stdout, NULL, _IOLBF, 512);
    report("(start of the program)");
    bus(argv[1]);
    tables();
    database();
    events();
    fflush(stdout);
    _exit(0);
}
