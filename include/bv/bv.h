/**
 * @file bv.h
 * The whole interface of the library, and its version.
 */
#ifndef BV_BV_H
#define BV_BV_H

#include <bv/os.h> /* first: it sets up what its declarations need from libc's headers */

#include <bv/base.h>
#include <bv/db.h>
#include <bv/debug.h>
#include <bv/hash.h>
#include <bv/ioctl.h>
#include <bv/mtd.h>
#include <bv/notifier.h>
#include <bv/queue.h>
#include <bv/sftp.h>
#include <bv/status.h>
#include <bv/ubus.h>

/** The interface version; the first number is also the shared object's. */
#define BV_VERSION_MAJOR 1
#define BV_VERSION_MINOR 0
#define BV_VERSION_PATCH 0

#endif
