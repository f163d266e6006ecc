/* SPDX-License-Identifier: ISC */
/**
 * @file notifier.h
 * Numbered events from any thread, and from the gateway's driver, to registered callbacks; the
 * time-tick interface and a millisecond delay.
 *
 * An event is a type, 0 to 13, and a few bytes. One thread of the library, the dispatch thread,
 * passes each event to all callbacks of its type, in the order of registration. Events are handled
 * in the order in which they were posted. A second thread receives the driver's messages over
 * netlink (protocol 26) and posts those that have an event type:
 *
 * | driver message | 2 | 4 | 5 | 6 | 7  | 8  | 9  |
 * |----------------|---|---|---|---|----|----|----|
 * | event type     | 4 | 5 | 6 | 8 | 11 | 12 | 13 |
 *
 * The types 0 to 3, 7, 9 and 10 never come from the driver: services may use them.
 *
 * bv_notifier_init(), which bv_libraries_init() calls, starts both threads. They run until the
 * process ends and cannot be stopped.
 */
#ifndef BV_NOTIFIER_H
#define BV_NOTIFIER_H

#include <bv/base.h>

#include <semaphore.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Counts the posted events; only the dispatch thread may wait on it. Private to the process, and 0
 * until the first event. Posting it without an event wakes the dispatch thread, which is harmless.
 */
extern BV_API sem_t g_st_notifier_sem;

/**
 * Receives one event.
 *
 * Runs on the dispatch thread without a lock, so it may post events itself, but it should return
 * soon: all later events wait for it.
 *
 * @param data    the payload, followed by a zero byte, so that text is terminated; never null,
 *                aligned to 8 bytes. The library frees it after the callback
 * @param length  its size in bytes, without that zero byte
 */
typedef void (*bv_notifier_cb)(void *data, uint32_t length);

/**
 * Starts the notifier: its two threads and their state. While the dispatch thread runs, a further
 * call changes nothing but this: without a receive thread it tries to reach the driver again, which
 * may have been loaded since.
 *
 * If the driver cannot be reached (bv_netlink_init() failed), this is not a failure: events between
 * the service's own threads still work. If the dispatch thread cannot be started, this is not
 * reported either: bv_notifier_send() then returns -1, and a further call tries again.
 *
 * A forked child has none of its parent's threads, registrations and events, and the fork closes
 * its copy of the driver's socket. It calls this function, or bv_libraries_init(), and registers
 * for itself; until then its sends return -1. A callback that forks must not return in the child.
 *
 * @return 0
 *
 * Call it before any other function of this family, and before other threads use them. Only one
 * thread at a time may make further calls.
 */
BV_API int32_t bv_notifier_init(void);

/**
 * Registers a callback for one event type, for the life of the process. The same callback may be
 * registered more than once, and is then called as often.
 *
 * @param type      0 to 13; others are ignored
 * @param callback  the callback; null is ignored
 *
 * @return 0, also when nothing was registered: with a wrong argument, when memory is short, or
 *         while no dispatch thread runs (see bv_notifier_init())
 *
 * Registering takes no lock: do it from one thread at a time. Events may be delivered meanwhile;
 * the new callback may or may not get an event that is being delivered.
 */
BV_API int32_t bv_notifier_reg(uint32_t type, bv_notifier_cb callback);

/**
 * Posts an event.
 *
 * @param type    0 to 13. An event of another type, or of a type without callbacks, is dropped
 *                without notice
 * @param data    the payload, copied; null posts `length` zero bytes
 * @param length  its size in bytes, may be 0. An event is one allocation, so a little less than
 *                1310720 at most
 *
 * @return 0 when the event is posted; -1 when memory is short or no dispatch thread of this process
 *         runs (nothing is posted; see bv_notifier_init()), or when the semaphore cannot be posted
 *         (the event waits for the next post)
 *
 * Thread-safe, also in a callback. Events of one thread arrive in the order of its calls.
 */
BV_API int32_t bv_notifier_send(uint32_t type, const void *data, uint32_t length);

/**
 * Translates one driver message by the table above and posts it; the receive thread calls this.
 * Type 1 is ignored. Any other type without an event type is printed on standard output, followed
 * by a carriage return and a line feed:
 *
 *     [bv_notifier_kernel:0139]type(3)-len(5)-data(three)
 *
 * A message that cannot be posted (no memory, or no dispatch thread) is lost without notice.
 *
 * @param kernel_type  the driver's message type
 * @param data         the payload; stays the caller's. It is copied as by bv_notifier_send(), or
 *                     printed as text up to its first zero byte; null prints an empty text
 * @param length       its size in bytes; no more is read
 *
 * Thread-safe.
 */
BV_API void bv_notifier_kernel(uint32_t kernel_type, void *data, uint32_t length);

/**
 * Opens the netlink socket to the driver, bound to the process id as port id, and starts the
 * receive thread. That thread sends the port id to the driver and then posts what arrives. The
 * payload of a message is cut at 1024 bytes; a message that is shorter than a netlink header, or
 * says so in its length field, is dropped. The sender is not checked.
 *
 * bv_notifier_init() calls this. A second call in one process fails, since the port id is taken.
 *
 * @retval BV_OK           the receive thread runs
 * @retval BV_ERR_FAILED   no such netlink protocol (the driver is not loaded), or the thread cannot
 *                         be started
 * @retval BV_ERR_CHANNEL  the socket cannot be bound
 *
 * After a failure no descriptor stays open, and a running receive thread is not disturbed. The
 * socket's descriptor is above 2, and programs that the service starts do not inherit it. Without
 * memory for its buffer the receive thread ends and closes the socket, which is not reported.
 * Thread-safe.
 */
BV_API int32_t bv_netlink_init(void);

/** A tick's callback; reserved. */
typedef void (*bv_time_tick_cb)(void);

/**
 * Starts the tick service, which does nothing in this version: no timer, signal or thread.
 *
 * @return 0. Thread-safe, like the next two.
 */
BV_API int32_t bv_time_tick_init(void);

/**
 * Does nothing.
 *
 * @param callback   reserved, ignored
 * @param period_ms  reserved, ignored; milliseconds
 */
BV_API void bv_time_tick_reg(bv_time_tick_cb callback, uint32_t period_ms);

/**
 * Does nothing.
 *
 * @param callback   reserved, ignored
 * @param period_ms  reserved, ignored; milliseconds
 */
BV_API void bv_time_tick_set(bv_time_tick_cb callback, uint32_t period_ms);

/**
 * Delays the calling thread.
 *
 * The delay is (ms / 1000) seconds and ((ms * 1000) mod 2^32) mod 1000000 microseconds. So above
 * 4294967 ms (71 minutes) the part below one second is not the one asked for.
 *
 * @param ms  milliseconds; 0 returns at once
 *
 * A signal ends the delay early, which is not reported. Thread-safe.
 */
BV_API void bv_timer_set(uint32_t ms);

#ifdef __cplusplus
}
#endif

#endif
