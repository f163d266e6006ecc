/* An open-addressed hash table that is made large enough beforehand. */
#include "template/seen.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

bool seen_init(struct seen *seen, size_t count)
{
    seen->size = 8;
    while (seen->size < count * 2)
        seen->size *= 2;
    seen->entries = calloc(seen->size, sizeof(*seen->entries));
    return seen->entries != NULL;
}

void seen_free(struct seen *seen)
{
    free(seen->entries);
}

static uint32_t hash(const void *bytes, size_t length)
{
    const uint8_t *at = bytes;
    uint32_t value = 2166136261U;
    size_t i;

    for (i = 0; i < length; i++)
        value = (value ^ at[i]) * 16777619U;
    return value ^ value >> 15;
}

unsigned seen_add(struct seen *seen, const void *bytes, size_t length, unsigned line)
{
    size_t place = hash(bytes, length) & (seen->size - 1);
    struct seen_entry *entry;

    for (;; place = (place + 1) & (seen->size - 1)) {
        entry = &seen->entries[place];
        if (entry->bytes == NULL)
            break;
        if (entry->length == length && memcmp(entry->bytes, bytes, length) == 0)
            return entry->line;
    }
    entry->bytes = bytes;
    entry->length = length;
    entry->line = line;
    return 0;
}
