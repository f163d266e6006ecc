/*
 * The caller: reads and changes parameters that another service owns, over the bus.
 *
 *   caller show FAMILY [INSTANCE]              prints the parameters of one instance (default 1)
 *   caller list FAMILY                         walks all instances, one line each
 *   caller set FAMILY INSTANCE NAME=VALUE ...  changes parameters of one instance
 *   caller add FAMILY NAME=VALUE ...           adds an instance, prints its number
 *   caller trigger COMMAND                     sends a database command (1 commit, 5 restore ...)
 *   caller switch MODULE LEVEL on|off          sets a debug switch of the owner
 *   caller event                               prints the last kernel event that the owner saw
 *
 * Exit status: 0 done, 1 refused (the code is printed), 2 wrong usage.
 */
#include <inttypes.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <bv/bv.h>

#include "messages.h"

/* ---- the parameters of each family, as places in its packed image ---- */

enum kind { TEXT, I8, U8, I16, U16, I32, U32, MAC, IP };

struct field {
    const char *name;
    enum kind kind;
    size_t offset;
    size_t size;
};

#define FIELD(family, member, kind)                                                                \
    {                                                                                              \
#member, kind, offsetof(struct family, member), sizeof(((struct family *)0)->member)       \
    }

static const struct field lan_fields[] = {FIELD(lan, ipaddr, IP), FIELD(lan, netmask, IP),
                                          FIELD(lan, mtu, U16),   FIELD(lan, hostname, TEXT),
                                          FIELD(lan, dhcp, U8),   {NULL, TEXT, 0, 0}};
static const struct field wan_fields[] = {FIELD(wan, protocol, TEXT), FIELD(wan, macaddr, MAC),
                                          FIELD(wan, gateway, IP),    FIELD(wan, mtu, U16),
                                          FIELD(wan, metric, I32),    FIELD(wan, byte_limit, U32),
                                          {NULL, TEXT, 0, 0}};
static const struct field wireless_fields[] = {
    FIELD(wireless, ssid, TEXT),  FIELD(wireless, bssid, MAC), FIELD(wireless, channel, U8),
    FIELD(wireless, txpower, I8), FIELD(wireless, noise, I16), {NULL, TEXT, 0, 0}};
static const struct field dhcp_host_fields[] = {FIELD(dhcp_host, name, TEXT),
                                                FIELD(dhcp_host, mac, MAC),
                                                FIELD(dhcp_host, ip, IP),
                                                FIELD(dhcp_host, lease, U32),
                                                {NULL, TEXT, 0, 0}};
static const struct field board_fields[] = {FIELD(board, serial, TEXT),
                                            FIELD(board, base_mac, MAC),
                                            FIELD(board, revision, U32),
                                            {NULL, TEXT, 0, 0}};

static const struct {
    const char *name;
    const struct field *fields;
} families[] = {{"lan.json", lan_fields},
                {"wan.json", wan_fields},
                {"wireless.json", wireless_fields},
                {"dhcp-host.json", dhcp_host_fields},
                {"board.json", board_fields}};

static const struct field *fields_of(const char *family)
{
    size_t i;

    for (i = 0; i < sizeof(families) / sizeof(families[0]); i++)
        if (strcmp(families[i].name, family) == 0)
            return families[i].fields;
    fprintf(stderr, "caller: no family %s here\n", family);
    exit(2);
}

/* ---- one parameter between its text and its place in the image ---- */

/* Reads an integer of the machine's byte order; `size` is 1, 2 or 4. */
static uint32_t get_number(const uint8_t *at, size_t size)
{
    uint8_t narrow;
    uint16_t half;
    uint32_t word;

    if (size == 1)
        return bv_os_memcpy(&narrow, 1, at, 1), narrow;
    if (size == 2)
        return bv_os_memcpy(&half, 2, at, 2), half;
    return bv_os_memcpy(&word, 4, at, 4), word;
}

