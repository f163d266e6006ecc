/* SPDX-License-Identifier: ISC */
/**
 * @file ubus.h
 * The event loop, message buffers, the message bus and JSON under one prefix, and the gateway's
 * remote calls over the bus.
 *
 * The wrappers take and return the types of libubox (uloop, blob, blobmsg), libubus and json-c,
 * whose headers this one includes; a service links only with this library. A comment that starts
 * with the name of a function means that the wrapper is one call of it: same arguments in the same
 * order, same result. The other wrappers read an attribute or lay out a value here, as those
 * libraries' inline functions do. True of all of them: nothing more is copied, kept or freed than
 * by the library underneath; there are no status codes of our own; null pointers are not tested for
 * unless a function says so.
 *
 * Threads, for the whole header: a process has one event loop, on the thread that runs it. One
 * thread at a time uses a bus connection. The bus library shares buffers between all connections of
 * a process, so its server and its client belong on one thread; bv_ubus_server_init() tells the one
 * exception. The other wrappers have no state; blob buffers and JSON objects belong to the caller,
 * who serialises their use.
 *
 * Signals: initialising the event loop, which connecting to the bus does too, installs the loop's
 * handlers for SIGINT, SIGTERM and SIGCHLD where the process had the default action, and ignores
 * SIGPIPE. After that SIGTERM and SIGINT no longer end a process that never runs the loop (a plain
 * client): it installs its own handlers before it connects. With the handler for SIGCHLD a running
 * loop waits for every child of the process: on another thread, a shell function or a waitpid() may
 * find its child gone. On the loop's own thread they are safe.
 */
#ifndef BV_UBUS_H
#define BV_UBUS_H

#include <bv/base.h>
#include <bv/status.h>

/* The C library's headers that the libraries below include. They come before the linkage block:
 * some of libubox's headers open none themselves, and a C++ library's headers must not be inside
 * one. */
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

/* libubox's attribute macros end here: in C++ they break [[fallthrough]] and collide with names of
 * the standard library. */
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

/** uloop_init(): opens the loop and installs its signal handlers (see above). 0, or -1 with errno.
 */
BV_API int bv_uloop_init(void);

/**
 * uloop_run_timeout(-1): runs the loop in the calling thread until uloop_end(), SIGINT or SIGTERM.
 *
 * @return 0, or the number of the signal that ended the loop
 */
BV_API int bv_uloop_run(void);

/**
 * uloop_done(): closes the loop and restores the signal actions, except for SIGPIPE. Delete the
 * descriptors first.
 */
BV_API void bv_uloop_done(void);

/**
 * uloop_fd_add(): watches a descriptor.
 *
 * @param sock   the caller's record, zeroed before its first use; the loop links it until deleted
 * @param flags  ULOOP_READ, ULOOP_WRITE and modifiers; without ULOOP_BLOCKING the descriptor
 *               becomes non-blocking
 * @return 0, or -1 with errno
 */
BV_API int bv_uloop_fd_add(struct uloop_fd *sock, unsigned int flags);

/** uloop_fd_delete(): stops watching; the descriptor stays open. 0, or -1 with errno. */
BV_API int bv_uloop_fd_delete(struct uloop_fd *sock);

/**
 * uloop_timeout_set(): starts a timer, or changes one that is pending.
 *
 * @param timeout  the caller's record, zeroed before its first use; linked until it fires
 * @param msecs    milliseconds from now; 0 or less is due at once
 * @return 0
 */
BV_API int bv_uloop_timeout_set(struct uloop_timeout *timeout, int msecs);

/** uloop_timeout_cancel(): stops a timer. 0, or -1 when it was not pending. */
BV_API int bv_uloop_timeout_cancel(struct uloop_timeout *timeout);

/**
 * uloop_timeout_remaining(): milliseconds until a timer fires, negative when it is overdue.
 *
 * @return also -1 when it is not pending; its field `pending` tells that from 1 ms overdue
 */
