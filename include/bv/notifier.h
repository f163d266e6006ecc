/**
 * @file notifier.h
 * Numbered events from any thread, and from the gateway's driver, to registered callbacks; the
 * time-tick interface and a millisecond delay.
 *
 * An event is a type, 0 to 13, and a few bytes. One thread of the library, the dispatch thread,
 * hands each event to all callbacks of its type, in the order of registration; events come in
 * the order in which they were posted. A second thread receives the driver's messages over
 * netlink (protocol 26) and posts those that have an event type of their own:
 *
 * | driver message | 2 | 4 | 5 | 6 | 7  | 8  | 9  |
 * |----------------|---|---|---|---|----|----|----|
 * | event type     | 4 | 5 | 6 | 8 | 11 | 12 | 13 |
 *
 * The types 0 to 3, 7, 9 and 10 never come from the driver and are free for the services.
 *
 * Both threads are started by bv_notifier_init(), normally through bv_libraries_init(), and live
 * as long as the process; there is no shutdown.
 */
#ifndef BV_NOTIFIER_H
#define BV_NOTIFIER_H

#include <bv/base.h>

#include <semaphore.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Counts the posted events; the dispatch thread waits on it. Private to the process and 0 until
 * the first event. Posting it without an event wakes the dispatch thread harmlessly; nobody else
 * may wait on it.
 */
extern BV_API sem_t g_st_notifier_sem;

/**
 * Receives one event.
 *
 * Runs on the dispatch thread with no lock held, so it may post events itself, but it should
 * return promptly: all later events wait for it.
 *
 * @param data    the payload, followed by a zero byte, so that text is terminated; never null,
 *                aligned to 8 bytes. It is the library's and gone after the callback
 * @param length  its size in bytes, without that zero byte
 */
typedef void (*bv_notifier_cb)(void *data, uint32_t length);

/**
 * Starts the notifier: its two threads and their state. While its dispatch thread runs, a further
 * call leaves it and all registrations alone, and only tries to reach the driver if there is no
 * receive thread yet, for instance because the driver was loaded later.
 *
 * That the driver cannot be reached (bv_netlink_init() failed) is not a failure here: events
 * between the service's own threads work all the same. That the dispatch thread cannot be started
 * is not reported either; bv_notifier_send() then returns -1, and a further call starts afresh.
 *
 * A forked child has none of the threads, registrations and events of its parent, and its copy of
 * the driver's socket is closed by the fork. It calls this function, or bv_libraries_init(), and
 * registers for itself; until then its sends return -1. A callback that forks must not return in
 * the child.
 *
 * @return 0 always
 *
 * Call it before any other function of this family and before other threads use it; further calls
 * are made by one thread at a time.
 */
BV_API int32_t bv_notifier_init(void);

/**
 * Registers a callback for one event type, for the life of the process. The same callback may be
 * registered more than once, and is then called as often.
 *
 * @param type      0 to 13; others are ignored
 * @param callback  the callback; null is ignored
 *
 * @return 0 always, also when it was ignored, when memory was short or while no dispatch thread
 *         runs (see bv_notifier_init())
 *
 * Registrations take no lock: make them from one thread at a time. Events may flow meanwhile; an
 * event in delivery reaches the new callback or does not.
 */
BV_API int32_t bv_notifier_reg(uint32_t type, bv_notifier_cb callback);

/**
 * Posts an event.
 *
 * @param type    0 to 13. An event of another type, or one nobody registered for, is consumed
 *                silently
 * @param data    the payload, copied; null posts `length` zero bytes
 * @param length  its size in bytes, 0 included. An event is one allocation, so a little less
 *                than 1310720 at most
 *
 * @return 0 when the event is posted; -1 when memory is short or while no dispatch thread of this
 *         process runs (then nothing is posted; see bv_notifier_init()), or when the semaphore
 *         could not be posted (the event then waits for the next one's post)
 *
 * Thread-safe, also from within a callback; events of one thread arrive in its order.
 */
BV_API int32_t bv_notifier_send(uint32_t type, const void *data, uint32_t length);

/**
 * Translates one driver message and posts it, as the receive thread does: see the table above.
 * Type 1 is ignored; any other type without an event type is printed on standard output, as
 *
 *     [bv_notifier_kernel:0139]type(3)-len(5)-data(three)
 *
 * and a carriage return and line feed. A message that cannot be posted (no memory, or no dispatch
 * thread) is lost without notice.
 *
 * @param kernel_type  the driver's message type
 * @param data         the payload; stays the caller's. It is copied as bv_notifier_send() does,
 *                     or printed as text up to its first zero byte; null is an empty text then
 * @param length       its size in bytes; no more is read
 *
 * Thread-safe.
 */
BV_API void bv_notifier_kernel(uint32_t kernel_type, void *data, uint32_t length);

/**
 * Opens the netlink socket to the driver, bound to the process id as port id, and starts the
 * receive thread, which tells the driver that port id and then posts what arrives. A message's
 * payload is cut at 1024 bytes; a message that is shorter than a netlink header, or says so in its
 * length field, is dropped. The sender is not checked.
 *
 * bv_notifier_init() calls it; a second call in one process finds the port id taken.
 *
 * @retval BV_OK           the receive thread runs
 * @retval BV_ERR_FAILED   no such netlink protocol (the driver is not loaded), or the thread
 *                         could not be started
 * @retval BV_ERR_CHANNEL  the socket cannot be bound
 *
 * On failure no descriptor stays open, and a receive thread that runs already is not disturbed.
 * The socket's descriptor is above 2 and not passed on to programs that the service starts.
 * A receive thread that finds no memory for its buffer ends and closes the socket; that is not
 * reported. Thread-safe.
 */
BV_API int32_t bv_netlink_init(void);

/** A tick's callback; reserved. */
typedef void (*bv_time_tick_cb)(void);

/**
 * Start of the tick service, which has no behaviour in this version: no timer, signal or thread.
 *
 * @return 0 always. Thread-safe, as are the next two.
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
 * The delay is (ms / 1000) seconds and ((ms * 1000) mod 2^32) mod 1000000 microseconds: above
 * 4294967 ms (71 minutes) the part below one second is therefore not the one asked for.
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