static void put_number(uint8_t *at, size_t size, uint32_t value)
{
    uint8_t narrow = (uint8_t)value;
    uint16_t half = (uint16_t)value;

    bv_os_memcpy(at, (uint32_t)size,
                 size == 1   ? (const void *)&narrow
                 : size == 2 ? (const void *)&half
                             : (const void *)&value,
                 (uint32_t)size);
}

static void print_value(const struct field *field, const uint8_t *image)
{
    const uint8_t *at = image + field->offset;
    char text[32] = "";

    switch (field->kind) {
    case TEXT:
        printf("%.*s", (int)field->size, (const char *)at);
        break;
    case I8:
        printf("%d", (int8_t)get_number(at, 1));
        break;
    case I16:
        printf("%d", (int16_t)get_number(at, 2));
        break;
    case I32:
        printf("%" PRId32, (int32_t)get_number(at, 4));
        break;
    case U8:
    case U16:
    case U32:
        printf("%" PRIu32, get_number(at, field->size));
        break;
    case MAC:
        bv_os_mac_ntop(at, text, sizeof(text));
        fputs(text, stdout);
        break;
    case IP:
        bv_os_inet_ntop(at, text, sizeof(text));
        fputs(text, stdout);
        break;
    }
}

static void set_value(const struct field *field, uint8_t *image, const char *text)
{
    uint8_t *at = image + field->offset;

    switch (field->kind) {
    case TEXT:
        bv_os_memset(at, (uint32_t)field->size, 0, (uint32_t)field->size);
        bv_os_snprintf((char *)at, (uint32_t)field->size, "%s", text);
        break;
    case MAC:
        bv_os_mac_pton(text, at);
        break;
    case IP:
        bv_os_inet_pton(text, at);
        break;
    default:
        put_number(at, field->size, (uint32_t)strtoll(text, NULL, 10));
        break;
    }
}

/* Applies arguments of the form NAME=VALUE. */
static void apply(const char *family, uint8_t *image, char **assignments)
{
    for (; *assignments != NULL; assignments++) {
        const struct field *field = fields_of(family);
        const char *equals = strchr(*assignments, '=');
        size_t length = equals == NULL ? 0 : (size_t)(equals - *assignments);

        while (field->name != NULL &&
               (strncmp(field->name, *assignments, length) != 0 || field->name[length] != '\0'))
            field++;
        if (equals == NULL || field->name == NULL) {
            fprintf(stderr, "caller: %s: no such parameter in %s\n", *assignments, family);
            exit(2);
        }
        set_value(field, image, equals + 1);
    }
}

/* ---- calls ---- */

/* Ends the program when a call fails, on the bus or in the owner's database. */
static void must(const char *what, uint32_t result, int32_t status)
{
    uint32_t code = result != BV_OK ? result : (uint32_t)status;

    if (code == BV_OK)
        return;
    /* The owner's functions return codes of the library, so a low number is the bus's. */
    printf("refused: %s: %s (0x%08" PRIx32 ")\n", what,
           code < 0x100 ? bv_bus_status_text(code) : bv_status_text(code), code);
    bv_ubus_client_exit();
    exit(1);
}

/* Calls a function in place. The answer is as long as the owner makes it, whatever was sent, so it
 * goes into a buffer that holds the longest answer the bus carries. */
static uint32_t call(const char *function, void *data, uint32_t len)
{
    static uint8_t bytes[1024 * 1024];
    uint32_t result;

    memcpy(bytes, data, len);
    result = bv_ubus_client_call(function, bytes, len);
    memcpy(data, bytes, len);
    return result;
}

/* Calls a configuration function in place and returns the database's status. */
static int32_t config_call(const char *function, struct config_message *message)
{
    must(function, call(function, message, sizeof(*message)), BV_OK);
    return message->status;
}

static void prepare(struct config_message *message, const char *family, uint32_t instance)
{
    memset(message, 0, sizeof(*message));
    bv_os_strcpy(message->family, sizeof(message->family), family);
    message->instance = instance;
}