BV_API int bv_uloop_timeout_remaining(struct uloop_timeout *timeout);

/**
 * uloop_process_add(): calls back when a child process has ended.
 *
 * @param p  the caller's record with pid and cb set, cb not null; the loop links it until the child
 *           has ended
 * @return 0, or -1 when it is pending already
 */
BV_API int bv_uloop_process_add(struct uloop_process *p);

/** uloop_process_delete(): stops watching a child, which runs on. 0, or -1 if it was not pending.
 */
BV_API int bv_uloop_process_delete(struct uloop_process *p);

/** @} */

/**
 * @name Blob buffers
 *
 * An attribute is a 32-bit big-endian word (bit 31 the extended flag, bits 30 to 24 the id, bits
 * 23 to 0 the length in bytes including this word), its payload, and zero padding to a multiple of
 * 4. The readers below read byte by byte, so an attribute may be at any address. They do not check
 * the length, and one below 4 wraps: pass attributes from outside to a parse or check function
 * first.
 *
 * Zero a struct blob_buf before its first init. A put that grows it may move it with every
 * attribute in it.
 * @{
 */

/** blob_buf_init(): empties buf and makes it a container `id`, 0 to 127. 0, or -ENOMEM. */
BV_API int bv_blob_buf_init(struct blob_buf *buf, int id);

/** blob_buf_free(): frees the memory of buf, which may be initialised again. */
BV_API void bv_blob_buf_free(struct blob_buf *buf);

/**
 * blob_parse(): sorts the children of a container by their ids.
 *
 * @param attr  the container; null has no children
 * @param data  `max` slots: set to the last acceptable child of that id, or null
 * @param info  what is acceptable for each id, `max` entries; null accepts everything
 * @param max   number of slots
 * @return number of slots filled
 */
BV_API int bv_blob_parse(struct blob_attr *attr, struct blob_attr **data,
                         const struct blob_attr_info *info, int max);

/** Address of the payload: 4 bytes after the attribute's start. */
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

/** The payload as text, which may lack a terminator. */
BV_API const char *bv_blob_get_string(const struct blob_attr *attr);

/** Appends a one-byte attribute. Every put returns its address, or null when buf cannot grow. */
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

/** blob_put_raw(): appends complete attributes; null also for a null ptr or len below 4. */
BV_API struct blob_attr *bv_blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

/** @} */

/**
 * @name Blobmsg fields
 *
 * A field is an attribute with the extended flag, and its type as the id. Its payload starts with
 * the length of the name (16 bits, big-endian), the name, its terminator and zero padding to a
 * multiple of 4; the data follows. Types: 0 raw bytes, 2 table, 3 string, 5, 6 and 7 integers of
 * 32, 16 and 8 bits. The readers below also take attributes without the flag, whose payload is the
 * data.
 * @{
 */

/** Empties buf and makes it a table (container id 2). 0, or -ENOMEM. */
BV_API int bv_blobmsg_buf_init(struct blob_buf *buf);

/** The field's type, 0 to 127. */
BV_API int bv_blobmsg_type(const struct blob_attr *attr);

/** The field's name: the text 6 bytes after the attribute's start, also where there is no name. */
BV_API const char *bv_blobmsg_name(const struct blob_attr *attr);

/** Address of the field's data; null for null. */
BV_API void *bv_blobmsg_data(const struct blob_attr *attr);

/** Length of the field's data in bytes; 0 for null. */
BV_API size_t bv_blobmsg_data_len(const struct blob_attr *attr);

/** blobmsg_check_attr(): whether a received field is well formed; `name`: it must have a name. */
BV_API bool bv_blobmsg_check_attr(const struct blob_attr *attr, bool name);

