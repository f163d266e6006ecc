/* SPDX-License-Identifier: ISC */
/*
 * The messages between the example owner and its callers.
 *
 * Both include this header; that is the whole agreement between them. The structures of the families
 * are in families.h, which the build makes of template/ with `bv-template header`.
 */
#ifndef EXAMPLE_MESSAGES_H
#define EXAMPLE_MESSAGES_H

#include "families.h"

/* The largest image that a message carries. */
#define IMAGE_MAX 256

/* Request and reply of the functions below, in place: the handler fills in the status and what it was
 * asked for. */
struct config_message {
    int32_t status;    /* out: a status code of the database */
    uint32_t instance; /* in: which instance; walk and add say which one it is */
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
