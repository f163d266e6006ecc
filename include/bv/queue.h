/* SPDX-License-Identifier: ISC */
/**
 * @file queue.h
 * A first-in-first-out queue of byte messages with a depth limit.
 *
 * True of every function here: sizes are in bytes; messages are copied in and out, so no pointer of
 * the caller is kept; no call waits, so a consumer polls; only the allocator prints, a line with
 * each BV_ERR_MEMORY. Any number of threads may send to and receive from one queue, but no other
 * thread may use it during bv_queue_init() and bv_queue_free().
 */
#ifndef BV_QUEUE_H
#define BV_QUEUE_H

#include <bv/base.h>

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * A queue. Callers may read it while no other thread uses it, and count and dropped at any time, as
 * statistics, with a relaxed atomic load.
 */
typedef struct bv_queue {
    bv_list_head messages; /**< oldest first */
    pthread_mutex_t lock;  /**< guards messages and count */
    uint32_t count;        /**< messages waiting */
    uint32_t max;          /**< depth limit, fixed by bv_queue_init() */
    uint32_t dropped;      /**< sends refused because the queue was full; stops at 2^32 - 1 */
} bv_queue;

/**
 * Makes an empty queue.
 *
 * @param out  gets the queue, the caller's until bv_queue_free(); unchanged after a failure
 * @param max  messages that may wait at once. 0 is allowed: every send then finds the queue full
 *
 * @retval BV_OK          *out is the queue
 * @retval BV_ERR_NULL    out is null
 * @retval BV_ERR_MEMORY  no memory for it
 */
BV_API uint32_t bv_queue_init(bv_queue **out, uint32_t max);

/**
 * Appends a copy of one message.
 *
 * @param q       from bv_queue_init()
 * @param data    the message; may be reused as soon as the call returns
 * @param length  its size, at least 1. A message and its header are one allocation, so 1310708
 *                bytes at most on a 32-bit machine (12 less on a 64-bit one)
 *
 * @retval BV_OK          the message is queued
 * @retval BV_ERR_NULL    q or data is null, or length is 0 (bv_queue_recv() has another code for
 *                        this)
 * @retval BV_ERR_FULL    max messages are waiting: this one is lost and counted in dropped
 * @retval BV_ERR_MEMORY  no memory for the copy, or length above the limit
 *
 * Thread-safe. Senders racing for the last place may all get in, so the depth can pass max by as
 * many.
 */
BV_API uint32_t bv_queue_send(bv_queue *q, const void *data, uint32_t length);

/**
 * Takes the oldest message out.
 *
 * @param q       from bv_queue_init()
 * @param buffer  gets the message; unchanged when there is none
 * @param size    any number but 0. **It does not bound the copy**: the whole message is written, so
 *                buffer must hold the largest message that is ever sent. The length is not returned
 *                either: send messages of one known size, or put the size into them
 *
 * @retval BV_OK           buffer holds the message
 * @retval BV_ERR_INVALID  q or buffer is null, or size is 0
 * @retval BV_ERR_EMPTY    no message is waiting
 *
 * Thread-safe.
 */
BV_API uint32_t bv_queue_recv(bv_queue *q, void *buffer, uint32_t size);

/**
 * Frees a queue.
 *
 * Messages still waiting are abandoned, not freed: a service that cares about their memory
 * receives them first.
 *
 * @param q  the variable that holds the queue; set to null. Other copies of the pointer dangle
 *
 * @retval BV_OK        the queue is gone
 * @retval BV_ERR_NULL  q or the queue in it is null
 */
BV_API uint32_t bv_queue_free(bv_queue **q);

#ifdef __cplusplus
}
#endif

#endif
