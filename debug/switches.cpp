// SPDX-License-Identifier: ISC
// Debug switches: one byte per module and level.

#include <bv/debug.h>

#include "debug/switches.h"
#include "os/alloc.h"

#include <bv/os.h>

uint8_t *bv::g_debug_switches = nullptr;

void bv::debug_switches_init()
{
    store_relaxed(g_debug_switches, allocate_zeroed<uint8_t>(kDebugSwitches));
}

uint8_t bv_debug_get_switch(uint32_t module, uint32_t level)
{
    return bv::debug_switch(module, level);
}

void bv_debug_set_switch(uint32_t module, uint32_t level, uint8_t value)
{
    uint8_t *table = bv::load_relaxed(bv::g_debug_switches);
    const uint64_t index = bv::debug_switch_index(module, level);
    if (table != nullptr && index < bv::kDebugSwitches)
        bv::store_relaxed(table[index], value);
}

int32_t bv_debug_set_cfg_switch(const bv_debug_switch *record)
{
    if (record != nullptr)
        bv_debug_set_switch(record->module, record->level, record->value);
    return BV_OK;
}

int32_t bv_debug_get_cfg_switch(bv_debug_switch *record)
{
    if (record != nullptr)
        record->value = bv_debug_get_switch(record->module, record->level);
    return BV_OK;
}

int32_t bv_debug_dump_cfg_switch(void)
{
    for (uint32_t module = 0; module < bv::kDebugModules; ++module)
        for (uint32_t level = 0; level < bv::kDebugLevels; ++level)
            if (bv_debug_get_switch(module, level) != 0)
                bv_os_printf("Module(0x%02x) Level(%u) Switch(ON)\n", module, level);
    return BV_OK;
}
