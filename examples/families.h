/*
 * The parameter families of the example services and the messages in which they travel.
 *
 * An image is packed: the parameters stand back to back in the order of the template, so each
 * structure here is packed and lists exactly the template's parameters. Owner and caller include
 * the same header; that is the whole agreement between them.
 */
#ifndef EXAMPLE_FAMILIES_H
#define EXAMPLE_FAMILIES_H

#include <stdint.h>

#define PACKED __attribute__((packed))

struct lan { /* lan.json */
    uint8_t ipaddr[4];
    uint8_t netmask[4];
    uint16_t mtu;
    char hostname[32];
    uint8_t dhcp;
} PACKED;

struct wan { /* wan.json */
    char protocol[16];
    uint8_t macaddr[6];
    uint8_t gateway[4];
    uint16_t mtu;
    int32_t metric;
    uint32_t byte_limit;
} PACKED;

struct wireless { /* wireless.json, one instance per radio */
    char ssid[33];
    uint8_t bssid[6];
    uint8_t channel;
    int8_t txpower;
    int16_t noise;
} PACKED;

struct dhcp_host { /* dhcp-host.json, one instance per reserved address */
    char name[32];
    uint8_t mac[6];
    uint8_t ip[4];
    uint32_t lease;
} PACKED;

struct board { /* board.json, written once in the factory */
    char serial[24];
    uint8_t base_mac[6];
    uint32_t revision;
} PACKED;

/* The largest image that a message carries. */
#define IMAGE_MAX 256

/* The request and the reply of every function below, in place: the handler fills in status and
 * what it was asked for. */
struct config_message {
    int32_t status;    /* out: a status code of the database */
    uint32_t instance; /* in: which instance; out of walk and add: the one it is about */
    char family[64];   /* in: the template's file name */
    uint8_t image[IMAGE_MAX];
};

/* The functions that the owner offers on the bus. */
#define FUNC_READ "config_read"       /* struct config_message: image of one instance */
#define FUNC_WRITE "config_write"     /* struct config_message: replaces one instance */
#define FUNC_ADD "config_add"         /* struct config_message: adds an instance, any free number */
#define FUNC_WALK "config_walk"       /* struct config_message: instance 0 first, else the next */
#define FUNC_TRIGGER "config_trigger" /* uint32_t: a command of bv_db_trigger() */
#define FUNC_SWITCH "debug_switch"    /* struct bv_debug_switch */
#define FUNC_EVENT "last_event"       /* char[64]: text of the last kernel event */

/* The example owner's module among the ten of the debug channel, and the level it reports at. */
#define OWNER_MODULE 4
#define LEVEL_CHANGE 6

#endif
