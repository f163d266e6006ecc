/**
 * @file ubus.h
 * The event loop, the message buffers, the message bus and the JSON library under one prefix, and
 * the gateway's remote calls over the bus.
 *
 * The first half are wrappers over libubox (uloop, blob, blobmsg), libubus and json-c. They take
 * and return those libraries' own types, and this header brings their declarations with it, so a
 * service links against this library alone. True of all of them: arguments go through in the same
 * order and the result comes back unchanged, with the wrapped library's meaning; nothing is copied,
 * kept or freed beyond what that library does; no status code of our own is added; null pointers
 * are not tested for unless a function says so.
 *
 * Threads, for the whole header: one event loop per process, driven by the thread that runs it; a
 * bus connection is used by one thread at a time. The bus library shares buffers between all
 * connections of a process, so the server and the client of one process belong to one thread; see
 * bv_ubus_server_init() for the one exception.
 * The remaining wrappers keep no state; blob buffers and JSON objects belong to whoever uses them.
 *
 * Signals: initialising the event loop, which connecting to the bus does too, installs the loop's
 * handlers for SIGINT, SIGTERM and SIGCHLD where the process had the default action, and ignores
 * SIGPIPE. A process that never runs the loop (a plain client) is then no longer ended by SIGTERM
 * or SIGINT: it installs its own handlers before it connects. With the handler for SIGCHLD a
 * running loop collects every child of the process that ends: a shell function or a waitpid() that
 * another thread is in may find its child gone. On the loop's own thread they are safe.
 */
#ifndef BV_UBUS_H
#define BV_UBUS_H

#include <bv/base.h>

/* The libc headers that the libraries below include: ahead of the linkage block, because some of
 * libubox's headers rely on their includer for it and a C++ library's headers may not be in one. */
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

/* libubox's attribute shorthands stay inside: in C++ they break [[fallthrough]] and collide with
 * names of the standard library's own. */
