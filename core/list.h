// SPDX-License-Identifier: ISC
// Rings of embedded links. An empty list's head points to itself, so linking and unlinking need
// no special case for the ends.
//
// A record's link is its member `link`. each<Record>(head) walks the records of a list:
//
//     for (Entry &entry : bv::each<Entry>(bucket))
#ifndef BV_CORE_LIST_H
#define BV_CORE_LIST_H

#include <bv/base.h>

#include "os/atomic.h"

#include <cstddef>

namespace bv {

inline void list_init(bv_list_head &head)
{
    head.next = &head;
    head.prev = &head;
}

inline bool list_empty(const bv_list_head &head)
{
    return head.next == &head;
}

// Links an element after the last one.
inline void list_append(bv_list_head &head, bv_list_head &link)
{
    bv_list_head *last = head.prev;
    link.next = &head;
    link.prev = last;
    last->next = &link;
    head.prev = &link;
}

// Appends to a list that another thread may be walking with each_published(): the walker finds the
// element complete or not at all. Only one thread may append at a time.
inline void list_publish(bv_list_head &head, bv_list_head &link)
{
    bv_list_head *last = head.prev;
    link.next = &head;
    link.prev = last;
    head.prev = &link;
    store_release(last->next, &link);
}

// Takes an element out of its list and clears its links, so that a later use of them shows.
inline void list_unlink(bv_list_head &link)
{
    link.prev->next = link.next;
    link.next->prev = link.prev;
    link.next = nullptr;
    link.prev = nullptr;
}

// The record around an embedded link.
template <typename Record>
inline Record &record_of(bv_list_head *link)
{
    return *reinterpret_cast<Record *>(reinterpret_cast<char *>(link) - offsetof(Record, link));
}

inline bv_list_head *next_link(const bv_list_head *link)
{
    return link->next;
}

inline bv_list_head *next_published_link(const bv_list_head *link)
{
    return load_acquire(link->next);
}

// The records of a list, for a range-for loop.
template <typename Record, bv_list_head *(*Next)(const bv_list_head *)>
class ListWalk {
public:
    class Iterator {
    public:
        explicit Iterator(bv_list_head *link) : link_(link) {}
        Record &operator*() const { return record_of<Record>(link_); }
        void operator++() { link_ = Next(link_); }
        bool operator!=(const bv_list_head *end) const { return link_ != end; }

    private:
        bv_list_head *link_;
    };

    explicit ListWalk(const bv_list_head &head) : head_(&head) {}
    Iterator begin() const { return Iterator(Next(head_)); }
    const bv_list_head *end() const { return head_; }

private:
    const bv_list_head *head_;
};

// As above; the loop may take out, or free, the record at hand.
template <typename Record>
class RemovalWalk {
public:
    class Iterator {
    public:
        explicit Iterator(bv_list_head *link) : link_(link), next_(link->next) {}
        Record &operator*() const { return record_of<Record>(link_); }
        void operator++() { *this = Iterator(next_); }
        bool operator!=(const bv_list_head *end) const { return link_ != end; }

    private:
        bv_list_head *link_;
        bv_list_head *next_;
    };

    explicit RemovalWalk(const bv_list_head &head) : head_(&head) {}
    Iterator begin() const { return Iterator(head_->next); }
    const bv_list_head *end() const { return head_; }

private:
    const bv_list_head *head_;
};

template <typename Record>
inline ListWalk<Record, next_link> each(const bv_list_head &head)
{
    return ListWalk<Record, next_link>(head);
}

template <typename Record>
inline RemovalWalk<Record> each_removable(const bv_list_head &head)
{
    return RemovalWalk<Record>(head);
}

template <typename Record>
inline ListWalk<Record, next_published_link> each_published(const bv_list_head &head)
{
    return ListWalk<Record, next_published_link>(head);
}

} // namespace bv

#endif
