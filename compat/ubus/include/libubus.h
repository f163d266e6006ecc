/* SPDX-License-Identifier: ISC */
/**
 * Client side of the message bus: publishing objects, finding those of others and calling
 * their methods.
 *
 * True of every function here: a context belongs to one thread at a time; nothing checks its
 * arguments for null unless it says so; calls that wait do not end on SIGINT or SIGTERM. Functions
 * that return int give UBUS_STATUS_OK or another UBUS_STATUS_ number: 2 when the connection was
 * found dead while sending, 10 when it died while waiting.
 *
 * While a call waits no method handler of the same context runs; calls that arrive meanwhile are
 * kept and served in order as soon as the outermost handler or call has ended. Two services that
 * call each other from inside their handlers therefore run into their time-outs.
 */
#ifndef LIBUBUS_H
#define LIBUBUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>

#include "ubus_common.h"
#include "ubusmsg.h"

/** Most subscribers whose answers one notification can collect. */
#define UBUS_MAX_NOTIFY_PEERS 16

struct ubus_context;
struct ubus_event_handler;
struct ubus_object;
struct ubus_object_data;
struct ubus_request;
struct ubus_request_data;
struct ubus_subscriber;

/**
 * A method. `msg` holds the call's fields as an attribute; parse blob_data(msg) over
 * blob_len(msg). It and `method` are valid until the handler returns, also across calls made
 * by the handler. The result becomes the status the caller sees unless an earlier one was sent
 * with ubus_complete_deferred_request().
 */
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
                              struct ubus_request_data *req, const char *method,
                              struct blob_attr *msg);

/** One piece of an answer, of message type `type`. `msg` is gone when the handler returns. */
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);

/** One object found; what `obj` points to is gone when the handler returns. */
typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj,
                                      void *priv);

/** The object got its first subscriber or lost its last; see obj->has_subscribers. */
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);

/** A descriptor came with an answer. */
typedef void (*ubus_fd_handler_t)(struct ubus_request *req, int fd);

/** A request has ended with status `ret`. */
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);

/** An event of the given type arrived. */
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                     const char *type, struct blob_attr *msg);

/** The object with this id, watched by the subscriber, has gone. */
typedef void (*ubus_remove_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *sub,
                                      uint32_t id);

/** Whether the subscriber wants to watch the object that appeared under `path`. */
typedef bool (*ubus_new_object_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *sub,
                                          const char *path);

/** Marks of a method for tools; never sent. */
#define UBUS_TAG_STATUS 1
#define UBUS_TAG_ADMIN 2
#define UBUS_TAG_PRIVATE 4

/** One callable name of an object. */
struct ubus_method {
    const char *name; /**< null takes every call no earlier entry took */
    ubus_handler_t handler;
    unsigned long mask; /**< not 0: publish only the policy entries whose bit is set */
    unsigned long tags; /**< UBUS_TAG_ */
    const struct blobmsg_policy *policy; /**< published, never checked against a call */
    int n_policy;
};

/*
 * Initialisers for struct ubus_method and struct ubus_object_type. Members are given by position,
 * which C++ before C++20 takes without a warning too. Policies and method tables must be arrays.
 */
#define __UBUS_METHOD(_name, _handler, _mask, _tags, _policy)                                      \
    {                                                                                              \
        _name, _handler, _mask, _tags, _policy, ARRAY_SIZE(_policy)                                \
    }
#define __UBUS_METHOD_NOARG(_name, _handler, _tags)                                                \
    {                                                                                              \
        _name, _handler, 0, _tags, NULL, 0                                                         \
    }

/** A method with parameters. */
#define UBUS_METHOD(_name, _handler, _policy) __UBUS_METHOD(_name, _handler, 0, 0, _policy)
/** The same with tags. */
#define UBUS_METHOD_TAG(_name, _handler, _policy, _tags)                                           \
    __UBUS_METHOD(_name, _handler, 0, _tags, _policy)
/** The same, publishing only the masked parameters. */
#define UBUS_METHOD_MASK(_name, _handler, _policy, _mask)                                          \
    __UBUS_METHOD(_name, _handler, _mask, 0, _policy)