#ifdef __cplusplus
#pragma push_macro("__packed")
#pragma push_macro("__hidden")
#pragma push_macro("__constructor")
#pragma push_macro("__destructor")
#pragma push_macro("fallthrough")
extern "C" {
#endif

#include <libubox/uloop.h>

#include <libubox/blob.h>
#include <libubox/blobmsg.h>

#include <libubus.h>

#include <json-c/json.h>

#ifdef __cplusplus
#pragma pop_macro("__packed")
#pragma pop_macro("__hidden")
#pragma pop_macro("__constructor")
#pragma pop_macro("__destructor")
#pragma pop_macro("fallthrough")
#endif

/**
 * @name Event loop
 * @{
 */

/** uloop_init(): opens the loop and takes over signals (see above). 0, or -1 with errno. */
BV_API int bv_uloop_init(void);

/**
 * uloop_run_timeout(-1): runs the loop in the calling thread until uloop_end(), SIGINT or SIGTERM.
 *
 * @return 0, or the number of the signal that ended the loop
 */
BV_API int bv_uloop_run(void);

/** uloop_done(): closes the loop and gives the signals back, but for SIGPIPE. Delete descriptors
 *  before. */
BV_API void bv_uloop_done(void);

/**
 * uloop_fd_add(): watches a descriptor.
 *
 * @param sock  the caller's record, zeroed before its first use; linked in place until deleted
 * @param flags ULOOP_READ, ULOOP_WRITE and modifiers; without ULOOP_BLOCKING the descriptor is made
 *              non-blocking
 * @return 0, or -1 with errno
 */
BV_API int bv_uloop_fd_add(struct uloop_fd *sock, unsigned int flags);

/** uloop_fd_delete(): stops watching; the descriptor stays open. 0, or -1 with errno. */
BV_API int bv_uloop_fd_delete(struct uloop_fd *sock);

/**
 * uloop_timeout_set(): arms a timer, or moves one that is pending.
 *
 * @param timeout the caller's record, zeroed before its first use; linked until it fires
 * @param msecs   from now, in milliseconds; 0 or less is due at once
 * @return 0
 */
BV_API int bv_uloop_timeout_set(struct uloop_timeout *timeout, int msecs);

/** uloop_timeout_cancel(): disarms a timer. 0, or -1 when it was not pending. */
BV_API int bv_uloop_timeout_cancel(struct uloop_timeout *timeout);

/**
 * uloop_timeout_remaining(): milliseconds until a timer fires, negative when it is overdue.
 *
 * @return -1 when it is not pending, which -1 ms overdue looks like too: read `pending` to tell
 */
BV_API int bv_uloop_timeout_remaining(struct uloop_timeout *timeout);

/**
 * uloop_process_add(): calls back when a child process has ended.
 *
 * @param p the caller's record with pid and cb set, cb not null; linked until the child has ended
 * @return 0, or -1 when it is pending already
 */
BV_API int bv_uloop_process_add(struct uloop_process *p);

/** uloop_process_delete(): forgets a child, which runs on. 0, or -1 when it was not pending. */
BV_API int bv_uloop_process_delete(struct uloop_process *p);

/** @} */

/**
 * @name Blob buffers
 *
 * An attribute is a 32-bit big-endian word (bit 31 the extended flag, bits 30 to 24 the id, bits
 * 23 to 0 the length in bytes with this word), its payload and zero padding to a multiple of 4.
 * Readers take it byte by byte, so an attribute may lie at any address; they check no length, and
 * one below 4 wraps. Attributes from outside go through a parse or check function first.
 *
 * A struct blob_buf is zeroed before its first init. A put that grows it may move it, and with it
 * every attribute in it.
 * @{
 */

/** blob_buf_init(): empties buf and makes it a container `id` (0 to 127). 0, or -ENOMEM. */
BV_API int bv_blob_buf_init(struct blob_buf *buf, int id);

/** blob_buf_free(): releases the memory of buf, which may be initialised again. */
BV_API void bv_blob_buf_free(struct blob_buf *buf);

/**
 * blob_parse(): sorts the children of a container by their ids.
 *
 * @param attr the container; null has no children
 * @param data `max` slots: set to the last acceptable child of that id, or null
 * @param info what is acceptable for each id, `max` entries; null accepts everything
 * @param max  number of slots
 * @return number of slots filled
 */
BV_API int bv_blob_parse(struct blob_attr *attr, struct blob_attr **data,
                         const struct blob_attr_info *info, int max);

/** Address of the payload: 4 bytes past the attribute. */
BV_API void *bv_blob_data(const struct blob_attr *attr);

/** The attribute's id, 0 to 127. */
BV_API unsigned int bv_blob_id(const struct blob_attr *attr);

/** Length of the payload in bytes. */
BV_API size_t bv_blob_len(const struct blob_attr *attr);

/** Length of the attribute in bytes with its header, without its padding. */
BV_API size_t bv_blob_raw_len(const struct blob_attr *attr);

/** First payload byte. */
BV_API uint8_t bv_blob_get_u8(const struct blob_attr *attr);

/** First two payload bytes, read big-endian. */
BV_API uint16_t bv_blob_get_u16(const struct blob_attr *attr);

/** First four payload bytes, read big-endian. */
BV_API uint32_t bv_blob_get_u32(const struct blob_attr *attr);

/** The payload as text; nothing makes sure that it is terminated. */
BV_API const char *bv_blob_get_string(const struct blob_attr *attr);

/** Appends a one-byte attribute. Like every put: its address, or null when buf cannot grow. */
BV_API struct blob_attr *bv_blob_put_u8(struct blob_buf *buf, int id, uint8_t value);

/** Appends a value as two big-endian bytes. */
BV_API struct blob_attr *bv_blob_put_u16(struct blob_buf *buf, int id, uint16_t value);

/** Appends a value as four big-endian bytes. */
BV_API struct blob_attr *bv_blob_put_u32(struct blob_buf *buf, int id, uint32_t value);

/** Appends a text with its terminator; str must not be null. */
BV_API struct blob_attr *bv_blob_put_string(struct blob_buf *buf, int id, const char *str);

/** blob_put(): appends `len` bytes as attribute `id`; a null ptr reserves them unwritten. */
BV_API struct blob_attr *bv_blob_put(struct blob_buf *buf, int id, const void *ptr,
                                     unsigned int len);

/** blob_put_raw(): appends finished attributes; null also for a null ptr or len below 4. */
BV_API struct blob_attr *bv_blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

/** @} */

/**
 * @name Blobmsg fields
 *
 * A field is an attribute with the extended flag, its type as the id; its payload starts with the
 * length of the name (16 bits, big-endian), the name, its terminator and zero padding to a multiple
 * of 4; the data follows. Types: 0 raw bytes, 2 table, 3 string, 5, 6 and 7 integers of 32, 16
 * and 8 bits. The readers below also take attributes without the flag, whose payload is the data.
 * @{
 */

/** Empties buf and makes it a table (container id 2). 0, or -ENOMEM. */
BV_API int bv_blobmsg_buf_init(struct blob_buf *buf);

/** The field's type, 0 to 127. */
BV_API int bv_blobmsg_type(const struct blob_attr *attr);

/** The field's name: the text 6 bytes past the attribute, whether it has one or not. */
BV_API const char *bv_blobmsg_name(const struct blob_attr *attr);

/** Address of the field's data; null for null. */
BV_API void *bv_blobmsg_data(const struct blob_attr *attr);

/** Length of the field's data in bytes; 0 for null. */
BV_API size_t bv_blobmsg_data_len(const struct blob_attr *attr);

/** blobmsg_check_attr(): whether a received field is well formed; `name`: it must have one. */
BV_API bool bv_blobmsg_check_attr(const struct blob_attr *attr, bool name);

/**
 * blobmsg_parse(): picks fields by name and type.
 *
 * @param policy     the fields wanted; type BLOBMSG_TYPE_UNSPEC takes any
 * @param policy_len number of entries, and of slots in tb
 * @param tb         slots: each set to the first field that its entry takes, or null
 * @param data       the fields, that is the payload of a message
 * @param len        length of data in bytes
 * @return 0, also when fields are missing; negative when there are none or one is malformed, the
 *         slots then holding the fields before it
 */
BV_API int bv_blobmsg_parse(const struct blobmsg_policy *policy, int policy_len,
                            struct blob_attr **tb, void *data, unsigned int len);

/**
 * blobmsg_add_field(): appends a field of any type.
 *
 * @param buf  from bv_blobmsg_buf_init()
 * @param type stored as it is; neither it nor the data is checked against the other
 * @param name the field's name; null is the empty one
 * @param data `len` bytes, copied; may be null when len is 0
 * @param len  in bytes, at most 16 MiB
 * @return 0, or -1 when buf cannot grow: it is then unchanged. So too from the typed ones below.
 */
BV_API int bv_blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data,
                                unsigned int len);

