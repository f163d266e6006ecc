/* SPDX-License-Identifier: ISC */
/** Makes a connected or a listening socket in one call. */
#ifndef LIBUBOX_USOCK_H
#define LIBUBOX_USOCK_H

#ifdef __cplusplus
extern "C" {
#endif

#define USOCK_TCP 0
#define USOCK_UDP 1

#define USOCK_SERVER 0x0100    /**< bind (and listen) instead of connect */
#define USOCK_NOCLOEXEC 0x0200 /**< let programs started later inherit it */
#define USOCK_NONBLOCK 0x0400  /**< the connect may still be under way on return */
#define USOCK_NUMERIC 0x0800   /**< host is an address, ask no name server */
#define USOCK_IPV6ONLY 0x2000
#define USOCK_IPV4ONLY 0x4000
#define USOCK_UNIX 0x8000 /**< host is a path, service is not used */

/**
 * Returns a descriptor, or -1 with errno set. A null host means the loopback address for a
 * client and any address for a server. The path of a Unix socket has at most 107 characters
 * (EINVAL); a server does not remove an existing path (EADDRINUSE).
 */
int usock(int type, const char *host, const char *service);

#ifdef __cplusplus
}
#endif

#endif
