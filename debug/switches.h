// SPDX-License-Identifier: ISC
// The switch table, which the channel reads for every message.
#ifndef BV_DEBUG_SWITCHES_H
#define BV_DEBUG_SWITCHES_H

#include "os/atomic.h"

#include <cstdint>

namespace bv {

constexpr uint32_t kDebugModules = 10;
constexpr uint32_t kDebugLevels = 8;
constexpr uint32_t kDebugSwitches = kDebugModules * kDebugLevels;

// Null until bv_debug_init() has made it. A second bv_debug_init() leaks the old table.
//
// The pointer is read and written relaxed. bv_debug_init() has the channel to itself, and whatever
// starts or wakes the other threads afterwards orders the table's zeros before their reads. An
// acquire would cost every message that is off a memory barrier.
extern uint8_t *g_debug_switches __attribute__((visibility("hidden")));

// Makes a new table with all switches off. If memory is short, the table becomes null.
void debug_switches_init();

// 64 bits: the product does not wrap, whatever numbers a caller passes.
inline uint64_t debug_switch_index(uint32_t module, uint32_t level)
{
    return uint64_t{module} * kDebugLevels + level;
}

// Switches change while other threads send, without a lock: one message more or less does not
// matter. Always inline: nearly all messages are off, and such a message is little more than two of
// these calls.
__attribute__((always_inline)) inline uint8_t debug_switch(uint32_t module, uint32_t level)
{
    const uint8_t *table = load_relaxed(g_debug_switches);
    if (table == nullptr)
        return 1;
    const uint64_t index = debug_switch_index(module, level);
    return index < kDebugSwitches ? load_relaxed(table[index]) : uint8_t{0};
}

} // namespace bv

#endif
