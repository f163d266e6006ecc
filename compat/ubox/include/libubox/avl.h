/* SPDX-License-Identifier: ISC */
/**
 * Balanced tree of embedded nodes, threaded by a list in key order.
 *
 * The caller sets node->key before the insertion and keeps the key alive and unchanged while
 * the node is in the tree. In a tree that allows duplicates, equal keys stay in the order of
 * their insertion and the first of them, the leader, stands for all of them in the tree.
 * Nothing is allocated and nothing is locked.
 */
#ifndef LIBUBOX_AVL_H
#define LIBUBOX_AVL_H

#include <stdbool.h>
#include <stddef.h>

#include "list.h"

#ifdef __cplusplus
extern "C" {
#endif

struct avl_node {
    struct list_head list; /**< neighbours in key order; must stay the first field */
    struct avl_node *parent;
    struct avl_node *left;
    struct avl_node *right;
    const void *key;
    signed char balance; /**< height of the right subtree minus that of the left */
    bool leader;         /**< first of its key, and so part of the tree itself */
};

/** Negative, 0 or positive as k1 sorts before, with or after k2; ptr is the tree's cmp_ptr. */
typedef int (*avl_tree_comp)(const void *k1, const void *k2, void *ptr);

struct avl_tree {
    struct list_head list_head;
    struct avl_node *root;
    unsigned int count;
    bool allow_dups;
    avl_tree_comp comp;
    void *cmp_ptr;
};

enum avl_find_mode {
    AVL_FIND_EQUAL,
    AVL_FIND_LESSEQUAL,
    AVL_FIND_GREATEREQUAL,
};

#define AVL_TREE_INIT(_name, _comp, _allow_dups, _cmp_ptr)                                         \
    {                                                                                              \
        .list_head = LIST_HEAD_INIT(_name.list_head), .comp = (_comp),                             \
        .allow_dups = (_allow_dups), .cmp_ptr = (_cmp_ptr),                                        \
    }

/** C only; C++ code calls avl_init(). */
#define AVL_TREE(_name, _comp, _allow_dups, _cmp_ptr)                                              \
    struct avl_tree _name = AVL_TREE_INIT(_name, _comp, _allow_dups, _cmp_ptr)

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *cmp_ptr);

/** The node with this key (the leader of several), or NULL. */
struct avl_node *avl_find(const struct avl_tree *tree, const void *key);

/** The first node whose key is not below the given one, or NULL. */
struct avl_node *avl_find_greaterequal(const struct avl_tree *tree, const void *key);

/** The last node whose key is not above the given one, or NULL. */
struct avl_node *avl_find_lessequal(const struct avl_tree *tree, const void *key);

/** 0, or -1 when the key is there already and the tree allows no duplicates. */
int avl_insert(struct avl_tree *tree, struct avl_node *node);

/** Only for nodes that are in the tree; their list pointers become NULL. */
void avl_delete(struct avl_tree *tree, struct avl_node *node);

static inline bool avl_is_first(const struct avl_tree *tree, const struct avl_node *node)
{
    return tree->list_head.next == &node->list;
}

static inline bool avl_is_last(const struct avl_tree *tree, const struct avl_node *node)
{
    return tree->list_head.prev == &node->list;
}

static inline bool avl_is_empty(const struct avl_tree *tree)
{
    return tree->count == 0;
}

/** Makes the tree empty and leaves the nodes linked to each other as they were. */
static inline void __avl_forget_nodes(struct avl_tree *tree)
{
    INIT_LIST_HEAD(&tree->list_head);
    tree->root = NULL;
    tree->count = 0;
}

/** In the find macros `element` is used for its type only. */
#define avl_find_element(tree, key, element, node_element)                                         \
    container_of_safe(avl_find(tree, key), __typeof__(*(element)), node_element)

#define avl_find_le_element(tree, key, element, node_element)                                      \
    container_of_safe(avl_find_lessequal(tree, key), __typeof__(*(element)), node_element)

#define avl_find_ge_element(tree, key, element, node_element)                                      \
    container_of_safe(avl_find_greaterequal(tree, key), __typeof__(*(element)), node_element)

/** Not on an empty tree. */
#define avl_first_element(tree, element, node_member)                                              \
    container_of((tree)->list_head.next, __typeof__(*(element)), node_member.list)

#define avl_last_element(tree, element, node_member)                                               \
    container_of((tree)->list_head.prev, __typeof__(*(element)), node_member.list)

/** Not past the last, nor before the first one. */
#define avl_next_element(element, node_member)                                                     \
    container_of((element)->node_member.list.next, __typeof__(*(element)), node_member.list)

#define avl_prev_element(element, node_member)                                                     \
    container_of((element)->node_member.list.prev, __typeof__(*(element)), node_member.list)

/** From first to last, both included. */
#define avl_for_element_range(first, last, element, node_member)                                   \
    for (element = (first); (element)->node_member.list.prev != &(last)->node_member.list;         \
         element = avl_next_element(element, node_member))

/** No removal inside. */
#define avl_for_each_element(tree, element, node_member)                                           \
    for (element = avl_first_element(tree, element, node_member);                                  \
         &(element)->node_member.list != &(tree)->list_head;                                       \
         element = avl_next_element(element, node_member))

/** The current element may be removed. */
#define avl_for_each_element_safe(tree, element, node_member, ptr)                                 \
    for (element = avl_first_element(tree, element, node_member),                                  \
        ptr = avl_next_element(element, node_member);                                              \
         &(element)->node_member.list != &(tree)->list_head;                                       \
         element = ptr, ptr = avl_next_element(ptr, node_member))

/** Empties the tree first and then visits what was in it; the body may free the element. */
#define avl_remove_all_elements(tree, element, node_member, ptr)                                   \
    for (element = avl_first_element(tree, element, node_member),                                  \
        ptr = avl_next_element(element, node_member), __avl_forget_nodes(tree);                    \
         &(element)->node_member.list != &(tree)->list_head;                                       \
         element = ptr, ptr = avl_next_element(ptr, node_member))

#ifdef __cplusplus
}
#endif

#endif
