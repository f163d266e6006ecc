// SPDX-License-Identifier: ISC
// The start of a service: brings up every facility that needs it.

#include <bv/debug.h>

#include "os/checked.h"

#include <bv/db.h>
#include <bv/notifier.h>

// A failure does not stop the rest: a service without its database can still report that over the
// debug channel.
int32_t bv_libraries_init(void)
{
    int32_t sum = bv_debug_init();
    sum = bv::checked_add(sum, bv_db_init());
    sum = bv::checked_add(sum, bv_notifier_init());
    sum = bv::checked_add(sum, bv_time_tick_init());
    return sum;
}
