// SPDX-License-Identifier: ISC
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

// The loopback address without a listener: what is sent is lost, as in the field.
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

void a_lent_destination()
{
    lend_debug_socket();
    a_destination();
}

void a_driver()
{
    g_redirect_netlink = true;
}

void a_notifier()
{
    a_driver();
    bv_notifier_init();
    for (uint32_t type : {1u, 4u})
        bv_notifier_reg(type, count_event);
    g_delivered = 0;
}

bool notifier_takes_events()
{
    return bv_notifier_send(1, "x", 1) == BV_OK;
}

// Threads that it started come to rest.
int64_t rested(int32_t result)
{
    usleep(20000);
    return result;
}

const bv_debug_cfg kOtherDestination = {0x0100007f, 1, 2};
bv_debug_header g_header;

} // namespace

std::vector<Case> debug_cases()
{
    g_header.category = 1;
    g_header.level = 1;
    g_header.module = 3;
    return usually(
        {}, drop_debug_socket,
        {{
            CALL(bv_debug_init).prepared_by(lend_debug_socket).works_when([] {
                bv_debug_set_switch(3, 1, 1);
                return bv_debug_get_switch(3, 1) == 1 && bv_debug_get_switch(3, 2) == 0;
            }),
            CALL(bv_debug_set_cfg, &kOtherDestination).prepared_by(a_lent_destination),
            RUN(bv_debug_remote, 1, 2, 3, 1, "%s", "text").prepared_by(a_lent_destination),
            CALL(bv_debug_sendmsg, &g_header, "text", 4)
                .prepared_by(a_lent_destination)
                .returns({14})
                .or_fails_with({-1}),
            CALL(bv_debug_dump_cfg_switch).prepared_by(a_lent_destination),
            // Once more, with everything that it starts: debug channel, database, notifier.
            Case("bv_libraries_init")
                .prepared_by(a_driver)
                .calls([] { return rested(bv_libraries_init()); })
                .returns({BV_OK, BV_ERR_MEMORY}) // the sum: without a database the rest works
                .then_returns({BV_OK})
                .keeps_descriptors(2) // the sockets of channel and notifier
                .has_threads()
                .cleaned_by([] {})
                .works_when(
                    [] { return notifier_takes_events() && bv_debug_get_switch(0, 0) == 0; }),
        }});
}

std::vector<Case> core_cases()
{
    // User-mode emulation refuses netlink protocols: there the thread never starts.
    const bool emulated = getenv("BV_ROOT_USERLAND") != nullptr;
    const int64_t opened = emulated ? BV_ERR_FAILED : BV_OK;
    std::vector<Case> notifier = {
        Case("bv_notifier_init")
            .prepared_by(a_driver)
            .calls([] { return rested(bv_notifier_init()); })
            .works_when(notifier_takes_events),
        CALL(bv_notifier_reg, 2, count_event).prepared_by(a_notifier).works_when([] {
            return bv_notifier_send(2, "x", 1) == BV_OK && delivered();
        }),
        // A refused post keeps the event: the next one that gets through brings it along.
        CALL(bv_notifier_send, 1, "x", 1)
            .prepared_by(a_notifier)
            .or_fails_with({-1})
            .works_when(delivered),
        Case("bv_notifier_kernel")
            .prepared_by(a_notifier)
            .calls([] {
                char data[] = "x";
                bv_notifier_kernel(2, data, 1);
                bv_notifier_kernel(99, data, 1); // unknown: printed
                return 0;
            })
            .works_when(delivered),
        // The second call finds the port of the first one taken, when that one went through.
        Case("bv_netlink_init")
            .prepared_by(a_driver)
            .calls([] { return rested(bv_netlink_init()); })
            .returns({opened})
            .or_fails_with({BV_ERR_FAILED, BV_ERR_CHANNEL})
            .then_returns({opened, BV_ERR_CHANNEL}),
    };
    for (Case &c : notifier)
        c.keeps_descriptors(1).has_threads();
    const std::vector<Case> tables = {
        Case("bv_hash_init")
            .calls([] {
                g_table = bv_hash_init(16, 4, 4);
                return g_table == nullptr ? -1 : 0;
            })
            .or_fails_with({-1})
            .cleaned_by(drop_table),
        CALL(bv_hash_insert, g_table, kKey, &kRecord)
            .is_honest()
            .prepared_by(a_table)
            .or_fails_with({BV_ERR_MEMORY})
            .cleaned_by(drop_table)
            .works_when([] {
                const void *found = bv_hash_find(g_table, kKey);
                return found != nullptr && memcmp(found, &kRecord, sizeof kRecord) == 0 &&
                       g_table->currnum == 1;
            }),
        RUN(bv_hash_dump, g_table).prepared_by(a_table_with_entry).cleaned_by(drop_table),
        CALL(bv_queue_init, &g_queue, 4).or_fails_with({BV_ERR_MEMORY}).cleaned_by(drop_queue),
        CALL(bv_queue_send, g_queue, &kRecord, sizeof kRecord)
            .is_honest()
            .prepared_by(a_queue)
            .or_fails_with({BV_ERR_MEMORY})
            .cleaned_by(drop_queue)
            .works_when([] { return g_queue->count == 1; }),
        RUN(bv_timer_set, 1),
    };
    return usually({}, nullptr, {tables, notifier});
}

} // namespace sweep
