// SPDX-License-Identifier: ISC
// What the database does with a table beyond the public calls. Hashing a key of 1024 bytes costs
// more than all other work on an entry, so adding one and finding it again is one step.
#ifndef BV_CORE_HASH_H
#define BV_CORE_HASH_H

#include <bv/hash.h>

namespace bv {

// Adds an entry and returns its record. Null if the table holds the key already or is full, or if
// memory is short.
void *hash_add(bv_hash *table, const uint8_t *key, const void *data);

// As bv_hash_remove(), but only if the key's record is this one.
void hash_remove(bv_hash *table, const uint8_t *key, const void *data);

} // namespace bv

#endif
