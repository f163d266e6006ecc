// Debug channel, start-up, hash table, queue, notifier and driver events.

#include "sweep/sweep.h"

#include <bv/debug.h>
#include <bv/hash.h>
#include <bv/notifier.h>
#include <bv/os.h>
#include <bv/queue.h>
#include <bv/status.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace sweep {

namespace {

bv_hash *g_table;
bv_queue *g_queue;
const uint8_t kKey[4] = {1, 2, 3, 4};
constexpr uint32_t kRecord = 7;
std::atomic<int> g_delivered{0};

void count_event(void *, uint32_t)
{
    ++g_delivered;
}

bool delivered()
{
    for (int i = 0; i < 1000 && g_delivered == 0; i++)
        usleep(1000);
    return g_delivered != 0;
}

void a_table()
{
    g_table = bv_hash_init(16, sizeof kKey, sizeof kRecord);
}

void a_table_with_entry()
{
    a_table();
    bv_hash_insert(g_table, kKey, &kRecord);
}

void drop_table()
{
    bv_hash_exit(g_table);
    g_table = nullptr;
}

void a_queue()
{
    bv_queue_init(&g_queue, 4);
}

void drop_queue()
{
    uint32_t message;
    while (g_queue != nullptr && bv_queue_recv(g_queue, &message, sizeof message) == BV_OK) {
    }
    bv_queue_free(&g_queue);
}

// The loopback address, where nobody listens: what is sent is lost, as in the field.
void a_destination()
{
    const bv_debug_cfg loopback = {0x0100007f, 5344, 7364};
    bv_debug_init();
    bv_debug_set_cfg(&loopback);
    bv_debug_set_switch(3, 1, 1);
}

// The tests know the socket's number: it is the lowest one that was free.
int g_debug_socket = -1;

void lend_debug_socket()
{
    g_debug_socket = dup(0);
    give_back(g_debug_socket);
}

void drop_debug_socket()
{
    give_back(g_debug_socket);
}

bv_debug_header header()
{
    bv_debug_header h = {};
    h.category = 1;
    h.level = 1;
    h.module = 3;
    return h;
}

} // namespace

std::vector<Case> debug_cases()
{
    const auto with_destination = [] {
        lend_debug_socket();
        a_destination();
    };
    return {
        Case("bv_debug_init")
            .prepared_by(lend_debug_socket)
            .calls([] { return bv_debug_init(); })
            .cleaned_by(drop_debug_socket)
            .works_when([] {
                bv_debug_set_switch(3, 1, 1);
                return bv_debug_get_switch(3, 1) == 1 && bv_debug_get_switch(3, 2) == 0;
            }),
        Case("bv_debug_set_cfg")
            .prepared_by(with_destination)
            .calls([] {
                const bv_debug_cfg other = {0x0100007f, 1, 2};
                return bv_debug_set_cfg(&other);
            })
            .cleaned_by(drop_debug_socket),
        Case("bv_debug_remote")
            .prepared_by(with_destination)
            .calls([] {
                bv_debug_remote(1, 2, 3, 1, "%s", "text");
                return 0;
            })
            .cleaned_by(drop_debug_socket),
        Case("bv_debug_sendmsg")
            .prepared_by(with_destination)
            .calls([] {
                const bv_debug_header h = header();
                return bv_debug_sendmsg(&h, "text", 4);
            })
            .returns({14})
            .or_fails_with({-1})
            .cleaned_by(drop_debug_socket),
        Case("bv_debug_dump_cfg_switch")
            .prepared_by(with_destination)
            .calls([] { return bv_debug_dump_cfg_switch(); })
            .cleaned_by(drop_debug_socket),
        // Once more, with everything behind it: debug channel, database, notifier.
        Case("bv_libraries_init")
            .prepared_by([] { g_redirect_netlink = true; })
            .calls([] {
                const int32_t result = bv_libraries_init();
                usleep(20000); // its threads come to rest
                return result;
            })
            .returns({BV_OK, BV_ERR_MEMORY}) // the sum: without a database the rest works
            .then_returns({BV_OK})
            .keeps_descriptors(2) // the sockets of channel and notifier
            .has_threads()
            .works_when([] {
                return bv_notifier_send(1, "x", 1) == BV_OK && bv_debug_get_switch(0, 0) == 0;
            }),
    };
}

