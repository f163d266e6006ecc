/**
 * @file ioctl.h
 * Named operations of the gateway's kernel driver, through "/dev/brovan".
 *
 * True of both functions: the device is opened and closed by the call and nothing is kept, so any
 * threads may call at the same time; serialising operations is the driver's business. Integers in
 * the record are in the machine's byte order.
 */
#ifndef BV_IOCTL_H
#define BV_IOCTL_H

#include <bv/base.h>
#include <bv/status.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What the driver is handed the address of: this head, then `len` bytes of data. */
typedef struct bv_ioctl_record {
    char name[256];  /**< the operation's name, zero-terminated */
    uint32_t len;    /**< bytes of data behind the record */
    uint32_t result; /**< 0 going in; the driver's result coming out */
} bv_ioctl_record;

/**
 * Runs a driver operation on a buffer, in place.
 *
 * @param name  the operation, at most 255 characters; a longer or null one reaches the driver as
 *              the empty name
 * @param data  len bytes for the driver, replaced by its answer when the operation was carried
 *              out, whatever its result; null sends len zero bytes and takes nothing back
 * @param len   bytes at data; 0 sends none
 *
 * @return the driver's own result; or, with data as it was:
 * @retval BV_ERR_MEMORY   no memory for the record, which needs len + 265 bytes of the 1310720
 *                         that one allocation may have; the allocator prints its refusal on
 *                         standard output
 * @retval BV_ERR_CHANNEL  "/dev/brovan" cannot be opened: driver not loaded, or no permission
 * @retval 0xFFFFFFFF      the driver rejected the request (errno says why); any other non-zero
 *                         result of the ioctl is returned as it is
 *
 * A driver whose own result happens to be one of these codes cannot be told apart from them.
 */
BV_API uint32_t bv_ioctl_call(const char *name, void *data, uint32_t len);

/**
 * The lower step of bv_ioctl_call(): hands a record that the caller built to the driver.
 *
 * @param record  a bv_ioctl_record with its data behind it; the driver may change both
 *
 * @return what the ioctl returned: 0 on success, 0xFFFFFFFF with errno when rejected
 * @retval BV_ERR_CHANNEL  "/dev/brovan" cannot be opened
 */
BV_API uint32_t bv_ioctl_system(void *record);

#ifdef __cplusplus
}
#endif

#endif