static void show(const char *family, uint32_t instance)
{
    struct config_message message;
    const struct field *field;

    prepare(&message, family, instance);
    must(family, BV_OK, config_call(FUNC_READ, &message));
    for (field = fields_of(family); field->name != NULL; field++) {
        printf("  %-12s ", field->name);
        print_value(field, message.image);
        putchar('\n');
    }
}

static void list(const char *family)
{
    struct config_message message;
    const struct field *field;

    prepare(&message, family, 0);
    while (config_call(FUNC_WALK, &message) == BV_OK) {
        printf("  instance %" PRIu32 ":", message.instance);
        for (field = fields_of(family); field->name != NULL; field++) {
            printf(" %s=", field->name);
            print_value(field, message.image);
        }
        putchar('\n');
    }
}

static void set(const char *family, uint32_t instance, char **assignments)
{
    struct config_message message;

    prepare(&message, family, instance);
    must(family, BV_OK, config_call(FUNC_READ, &message));
    apply(family, message.image, assignments);
    must(family, BV_OK, config_call(FUNC_WRITE, &message));
}

static void add(const char *family, char **assignments)
{
    struct config_message message;

    prepare(&message, family, 0);
    apply(family, message.image, assignments);
    must(family, BV_OK, config_call(FUNC_ADD, &message));
    printf("  added instance %" PRIu32 "\n", message.instance);
}

static void trigger(uint32_t command)
{
    must("trigger", call(FUNC_TRIGGER, &command, sizeof(command)), BV_OK);
}

static void set_switch(const char *module, const char *level, const char *value)
{
    bv_debug_switch record = {(uint8_t)(strcmp(value, "on") == 0), (uint8_t)bv_os_atoi(level),
                              (uint16_t)bv_os_atoi(module)};

    must("switch", call(FUNC_SWITCH, &record, sizeof(record)), BV_OK);
}

static void event(void)
{
    char text[64] = "";

    must("event", call(FUNC_EVENT, text, sizeof(text)), BV_OK);
    printf("  %.*s\n", (int)sizeof(text), text);
}

static int usage(void)
{
    fputs(
        "usage: caller show FAMILY [INSTANCE] | list FAMILY | set FAMILY INSTANCE NAME=VALUE ... "
        "|\n"
        "       add FAMILY NAME=VALUE ... | trigger COMMAND | switch MODULE LEVEL on|off | event\n",
        stderr);
    return 2;
}

/* Whether there is such a command, and it has the arguments that it needs. */
static int understood(int argc, char **argv)
{
    static const struct {
        const char *verb;
        int least; /* of argc */
    } commands[] = {{"show", 3},    {"list", 3},   {"set", 5},  {"add", 4},
                    {"trigger", 3}, {"switch", 5}, {"event", 2}};
    size_t i;

    for (i = 0; i < sizeof(commands) / sizeof(commands[0]); i++)
        if (argc >= commands[i].least && strcmp(commands[i].verb, argv[1]) == 0)
            return 1;
    return 0;
}

int main(int argc, char **argv)
{
    const char *verb = argc > 1 ? argv[1] : "";

    if (!understood(argc, argv))
        return usage();
    if (bv_ubus_client_init(NULL) != 0) {
        puts("refused: no bus");
        return 1;
    }
    if (strcmp(verb, "show") == 0)
        show(argv[2], argc > 3 ? (uint32_t)bv_os_atoi(argv[3]) : 1);
    else if (strcmp(verb, "list") == 0)
        list(argv[2]);
    else if (strcmp(verb, "set") == 0)
        set(argv[2], (uint32_t)bv_os_atoi(argv[3]), argv + 4);
    else if (strcmp(verb, "add") == 0)
        add(argv[2], argv + 3);
    else if (strcmp(verb, "trigger") == 0)
        trigger((uint32_t)bv_os_atoi(argv[2]));
    else if (strcmp(verb, "switch") == 0)
        set_switch(argv[2], argv[3], argv[4]);
    else
        event();
    bv_ubus_client_exit();
    return 0;
}
