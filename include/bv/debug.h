/**
 * @file debug.h
 * Diagnostics and start-up: on/off switches for debug messages, one per module and level, and the
 * channel that sends the messages that are on to a collector, one UDP datagram each. Nothing is
 * written locally.
 *
 * Modules are 0 to 9, levels 0 to 7. Module 0 is the global one: a message of level L leaves the
 * process when the switch (0, L) or the switch (its module, L) is on. Until bv_debug_init() has
 * run there is no table and every switch reads as on.
 *
 * Numbers outside those ranges are not refused. A switch's place is module * 8 + level: while that
 * stays below 80 it is the place of some other switch; above, the switch reads as off and storing
 * it does nothing.
 *
 * Switches may be read and stored, and messages sent, from any threads at once. bv_debug_init()
 * and bv_debug_set_cfg() replace the socket and need the channel to themselves.
 */
#ifndef BV_DEBUG_H
#define BV_DEBUG_H

#include <bv/base.h>
#include <bv/status.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where messages go; 8 bytes, copied in and out whole. */
typedef struct bv_debug_cfg {
    uint32_t address;     /**< the collector's IPv4 address, in network order */
    uint16_t port;        /**< its UDP port, in the machine's order */
    uint16_t second_port; /**< carried along, not used by the library */
} bv_debug_cfg;

/** One switch, for configuration and bus handlers; 4 bytes. */
typedef struct bv_debug_switch {
    uint8_t value;   /**< 0 is off, anything else on */
    uint8_t level;   /**< 0 to 7 */
    uint16_t module; /**< 0 to 9, in the machine's order */
} bv_debug_switch;

/** What a message carries besides its text, for bv_debug_sendmsg(); 10 bytes. */
typedef struct bv_debug_header {
    uint8_t reserved0;  /**< 0 */
    uint8_t level;      /**< message level */
    uint16_t module;    /**< module number */
    uint8_t category;   /**< caller's code; only the low 5 bits are sent */
    uint8_t reserved1;  /**< 0 */
    uint16_t tag;       /**< caller's tag */
    uint16_t reserved2; /**< 0 */
} bv_debug_header;

/**
 * Starts the library's facilities: bv_debug_init(), bv_db_init(), bv_notifier_init() and
 * bv_time_tick_init(), in this order, each of them whatever the others report. Call it once, from
 * one thread, before anything else of the library is used from another.
 *
 * A second call starts debugging and the database afresh (all switches off, no families; what was
 * there is not given back) and leaves a running notifier as it is (see bv_notifier_init()). A forked
 * child calls it for itself.
 *
 * @return 0 when all of them started, otherwise the sum of their codes. Only the database can
 *         fail, so that is BV_ERR_MEMORY. Nothing is undone
 */
BV_API int32_t bv_libraries_init(void);

/**
 * Starts the debug channel: all switches off, the destination 10.10.168.192 port 5344 (on a
 * little-endian machine; the address is the machine's own word 0xC0A80A0A), the second port 7364,
 * and a socket, whose descriptor is above 2 and not passed on to programs that the service starts.
 * Without memory for the table (which the allocator reports on standard output) every switch stays
 * on; without a socket every send fails with -1. A second call starts afresh and gives back neither
 * the table nor the socket of the first.
 *
 * @return 0
 */
BV_API int32_t bv_debug_init(void);

/**
 * Reads a switch.
 *
 * @param module  0 to 9
 * @param level   0 to 7
 * @return the stored byte, 0 for off; 1 while there is no table
 */
BV_API uint8_t bv_debug_get_switch(uint32_t module, uint32_t level);

/**
 * Stores a switch. Before bv_debug_init() nothing is stored.
 *
 * @param module  0 to 9; 0 for all modules
 * @param level   0 to 7
 * @param value   0 for off, anything else for on
 */
BV_API void bv_debug_set_switch(uint32_t module, uint32_t level, uint8_t value);

/**
 * bv_debug_set_switch() with what a record holds.
 *
 * @param record  module, level and value; null does nothing
 * @return 0
 */
BV_API int32_t bv_debug_set_cfg_switch(const bv_debug_switch *record);

/**
 * bv_debug_get_switch() for the module and level of a record.
 *
 * @param record  module and level are read, value is written; null does nothing
 * @return 0
 */
BV_API int32_t bv_debug_get_cfg_switch(bv_debug_switch *record);

/**
 * Prints a line on standard output for every switch that is on, by module and level:
 * "Module(0x04) Level(2) Switch(ON)".
 *
 * @return 0
 */
BV_API int32_t bv_debug_dump_cfg_switch(void);

/**
 * Changes where messages go, closing the socket and opening a new one. Called before
 * bv_debug_init() it closes descriptor 0, the standard input, since that is what the descriptor
 * of the channel is until then.
 *
 * @param record  8 bytes, a bv_debug_cfg; null means all zero
 * @return 0
 */
BV_API int32_t bv_debug_set_cfg(const void *record);

/**
 * Tells where messages go.
 *
 * @param out      gets 8 bytes, a bv_debug_cfg; bytes behind them are left alone
 * @param outsize  capacity of out in bytes; below 8 that many bytes are cleared
 * @return 0, always
 */
BV_API int32_t bv_debug_get_cfg(void *out, uint32_t outsize);

/**
 * Sends a message when its switch, or the global one of its level, is on. A message that is off
 * costs two reads and is not formatted.
 *
 * @param category  caller's code; the low 5 bits are used
 * @param tag       caller's tag; the low 16 bits are used
 * @param module    0 to 9; the low 16 bits are used
 * @param level     0 to 7; the low 8 bits are used
 * @param format    as for bv_os_sprintf(). A text of more than 255 characters is not cut: the
 *                  message leaves without text, as it does with a format that is refused or null
 *
 * A message that cannot be sent is lost without notice, except for the allocator's line on standard
 * output when memory is short. Before bv_debug_init() every message is formatted and sent to
 * descriptor 0, the standard input, which takes it only if it is a socket.
 */
BV_API void bv_debug_remote(uint32_t category, uint32_t tag, uint32_t module, uint32_t level,
                            const char *format, ...) BV_PRINTF(5, 6);

/**
 * Sends one message whatever the switches say.
 *
 * The datagram has 10 + length bytes: category (its low 5 bits), level, module, total length
 * (10 + length), tag, element length (4 + length), text; one byte each for the first two, then
 * two bytes each, big-endian. Both lengths are taken modulo 65536.
 *
 * @param header  the other fields; null sends nothing
 * @param text    length bytes, sent as they are; null sends as many zeros
 * @param length  at most 65497 fits a datagram of IPv4; from 65526 on the total wraps and the
 *                datagram has only so many bytes
 * @return bytes sent, or -1 (nothing sent, no memory, no socket)
 */
BV_API int32_t bv_debug_sendmsg(const bv_debug_header *header, const void *text, uint16_t length);

#ifdef __cplusplus
}
#endif

#endif
