// base_work NAME COUNT: does one piece of work COUNT times, for counting its instructions. Runs in
// a private root.

#include "bench/families.h"

#include <bv/db.h>
#include <bv/debug.h>
#include <bv/hash.h>
#include <bv/os.h>
#include <bv/queue.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

uint8_t g_key[1024];
uint8_t g_out[64];

void hash_find(unsigned count)
{
    const std::string name = make_families()[50];
    memcpy(g_key, name.data(), name.size());
    for (unsigned i = 0; i < count; i++)
        if (bv_hash_find(g_st_db_mng.table, g_key) == nullptr)
            abort();
}

void debug_off(unsigned count)
{
    bv_debug_init();
    for (unsigned i = 0; i < count; i++)
        bv_debug_remote(1, 2, 3, 4, "state %d", 5);
}

void queue_pair(unsigned count)
{
    bv_queue *queue = nullptr;
    bv_queue_init(&queue, 8);
    for (unsigned i = 0; i < count; i++)
        if (bv_queue_send(queue, g_key, 64) != 0 || bv_queue_recv(queue, g_out, 64) != 0)
            abort();
}

constexpr struct {
    const char *name;
    void (*run)(unsigned count);
} kWork[] = {{"hash_find", hash_find}, {"debug_off", debug_off}, {"queue_pair", queue_pair}};

} // namespace

int main(int argc, char **argv)
{
    for (const auto &work : kWork) {
        if (argc == 3 && strcmp(argv[1], work.name) == 0) {
            work.run(static_cast<unsigned>(atoi(argv[2])));
            return 0;
        }
    }
    fprintf(stderr, "usage: base_work NAME COUNT; names are\n");
    for (const auto &work : kWork)
        fprintf(stderr, "  %s\n", work.name);
    return 2;
}