/**
 * blobmsg_parse(): picks fields by name and type.
 *
 * @param policy      the fields wanted; type BLOBMSG_TYPE_UNSPEC takes any
 * @param policy_len  number of entries, and of slots in tb
 * @param tb          slots: each is set to the first field that its entry takes, or to null
 * @param data        the fields: the payload of a message
 * @param len         length of data in bytes
 * @return 0, also when fields are missing; negative when there are none, or when one is malformed:
 *         the slots then hold the fields before it
 */
BV_API int bv_blobmsg_parse(const struct blobmsg_policy *policy, int policy_len,
                            struct blob_attr **tb, void *data, unsigned int len);

/**
 * blobmsg_add_field(): appends a field of any type.
 *
 * @param buf   from bv_blobmsg_buf_init()
 * @param type  stored without a check against the data
 * @param name  the field's name; null is the empty name
 * @param data  `len` bytes, copied; may be null when len is 0
 * @param len   in bytes, at most 16 MiB
 * @return 0, or -1 when buf cannot grow: it is then unchanged. The typed functions below return the
 *         same
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

/** First byte of the data. A null attr faults here and in the next two functions. */
BV_API uint8_t bv_blobmsg_get_u8(struct blob_attr *attr);

/** First two bytes of the data, read big-endian. A null attr faults. */
BV_API uint16_t bv_blobmsg_get_u16(struct blob_attr *attr);

/** First four bytes of the data, read big-endian. A null attr faults. */
BV_API uint32_t bv_blobmsg_get_u32(struct blob_attr *attr);

/** The data as text; null for null. A string field that a parse function found is terminated. */
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
 * @param path  the daemon's socket; null for the default one
 * @return the connection, the caller's until bv_ubus_free(), or null
 */
BV_API struct ubus_context *bv_ubus_connect(const char *path);

/** ubus_free(): closes and frees a connection; null is ignored. Objects keep their old ids. */
BV_API void bv_ubus_free(struct ubus_context *ctx);

/**
 * ubus_add_object(): publishes an object.
 *
 * @param ctx  the connection
 * @param obj  the caller's record; the connection links it until it is freed. Zero the ids that an
 *             earlier connection left in it and in its type: otherwise this succeeds, but no caller
 *             finds the object
 * @return a bus status; 2 when the name is taken
 */
BV_API int bv_ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);

/**
 * ubus_lookup_id(): finds an object's id by its path.
 *
 * @param ctx   the connection
 * @param path  the object's name
 * @param id    zero it first: it is written only when the bus names an id, which even a success
 *              does not guarantee
 * @return a bus status; 4 when there is no such object
 */
BV_API int bv_ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

/**
 * ubus_invoke(): calls a method and waits for its status.
 *
 * @param ctx         the connection
 * @param obj         the object's id
 * @param method      the method's name
 * @param msg         the arguments, whose payload is sent; null for none. Keep it below 1 000 000
 *                    bytes: the daemon adds account names when it passes a call on, and an owner
 *                    that receives more than 1 MiB cannot read any later message
 * @param cb          called for each data message of the answer, which is valid only during the
 *                    call; may be null
 * @param priv        passed to cb as `priv` of its request
 * @param timeout_ms  in milliseconds; 0 waits without limit
 * @return the callee's status, or the bus's own: 2 cannot be sent, 4 no such object, 7 timed out,
 *         10 connection lost
 */
BV_API int bv_ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method,
                          struct blob_attr *msg, ubus_data_handler_t cb, void *priv,
                          int timeout_ms);

/**
 * ubus_send_reply(): sends one data message for the request that is being handled.
 *
 * @param ctx  the connection of the request
 * @param req  the request as the handler got it
 * @param msg  the reply, whose payload is sent; null for none. Its length is not checked: with a
 *             body above 1 MiB the bus drops this connection
 * @return 0; 5 when the connection is dead
 */
BV_API int bv_ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req,
                              struct blob_attr *msg);

