/*
 * The owner: a service that keeps parameter families, persists them and offers them on the bus.
 *
 *   owner [COLLECTOR]   COLLECTOR: IPv4 address that debug messages go to (default 127.0.0.1)
 *
 * It shows the order in which every service starts: bv_libraries_init(), the registrations,
 * bv_db_start(), bv_db_ready(), and then bv_ubus_server_init(), which serves in this thread.
 */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <bv/bv.h>

#include "messages.h"

static volatile sig_atomic_t stop;

/* Kernel events arrive on the library's dispatch thread, requests on this program's main thread. */
static pthread_mutex_t event_lock = PTHREAD_MUTEX_INITIALIZER;
static char event_text[64] = "none yet";

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

static void on_link_event(void *data, uint32_t length)
{
    (void)length; /* a zero byte follows the payload */
    bv_os_pthread_mutex_lock(&event_lock);
    bv_os_snprintf(event_text, sizeof(event_text), "%s", (const char *)data);
    bv_os_pthread_mutex_unlock(&event_lock);
    printf("owner: kernel event: %s\n", (const char *)data);
    fflush(stdout);
}

/* ---- the functions offered on the bus: each changes the message in place ---- */

static struct config_message *as_message(void *data, uint32_t length)
{
    struct config_message *message = (struct config_message *)data;

    if (length < sizeof(*message))
        return NULL;
    message->family[sizeof(message->family) - 1] = '\0'; /* it came from another process */
    return message;
}

static uint32_t config_read(void *data, uint32_t length)
{
    struct config_message *message = as_message(data, length);

    if (message == NULL)
        return BV_ERR_INVALID;
    message->status =
        bv_db_read(message->family, message->image, sizeof(message->image), message->instance);
    return BV_OK;
}

/* Both sides know the image's size from the family. Given more bytes, the database would take none
 * and leave an image of zeros. */
static uint32_t image_size(const char *family)
{
    const bv_db_family *record = bv_db_hash_find(family);

    return record == NULL || record->image_size < 0 || record->image_size > IMAGE_MAX
               ? 0
               : (uint32_t)record->image_size;
}

static uint32_t config_write(void *data, uint32_t length)
{
    struct config_message *message = as_message(data, length);

    if (message == NULL)
        return BV_ERR_INVALID;
    message->status = bv_db_write(message->family, message->image, image_size(message->family),
                                  message->instance);
    bv_debug_remote(1, 0x4257, OWNER_MODULE, LEVEL_CHANGE, "%s instance %u written: %s",
                    message->family, message->instance, bv_status_text(message->status));
    return BV_OK;
}

static uint32_t config_add(void *data, uint32_t length)
{
    struct config_message *message = as_message(data, length);

    if (message == NULL)
        return BV_ERR_INVALID;
    message->status = bv_db_inst_getnew(message->family, &message->instance);
    if (message->status == BV_OK)
        message->status = bv_db_inst_add(message->family, message->image,
                                         image_size(message->family), message->instance);
    return BV_OK;
}

static uint32_t config_walk(void *data, uint32_t length)
{
    struct config_message *message = as_message(data, length);

    if (message == NULL)
        return BV_ERR_INVALID;
    message->status = message->instance == 0
                          ? bv_db_read_first(message->family, message->image,
                                             sizeof(message->image), &message->instance)
                          : bv_db_read_next(message->family, message->image, sizeof(message->image),
                                            message->instance, &message->instance);
    return BV_OK;
}

static uint32_t config_trigger(void *data, uint32_t length)
{
    return length < sizeof(uint32_t) ? BV_ERR_INVALID
                                     : (uint32_t)bv_db_trigger((const uint32_t *)data);
}

static uint32_t debug_switch(void *data, uint32_t length)
{
    bv_debug_switch record;

    if (length != sizeof(record) || bv_os_memcpy(&record, sizeof(record), data, length) != 0)
        return BV_ERR_INVALID;
    return (uint32_t)bv_debug_set_cfg_switch(&record);
}

static uint32_t last_event(void *data, uint32_t length)
{
    bv_os_pthread_mutex_lock(&event_lock);
    bv_os_strcpy((char *)data, length, event_text);
    bv_os_pthread_mutex_unlock(&event_lock);
    return BV_OK;
}

static int register_functions(void)
{
    bv_ubus_server_reg(FUNC_READ, config_read);
    bv_ubus_server_reg(FUNC_WRITE, config_write);
    bv_ubus_server_reg(FUNC_ADD, config_add);
    bv_ubus_server_reg(FUNC_WALK, config_walk);
    bv_ubus_server_reg(FUNC_TRIGGER, config_trigger);
    bv_ubus_server_reg(FUNC_SWITCH, debug_switch);
    bv_ubus_server_reg(FUNC_EVENT, last_event);
    stop_timer.cb = check_stop;
    bv_uloop_timeout_set(&stop_timer, 100);
    puts("owner: serving");
    fflush(stdout);
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

/* A template that was changed after this program was built has images of another size: calls with
 * the structures would read and write zeros, and return success. */
static int templates_match(void)
{
    static const struct {
        const char *family;
        int (*matches)(void);
    } checks[] = {{BOARD_FAMILY, board_matches},
                  {LAN_FAMILY, lan_matches},
                  {WIRELESS_FAMILY, wireless_matches},
                  {DHCP_HOST_FAMILY, dhcp_host_matches},
                  {WAN_FAMILY, wan_matches}};
    int result = 1;
    size_t i;

    for (i = 0; i < sizeof(checks) / sizeof(checks[0]); i++)
        if (!checks[i].matches()) {
            fprintf(stderr, "owner: the template %s is missing, or not the one it was built with\n",
                    checks[i].family);
            result = 0;
        }
    return result;
}

/* Returns whether the settings can be used. */
static int start_database(void)
{
    bv_db_reg_factory(BOARD_FAMILY);
    bv_db_reg_user(LAN_FAMILY);
    bv_db_reg_user(WIRELESS_FAMILY);
    bv_db_reg_user(DHCP_HOST_FAMILY);
    bv_db_reg_private(WAN_FAMILY);
    bv_db_start();
    if (!templates_match())
        return 0;
    bv_db_ready();
    return 1;
}

int main(int argc, char **argv)
{
    bv_debug_cfg collector;

    take_signals();
    if (bv_libraries_init() != BV_OK) {
        fputs("owner: the library did not start\n", stderr);
        return 1;
    }
    bv_debug_get_cfg(&collector, sizeof(collector)); /* the usual ports */
    collector.address = bv_os_inet_addr(argc > 1 ? argv[1] : "127.0.0.1");
    bv_debug_set_cfg(&collector);
    bv_notifier_reg(8, on_link_event);
    if (!start_database())
        return 1;

    /* The call returns when the loop ends: after a signal, or when the bus is lost, which a
     * service survives by connecting again. */
    while (!stop) {
        int32_t status = bv_ubus_server_init(NULL, register_functions);

        if (!stop) {
            fprintf(stderr, "owner: not serving: %s, trying again\n", bv_status_text(status));
            bv_timer_set(500);
        }
    }
    puts("owner: ended");
    return 0;
}
