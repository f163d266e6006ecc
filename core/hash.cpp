// SPDX-License-Identifier: ISC
// Hash table with chains. The geometry is fixed and all keys have one size, so a look-up is one
// hash over the whole key, padding included, and one comparison for each entry of a chain.
//
// Inside, a key is given by its bytes up to where only zeros follow: for a name that is much less
// than the key.
//
// Entry, key and record are separate allocations: a record may then be as large as an allocation
// can be, and its address, which callers keep, is aligned for any type.

#include <bv/hash.h>

#include "core/hash.h"
#include "core/list.h"
#include "os/alloc.h"
#include "os/checked.h"
#include "os/inline.h"
#include "os/span.h"

#include <bv/status.h>

#include <cstring>

namespace {

constexpr uint32_t kMagic = 0x42524F56; // "BROV"

struct Entry {
    bv_list_head link;
    uint8_t *key;
    void *data;
};

// The bytes of a key, at most a table's keysize; zeros follow up to that.
using Key = bv::Bytes;

static_assert(offsetof(bv_hash, hashsize) == 4 && offsetof(bv_hash, keysize) == 8 &&
                  offsetof(bv_hash, datasize) == 12 && offsetof(bv_hash, currnum) == 16,
              "callers look into this record");
static_assert(sizeof(void *) != 4 || (sizeof(bv_hash) == 24 && offsetof(bv_hash, buckets) == 20),
              "callers look into this record");
static_assert(sizeof(void *) != 4 ||
                  (sizeof(Entry) == 16 && offsetof(Entry, key) == 8 && offsetof(Entry, data) == 12),
              "an entry is two links, its key and its data");
static_assert(sizeof(void *) != 4 || sizeof(bv_list_head) == 8,
              "callers embed this record in theirs");

bool is_table(const bv_hash *table)
{
    return table != nullptr && table->magic == kMagic;
}

// The mask is also applied to sizes that are not a power of two. Rounding the size would move
// entries to other buckets and change what a dump shows.
bv_list_head &bucket_of(const bv_hash &table, Key key)
{
    const uint32_t hash = bv::jhash_padded(key.data, key.length, table.keysize, 0);
    return table.buckets[hash & (table.hashsize - 1)];
}

// A small C library compares byte by byte, which takes longer than hashing the database's keys; a
// large one uses vector registers. So 32-bit machines compare here, two words at a time.
bool same_bytes(const uint8_t *a, const uint8_t *b, uint32_t size)
{
    if constexpr (sizeof(void *) == 4) {
        struct __attribute__((packed, may_alias)) Words {
            uint32_t first, second;
        };
        for (; size >= sizeof(Words); a += sizeof(Words), b += sizeof(Words)) {
            const auto *x = reinterpret_cast<const Words *>(a);
            const auto *y = reinterpret_cast<const Words *>(b);
            if (((x->first ^ y->first) | (x->second ^ y->second)) != 0)
                return false;
            size -= static_cast<uint32_t>(sizeof(Words));
        }
    }
    return bv_os_memcmp(a, b, size) == 0;
}

// To the end of an allocation, whose start is aligned for any type.
bool is_zero(const uint8_t *at, const uint8_t *end)
{
    struct __attribute__((may_alias)) Words {
        uintptr_t first, second, third, fourth;
    };
    for (; at != end && reinterpret_cast<uintptr_t>(at) % sizeof(uintptr_t) != 0; ++at)
        if (*at != 0)
            return false;
    for (; end - at >= static_cast<ptrdiff_t>(sizeof(Words)); at += sizeof(Words)) {
        const auto *words = reinterpret_cast<const Words *>(at);
        if ((words->first | words->second | words->third | words->fourth) != 0)
            return false;
    }
    while (at != end && *at == 0)
        ++at;
    return at == end;
}

Entry *find_entry(const bv_hash &table, const bv_list_head &bucket, Key key)
{
    for (Entry &entry : bv::each<Entry>(bucket))
        if (same_bytes(entry.key, key.data, key.length) &&
            is_zero(entry.key + key.length, entry.key + table.keysize))
            return &entry;
    return nullptr;
}

Entry *find_entry(const bv_hash &table, Key key)
{
    return find_entry(table, bucket_of(table, key), key);
}

void *find_record(const bv_hash &table, Key key)
{
    const Entry *entry = find_entry(table, key);
    return entry == nullptr ? nullptr : entry->data;
}

void free_entry(Entry *entry)
{
    bv_os_free(entry->data);
    bv_os_free(entry->key);
    bv_os_free(entry);
}

void copy_record(const bv_hash &table, Entry &entry, const void *data)
{
    bv_os_memcpy(entry.data, table.datasize, data, table.datasize);
}

// An entry with copies of key and record, not linked yet; null if memory is short. A null record is
// zeros.
Entry *make_entry(const bv_hash &table, Key key, const void *data)
{
    auto *entry = bv::allocate<Entry>();
    if (entry == nullptr)
        return nullptr;

    entry->key = bv::allocate<uint8_t>(table.keysize);
    entry->data = bv_os_malloc(table.datasize);
    if (entry->key == nullptr || entry->data == nullptr) {
        free_entry(entry);
        return nullptr;
    }

    bv_os_memcpy(entry->key, table.keysize, key.data, key.length);
    const uint32_t rest = table.keysize - key.length;
    bv_os_memset(entry->key + key.length, rest, 0, rest);
    if (data == nullptr)
        bv_os_memset(entry->data, table.datasize, 0, table.datasize);
    else
        copy_record(table, *entry, data);
    return entry;
}

// Links a new entry for a key that the table lacks; null if memory is short.
Entry *append_entry(bv_hash &table, bv_list_head &bucket, Key key, const void *data)
{
    Entry *entry = make_entry(table, key, data);
    if (entry == nullptr)
        return nullptr;
    bv::list_append(bucket, entry->link);
    table.currnum = bv::checked_add(table.currnum, 1);
    return entry;
}

void remove_entry(bv_hash &table, Entry *entry)
{
    bv::list_unlink(entry->link);
    table.currnum = bv::checked_sub(table.currnum, 1);
    free_entry(entry);
}

Key whole_key(const bv_hash &table, const uint8_t *key)
{
    return {key, table.keysize};
}

Key name_key(const bv_hash &table, const char *name)
{
    const auto length = static_cast<uint32_t>(strnlen(name, table.keysize));
    return {reinterpret_cast<const uint8_t *>(name), length < table.keysize ? length : 0};
}

// The part of an address that a dump's eight digits show.
unsigned int low_address(const void *pointer)
{
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pointer));
}