/**
 * ubus_complete_deferred_request(): sends `ret` at once as the status of a request, after its
 * replies. A handler first sets `req->deferred`: otherwise its result is sent as a second status,
 * which callers ignore.
 */
BV_API void bv_ubus_complete_deferred_request(struct ubus_context *ctx,
                                              struct ubus_request_data *req, int ret);

/** @} */

/**
 * @name JSON
 *
 * Objects are reference counted. What a parse returns is the caller's until bv_json_object_put();
 * what the getters return is part of it and valid as long.
 * @{
 */

/** json_object_from_file(): parses a file; null when it cannot be read or parsed. */
BV_API struct json_object *bv_json_object_from_file(const char *path);

/** json_tokener_parse(): parses a text; null when it is not JSON, and for the text "null". */
BV_API struct json_object *bv_json_tokener_parse(const char *str);

/** json_object_object_get(): the value of a key; null when obj lacks it or is not an object. */
BV_API struct json_object *bv_json_object_object_get(const struct json_object *obj,
                                                     const char *key);

/** json_object_array_length(): number of elements. If obj is not an array the process ends. */
BV_API size_t bv_json_object_array_length(const struct json_object *obj);

/**
 * json_object_array_get_idx(): an element, counted from 0; null beyond the end. If obj is not an
 * array the process ends.
 */
BV_API struct json_object *bv_json_object_array_get_idx(const struct json_object *obj,
                                                        size_t index);

/** json_object_get_string(): the value as text, owned by obj; null for null. */
BV_API const char *bv_json_object_get_string(struct json_object *obj);

/** json_object_get_int(): the value as an integer, clamped to 32 bits; 0 for other values. */
BV_API int32_t bv_json_object_get_int(const struct json_object *obj);

/** json_object_is_type(): 1 when obj has that type, else 0; null has json_type_null. */
BV_API int bv_json_object_is_type(const struct json_object *obj, enum json_type type);

/**
 * json_object_put(): drops one reference; 1 when that freed the object, else 0. json-c 0.19 returns
 * 0 also when it frees a value that has no elements or members.
 */
BV_API int bv_json_object_put(struct json_object *obj);

/** @} */

/**
 * @name Gateway remote calls
 *
 * Services call each other's functions by name. The owner of functions publishes one bus object
 * with the method "method". It takes a name, a length and raw bytes, runs the function of that name
 * over the bytes, and sends them back with the function's result. The two sides agree on the layout
 * of the bytes.
 *
 * One message holds a mebibyte, including names and account names: keep data below 1 000 000 bytes.
 * @{
 */

/**
 * A function offered on the bus.
 *
 * @param data  `len` bytes to read and to overwrite in place, at any alignment; they are sent back
 *              to the caller. They are part of the received message: do not keep the pointer. If
 *              the caller declared more bytes than it sent, the rest are zeros
 * @param len   in bytes, as the caller declared it; may be 0. Callers may send any length, so
 *              compare it with what the function reads and writes
 * @return the caller's result
 */
typedef uint32_t (*bv_ubus_handler)(void *data, uint32_t len);

/**
 * Registers a function. This needs a registry, which exists in the callback of
 * bv_ubus_server_init() and in a handler.
 *
 * @param name     its name for callers, at most 255 characters, copied. All longer names mean the
 *                 empty name
 * @param handler  the function
 *
 * @retval BV_OK          registered; a name that was registered before now means this handler
 * @retval BV_ERR_FAILED  no registry, or a null argument
 * @retval BV_ERR_FULL    the registry holds 8196 names; also when name is one of them
 * @retval BV_ERR_MEMORY  no memory
 */
BV_API int32_t bv_ubus_server_reg(const char *name, bv_ubus_handler handler);

