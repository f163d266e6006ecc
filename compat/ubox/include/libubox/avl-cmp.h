/* SPDX-License-Identifier: ISC */
/** Ready-made orders for the keys of a tree (avl.h). */
#ifndef LIBUBOX_AVL_CMP_H
#define LIBUBOX_AVL_CMP_H

#ifdef __cplusplus
extern "C" {
#endif

/** Keys are strings, in the order of strcmp(); ptr is not used. */
int avl_strcmp(const void *k1, const void *k2, void *ptr);

/** Keys are byte strings of one length, in the order of memcmp(); ptr is that length, as a
 * number in place of a pointer. */
int avl_blobcmp(const void *k1, const void *k2, void *ptr);

#ifdef __cplusplus
}
#endif

#endif
