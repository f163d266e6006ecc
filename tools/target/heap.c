/*
 * What one of everything takes of the heap: prints a line "WHAT BYTES" for each, counted at
 * malloc() and calloc().
 */
#include <bv/db.h>
#include <bv/hash.h>
#include <bv/notifier.h>
#include <bv/queue.h>
#include <bv/ubus.h>

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static size_t asked;

void *malloc(size_t size)
{
    static void *(*next)(size_t);

    if (next == NULL)
        next = (void *(*)(size_t))dlsym(RTLD_NEXT, "malloc");
    __atomic_fetch_add(&asked, size, __ATOMIC_RELAXED);
    return next(size);
}

void *calloc(size_t count, size_t size)
{
    void *block = malloc(count * size);

    if (block != NULL)
        memset(block, 0, count * size);
    return block;
}

static size_t taken(void)
{
    return __atomic_exchange_n(&asked, 0, __ATOMIC_RELAXED);
}

static void report(const char *what)
{
    size_t bytes = taken();

    printf("%s %zu\n", what, bytes);
    fflush(stdout);
    taken();
}

static void nothing(void *data, uint32_t length)
{
    (void)data;
    (void)length;
}

int main(void)
{
    static uint8_t key[256], data[64];
    struct bv_hash *table;
    bv_queue *queue;
    uint32_t number;

    setvbuf(stdout, NULL, _IOLBF, 512);
    report("(start of the program)");
    bv_notifier_init();
    report("notifier and its threads");
    bv_notifier_reg(3, nothing);
    report("registration of a callback");
    bv_notifier_send(3, data, sizeof(data));
    report("event of 64 bytes");

    table = bv_hash_init(64, 256, 64);
    report("hash table of 64 entries, empty");
    bv_hash_insert(table, key, data);
    report("hash entry: key 256, data 64");
    bv_queue_init(&queue, 8);
    report("queue, empty");
    bv_queue_send(queue, data, sizeof(data));
    report("queued message of 64 bytes");

    bv_db_init();
    report("database, empty");
    bv_db_hash_add("family");
    report("family, before its template is read");
    bv_db_inst_add("family", NULL, 0, 1);
    report("instance of a family without parameters");
    bv_db_inst_getnew("family", &number);
    printf("parameter descriptor of a family %zu\n", sizeof(bv_db_para));
    fflush(stdout);
    _exit(0);
}