/**
 * Connects to the bus, publishes the object and serves calls on the calling thread, one at a time,
 * until the event loop ends. It ends at SIGTERM or SIGINT if they had the default action, at
 * uloop_end(), or when the bus goes away; then a supervisor may call this again. Only a running
 * loop can be ended: uloop_end() in the callback does nothing, and the loop's handler loses a
 * signal that comes after connecting and before the first wait.
 *
 * After the loop the connection stays open, and calls to its object are not answered, until the
 * process ends or the next call of this function frees it with the old registry. Do not call this
 * from a handler.
 *
 * A client of the same process on another thread: the platform's bus library has one set of buffers
 * for both, so only one of the two threads may be in it at any time. That is true as long as the
 * client connects while the server is serving, and only the client's own calls reach the server:
 * the status of a call is the last thing that the server sends before the client goes on. It is not
 * true with other callers, or after a call of the client has timed out.
 *
 * @param object_name        the object's name, at most 127 characters (a longer one is published as
 *                           the empty name, which cannot be looked up); null for
 *                           "brovan.gateway.server"
 * @param register_callback  called once, before connecting, to register the functions; its result
 *                           is ignored; may be null
 *
 * @retval BV_OK          the loop has ended
 * @retval BV_ERR_FAILED  no memory for the registry: there is none then; or no event loop, or no
 *                        bus: the registry stays as the callback filled it
 * @return otherwise the bus status for the refused object, 2 for a name in use; the connection is
 *         freed
 */
BV_API int32_t bv_ubus_server_init(const char *object_name, int (*register_callback)(void));

/**
 * Connects the process's one client and looks up the object. A connection of an earlier call is
 * freed first.
 *
 * The object may be missing: this still succeeds, and calls then return 4. After a restart of the
 * owner or the bus, call bv_ubus_client_exit() and this again. If the bus accepts the connection
 * but does not answer, this waits without limit.
 *
 * @param object_name  the object to call; null for "brovan.gateway.server"
 *
 * @retval BV_OK          connected
 * @retval BV_ERR_FAILED  no bus, or no memory for the connection
 */
BV_API int32_t bv_ubus_client_init(const char *object_name);

/**
 * Calls a function of the other service and waits for it, up to 3 seconds. This limit does not
 * include sending: if the bus does not read, a call may take longer. A handler may make a call too;
 * the server answers no other call meanwhile. Calls must not overlap: the client has one connection
 * and no lock.
 *
 * @param func_name  the function's name
 * @param data       `len` bytes to send, replaced by the reply's. The buffer must hold whatever the
 *                   owner sends: as many bytes are written as the reply declares and carries, and
 *                   `len` does not limit them. An owner that uses this library sends `len` bytes
 *                   back; another owner may send up to a mebibyte. A caller that cannot trust the
 *                   owner of the object's name passes a buffer of 1048576 bytes. May be null when
 *                   len is 0; then nothing is written
 * @param len        bytes to send, at most what one message holds (see above)
 *
 * @return the function's result, or one of these. Then data is unchanged, unless a reply came
 *         before the failure: its bytes are written at once
 * @retval 2   unknown function; or the call cannot be sent: a null argument, more than fits in a
 *             message of 1048576 bytes with 128 bytes for account names, or a dead connection; or
 *             no memory for the bytes, here or at the owner
 * @retval 3   the object has no method "method": its owner does not use this library
 * @retval 4   no such object
 * @retval 6   the bus does not permit the call
 * @retval 7   no answer in time
 * @retval 10  not connected, or the connection was lost while waiting
 * @retval BV_ERR_INVALID  the reply lacked a field
 *
 * An owner that does not use this library may end a call with any other status. A result of the
 * function looks the same as a bus status of that number. If the answer has no reply message, the
 * result is that of the call before.
 */
BV_API uint32_t bv_ubus_client_call(const char *func_name, void *data, uint32_t len);

/** Frees the client's connection, if there is one. Calls then return 10. */
BV_API void bv_ubus_client_exit(void);

/**
 * An example of a handler: copies a 56-byte record of the library (zero at first) into data. With
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
