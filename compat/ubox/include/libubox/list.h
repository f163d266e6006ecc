/* SPDX-License-Identifier: ISC */
/**
 * Doubly linked list with the links embedded in the caller's records.
 *
 * A head is a link that points to itself while the list is empty, so no operation needs to
 * test for the ends. Nothing is allocated and nothing is locked.
 *
 * LIST_HEAD is also the name of a macro in <sys/queue.h>; a file cannot use both.
 */
#ifndef LIBUBOX_LIST_H
#define LIBUBOX_LIST_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define prefetch(x)

static inline void *__record_of_link(const void *link, size_t offset)
{
    return (void *)((char *)link - offset);
}

static inline void *__record_of_link_or_null(const void *link, size_t offset)
{
    return link ? __record_of_link(link, offset) : NULL;
}

/** The record of the given type whose `member` is at ptr; the safe form gives NULL for NULL. */
#ifndef container_of
#define container_of(ptr, type, member) ((type *)__record_of_link((ptr), offsetof(type, member)))
#endif

#ifndef container_of_safe
#define container_of_safe(ptr, type, member)                                                       \
    ((type *)__record_of_link_or_null((ptr), offsetof(type, member)))
#endif

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

#define LIST_HEAD_INIT(name)                                                                       \
    {                                                                                              \
        &(name), &(name)                                                                           \
    }
#undef LIST_HEAD
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)

static inline void INIT_LIST_HEAD(struct list_head *list)
{
    list->next = list;
    list->prev = list;
}

static inline bool list_empty(const struct list_head *head)
{
    return head->next == head;
}

static inline bool list_is_first(const struct list_head *list, const struct list_head *head)
{
    return list->prev == head;
}

static inline bool list_is_last(const struct list_head *list, const struct list_head *head)
{
    return list->next == head;
}

static inline void __list_link(struct list_head *entry, struct list_head *before,
                               struct list_head *after)
{
    entry->prev = before;
    entry->next = after;
    before->next = entry;
    after->prev = entry;
}

static inline void __list_unlink(const struct list_head *entry)
{
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
}

/** At the front. */
static inline void list_add(struct list_head *entry, struct list_head *head)
{
    __list_link(entry, head, head->next);
}

/** At the end. */
static inline void list_add_tail(struct list_head *entry, struct list_head *head)
{
    __list_link(entry, head->prev, head);
}

/** Unlinks; the pointers become NULL, so that a second removal is noticed. */
static inline void list_del(struct list_head *entry)
{
    __list_unlink(entry);
    entry->next = NULL;
    entry->prev = NULL;
}

/** Unlinks; the record is then an empty list of its own and may be removed again. */
static inline void list_del_init(struct list_head *entry)
{
    __list_unlink(entry);
    INIT_LIST_HEAD(entry);
}

static inline void list_move(struct list_head *entry, struct list_head *head)
{
    __list_unlink(entry);
    list_add(entry, head);
}

static inline void list_move_tail(struct list_head *entry, struct list_head *head)
{
    __list_unlink(entry);
    list_add_tail(entry, head);
}

static inline void __list_splice_between(const struct list_head *list, struct list_head *before,
                                         struct list_head *after)
{
    if (list_empty(list))
        return;

    list->next->prev = before;
    before->next = list->next;
    list->prev->next = after;
    after->prev = list->prev;
}

/** Moves all records of list to the front of head. The plain forms leave list itself dangling,
 * the _init forms leave it empty. */
static inline void list_splice(const struct list_head *list, struct list_head *head)
{
    __list_splice_between(list, head, head->next);
}

static inline void list_splice_tail(const struct list_head *list, struct list_head *head)
{
    __list_splice_between(list, head->prev, head);
}

static inline void list_splice_init(struct list_head *list, struct list_head *head)
{
    list_splice(list, head);
    INIT_LIST_HEAD(list);
}

static inline void list_splice_tail_init(struct list_head *list, struct list_head *head)
{
    list_splice_tail(list, head);
    INIT_LIST_HEAD(list);
}

#define list_entry(p, type, field) container_of(p, type, field)
#define list_first_entry(p, type, field) list_entry((p)->next, type, field)
#define list_last_entry(p, type, field) list_entry((p)->prev, type, field)
#define list_next_entry(p, field) list_entry((p)->field.next, __typeof__(*(p)), field)

/** The safe forms allow the removal of the current record, and of no other. */
#define list_for_each(p, head) for (p = (head)->next; p != (head); p = p->next)

#define list_for_each_safe(p, n, head)                                                             \
    for (p = (head)->next, n = p->next; p != (head); p = n, n = p->next)

#define list_for_each_entry(p, h, field)                                                           \
    for (p = list_first_entry(h, __typeof__(*p), field); &p->field != (h);                         \
         p = list_entry(p->field.next, __typeof__(*p), field))

#define list_for_each_entry_safe(p, n, h, field)                                                   \
    for (p = list_first_entry(h, __typeof__(*p), field),                                           \
        n = list_entry(p->field.next, __typeof__(*p), field);                                      \
         &p->field != (h); p = n, n = list_entry(n->field.next, __typeof__(*n), field))

#define list_for_each_entry_reverse(p, h, field)                                                   \
    for (p = list_last_entry(h, __typeof__(*p), field); &p->field != (h);                          \
         p = list_entry(p->field.prev, __typeof__(*p), field))

#ifdef __cplusplus
}
#endif

#endif
