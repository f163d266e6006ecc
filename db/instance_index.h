// The instances of one family by number, while a data file is loaded.
//
// A load asks for every number of the file before it stores the element. Walking the list for
// each would take minutes for a file of a few megabytes, which a service does not survive on the
// gateway. Files that we wrote are mostly in ascending order and never need more than the highest
// number; the tree is for the others.
#ifndef BV_DB_INSTANCE_INDEX_H
#define BV_DB_INSTANCE_INDEX_H

#include "core/list.h"
#include "db/internal.h"

#include <bv/os.h>

namespace bv {

class InstanceIndex {
public:
    explicit InstanceIndex(bv_db_family &family)
        : family_(family), measured_(&instances_of(family)), last_(measured_)
    {
    }
    ~InstanceIndex() { release(root_); }
    InstanceIndex(const InstanceIndex &) = delete;
    InstanceIndex &operator=(const InstanceIndex &) = delete;

    // The first instance of a number in list order, or null. Instances may be appended between
    // two calls, not deleted.
    bv_db_inst *find(int32_t number)
    {
        if (number > highest())
            return nullptr;
        catch_up();
        Node *node = *place(number);
        if (node != nullptr)
            return node->instance;
        return complete_ ? nullptr : bv_db_data_get_inst(&family_, number);
    }

    // The highest number, at least 1. The family's own field is not asked: a service may have
    // written it, and a number that then seemed to be new would be there twice.
    int32_t highest()
    {
        for (; measured_->next != &family_.inst_list; measured_ = measured_->next) {
            const int32_t number = instance_of(measured_->next)->number;
            highest_ = number > highest_ ? number : highest_;
        }
        return highest_;
    }

private:
    // A node has the next bit of the number, from the lowest one on, as the way to its children.
    // Different numbers differ in one of 32 bits, so no order of them makes the tree deeper.
    struct Node {
        bv_db_inst *instance;
        Node *child[2];
    };

    // Where the node of a number hangs, or would.
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

    // Takes in what was appended since the last call. Without memory the list is walked instead.
    void catch_up()
    {
        for (; complete_ && last_->next != &family_.inst_list; last_ = last_->next) {
            bv_db_inst *next = instance_of(last_->next);
            Node **node = place(next->number);
            if (*node != nullptr)
                continue;
            *node = static_cast<Node *>(bv_os_malloc(sizeof(Node)));
            if (*node == nullptr)
                complete_ = false;
            else
                **node = Node{next, {nullptr, nullptr}};
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
    bv_list_head *measured_; // the last one that highest_ knows; the list's head at first
    int32_t highest_ = 1;
    bv_list_head *last_; // the last one in the tree; the list's head at first
    Node *root_ = nullptr;
    bool complete_ = true;
};

} // namespace bv

#endif
