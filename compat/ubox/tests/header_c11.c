// SPDX-License-Identifier: ISC
// Every header of its own in strict C11, and what only C can do with them: static initialisers.

#include <libubox/avl-cmp.h>
#include <libubox/avl.h>
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <libubox/usock.h>
#include <libubox/utils.h>

#include "header_c11.h"

static LIST_HEAD(empty_list);
static AVL_TREE(names, avl_strcmp, true, &empty_list);
static const uint32_t swapped = cpu_to_be32(0x01020304);

bool static_initialisers_work(void)
{
    struct avl_node a = {.key = "a"}, b = {.key = "b"};

    if (!list_empty(&empty_list) || !avl_is_empty(&names) || names.cmp_ptr != &empty_list)
        return false;
    if (avl_insert(&names, &b) != 0 || avl_insert(&names, &a) != 0 || !names.allow_dups)
        return false;

    bool found = avl_find(&names, "a") == &a && avl_is_first(&names, &a);
    avl_delete(&names, &a);
    avl_delete(&names, &b);
    return found && ((const char *)&swapped)[0] == 1;
}
