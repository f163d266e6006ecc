// SPDX-License-Identifier: ISC
// Balanced tree. Only the first node of each key, its leader, is in the tree; later ones with the
// same key follow it in the list. The list gives the order, so walking never touches the tree.

#include <libubox/avl.h>

static struct avl_node *node_of(const struct list_head *link)
{
    return container_of(link, struct avl_node, list);
}

// Where the pointer to a tree node is kept: in its parent, or as the root.
static struct avl_node **slot_of(struct avl_tree *tree, const struct avl_node *node)
{
    if (node->parent == NULL)
        return &tree->root;
    return node->parent->left == node ? &node->parent->left : &node->parent->right;
}

static void set_left(struct avl_node *node, struct avl_node *child)
{
    node->left = child;
    if (child != NULL)
        child->parent = node;
}

static void set_right(struct avl_node *node, struct avl_node *child)
{
    node->right = child;
    if (child != NULL)
        child->parent = node;
}

// The leader of the next higher key.
static struct avl_node *next_leader(const struct avl_node *node)
{
    if (node->right != NULL) {
        struct avl_node *next = node->right;
        while (next->left != NULL)
            next = next->left;
        return next;
    }

    while (node->parent != NULL && node->parent->right == node)
        node = node->parent;
    return node->parent;
}

// Rotates a node and its parent: the node takes the parent's place, the parent becomes its child.
static void lift(struct avl_tree *tree, struct avl_node *node)
{
    struct avl_node *parent = node->parent;
    *slot_of(tree, parent) = node;
    node->parent = parent->parent;
    if (parent->left == node) {
        set_left(parent, node->right);
        set_right(node, parent);
    } else {
        set_right(parent, node->left);
        set_left(node, parent);
    }
}

// Repairs a node whose one side is higher by two. Returns the new top of this subtree; its
// balance is 0 exactly when the subtree has become lower.
static struct avl_node *rebalance(struct avl_tree *tree, struct avl_node *node)
{
    int side = node->balance < 0 ? -1 : 1;
    struct avl_node *heavy = side < 0 ? node->left : node->right;
    if (heavy->balance != -side) {
        bool level = heavy->balance == 0; // only ever after a removal

        lift(tree, heavy);
        heavy->balance = (signed char)(level ? -side : 0);
        node->balance = (signed char)(level ? side : 0);
        return heavy;
    }

    struct avl_node *middle = side < 0 ? heavy->right : heavy->left;
    lift(tree, middle);
    lift(tree, middle);
    node->balance = (signed char)(middle->balance == side ? -side : 0);
    heavy->balance = (signed char)(middle->balance == -side ? side : 0);
    middle->balance = 0;
    return middle;
}

// Follows the growth of a subtree by one level up to where it is absorbed.
static void subtree_grew(struct avl_tree *tree, struct avl_node *node)
{
    for (struct avl_node *parent = node->parent; parent != NULL; parent = node->parent) {
        parent->balance = (signed char)(parent->balance + (parent->left == node ? -1 : 1));
        if (parent->balance == 0)
            return;
        if (parent->balance < -1 || parent->balance > 1) {
            rebalance(tree, parent);
            return;
        }
        node = parent;
    }
}

// Follows the loss of one level on a side of `node` up to where it no longer shows.
static void side_shrank(struct avl_tree *tree, struct avl_node *node, bool left)
{
    while (node != NULL) {
        node->balance = (signed char)(node->balance + (left ? 1 : -1));
        if (node->balance == -1 || node->balance == 1)
            return;
        if (node->balance != 0) {
            node = rebalance(tree, node);
            if (node->balance != 0)
                return;
        }
        left = node->parent != NULL && node->parent->left == node;
        node = node->parent;
    }
}

// Puts a node that is not in the tree where another one is.
static void take_place(struct avl_tree *tree, struct avl_node *node, struct avl_node *old)
{
    *slot_of(tree, old) = node;
    node->parent = old->parent;
    set_left(node, old->left);
    set_right(node, old->right);
    node->balance = old->balance;
}

static void remove_leader(struct avl_tree *tree, struct avl_node *node)
{
    // With two children its successor, which has no left child, moves here instead.
    struct avl_node *gone = node->left != NULL && node->right != NULL ? next_leader(node) : node;
    struct avl_node *child = gone->left != NULL ? gone->left : gone->right;
    struct avl_node *parent = gone->parent;
    bool left = parent != NULL && parent->left == gone;

    *slot_of(tree, gone) = child;
    if (child != NULL)
        child->parent = parent;

    if (gone != node) {
        take_place(tree, gone, node);
        if (parent == node)
            parent = gone;
    }
    side_shrank(tree, parent, left);
}

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *cmp_ptr)
{
    INIT_LIST_HEAD(&tree->list_head);
    tree->root = NULL;
    tree->count = 0;
    tree->allow_dups = allow_dups;
    tree->comp = comp;
    tree->cmp_ptr = cmp_ptr;
}

struct avl_node *avl_find(const struct avl_tree *tree, const void *key)
{
    struct avl_node *node = tree->root;
    while (node != NULL) {
        int order = tree->comp(key, node->key, tree->cmp_ptr);
        if (order == 0)
            return node;
        node = order < 0 ? node->left : node->right;
    }
    return NULL;
}

struct avl_node *avl_find_greaterequal(const struct avl_tree *tree, const void *key)
{
    struct avl_node *node = tree->root;
    struct avl_node *best = NULL;
    while (node != NULL) {
        int order = tree->comp(key, node->key, tree->cmp_ptr);
        if (order == 0)
            return node;
        if (order < 0)
            best = node;
        node = order < 0 ? node->left : node->right;
    }
    return best;
}

struct avl_node *avl_find_lessequal(const struct avl_tree *tree, const void *key)
{
    struct avl_node *above = tree->root;
    struct avl_node *next = NULL;

    // The lowest leader above the key: the last node that is not sits right before it.
    while (above != NULL) {
        bool higher = tree->comp(key, above->key, tree->cmp_ptr) < 0;
        if (higher)
            next = above;
        above = higher ? above->left : above->right;
    }

    const struct list_head *last = next != NULL ? next->list.prev : tree->list_head.prev;
    return last == &tree->list_head ? NULL : node_of(last);
}

int avl_insert(struct avl_tree *tree, struct avl_node *node)
{
    struct avl_node *parent = NULL;
    struct avl_node **slot = &tree->root;
    int order = 1;

    while (*slot != NULL) {
        parent = *slot;
        order = tree->comp(node->key, parent->key, tree->cmp_ptr);
        if (order == 0)
            break;
        slot = order < 0 ? &parent->left : &parent->right;
    }

    if (parent != NULL && order == 0 && !tree->allow_dups)
        return -1;

    // In the list: before a higher parent, else after all nodes with the parent's key.
    struct avl_node *next = parent == NULL || order < 0 ? parent : next_leader(parent);
    list_add_tail(&node->list, next != NULL ? &next->list : &tree->list_head);
    tree->count++;

    node->parent = NULL;
    node->left = NULL;
    node->right = NULL;
    node->balance = 0;
    node->leader = order != 0;
    if (!node->leader)
        return 0;

    node->parent = parent;
    *slot = node;
    subtree_grew(tree, node);
    return 0;
}

void avl_delete(struct avl_tree *tree, struct avl_node *node)
{
    struct list_head *next = node->list.next;
    if (node->leader) {
        if (next != &tree->list_head && !node_of(next)->leader) {
            take_place(tree, node_of(next), node);
            node_of(next)->leader = true;
        } else {
            remove_leader(tree, node);
        }
    }

    list_del(&node->list);
    tree->count--;
}