/** Appends a string field (type 3), terminator included; string must not be null. */
BV_API int bv_blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string);

/** Appends an 8-bit integer field (type 7). */
BV_API int bv_blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t value);

/** Appends a 16-bit integer field (type 6). */
BV_API int bv_blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t value);

/** Appends a 32-bit integer field (type 5). */
BV_API int bv_blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t value);

/** First byte of the data. A null attr faults here and in the next two: test it first. */
BV_API uint8_t bv_blobmsg_get_u8(struct blob_attr *attr);

/** First two bytes of the data, read big-endian. A null attr faults. */
BV_API uint16_t bv_blobmsg_get_u16(struct blob_attr *attr);

/** First four bytes of the data, read big-endian. A null attr faults. */
BV_API uint32_t bv_blobmsg_get_u32(struct blob_attr *attr);

/** The data as text; null for null. A field that passed a parse as a string is terminated. */
BV_API char *bv_blobmsg_get_string(struct blob_attr *attr);

/** @} */

/**
 * @name Message bus
 *
 * Results are the bus's status numbers (UBUS_STATUS_*), 0 for success.
 * @{
 */

/**
 * ubus_connect(): connects to the bus; see above for what that does to signals.
 *
 * @param path the daemon's socket; null for the default one
 * @return the connection, owned by the caller until bv_ubus_free(), or null
 */
BV_API struct ubus_context *bv_ubus_connect(const char *path);

/** ubus_free(): closes a connection and frees it; null is fine. Objects keep their stale ids. */
BV_API void bv_ubus_free(struct ubus_context *ctx);

/**
 * ubus_add_object(): publishes an object, which is linked in place until the connection is freed.
 *
 * Ids left in obj and in its type by an earlier connection must be zeroed before: otherwise this
 * succeeds and nobody can see the object.
 *
 * @return a bus status; 2 when the name is taken
 */
BV_API int bv_ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);

/**
 * ubus_lookup_id(): finds an object's id by its path.
 *
 * @param ctx  the connection
 * @param path the object's name
 * @param id   written only when the bus named an id, which success alone does not promise: zero it
 *             before
 * @return a bus status; 4 when there is no such object
 */
BV_API int bv_ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

