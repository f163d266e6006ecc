/* SPDX-License-Identifier: ISC */
/**
 * @file base.h
 * What every other header needs: the export mark, the format check and the list link.
 */
#ifndef BV_BASE_H
#define BV_BASE_H

#include <stddef.h>
#include <stdint.h>

/** Marks a name of the interface. All other names are hidden in the shared object. */
#if defined(__GNUC__)
#define BV_API __attribute__((visibility("default")))
#else
#define BV_API
#endif

/**
 * Lets the compiler check a printf-style format against its arguments.
 *
 * @param format_index    position of the format among the parameters, counted from 1
 * @param first_argument  position of the first argument after it (the "...")
 */
#if defined(__GNUC__)
#define BV_PRINTF(format_index, first_argument)                                                    \
    __attribute__((format(printf, format_index, first_argument)))
#else
#define BV_PRINTF(format_index, first_argument)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The link of a circular doubly linked list, embedded in each of its records. The list's head has
 * the same type; the head of an empty list points to itself both ways.
 */
typedef struct bv_list_head {
    struct bv_list_head *next; /**< the element after this one; the head after the last */
    struct bv_list_head *prev; /**< the element before this one; the head before the first */
} bv_list_head;

#ifdef __cplusplus
}
#endif

#endif
