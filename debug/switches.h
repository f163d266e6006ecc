// The switch table, as the channel reads it on every message.
#ifndef BV_DEBUG_SWITCHES_H
#define BV_DEBUG_SWITCHES_H

#include "os/atomic.h"

#include <cstdint>

namespace bv {

constexpr uint32_t kDebugModules = 10;
constexpr uint32_t kDebugLevels = 8;
constexpr uint32_t kDebugSwitches = kDebugModules * kDebugLevels;

// Null until bv_debug_init() has made it; what a second bv_debug_init() replaces is leaked, since
// another thread may still be reading it.
extern uint8_t *g_debug_switches __attribute__((visibility("hidden")));

// Makes a new table with all switches off. Without memory for it there is none afterwards.
void debug_switches_init();

// Switches are flipped while other threads send, without a lock: a message more or less does not
// matter, only that the accesses are whole. Always inlined: a message that is off, as nearly all
// are, is little else than two of these.
__attribute__((always_inline)) inline uint8_t debug_switch(uint32_t module, uint32_t level)
{
    const uint8_t *table = load_relaxed(g_debug_switches);
    if (table == nullptr)
        return 1;
    uint64_t index = uint64_t{module} * kDebugLevels + level;
    return index < kDebugSwitches ? load_relaxed(table[index]) : uint8_t{0};
}

} // namespace bv

#endif
