/**
 * @file status.h
 * The status codes of all families: 0 is success, specific failures have the form 0x100000xx, and
 * -1 is any other failure (a system call failed, a file could not be parsed). Functions that return
 * a pointer return null instead.
 *
 * The codes fit both int32_t and uint32_t, so results of both types compare with them directly; -1
 * is 0xFFFFFFFF as an unsigned result.
 */
#ifndef BV_STATUS_H
#define BV_STATUS_H

#include <stdint.h>

#define BV_OK 0                       /**< success */
#define BV_ERR_FAILED (-1)            /**< a system call failed, or a file could not be parsed */
#define BV_ERR_RANGE 0x10000003       /**< range beyond the end of a flash partition */
#define BV_ERR_WRITE_OPEN 0x10000009  /**< data file cannot be opened for writing */
#define BV_ERR_NO_FAMILY 0x1000000a   /**< no parameter family of that name */
#define BV_ERR_INVALID 0x10000010     /**< invalid argument, or a bus reply that lacks a field */
#define BV_ERR_NULL 0x10000013        /**< null argument */
#define BV_ERR_NO_INSTANCE 0x10000014 /**< no such instance of a parameter family */
#define BV_ERR_EXISTS 0x10000015      /**< already exists: registered name, instance */
#define BV_ERR_FULL 0x10000016        /**< table or queue full */
#define BV_ERR_OPEN 0x10000020        /**< device or file cannot be opened */
#define BV_ERR_SHORT_READ 0x10000022  /**< short read from a device */
#define BV_ERR_SHORT_WRITE 0x10000023 /**< short write to a device */
#define BV_ERR_NO_FILE 0x10000024     /**< file cannot be opened or does not exist */
#define BV_ERR_RECORD 0x10000025      /**< record file cannot be opened */
#define BV_ERR_CHANNEL 0x10000030     /**< socket cannot be bound, or driver cannot be opened */
#define BV_ERR_EMPTY 0x10000031       /**< queue empty */
#define BV_ERR_MEMORY 0x10000040      /**< out of memory, or a table cannot be created */
#define BV_ERR_TOO_LONG 0x10000073    /**< requested length too long */

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Says in a few words what a status code means, for messages and logs.
 *
 * @param code  a result of either type: -1 and 0xFFFFFFFF are the same code
 * @return a constant text in lower case, never null; "unknown status" for any other number
 *
 * Thread-safe. A remote call can also end with a status of the bus: see bv_bus_status_text().
 */
static inline const char *bv_status_text(int64_t code)
{
    switch (code) {
    case BV_OK:
        return "success";
    case BV_ERR_FAILED:
    case 0xFFFFFFFF:
        return "operation failed";
    case BV_ERR_RANGE:
        return "beyond the end of the partition";
    case BV_ERR_WRITE_OPEN:
        return "cannot open the file for writing";
    case BV_ERR_NO_FAMILY:
        return "no such parameter family";
    case BV_ERR_INVALID:
        return "invalid argument";
    case BV_ERR_NULL:
        return "null argument";
    case BV_ERR_NO_INSTANCE:
        return "no such instance";
    case BV_ERR_EXISTS:
        return "already exists";
    case BV_ERR_FULL:
        return "table or queue full";
    case BV_ERR_OPEN:
        return "cannot open the device or file";
    case BV_ERR_SHORT_READ:
        return "short read";
    case BV_ERR_SHORT_WRITE:
        return "short write";
    case BV_ERR_NO_FILE:
        return "no such file";
    case BV_ERR_RECORD:
        return "cannot open the record file";
    case BV_ERR_CHANNEL:
        return "cannot open the socket or driver";
    case BV_ERR_EMPTY:
        return "queue empty";
    case BV_ERR_MEMORY:
        return "out of memory";
    case BV_ERR_TOO_LONG:
        return "length too long";
    default:
        return "unknown status";
    }
}

/**
 * As bv_status_text(), for the statuses of the bus: what <libubus.h> calls UBUS_STATUS_, 0 to 13.
 * Functions of bv/ubus.h return them, and so does bv_ubus_client_call() when no handler answered.
 */
static inline const char *bv_bus_status_text(int64_t status)
{
    switch (status) {
    case 0:
        return "success";
    case 1:
        return "invalid command";
    case 2:
        return "unknown function or invalid argument";
    case 3:
        return "no such method";
    case 4:
        return "no such object";
    case 5:
        return "no data";
    case 6:
        return "permission denied";
    case 7:
        return "no answer in time";
    case 8:
        return "not supported";
    case 9:
        return "unknown error";
    case 10:
        return "no connection to the bus";
    case 11:
        return "out of memory";
    case 12:
        return "malformed message";
    case 13:
        return "system call failed";
    default:
        return "unknown status";
    }
}

#ifdef __cplusplus
}
#endif

#endif
