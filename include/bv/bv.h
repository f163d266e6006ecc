/* SPDX-License-Identifier: ISC */
/**
 * @file bv.h
 * Every header of the library, and its version.
 *
 * A service calls bv_libraries_init() (debug.h) once at its start, before anything else here. It
 * starts the debug channel, the database, the notifier and the time ticks; debug/startup.cpp is its
 * source.
 */
#ifndef BV_BV_H
#define BV_BV_H

#include <bv/os.h> /* first: it asks libc's headers for what the declarations need */

#include <bv/aes.h>
#include <bv/base.h>
#include <bv/db.h>
#include <bv/debug.h>
#include <bv/hash.h>
#include <bv/ioctl.h>
#include <bv/mtd.h>
#include <bv/notifier.h>
#include <bv/queue.h>
#include <bv/sftp.h>
#include <bv/sha2.h>
#include <bv/status.h>
#include <bv/ubus.h>

/**
 * @name Version of the interface
 * The major number is also the shared object's: it changes when programs must be rebuilt.
 * @{
 */
#define BV_VERSION_MAJOR 1 /**< counts incompatible changes */
#define BV_VERSION_MINOR 0 /**< counts additions */
#define BV_VERSION_PATCH 0 /**< counts fixes */

/** The version as one number, which the preprocessor can compare: 10203 is version 1.2.3. */
#define BV_VERSION_NUMBER (BV_VERSION_MAJOR * 10000 + BV_VERSION_MINOR * 100 + BV_VERSION_PATCH)

/** Makes the text of a version from its three numbers. */
#define BV_VERSION_TEXT(major, minor, patch) #major "." #minor "." #patch
/** As BV_VERSION_TEXT(), for arguments that are macros. */
#define BV_VERSION_TEXT_OF(major, minor, patch) BV_VERSION_TEXT(major, minor, patch)
/** The version as text, "1.2.3". */
#define BV_VERSION_STRING BV_VERSION_TEXT_OF(BV_VERSION_MAJOR, BV_VERSION_MINOR, BV_VERSION_PATCH)
/** @} */

#endif
