/* SPDX-License-Identifier: ISC */
/*
 * An owner without the kit: one family, read and changed by two functions on the bus, all by hand.
 *
 *   bv-call -T /etc/template/wan.json wan_get
 *   bv-call -T /etc/template/wan.json wan_set protocol=static mtu=1492
 *
 * It shows what every service does that is built on bv/bv.h alone: start the library, register,
 * load, compare the template, serve. bv_db_private() writes the whole file, so the private file is
 * this service's alone; the services of the kit that run beside it use the user file.
 */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <bv/bv.h>

#include "families.h"

static volatile sig_atomic_t stop;

static void on_signal(int number)
{
    (void)number;
    stop = 1;
}

/* Ends the loop soon after a signal. A timer does it, not the signal handler: a signal between
 * the loop's test and its wait would be noticed only with the next request. */
static void check_stop(struct uloop_timeout *timer)
{
    if (stop)
        uloop_end();
    else
        bv_uloop_timeout_set(timer, 100);
}

static struct uloop_timeout stop_timer; /* armed once the loop is there */

/* Answers with the settings: instance 1, or the template's defaults. */
static uint32_t wan_get(void *data, uint32_t length)
{
    if (length != sizeof(struct wan)) /* a shorter buffer would get zeros, and status 0 */
        return BV_ERR_INVALID;
    return (uint32_t)bv_db_read(WAN_FAMILY, data, length, 1);
}

/* Takes new settings and saves them. They come from another process. */
static uint32_t wan_set(void *data, uint32_t length)
{
    struct wan wan;
    int32_t status;

    if (length != sizeof(wan) || bv_os_memcpy(&wan, sizeof(wan), data, length) != 0)
        return BV_ERR_INVALID;
    wan.protocol[sizeof(wan.protocol) - 1] = '\0';
    if (strpbrk(wan.protocol, "\"\\") != NULL) /* would spoil the data file */
        return BV_ERR_INVALID;
    status = bv_db_write(WAN_FAMILY, &wan, sizeof(wan), 1);
    if (status == BV_ERR_NO_INSTANCE) /* the first change of all */
        status = bv_db_inst_add(WAN_FAMILY, &wan, sizeof(wan), 1);
    return (uint32_t)(status == BV_OK ? bv_db_private() : status);
}

static int register_functions(void)
{
    bv_ubus_server_reg("wan_get", wan_get);
    bv_ubus_server_reg("wan_set", wan_set);
    stop_timer.cb = check_stop;
    bv_uloop_timeout_set(&stop_timer, 100);
    return 0;
}

/* Connecting to the bus takes over SIGTERM and SIGINT where they are at their defaults, so a
 * service that wants to end by them in its own way says so first. */
static void take_signals(void)
{
    struct sigaction action;

    memset(&action, 0, sizeof(action));
    action.sa_handler = on_signal;
    bv_os_sigaction(SIGTERM, &action, NULL);
    bv_os_sigaction(SIGINT, &action, NULL);
}

int main(void)
{
    take_signals();
    if (bv_libraries_init() != BV_OK) {
        fputs("bare_owner: the library did not start\n", stderr);
        return 1;
    }
    bv_db_reg_private(WAN_FAMILY);
    bv_db_start();
    /* A template that was changed after this program was built has images of another size: calls
     * with the structure would read and write zeros, and return success. */
    if (!wan_matches()) {
        fputs("bare_owner: the template " WAN_FAMILY
              " is missing, or not the one it was built with\n",
              stderr);
        return 1;
    }
    bv_db_ready(); /* from now on commits write */

    /* The call returns when the loop ends: after a signal, or when the bus is lost, which a
     * service survives by connecting again. */
    while (!stop) {
        int32_t status = bv_ubus_server_init(NULL, register_functions);

        if (!stop) {
            fprintf(stderr, "bare_owner: not serving: %s, trying again\n", bv_status_text(status));
            bv_timer_set(500);
        }
    }
    return 0;
}