/**
 * ubus_invoke(): calls a method and waits for its status.
 *
 * @param ctx        the connection
 * @param obj        the object's id
 * @param method     the method's name
 * @param msg        the arguments, of which the payload is sent; null for none. Keep it below
 *                   1 000 000 bytes: the daemon adds account names when it passes a call on, and an
 *                   owner that receives more than 1 MiB can read nothing that comes after it
 * @param cb         called for each data message of the answer, which is valid only inside; may be
 *                   null
 * @param priv       handed to cb as `priv` of its request
 * @param timeout_ms in milliseconds; 0 waits for ever
 * @return the callee's status, or the bus's own: 2 cannot be sent, 4 no such object, 7 timed out,
 *         10 connection lost
 */
BV_API int bv_ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method,
                          struct blob_attr *msg, ubus_data_handler_t cb, void *priv,
                          int timeout_ms);

/**
 * ubus_send_reply(): sends one data message for a request being handled.
 *
 * @param ctx the connection that the request came by
 * @param req the request as the handler got it
 * @param msg the reply, of which the payload is sent; null for none. Nobody checks its length: a
 *            body above 1 MiB makes the bus drop this connection.
 * @return 0; 5 when the connection is dead
 */
BV_API int bv_ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req,
                              struct blob_attr *msg);

/**
 * ubus_complete_deferred_request(): sends `ret` as the status of a request at once, after its
 * replies. A handler sets `req->deferred` first; otherwise its result is sent as a second status,
 * which callers ignore.
 */
BV_API void bv_ubus_complete_deferred_request(struct ubus_context *ctx,
                                              struct ubus_request_data *req, int ret);

/** @} */

/**
 * @name JSON
 *
 * Objects are reference counted: what a parse returns belongs to the caller until
 * bv_json_object_put(); what the getters return is part of it and lives as long.
 * @{
 */

/** json_object_from_file(): parses a file; null when it cannot be read or parsed. */
BV_API struct json_object *bv_json_object_from_file(const char *path);

/** json_tokener_parse(): parses a text; null when it is none. The text "null" gives null too. */
BV_API struct json_object *bv_json_tokener_parse(const char *str);

/** json_object_object_get(): the value of a key; null when obj has none or is no object. */
BV_API struct json_object *bv_json_object_object_get(const struct json_object *obj,
                                                     const char *key);

/** json_object_array_length(): number of elements. What is no array ends the process. */
BV_API size_t bv_json_object_array_length(const struct json_object *obj);

/** json_object_array_get_idx(): an element, counted from 0; null beyond the end. What is no array
 *  ends the process. */
BV_API struct json_object *bv_json_object_array_get_idx(const struct json_object *obj,
                                                        size_t index);

/** json_object_get_string(): the value as text, owned by obj; null for null. */
BV_API const char *bv_json_object_get_string(struct json_object *obj);

/** json_object_get_int(): the value as an integer, clamped to 32 bits; 0 when it is none. */
BV_API int32_t bv_json_object_get_int(const struct json_object *obj);

/** json_object_is_type(): 1 when obj has that type, else 0; null is of json_type_null. */
BV_API int bv_json_object_is_type(const struct json_object *obj, enum json_type type);

/** json_object_put(): gives one reference back; 1 when that freed the object, else 0. */
BV_API int bv_json_object_put(struct json_object *obj);

/** @} */

/**
 * @name Gateway remote calls
 *
 * Services call each other's functions by name. The owner of functions publishes one bus object
 * with the method "method", which takes a name, a length and raw bytes, runs the function of that
 * name over the bytes and sends them back with the function's result. Bytes are opaque: the two
 * sides agree on their layout, in the machine's own order or any other.
 *
 * One message holds a mebibyte, some of which goes to names and account names: keep data below
 * 1 000 000 bytes.
 * @{
 */

/**
 * A function offered on the bus.
 *
 * @param data `len` bytes to read and to overwrite in place, at any alignment: they travel back to
 *             the caller. They lie in the received message, so the pointer ends with the call.
 *             A caller that declared more bytes than it sent gets zeros for the rest.
 * @param len  in bytes, as the caller declared it; 0 is possible. Callers may send any length, so
 *             a function compares it with what it is about to read or write.
 * @return the caller's result
 */
typedef uint32_t (*bv_ubus_handler)(void *data, uint32_t len);

/**
 * Registers a function; only while a registry exists, that is from inside the callback of
 * bv_ubus_server_init() or from a handler.
 *
 * @param name    what callers name it, at most 255 characters, copied. All longer names stand for
 *                the empty one.
 * @param handler the function
 *
 * @retval 0          registered; a name registered before now means this handler
 * @retval -1         no registry, or a null argument
 * @retval 0x10000016 the registry holds 8196 names, also for one of these
 * @retval 0x10000040 no memory
 */
