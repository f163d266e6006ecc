// SPDX-License-Identifier: ISC
// Numbers for clients, objects and types. They are random, so that an id from before a restart of
// the daemon fits nothing instead of something else.

#include "ubusd.h"

#include <sys/random.h>

// A little-endian client library reads the id of its greeting without converting it and refuses
// what looks like 0 or 1 to it.
static const uint32_t kSwappedOne = 0x01000000;

static uint32_t draw(void)
{
    static uint32_t fallback = kFirstOwnId;
    uint32_t id;
    if (getrandom(&id, sizeof(id), GRND_NONBLOCK) == (ssize_t)sizeof(id))
        return id;
    // No entropy this early in the boot: any unique number will do.
    return ++fallback;
}

void ids_init(struct avl_tree *tree)
{
    avl_init(tree, compare_ids, false, NULL);
}

// Gives the record an unused id and enters it into the tree. Fails only when many draws in a row
// are taken.
bool ids_insert(struct avl_tree *tree, struct avl_node *node, uint32_t *id)
{
    node->key = id;
    for (int attempt = 0; attempt < 1000; attempt++) {
        *id = draw();
        if (*id >= kFirstOwnId && *id != kSwappedOne && avl_insert(tree, node) == 0)
            return true;
    }
    return false;
}
