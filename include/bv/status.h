/* SPDX-License-Identifier: ISC */
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

#endif