/** A method without parameters. */
#define UBUS_METHOD_NOARG(_name, _handler) __UBUS_METHOD_NOARG(_name, _handler, 0)
/** The same with tags. */
#define UBUS_METHOD_TAG_NOARG(_name, _handler, _tags) __UBUS_METHOD_NOARG(_name, _handler, _tags)
/** An object type over a method table. */
#define UBUS_OBJECT_TYPE(_name, _methods)                                                          \
    {                                                                                              \
        _name, 0, _methods, ARRAY_SIZE(_methods)                                                   \
    }

/** What objects of one kind publish about themselves. The name stays in the program. */
struct ubus_object_type {
    const char *name;
    uint32_t id; /**< given by the daemon; set it to 0 before publishing on a new context */
    const struct ubus_method *methods;
    int n_methods;
};

/** An object of this program. It stays the caller's and must outlive its publication. */
struct ubus_object {
    struct avl_node avl; /**< in ctx->objects while published */
    const char *name;    /**< path on the bus; ignored without a type */
    uint32_t id;         /**< given by the daemon */
    const char *path;    /**< not used */
    struct ubus_object_type *type;
    ubus_state_handler_t subscribe_cb; /**< may be null */
    bool has_subscribers;
    const struct ubus_method *methods; /**< what calls are looked up in */
    int n_methods;
};

/** An object that watches others. */
struct ubus_subscriber {
    struct list_head list;
    struct ubus_object obj;
    ubus_handler_t cb;
    ubus_remove_handler_t remove_cb;
    ubus_new_object_handler_t new_obj_cb;
};

/** An object that receives events. */
struct ubus_event_handler {
    struct ubus_object obj;
    ubus_event_handler_t cb;
};

/** A connection. Programs use `sock` and may set `connection_lost`; the rest is private. */
struct ubus_context {
    struct list_head requests;
    struct avl_tree objects;
    struct list_head pending;
    struct uloop_fd sock;
    struct uloop_timeout pending_timer;
    uint32_t local_id;
    uint16_t request_seq;
    bool cancel_poll;
    int stack_depth;
    void (*connection_lost)(struct ubus_context *ctx);
    void (*monitor_cb)(struct ubus_context *ctx, uint32_t seq, struct blob_attr *data);
    struct ubus_msghdr_buf msgbuf;
    uint32_t msgbuf_data_len;
    int msgbuf_reduction_counter;
    __extension__ union {
        __extension__ struct {
            struct list_head auto_subscribers;
            struct ubus_event_handler auto_subscribe_event_handler;
        };
        __extension__ struct {
            ubus_handler_t request_handler;
        };
    };
};

/** One object as the daemon describes it. */
struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature; /**< null when the daemon gave none */
};

/** Who asks; all null when the daemon does not tell. */
struct ubus_acl_key {
    const char *user;
    const char *group;
    const char *object;
};

/** A call as its handler sees it. */
struct ubus_request_data {
    uint32_t object; /**< the called object */
    uint32_t peer;   /**< the caller */
    uint16_t seq;    /**< the caller's number for it */
    struct ubus_acl_key acl;
    bool deferred; /**< set by ubus_defer_request() */
    int fd;        /**< -1 */
    int req_fd;    /**< descriptor of the caller, -1 without one */
};

/** A request under way, as data handlers see it. */
struct ubus_request {
    struct list_head list;
    struct list_head pending;
    int status_code;
    bool status_msg;
    bool blocked;
    bool cancelled;
    bool notify;
    uint32_t peer;
    uint16_t seq;
    ubus_data_handler_t raw_data_cb;
    ubus_data_handler_t data_cb;
    ubus_fd_handler_t fd_cb;
    ubus_complete_handler_t complete_cb;
    int fd;
    struct ubus_context *ctx;
    void *priv; /**< what the caller gave with the handler */
};

/**
 * Connects to the bus.
 *
 * @param path  socket of the daemon, at most 107 characters; null means
 *              /var/run/ubus/ubus.sock
 *
 * @return a context for ubus_free(); null when nothing answers there, the greeting is not
 *         acceptable or memory is short.
 *
 * Sets up the event loop as uloop_init() does, also when it fails. Waits without limit for the
 * greeting. The socket is not in the loop yet: see ubus_add_uloop(). Nothing reconnects by itself:
 * set ctx->connection_lost to learn of a lost bus.
 */
