/* SPDX-License-Identifier: ISC */
/**
 * @file debug.h
 * Start-up, and debug messages: one on/off switch per module and level, and the channel that sends
 * each message that is on to a collector, as one UDP datagram. Nothing is written locally.
 *
 * Modules are 0 to 9, levels 0 to 7. Module 0 is the global one: a message of level L is sent when
 * the switch (0, L) or the switch (its module, L) is on. Until bv_debug_init() has run there is no
 * table, and every switch reads as on.
 *
 * Numbers outside these ranges are not refused. A switch's place is module * 8 + level: below 80 it
 * is the place of some other switch; from 80 on the switch reads as off and cannot be stored.
 *
 * Any threads may read and store switches and send messages at once. bv_debug_init() and
 * bv_debug_set_cfg() replace the socket: no other thread may use the channel meanwhile.
 */
#ifndef BV_DEBUG_H
#define BV_DEBUG_H

#include <bv/base.h>
#include <bv/status.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where messages go; 8 bytes, always copied as a whole. */
typedef struct bv_debug_cfg {
    uint32_t address;     /**< the collector's IPv4 address, in network order */
    uint16_t port;        /**< its UDP port, in the machine's order */
    uint16_t second_port; /**< stored for callers, not used by the library */
} bv_debug_cfg;

/** One switch, for configuration and bus handlers; 4 bytes. */
typedef struct bv_debug_switch {
    uint8_t value;   /**< 0 is off, anything else on */
    uint8_t level;   /**< 0 to 7 */
    uint16_t module; /**< 0 to 9, in the machine's order */
} bv_debug_switch;

/** The fields of a message besides its text, for bv_debug_sendmsg(); 10 bytes. */
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
 * Starts the library's facilities: calls bv_debug_init(), bv_db_init(), bv_notifier_init() and
 * bv_time_tick_init() in this order, even if one of them fails. Call it once, from one thread,
 * before other threads use the library.
 *
 * A second call starts debugging and the database again (all switches off, no families; the memory
 * of the old ones leaks) and leaves a running notifier alone (see bv_notifier_init()). A forked
 * child must call it for itself.
 *
 * @return 0 when all of them started, otherwise the sum of their codes. Only the database can fail,
 *         so that sum is BV_ERR_MEMORY. Nothing is undone then
 */
BV_API int32_t bv_libraries_init(void);

/**
 * Starts the debug channel: turns all switches off, sets the destination to 10.10.168.192 port 5344
 * (on a little-endian machine: the address is the machine's word 0xC0A80A0A) and the second port to
 * 7364, and opens a socket. Its descriptor is above 2, and programs that the service starts do not
 * inherit it. Without memory for the table (the allocator then prints its line on standard output)
 * every switch stays on; without a socket every send fails with -1. A second call starts again, and
 * the first call's table and socket leak.
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
 * Changes where messages go: closes the socket and opens a new one. Before bv_debug_init() it
 * closes descriptor 0, the standard input, because the channel's descriptor is 0 until then.
 *
 * @param record  8 bytes, a bv_debug_cfg; null means all zero
 * @return 0
 */
BV_API int32_t bv_debug_set_cfg(const void *record);

/**
 * Tells where messages go.
 *
 * @param out      gets 8 bytes, a bv_debug_cfg; bytes after them are unchanged
 * @param outsize  capacity of out in bytes; below 8 that many bytes are cleared
 * @return 0
 */
BV_API int32_t bv_debug_get_cfg(void *out, uint32_t outsize);

/**
 * Sends a message when its switch, or the global switch of its level, is on. A message that is off
 * costs two reads and is not formatted.
 *
 * @param category  caller's code; the low 5 bits are used
 * @param tag       caller's tag; the low 16 bits are used
 * @param module    0 to 9; the low 16 bits are used
 * @param level     0 to 7; the low 8 bits are used
 * @param format    as for bv_os_sprintf(). A text of more than 255 characters is not cut: the
 *                  message is sent without text. So it is when the format is refused or null
 *
 * A message that cannot be sent is lost without notice, except for the allocator's line on standard
 * output when memory is short. Before bv_debug_init() every message is formatted and sent to
 * descriptor 0, the standard input, which takes it only if it is a socket.
 */
BV_API void bv_debug_remote(uint32_t category, uint32_t tag, uint32_t module, uint32_t level,
                            const char *format, ...) BV_PRINTF(5, 6);

/**
 * Sends one message, whether its switch is on or off.
 *
 * The datagram has 10 + length bytes: category (its low 5 bits) and level, one byte each; then
 * module, total length (10 + length), tag and element length (4 + length), two bytes each,
 * big-endian; then the text. Both lengths are modulo 65536.
 *
 * @param header  the other fields; null sends nothing
 * @param text    length bytes, sent as they are; null sends as many zeros
 * @param length  bytes of text; at most 65497 fit in an IPv4 datagram. From 65526 on the total
 *                wraps, and the datagram has only as many bytes as the wrapped total
 * @return bytes sent, or -1 (nothing sent, no memory, no socket)
 */
BV_API int32_t bv_debug_sendmsg(const bv_debug_header *header, const void *text, uint16_t length);

#ifdef __cplusplus
}
#endif

#endif
