/* SPDX-License-Identifier: ISC */
/*
 * Debug messages: a small service that watches a temperature and reports over the debug channel.
 *
 *   debug [COLLECTOR [LEVEL]]    COLLECTOR: IPv4 address that messages go to (default 127.0.0.1)
 *                                LEVEL: the levels up to this one are on (default 6)
 *
 * Run `bv-collect` first to see the messages; the script `debug-session` does both. This program
 * prints only what it switches on.
 */
#include <stdio.h>

#include <bv/bv.h>

/* Modules and levels are the service's own numbers: 0 to 9 and 0 to 7. Module 0 is special: its
 * switches turn a level on for all modules. */
#define MODULE_SENSOR 4
#define MODULE_REPORT 5

#define LEVEL_WARNING 3
#define LEVEL_INFO 5
#define LEVEL_DETAIL 6
#define LEVEL_TRACE 7

#define CATEGORY 1
#define TOO_HOT 70

static const int degrees[] = {48, 67, 71, 74, 69};
static const unsigned rounds = sizeof(degrees) / sizeof(degrees[0]);

static void switch_on(uint32_t module, uint32_t highest)
{
    uint32_t level;

    for (level = 0; level <= highest && level <= LEVEL_TRACE; level++)
        bv_debug_set_switch(module, level, 1);
}

/* Messages that are off cost two reads, so they may stay where they are. The tag is whatever helps
 * to tell messages apart: here the round. */
static unsigned watch(void)
{
    unsigned warnings = 0;
    unsigned i;

    for (i = 0; i < rounds; i++) {
        bv_debug_remote(CATEGORY, i, MODULE_SENSOR, LEVEL_TRACE, "reading the sensor");
        bv_debug_remote(CATEGORY, i, MODULE_SENSOR, LEVEL_DETAIL, "%d degrees", degrees[i]);
        if (degrees[i] > TOO_HOT) {
            bv_debug_remote(CATEGORY, i, MODULE_SENSOR, LEVEL_WARNING, "%d degrees is too hot",
                            degrees[i]);
            warnings++;
        }
    }
    return warnings;
}

int main(int argc, char **argv)
{
    bv_debug_cfg collector;
    unsigned warnings;

    if (bv_libraries_init() != BV_OK) {
        fputs("debug: the library did not start\n", stderr);
        return 1;
    }
    bv_debug_get_cfg(&collector, sizeof(collector)); /* the usual ports */
    collector.address = bv_os_inet_addr(argc > 1 ? argv[1] : "127.0.0.1");
    bv_debug_set_cfg(&collector);
    switch_on(MODULE_SENSOR, argc > 2 ? (uint32_t)bv_os_atoi(argv[2]) : LEVEL_DETAIL);
    switch_on(MODULE_REPORT, argc > 2 ? (uint32_t)bv_os_atoi(argv[2]) : LEVEL_DETAIL);
    bv_debug_dump_cfg_switch();

    warnings = watch();
    bv_debug_remote(CATEGORY, rounds, MODULE_REPORT, LEVEL_INFO, "%u rounds, %u warnings", rounds,
                    warnings);
    return 0;
}