void dump_bucket(uint32_t number, const bv_list_head &bucket)
{
    uint32_t position = 0;
    for (const Entry &entry : bv::each<Entry>(bucket)) {
        bv_os_printf("\r\n[%04u-%04u]keyobject:%08x dataobject:%08x", number, position,
                     low_address(entry.key), low_address(entry.data));
        ++position;
    }
}

} // namespace

bv_hash *bv_hash_init(uint32_t hashsize, uint32_t keysize, uint32_t datasize)
{
    if (hashsize == 0 || keysize == 0 || datasize == 0)
        return nullptr;

    bv::Block<bv_hash> table(bv::allocate<bv_hash>());
    if (!table)
        return nullptr;

    auto *buckets = bv::allocate<bv_list_head>(uint64_t{hashsize} * sizeof(bv_list_head));
    if (buckets == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < hashsize; ++i)
        bv::list_init(buckets[i]);

    *table.get() = {kMagic, hashsize, keysize, datasize, 0, buckets};
    return table.release();
}

int32_t bv_hash_insert(bv_hash *table, const uint8_t *bytes, const void *data)
{
    if (!is_table(table) || bytes == nullptr)
        return BV_ERR_FAILED;

    // Before the look-up on purpose: a full table refuses every insert, even of a key that it
    // holds.
    if (table->currnum >= table->hashsize)
        return BV_ERR_FULL;

    const Key key = whole_key(*table, bytes);
    bv_list_head &bucket = bucket_of(*table, key);
    Entry *entry = find_entry(*table, bucket, key);
    if (entry != nullptr) {
        copy_record(*table, *entry, data);
        return BV_OK;
    }

    return append_entry(*table, bucket, key, data) == nullptr ? BV_ERR_MEMORY : BV_OK;
}

void *bv_hash_find(bv_hash *table, const uint8_t *key)
{
    if (!is_table(table) || key == nullptr)
        return nullptr;
    return find_record(*table, whole_key(*table, key));
}

void bv_hash_remove(bv_hash *table, const uint8_t *key)
{
    if (!is_table(table) || key == nullptr)
        return;

    Entry *entry = find_entry(*table, whole_key(*table, key));
    if (entry != nullptr)
        remove_entry(*table, entry);
}

void bv_hash_exit(bv_hash *table)
{
    if (!is_table(table))
        return;

    for (uint32_t i = 0; i < table->hashsize; ++i)
        for (Entry &entry : bv::each_removable<Entry>(table->buckets[i]))
            free_entry(&entry);
    bv_os_free(table->buckets);
    bv_os_free(table);
}

void bv_hash_dump(bv_hash *table)
{
    if (!is_table(table))
        return;

    bv_os_printf("\r\n===============================================");
    bv_os_printf("\r\nhashsize:%u keysize:%u datasize:%u currnum:%u ", table->hashsize,
                 table->keysize, table->datasize, table->currnum);
    bv_os_printf("\r\n-----------------------------------------------");
    for (uint32_t i = 0; i < table->hashsize; ++i)
        dump_bucket(i, table->buckets[i]);
    bv_os_printf("\r\n===============================================\r\n");
}

void *bv::hash_find_name(const bv_hash *table, const char *name)
{
    return is_table(table) ? find_record(*table, name_key(*table, name)) : nullptr;
}

void *bv::hash_add_name(bv_hash *table, const char *name)
{
    if (!is_table(table) || table->currnum >= table->hashsize)
        return nullptr;

    const Key key = name_key(*table, name);
    bv_list_head &bucket = bucket_of(*table, key);
    if (find_entry(*table, bucket, key) != nullptr)
        return nullptr;
    Entry *entry = append_entry(*table, bucket, key, nullptr);
    return entry == nullptr ? nullptr : entry->data;
}

void bv::hash_remove_if(bv_hash *table, bool (*gone)(const uint8_t *key, void *data))
{
    if (!is_table(table))
        return;

    for (uint32_t i = 0; i < table->hashsize; ++i)
        for (Entry &entry : bv::each_removable<Entry>(table->buckets[i]))
            if (gone(entry.key, entry.data))
                remove_entry(*table, &entry);
}
