/* What was seen before, and in which line: finds duplicates without comparing all with all. */
#ifndef TOOLS_TEMPLATE_SEEN_H
#define TOOLS_TEMPLATE_SEEN_H

#include <stdbool.h>
#include <stddef.h>

struct seen_entry {
    const void *bytes; /* the caller's; null: free place */
    size_t length;
    unsigned line;
};

struct seen {
    struct seen_entry *entries;
    size_t size; /* a power of two, at least twice the number of entries */
};

/* Makes room for `count` entries; false when memory is short. */
bool seen_init(struct seen *seen, size_t count);
void seen_free(struct seen *seen);

/* Notes an entry, whose bytes must stay. The line of the first one like it, 0 when it is new. */
unsigned seen_add(struct seen *seen, const void *bytes, size_t length, unsigned line);

#endif
