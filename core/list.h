// Rings of embedded links. An empty list's head points to itself, so linking and unlinking need
// no special case for the ends.
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

// Links an element behind the last one.
inline void list_append(bv_list_head &head, bv_list_head &link)
{
    bv_list_head *last = head.prev;
    link.next = &head;
    link.prev = last;
    last->next = &link;
    head.prev = &link;
}

// Appends an element to a list that another thread may walk at the same moment with list_next():
// the walker finds it complete or not at all. Only one thread may append at a time.
inline void list_publish(bv_list_head &head, bv_list_head &link)
{
    bv_list_head *last = head.prev;
    link.next = &head;
    link.prev = last;
    head.prev = &link;
    store_release(last->next, &link);
}

// The element behind this one, where others may be published meanwhile.
inline bv_list_head *list_next(const bv_list_head &link)
{
    return load_acquire(link.next);
}

// Takes an element out of its list and clears its links, so that a later use of them is found.
inline void list_unlink(bv_list_head &link)
{
    link.prev->next = link.next;
    link.next->prev = link.prev;
    link.next = nullptr;
    link.prev = nullptr;
}

// The record around an embedded link, `offset` bytes (offsetof) into it.
template <typename Record>
inline Record *list_record(bv_list_head *link, size_t offset)
{
    return reinterpret_cast<Record *>(reinterpret_cast<char *>(link) - offset);
}

} // namespace bv

#endif