struct ubus_context *ubus_connect(const char *path);

/**
 * Closes the connection and frees the context. Null is harmless. No handler runs and the
 * program's objects are left alone, so their ids are stale afterwards.
 */
void ubus_free(struct ubus_context *ctx);

/**
 * Drops the connection, makes a new one and publishes the context's objects again, under new
 * ids. The socket leaves the loop; add it again.
 *
 * @return 0, or 10 when nothing answers: the context is then dead but keeps its objects for the
 *         next attempt.
 */
int ubus_reconnect(struct ubus_context *ctx, const char *path);

/**
 * Publishes an object; waits without limit.
 *
 * With name and type set the object can be found by its name, otherwise only called by its id. A
 * type whose id is not 0 is taken as known to the daemon; if it is not, the object is invisible.
 *
 * @return 0 with obj->id, and the id of a new type, set; 2 when the name is taken; 5 when the
 *         daemon gave no id.
 */
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);

/**
 * Withdraws an object; waits without limit.
 *
 * @return 0 with obj->id cleared, and the type's too when the object was its last; 4 when it is
 *         not published.
 */
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);

/**
 * Lists objects; waits without limit.
 *
 * @param path  one path, a prefix ending in `*`, or null for everything
 * @param cb    runs once per object, in the order of the paths; may make calls itself
 * @param priv  given to cb
 *
 * @return 0, 4 when there is no such object, 2 for an empty path.
 */
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);

/**
 * Finds the id of an object; waits without limit.
 *
 * @param id  written only when the daemon described an object: set it to 0 before and take 0
 *            for "not found", since hidden objects give 0 without an id
 *
 * @return 0, 4 when there is no such object, 2 for an empty path.
 */
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

/**
 * Calls a method, optionally handing over a descriptor.
 *
 * @param msg      its payload becomes the call's fields; null for none
 * @param cb       runs for every piece of the answer as it arrives; null discards them
 * @param priv     found in req->priv by cb
 * @param timeout  milliseconds to wait for the end of the answer; 0 waits without limit, a
 *                 negative one does not wait at all. Sending is not covered.
 * @param fd       sent along, stays the caller's; -1 for none
 *
 * @return the status of the called method; 3 no such method, 4 no such object, 7 no answer in
 *         time, 2 also for a message over 1 MiB.
 */
int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
                   struct blob_attr *msg, ubus_data_handler_t cb, void *priv, int timeout, int fd);

/** Calls a method: ubus_invoke_fd() without a descriptor. */
static inline int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method,
                              struct blob_attr *msg, ubus_data_handler_t cb, void *priv,
                              int timeout)
{
    return ubus_invoke_fd(ctx, obj, method, msg, cb, priv, timeout, -1);
}

/**
 * Sends one piece of the answer to a call, at once.
 *
 * @return 0, or 5 when the connection failed.
 *
 * A piece that makes the message larger than 1 MiB costs the connection.
 */
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);

/**
 * Sends the status of a call, at once. The caller takes the first status; when the handler was
 * not deferred its own result follows and is ignored by the caller.
 */
void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                    int ret);

/**
 * Keeps a call open beyond its handler: copies it to new_req for a later ubus_send_reply() and
 * ubus_complete_deferred_request(), and stops the handler's result from being sent.
 */
static inline void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                      struct ubus_request_data *new_req)
{
    (void)ctx;
    memcpy(new_req, req, sizeof(*req));
    req->deferred = true;
}

/** Puts the connection into the event loop. */
static inline void ubus_add_uloop(struct ubus_context *ctx)
{
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

/** Handles what has arrived, for programs with a loop of their own. */
static inline void ubus_handle_event(struct ubus_context *ctx)
{
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

/** The text of a status. A number without one gives "Unknown error: n", valid in this thread until
 * the next such call. */
const char *ubus_strerror(int error);

#ifdef __cplusplus
}
#endif

#endif
