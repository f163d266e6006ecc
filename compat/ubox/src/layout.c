// SPDX-License-Identifier: ISC
// The records callers embed in their own, or read field by field through inline functions, are
// part of the binary interface: a program built against one libubox runs with another. This file
// holds no code; it refuses to build when a layout moves.

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>

#define SIZE(type, size) _Static_assert(sizeof(type) == (size), #type)
#define OFFSET(type, field, offset)                                                                \
    _Static_assert(offsetof(type, field) == (offset), #type "." #field)

SIZE(bool, 1);
SIZE(enum blobmsg_type, 4);

SIZE(struct blob_attr, 4);
_Static_assert(_Alignof(struct blob_attr) == 1, "attributes may be at any address");
OFFSET(struct blob_attr, data, 4);
SIZE(struct blobmsg_hdr, 2);
_Static_assert(_Alignof(struct blobmsg_hdr) == 1, "name headers may be at any address");
OFFSET(struct blobmsg_hdr, name, 2);

// Each line: the offset on a 64-bit, then on a 32-bit machine.
#if __SIZEOF_POINTER__ == 8
#define BY_WORD(on64, on32) (on64)
#else
#define BY_WORD(on64, on32) (on32)
#endif

SIZE(struct list_head, BY_WORD(16, 8));
OFFSET(struct list_head, next, 0);
OFFSET(struct list_head, prev, BY_WORD(8, 4));

SIZE(struct uloop_fd, BY_WORD(16, 12));
OFFSET(struct uloop_fd, cb, 0);
OFFSET(struct uloop_fd, fd, BY_WORD(8, 4));
OFFSET(struct uloop_fd, eof, BY_WORD(12, 8));
OFFSET(struct uloop_fd, error, BY_WORD(13, 9));
OFFSET(struct uloop_fd, registered, BY_WORD(14, 10));
OFFSET(struct uloop_fd, flags, BY_WORD(15, 11));

// A 32-bit machine may still have 32-bit time; the fields start at the same places.
SIZE(struct uloop_timeout, BY_WORD(48, sizeof(time_t) == 8 ? 32 : 24));
OFFSET(struct uloop_timeout, list, 0);
OFFSET(struct uloop_timeout, pending, BY_WORD(16, 8));
OFFSET(struct uloop_timeout, cb, BY_WORD(24, 12));
OFFSET(struct uloop_timeout, time, BY_WORD(32, 16));

SIZE(struct uloop_process, BY_WORD(40, 20));
OFFSET(struct uloop_process, list, 0);
OFFSET(struct uloop_process, pending, BY_WORD(16, 8));
OFFSET(struct uloop_process, cb, BY_WORD(24, 12));
OFFSET(struct uloop_process, pid, BY_WORD(32, 16));

SIZE(struct blob_attr_info, BY_WORD(24, 16));
OFFSET(struct blob_attr_info, type, 0);
OFFSET(struct blob_attr_info, minlen, 4);
OFFSET(struct blob_attr_info, maxlen, 8);
OFFSET(struct blob_attr_info, validate, BY_WORD(16, 12));

SIZE(struct blob_buf, BY_WORD(32, 16));
OFFSET(struct blob_buf, head, 0);
OFFSET(struct blob_buf, grow, BY_WORD(8, 4));
OFFSET(struct blob_buf, buflen, BY_WORD(16, 8));
OFFSET(struct blob_buf, buf, BY_WORD(24, 12));

SIZE(struct blobmsg_policy, BY_WORD(16, 8));
OFFSET(struct blobmsg_policy, name, 0);
OFFSET(struct blobmsg_policy, type, BY_WORD(8, 4));

SIZE(struct avl_node, BY_WORD(56, 28));
OFFSET(struct avl_node, list, 0);
OFFSET(struct avl_node, parent, BY_WORD(16, 8));
OFFSET(struct avl_node, left, BY_WORD(24, 12));
OFFSET(struct avl_node, right, BY_WORD(32, 16));
OFFSET(struct avl_node, key, BY_WORD(40, 20));
OFFSET(struct avl_node, balance, BY_WORD(48, 24));
OFFSET(struct avl_node, leader, BY_WORD(49, 25));

SIZE(struct avl_tree, BY_WORD(48, 28));
OFFSET(struct avl_tree, list_head, 0);
OFFSET(struct avl_tree, root, BY_WORD(16, 8));
OFFSET(struct avl_tree, count, BY_WORD(24, 12));
OFFSET(struct avl_tree, allow_dups, BY_WORD(28, 16));
OFFSET(struct avl_tree, comp, BY_WORD(32, 20));
OFFSET(struct avl_tree, cmp_ptr, BY_WORD(40, 24));