std::vector<Case> core_cases()
{
    // User-mode emulation refuses netlink protocols: there the thread never starts.
    const bool emulated = getenv("BV_ROOT_USERLAND") != nullptr;
    const int64_t opened = emulated ? BV_ERR_FAILED : BV_OK;
    const auto notifier_ready = [] {
        g_redirect_netlink = true;
        bv_notifier_init();
        bv_notifier_reg(1, count_event);
        bv_notifier_reg(4, count_event);
        g_delivered = 0;
    };
    return {
        Case("bv_hash_init")
            .calls([] {
                g_table = bv_hash_init(16, 4, 4);
                return g_table == nullptr ? -1 : 0;
            })
            .or_fails_with({-1})
            .cleaned_by(drop_table),
        Case("bv_hash_insert")
            .is_honest()
            .prepared_by(a_table)
            .calls([] { return bv_hash_insert(g_table, kKey, &kRecord); })
            .or_fails_with({BV_ERR_MEMORY})
            .cleaned_by(drop_table)
            .works_when([] {
                const void *found = bv_hash_find(g_table, kKey);
                return found != nullptr && memcmp(found, &kRecord, sizeof kRecord) == 0 &&
                       g_table->currnum == 1;
            }),
        Case("bv_hash_dump")
            .prepared_by(a_table_with_entry)
            .calls([] {
                bv_hash_dump(g_table);
                return 0;
            })
            .cleaned_by(drop_table),
        Case("bv_queue_init")
            .calls([] { return bv_queue_init(&g_queue, 4); })
            .or_fails_with({BV_ERR_MEMORY})
            .cleaned_by(drop_queue),
        Case("bv_queue_send")
            .is_honest()
            .prepared_by(a_queue)
            .calls([] { return bv_queue_send(g_queue, &kRecord, sizeof kRecord); })
            .or_fails_with({BV_ERR_MEMORY})
            .cleaned_by(drop_queue)
            .works_when([] { return g_queue->count == 1; }),
        Case("bv_notifier_init")
            .prepared_by([] { g_redirect_netlink = true; })
            .calls([] {
                const int32_t result = bv_notifier_init();
                usleep(20000);
                return result;
            })
            .keeps_descriptors(1)
            .has_threads()
            .works_when([] { return bv_notifier_send(1, "x", 1) == BV_OK; }),
        Case("bv_notifier_reg")
            .prepared_by([] {
                g_redirect_netlink = true;
                bv_notifier_init();
                g_delivered = 0;
            })
            .calls([] { return bv_notifier_reg(2, count_event); })
            .keeps_descriptors(1)
            .has_threads()
            .works_when([] { return bv_notifier_send(2, "x", 1) == BV_OK && delivered(); }),
        // A refused post keeps the event: the next one that gets through brings it along.
        Case("bv_notifier_send")
            .prepared_by(notifier_ready)
            .calls([] { return bv_notifier_send(1, "x", 1); })
            .or_fails_with({-1})
            .keeps_descriptors(1)
            .has_threads()
            .works_when(delivered),
        Case("bv_notifier_kernel")
            .prepared_by(notifier_ready)
            .calls([] {
                char data[] = "x";
                bv_notifier_kernel(2, data, 1);
                bv_notifier_kernel(99, data, 1); // unknown: printed
                return 0;
            })
            .keeps_descriptors(1)
            .has_threads()
            .works_when(delivered),
        // The second call finds the port of the first one taken, when that one went through.
        Case("bv_netlink_init")
            .prepared_by([] { g_redirect_netlink = true; })
            .calls([] {
                const int32_t result = bv_netlink_init();
                usleep(20000);
                return result;
            })
            .returns({opened})
            .or_fails_with({BV_ERR_FAILED, BV_ERR_CHANNEL})
            .then_returns({opened, BV_ERR_CHANNEL})
            .keeps_descriptors(1)
            .has_threads(),
        Case("bv_timer_set").calls([] {
            bv_timer_set(1);
            return 0;
        }),
    };
}

} // namespace sweep
