/* SPDX-License-Identifier: ISC */
/*
 * The owner: the service "network". It keeps three families of parameters and offers a function.
 *
 *   owner [COLLECTOR]   COLLECTOR: IPv4 address that debug messages go to (default 127.0.0.1)
 *
 * The kit does the rest: it loads templates and data files, serves other programs and bv-ctl, and
 * saves. On SIGTERM or SIGINT it ends with status 0; for the others see bv/service.h.
 */
#include <string.h>

#include <bv/bv.h>
#include <bv/service.h>

#include "families.h"

#define MODULE_LAN 4
#define LEVEL_CHANGE 6

static const char *collector = "127.0.0.1";

/* Asked before a change. IPv4 works with no smaller MTU. */
static uint32_t lan_check(const void *was, const void *is, uint32_t instance)
{
    const struct lan *lan = (const struct lan *)is;

    (void)was;
    (void)instance;
    return lan != NULL && lan->mtu < 576 ? BV_ERR_INVALID : BV_OK;
}

/* Told of a change. A real service would set up the interface here. */
static void lan_changed(const void *was, const void *is, uint32_t instance)
{
    const struct lan *lan = (const struct lan *)is;

    (void)was;
    if (lan != NULL)
        bv_debug_remote(1, 0, MODULE_LAN, LEVEL_CHANGE, "lan %u has MTU %u now", instance,
                        lan->mtu);
}

/* A function for other services: the reserved address of a MAC address. Request and answer are a
 * struct dhcp_host, in place. */
static uint32_t find_host(void *data, uint32_t length)
{
    struct dhcp_host *wanted = (struct dhcp_host *)data;
    struct dhcp_host host;
    uint32_t number;
    int32_t status;

    if (length != sizeof(host)) /* it came from another process */
        return BV_ERR_INVALID;
    status = bv_db_read_first(DHCP_HOST_FAMILY, &host, sizeof(host), &number);
    while (status == BV_OK && memcmp(host.mac, wanted->mac, sizeof(host.mac)) != 0)
        status = bv_db_read_next(DHCP_HOST_FAMILY, &host, sizeof(host), number, &number);
    if (status == BV_OK)
        *wanted = host;
    return (uint32_t)status;
}

/* The families are loaded; nothing is served yet. */
static int start(void)
{
    bv_debug_cfg channel;

    bv_debug_get_cfg(&channel, sizeof(channel)); /* the usual ports */
    channel.address = bv_os_inet_addr(collector);
    bv_debug_set_cfg(&channel);
    return 0;
}

static const struct bv_service_family families[] = {
    {.name = LAN_FAMILY, .size = LAN_SIZE, .check = lan_check, .changed = lan_changed},
    {.name = DHCP_HOST_FAMILY, .size = DHCP_HOST_SIZE},
    {.name = BOARD_FAMILY, .size = BOARD_SIZE, .store = BV_SERVICE_FACTORY},
};
static const struct bv_service_function functions[] = {{"find_host", find_host}};
static const struct bv_service_name modules[] = {{"lan", MODULE_LAN}};
static const struct bv_service_name levels[] = {{"change", LEVEL_CHANGE}};

static const struct bv_service network = {
    .size = sizeof(struct bv_service),
    .name = "network",
    .families = families,
    .n_families = 3,
    .n_functions = 1,
    .functions = functions,
    .modules = modules,
    .levels = levels,
    .n_modules = 1,
    .n_levels = 1,
    .start = start,
};

int main(int argc, char **argv)
{
    if (argc > 1)
        collector = argv[1];
    return bv_service_run(&network);
}
