/* SPDX-License-Identifier: ISC */
/**
 * @file ioctl.h
 * Named operations of the gateway's kernel driver, through "/dev/brovan".
 *
 * True of both functions: each call opens and closes the device and keeps nothing, so any threads
 * may call at the same time; the driver serialises operations if it needs to. Integers in the
 * record have the machine's byte order.
 */
#ifndef BV_IOCTL_H
#define BV_IOCTL_H

#include <bv/base.h>
#include <bv/status.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What the driver gets the address of: this head, then `len` bytes of data. */
typedef struct bv_ioctl_record {
    char name[256];  /**< the operation's name, zero-terminated */
    uint32_t len;    /**< bytes of data after the record */
    uint32_t result; /**< 0 before the call, the driver's result after it */
} bv_ioctl_record;

/**
 * Runs a driver operation on a buffer, in place.
 *
 * @param name  the operation, at most 255 characters; for a longer or null name the driver gets the
 *              empty name
 * @param data  len bytes for the driver, replaced by its answer when it ran the operation, even if
 *              the operation failed; null sends len zero bytes and takes nothing back
 * @param len   bytes at data; 0 sends none
 *
 * @return the driver's own result; or one of these, with data unchanged:
 * @retval BV_ERR_MEMORY   no memory for the record, which takes len + 265 bytes; one allocation may
 *                         have 1310720. The allocator prints its line on standard output
 * @retval BV_ERR_CHANNEL  "/dev/brovan" cannot be opened: driver not loaded, or no permission
 * @retval 0xFFFFFFFF      the driver rejected the request (errno says why); any other non-zero
 *                         result of the ioctl is returned as it is
 *
 * A result of the driver that equals one of these codes cannot be distinguished from it.
 */
BV_API uint32_t bv_ioctl_call(const char *name, void *data, uint32_t len);

/**
 * The lower step of bv_ioctl_call(): passes a record that the caller built to the driver.
 *
 * @param record  a bv_ioctl_record with its data after it; the driver may change both
 *
 * @return what the ioctl returned: 0 on success, 0xFFFFFFFF with errno when rejected
 * @retval BV_ERR_CHANNEL  "/dev/brovan" cannot be opened
 */
BV_API uint32_t bv_ioctl_system(void *record);

#ifdef __cplusplus
}
#endif

#endif
