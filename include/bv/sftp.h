/* SPDX-License-Identifier: ISC */
/**
 * @file sftp.h
 * Copies files to and from a remote host with the gateway's transfer script, "/etc/sftp.sh".
 *
 * True of both functions: the call waits until the script ends and keeps nothing; any threads may
 * call at the same time. The fields go into a shell command unchanged, the two paths inside double
 * quotes, the others without quotes. Pass plain text from trusted sources, without blanks, quotes
 * or other characters that mean something to a shell. The password is visible in the process list
 * while the script runs.
 *
 * The whole command may have 255 characters. A longer one is not cut: the shell runs an empty line
 * instead, and the result is 0 although nothing was transferred.
 */
#ifndef BV_SFTP_H
#define BV_SFTP_H

#include <bv/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** One transfer; every text is zero-terminated. */
typedef struct bv_sftp_info {
    char local_path[128];  /**< the file on the gateway */
    char remote_path[128]; /**< the file on the remote host */
    char user[64];         /**< the account on the remote host */
    char host[64];         /**< the remote host's address or name */
    char password[64];     /**< the script's option -p */
    int32_t port;          /**< the remote SSH port, the script's option -P */
} bv_sftp_info;

/**
 * Downloads remote_path into local_path.
 *
 * @param info  the transfer; only read, stays the caller's
 * @return the shell's wait status: 0 when the script exited with 0 (or was never run, see above);
 *         -1 when info is null or no shell could be started
 */
BV_API int bv_sftp_get(const bv_sftp_info *info);

/**
 * Uploads local_path to remote_path.
 *
 * @param info  the transfer; only read, stays the caller's
 * @return as bv_sftp_get()
 */
BV_API int bv_sftp_put(const bv_sftp_info *info);

#ifdef __cplusplus
}
#endif

#endif
