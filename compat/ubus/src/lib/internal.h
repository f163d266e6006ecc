// SPDX-License-Identifier: ISC
// Shared by the files of the bus client library.
//
// Everything a context needs is in its connection: nothing is shared between contexts, so threads
// with a context each do not interfere.

#ifndef UBUS_LIB_INTERNAL_H
#define UBUS_LIB_INTERNAL_H

#include <sys/uio.h>

#include "libubus.h"

#include "../wire.h"

#define UBUS_EXPORT __attribute__((visibility("default")))

// Received bytes. Messages are handled in place; while a handler may still look at one, the buffer
// is pinned: nothing in it moves.
struct input {
    size_t start; // first byte not handled yet
    size_t end;
    size_t size;
    unsigned int pins;
    uint8_t bytes[];
};

struct connection {
    struct ubus_context ctx; // first: what programs hold is a pointer to it
    struct input *input;
    struct blob_buf body;         // of the request being built
    size_t pending_bytes;         // of the postponed calls
    struct list_head unpublished; // objects a reconnection could not publish, by avl.list
    unsigned int generation;      // counts reconnections; requests from before the last one fail
    unsigned int busy;            // calls on the stack that still need the memory
    bool lost;
    bool freed; // by ubus_free(), while busy
};

// A message as received; attributes point into it.
struct message {
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
    struct blob_attr *body;
    size_t body_size;
};

static inline struct connection *connection_of(struct ubus_context *ctx)
{
    return (struct connection *)ctx;
}

// connection.c
void connection_hold(struct connection *connection);
void connection_release(struct connection *connection);
void connection_enter(struct connection *connection);
void connection_leave(struct connection *connection);
void connection_end(struct connection *connection);
void connection_break(struct connection *connection);

// deadline.c: times in milliseconds; kNever is none.
enum { kNever = -1 };
int64_t deadline_after(int timeout);
bool deadline_poll(int fd, short events, int64_t deadline);

// send.c: parts[0] is filled in by message_send(), the rest is the body after its first word.
enum { kSendExpired = -4, kSendCutShort = -3, kSendTooLong = -2, kSendFailed = -1 };
int message_send(struct connection *connection, uint8_t type, uint16_t seq, uint32_t peer,
                 struct iovec *parts, int count, int fd, int64_t deadline);
extern const uint8_t kZeros[BLOB_ATTR_ALIGN];

// receive.c
enum input_state { kInputMore, kInputNone, kInputEnd };
struct input *input_create(size_t size);
enum input_state input_read(struct connection *connection);
void input_serve(struct connection *connection);
void input_reset(struct connection *connection);
struct message message_read(const uint8_t *bytes, size_t size);
void message_attrs(const struct message *message, struct blob_attr **attrs);

// dispatch.c
void call_arrived(struct connection *connection, const struct message *message,
                  const uint8_t *bytes, size_t size);
void pending_serve(struct connection *connection);
void pending_schedule(struct connection *connection);
void pending_forget(struct connection *connection);
void pending_timer_expired(struct uloop_timeout *timer);
void sock_event(struct uloop_fd *sock, unsigned int events);

// request.c
void request_answered(struct connection *connection, const struct message *message);
int request_run(struct connection *connection, struct ubus_request *request, uint8_t type,
                struct iovec *parts, int count, int fd, int timeout);
int request_body(struct connection *connection, struct ubus_request *request, uint8_t type);

// object.c
struct ubus_object *object_find(struct connection *connection, uint32_t id);
void objects_init(struct connection *connection);
void objects_publish_again(struct connection *connection);

#endif
