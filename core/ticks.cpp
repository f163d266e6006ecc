// SPDX-License-Identifier: ISC
// Time ticks, which do nothing yet, and the millisecond delay. Services and the start-up call the
// tick functions, so they stay.

#include <bv/notifier.h>

#include <bv/os.h>
#include <bv/status.h>

int32_t bv_time_tick_init(void)
{
    return BV_OK;
}

void bv_time_tick_reg(bv_time_tick_cb, uint32_t) {}

void bv_time_tick_set(bv_time_tick_cb, uint32_t) {}

void bv_timer_set(uint32_t ms)
{
    // The product wraps above 4294967 ms, which changes the part below one second. Services rely on
    // the delays that they have always had.
    timeval interval = {};
    interval.tv_sec = static_cast<time_t>(ms / 1000);
    interval.tv_usec = static_cast<suseconds_t>(ms * 1000 % 1000000);
    bv_os_select(0, nullptr, nullptr, nullptr, &interval);
}