BV_API int32_t bv_ubus_server_reg(const char *name, bv_ubus_handler handler);

/**
 * Connects to the bus, publishes the object and serves calls in the calling thread, one at a time,
 * until the event loop ends: by SIGTERM or SIGINT where they were at default, by uloop_end(), or
 * because the bus went away, after which a supervisor may call this again. Only a running loop can
 * be ended: uloop_end() in the callback does nothing, and the loop's handler loses a signal that
 * comes between the connecting and the first wait.
 *
 * The connection outlives the loop, its object unanswered, until the process ends or the next call
 * of this function, which frees it together with the older registry. Not to be called from a
 * handler.
 *
 * A client of the same process in another thread: the platform's bus library has one set of buffers
 * for both, so only one of the two threads may be in it at any time. That holds as long as the
 * client connects when the server is serving, and nothing but the client's own calls reaches the
 * server: its one status for a call is the last that it sends before the client goes on. It does
 * not hold beside other callers, nor after a call of the client that timed out.
 *
 * @param object_name       the object's name, at most 127 characters (a longer one is published as
 *                          the empty name, which nobody can look up); null for
 *                          "brovan.gateway.server"
 * @param register_callback called once, before connecting, to register the functions; its result
 *                          is ignored; may be null
 *
 * @retval 0  the loop has ended
 * @retval -1 no memory for the registry, and there is none then; or no event loop, or no bus: the
 *            registry stays as the callback filled it
 * @return else the bus status with which the object was refused, 2 for a name in use; the
 *         connection is freed
 */
BV_API int32_t bv_ubus_server_init(const char *object_name, int (*register_callback)(void));

/**
 * Connects the process's one client and looks the object up. A connection from an earlier call is
 * freed first.
 *
 * The object need not be there yet: this succeeds all the same and calls then return 4. After the
 * owner or the bus was restarted, call bv_ubus_client_exit() and this again. Waits without limit
 * for a bus that accepts the connection and then says nothing.
 *
 * @param object_name the object to call; null for "brovan.gateway.server"
 *
 * @retval 0  connected
 * @retval -1 no bus, or no memory for the connection
 */
BV_API int32_t bv_ubus_client_init(const char *object_name);

/**
 * Calls a function of the other service and waits for it, up to 3 seconds. The platform's own bus
 * library does not cover sending: with a bus that does not read a call may last longer. A handler
 * may call it too; the server answers no other call meanwhile. Calls must not overlap: the client
 * has one connection and takes no lock.
 *
 * @param func_name the function's name
 * @param data      `len` bytes to send, replaced by those that come back. The buffer must hold
 *                  whatever the owner sends: as many bytes are written as the reply declares and
 *                  carries, and `len` does not limit them. An owner that uses this library sends
 *                  `len` bytes back; another one may send up to a mebibyte. A caller that cannot
 *                  trust the owner of the object's name passes a buffer of 1048576 bytes. May be
 *                  null when len is 0; nothing is written then.
 * @param len       bytes to send, at most what one message holds (see above)
 *
 * @return the function's result, or one of these. Then data is as it was, unless a reply had come
 *         before the failure: its bytes are written at once.
 * @retval 2          unknown function; or cannot be sent: null argument, more than a message of
 *                    1048576 bytes holds beside 128 bytes for account names, the connection was
 *                    found dead; or no memory for the bytes, here or at the owner
 * @retval 3          the object has no method "method": it is none of ours
 * @retval 4          no such object
 * @retval 6          the bus does not permit the call
 * @retval 7          no answer in time
 * @retval 10         not connected, or the connection was lost while waiting
 * @retval 0x10000010 the reply lacked a field
 *
 * An owner that does not use this library may end a call with any other status. A result of the
 * function cannot be told from a bus status of the same number. An answer without any reply message
 * returns the result of the call before it.
 */
BV_API uint32_t bv_ubus_client_call(const char *func_name, void *data, uint32_t len);

/** Frees the client's connection, if there is one; calls then return 10. */
BV_API void bv_ubus_client_exit(void);

/**
 * An example of a handler: copies a 56-byte record of the library (zero at load) into data. With
 * len below 56 the copy fails and the first `len` bytes of data are cleared. Returns 0.
 */
BV_API uint32_t bv_example_get(void *data, uint32_t len);

/**
 * The other half: copies 56 bytes of data into the record. With len below 56 the copy fails and
 * the first `len` bytes of the record are cleared. Returns 0.
 */
BV_API uint32_t bv_example_set(void *data, uint32_t len);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
