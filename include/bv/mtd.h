/* SPDX-License-Identifier: ISC */
/**
 * @file mtd.h
 * Raw flash partitions by name, as "/proc/mtd" lists them.
 *
 * True of every function here: each call looks the partition up with a shell pipeline (about as
 * costly as starting four programs), opens and closes its device, and keeps nothing. Offsets and
 * lengths are bytes within the partition. A write can only clear bits of flash; bv_mtd_erase() sets
 * them.
 *
 * The name goes into the shell command unquoted, and matches as a substring and a regular
 * expression: pass plain partition names from trusted sources. A name that matches several lines of
 * "/proc/mtd" finds none of them.
 *
 * The pipeline's output is captured with bv_os_systemex(). So only one thread at a time may be in
 * one of these functions or in one that captures: two at once may get each other's device. Writes
 * and erases of one partition by several processes are not serialised either.
 */
#ifndef BV_MTD_H
#define BV_MTD_H

#include <bv/base.h>
#include <bv/status.h>

#include <mtd/mtd-user.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Asks the kernel for a partition's geometry. The device is opened for writing, so this fails for a
 * partition that is read-only.
 *
 * @param name  the partition's name
 * @param info  the caller's; gets the kernel's record. Unchanged when the device cannot be opened
 *
 * @retval BV_OK           info is filled
 * @retval BV_ERR_INVALID  name or info is null
 * @retval BV_ERR_FAILED   no such partition, its device cannot be opened, or it is not flash
 */
BV_API int32_t bv_mtd_get_info(const char *name, struct mtd_info_user *info);

/**
 * Reads a range, at most 8192 bytes with each system call.
 *
 * @param name    the partition's name
 * @param buf     gets len bytes; after a failure, the bytes read before it
 * @param offset  first byte, in bytes from the partition's start; below 2 GiB
 * @param len     bytes to read, at least 1; the range may end exactly at the partition's end
 *
 * @retval BV_OK              the range is read
 * @retval BV_ERR_INVALID     name or buf is null, or len is 0
 * @retval BV_ERR_FAILED      as bv_mtd_get_info(), or the device cannot seek to offset
 * @retval BV_ERR_RANGE       the range ends beyond the partition
 * @retval BV_ERR_OPEN        the device cannot be opened for reading
 * @retval BV_ERR_SHORT_READ  the device gave fewer bytes than asked, or an error
 */
BV_API int32_t bv_mtd_read(const char *name, void *buf, uint32_t offset, uint32_t len);

/**
 * Writes a range synchronously, at most 8192 bytes with each system call. Nothing is erased first.
 *
 * @param name    the partition's name
 * @param buf     len bytes to write; the caller keeps it
 * @param offset  first byte, in bytes from the partition's start; below 2 GiB; any alignment
 * @param len     bytes to write, at least 1
 *
 * @retval BV_OK               the range is on flash
 * @retval BV_ERR_INVALID      name or buf is null, or len is 0
 * @retval BV_ERR_FAILED       as bv_mtd_get_info(), or the device cannot seek to offset
 * @retval BV_ERR_RANGE        the range ends beyond the partition; nothing is written
 * @retval BV_ERR_OPEN         the device cannot be opened for writing
 * @retval BV_ERR_SHORT_WRITE  the device took fewer bytes than asked, or gave an error
 */
BV_API int32_t bv_mtd_write(const char *name, const void *buf, uint32_t offset, uint32_t len);

/**
 * Erases whole blocks, one request each. A block that already reads all 0xFF is left alone, to
 * spare it wear. The check allocates two blocks: blocks of more than 655360 bytes are erased
 * without it, and for each of them the allocator prints its line on standard output.
 *
 * A block that fails to erase is not reported. It is tried again in the next block's round, so each
 * failure leaves one more block at the end of the range as it was: read the range back where that
 * matters.
 *
 * @param name    the partition's name
 * @param offset  first byte; a multiple of the erase size
 * @param len     bytes, at least 1; a multiple of the erase size
 *
 * @retval BV_OK           every round was done (see above)
 * @retval BV_ERR_INVALID  name is null, len is 0, the range is not made of whole blocks, or the
 *                         device reports an erase size of 0
 * @retval BV_ERR_FAILED   as bv_mtd_get_info(), or the device could not be closed cleanly
 * @retval BV_ERR_RANGE    the range ends beyond the partition
 * @retval BV_ERR_OPEN     the device cannot be opened for writing
 */
BV_API int32_t bv_mtd_erase(const char *name, uint32_t offset, uint32_t len);

#ifdef __cplusplus
}
#endif

#endif
