// SPDX-License-Identifier: ISC
// Tables whose keys are names, padded with zeros: the database's families, an owner's functions.
// Making a padded key of 1024 bytes and comparing it would cost as much as hashing it. So these
// functions take the name alone; the key in the table is the whole one, and so is its hash. A name
// that does not fit counts as empty, as it does for bv_os_strncpy().
#ifndef BV_CORE_HASH_H
#define BV_CORE_HASH_H

#include <bv/hash.h>

namespace bv {

// The record of a name; null if there is none.
void *hash_find_name(const bv_hash *table, const char *name);

// Adds a zeroed record and returns it. Null if the table holds the name already or is full, or if
// memory is short.
void *hash_add_name(bv_hash *table, const char *name);

// Removes the entries for which `gone` is true. It walks the whole table once, so no key is hashed.
void hash_remove_if(bv_hash *table, bool (*gone)(const uint8_t *key, void *data));

// bv_os_jhash() of `size` bytes: `length` bytes of a key, at most size, and zeros after them.
uint32_t jhash_padded(const uint8_t *key, uint32_t length, uint32_t size, uint32_t initval);

} // namespace bv

#endif
