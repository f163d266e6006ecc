// SPDX-License-Identifier: ISC
// The instances of one family by number, while a data file is loaded.
//
// A load looks for each number of the file before it stores the element. Walking the list every
// time would take minutes for a file of a few megabytes, and on the gateway the service would be
// killed. Files that this library wrote are mostly in ascending order and need only the highest
// number. The tree is for the others.
#ifndef BV_DB_INSTANCE_INDEX_H
#define BV_DB_INSTANCE_INDEX_H

#include "core/list.h"
#include "db/internal.h"
#include "os/alloc.h"

#include <bv/os.h>

#include <algorithm>

namespace bv {

class InstanceIndex {
public:
    explicit InstanceIndex(bv_db_family &family)
        : family_(family), measured_(&instance_list(family)), last_(measured_)
    {
    }
    ~InstanceIndex() { release(root_); }
    InstanceIndex(const InstanceIndex &) = delete;
    InstanceIndex &operator=(const InstanceIndex &) = delete;

    // The first instance of a number in list order, or null. Between two calls instances may be
    // appended, but not deleted.
    bv_db_inst *find(int32_t number)
    {
        if (number > highest())
            return nullptr;
        catch_up();
        Node *node = *place(number);
        if (node != nullptr)
            return node->instance;
        return complete_ ? nullptr : find_instance(family_, number);
    }

    // The highest number, at least 1. The family's own field does not count: a service may have
    // changed it, and a number could then be taken for new and added twice.
    int32_t highest()
    {
        for (; measured_->next != &family_.inst_list; measured_ = measured_->next)
            highest_ = std::max(highest_, record_of<bv_db_inst>(measured_->next).number);
        return highest_;
    }

private:
    // Each level decides by one bit of the number, from the lowest on. Different numbers differ in
    // one of 32 bits, so no order of them makes the tree deeper than that.
    struct Node {
        bv_db_inst *instance;
        Node *child[2];
    };

    // Where the pointer to a number's node is, or would be.
    Node **place(int32_t number)
    {
        auto bits = static_cast<uint32_t>(number);
        Node **node = &root_;
        while (*node != nullptr && (*node)->instance->number != number) {
            node = &(*node)->child[bits & 1];
            bits >>= 1;
        }
        return node;
    }

    // Adds what was appended since the last call. Without memory find() walks the list instead.
    void catch_up()
    {
        for (; complete_ && last_->next != &family_.inst_list; last_ = last_->next) {
            auto &next = record_of<bv_db_inst>(last_->next);
            Node **node = place(next.number);
            if (*node != nullptr)
                continue;
            *node = allocate<Node>();
            if (*node == nullptr)
                complete_ = false;
            else
                **node = Node{&next, {nullptr, nullptr}};
        }
    }

    static void release(Node *node)
    {
        if (node == nullptr)
            return;
        release(node->child[0]);
        release(node->child[1]);
        bv_os_free(node);
    }

    friend struct InstanceIndexDepth; // a test looks at how deep the tree is
    bv_db_family &family_;
    bv_list_head *measured_; // the last one that highest_ covers; the list's head at first
    int32_t highest_ = 1;
    bv_list_head *last_; // the last one in the tree; the list's head at first
    Node *root_ = nullptr;
    bool complete_ = true;
};

} // namespace bv

#endif
