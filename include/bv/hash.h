/* SPDX-License-Identifier: ISC */
/**
 * @file hash.h
 * A keyed store with a fixed geometry, and the hash function that spreads its keys.
 *
 * A table holds copies: every key is `keysize` bytes and every record `datasize` bytes, both
 * fixed when the table is made. Keys are compared as raw bytes over their whole size, so a name
 * shorter than the key is padded: clear a buffer of keysize bytes, then put the name in.
 *
 * True of every function here:
 * - a key argument points to keysize readable bytes, a data argument to datasize bytes; both stay
 *   the caller's;
 * - with a null table, a table whose magic is wrong, or a null key the function fails, or does
 *   nothing if it has no result;
 * - only bv_hash_dump() prints, and the allocator, whose line comes with each failure for lack of
 *   memory;
 * - tables have no lock: threads that share one serialise all their calls on it, and the use of
 *   records found in it. Different tables are independent. bv_os_jhash() is thread-safe.
 */
#ifndef BV_HASH_H
#define BV_HASH_H

#include <bv/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A table, made by bv_hash_init(). Callers may read it; only the functions change it. */
typedef struct bv_hash {
    uint32_t magic;        /**< 0x42524F56 in a valid table */
    uint32_t hashsize;     /**< number of buckets, and the most entries that the table takes */
    uint32_t keysize;      /**< size of every key, in bytes */
    uint32_t datasize;     /**< size of every record, in bytes */
    uint32_t currnum;      /**< entries stored */
    bv_list_head *buckets; /**< hashsize lists of entries, each oldest first */
} bv_hash;

/**
 * Makes an empty table.
 *
 * An entry's bucket is its key's hash masked with hashsize - 1. Choose a power of two: any other
 * size works, but the mask does not reach all buckets (of 8196, for example, it uses only eight).
 *
 * @param hashsize  number of buckets, and most entries, at least 1. The bucket array is one
 *                  allocation: at most 163840 buckets on a 32-bit machine and half as many on a
 *                  64-bit one
 * @param keysize   size of every key in bytes, at least 1
 * @param datasize  size of every record in bytes, at least 1
 *
 * @return the table, the caller's until bv_hash_exit(); null when an argument is 0 or memory is
 *         short
 */
BV_API bv_hash *bv_hash_init(uint32_t hashsize, uint32_t keysize, uint32_t datasize);

/**
 * Stores a copy of a record under a key. If the table holds the key already, its record is
 * overwritten and keeps its address.
 *
 * @param table  the table
 * @param key    keysize bytes, copied
 * @param data   datasize bytes, copied; must not be null
 *
 * @retval BV_OK          stored
 * @retval BV_ERR_FAILED  table or key is null, or the magic is wrong
 * @retval BV_ERR_FULL    hashsize entries are stored. This is tested first: a full table also
 *                        refuses to overwrite
 * @retval BV_ERR_MEMORY  no memory for the entry, or its key or record is larger than the 1310720
 *                        bytes of one allocation; the table is as before
 */
BV_API int32_t bv_hash_insert(bv_hash *table, const uint8_t *key, const void *data);

/**
 * Finds the record stored under a key.
 *
 * @param table  the table
 * @param key    keysize bytes
 *
 * @return the stored record itself (datasize bytes, which the caller may change), valid until it
 *         is removed or the table is destroyed; null when there is none
 */
BV_API void *bv_hash_find(bv_hash *table, const uint8_t *key);

/**
 * Removes the entry of a key, if there is one, and frees its copies.
 *
 * @param table  the table
 * @param key    keysize bytes. They may be part of the entry itself: they are not read after the
 *               entry was found
 */
BV_API void bv_hash_remove(bv_hash *table, const uint8_t *key);

/**
 * Destroys a table with all its entries.
 *
 * @param table  the table; the pointer, and every record found in it, is invalid afterwards.
 *               The magic is not cleared, so a later use is not caught
 */
BV_API void bv_hash_exit(bv_hash *table);

/**
 * Prints a table on standard output: its geometry, then one line per entry with the bucket, the
 * position in it, and the addresses of the key and the record (the low 32 bits, in hexadecimal).
 *
 * @param table  the table
 */
BV_API void bv_hash_dump(bv_hash *table);

/**
 * Bob Jenkins' 32-bit hash "lookup2" of a byte string. The result depends neither on the
 * machine's byte order nor on the alignment of the key.
 *
 * @param key      length bytes; not read when length is 0
 * @param length   size of the key in bytes
 * @param initval  any value; different values give independent hashes of one key. Tables use 0
 *
 * @return the hash
 */
BV_API uint32_t bv_os_jhash(const uint8_t *key, uint32_t length, uint32_t initval);

#ifdef __cplusplus
}
#endif

#endif
