// SPDX-License-Identifier: ISC
// Shared by the files of the bus daemon.
//
// One thread, one event loop. Input is read into one buffer of the daemon and served message by
// message straight from there; what a message causes is sent before the next read. A client whose
// messages cause much work, such as events with many listeners, waits after each part of it until
// others had their turn. A client is closed only in its own turn, so clients and objects do not
// disappear under a message handler unless it removes them itself.

#ifndef UBUSD_H
#define UBUSD_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include <libubox/avl.h>
#include <libubox/blob.h>
#include <libubox/list.h>
#include <libubox/uloop.h>

#include "ubusmsg.h"

#include "../wire.h"

enum { kFirstOwnId = UBUS_SYSTEM_OBJECT_MAX }; // ids below are the daemon's

// What waits until a client reads again; see queue.c.
struct queue {
    struct list_head messages; // struct waiting, in the order they go out
    struct avl_tree shares;    // of the clients that sent them, and of the daemon
    size_t others;             // bytes of all that is not a call
    size_t left;               // bytes from clients that are gone
};

// What the clients of one account have together.
struct user {
    struct avl_node by_uid; // key: uid
    uint32_t uid;
    unsigned int clients;
    size_t kept;         // bytes of paths, signatures and patterns
    size_t waiting_for;  // bytes in their queues
    size_t waiting_from; // bytes from them in all queues
    size_t unserved;     // bytes of messages that are not complete yet, and of look-ups that wait
};

// Of each of the four, for any user but 0: many clients must not exhaust the memory either.
enum { kUserMaximum = 16777216 };

struct client {
    struct avl_node by_id; // key: id
    struct uloop_fd sock;
    unsigned int events; // that the loop watches the socket for
    uint32_t id;
    struct user *user;
    size_t work;              // done for it in this turn; see kWorkPerTurn
    struct list_head of_busy; // in the list of clients that go on without an event
    bool ending;              // has hung up; what it sent before is still read
    bool broken;              // takes no more output; its next turn closes it
    bool gone;                // closed, less its objects
    struct list_head objects; // object.of_owner
    struct list_head sent;    // share.of_sender: what waits for others to read

    // What it makes the daemon keep.
    struct {
        unsigned int objects;
        unsigned int patterns;
        unsigned int subscriptions;
        size_t bytes; // of paths, signatures and patterns
    } kept;

    // A message of which only a part has come: `length` of `size` bytes. While not even its
    // length is known, size is that of the shortest message.
    struct {
        uint8_t *bytes;
        size_t length;
        size_t size;
    } partial;

    // Input that waits for its turn.
    struct {
        uint8_t *bytes;
        size_t length;
    } rest;

    struct queue queue;
    struct list_head lookups; // waiting for their turn
    size_t lookups_size;      // bytes they take

    // USER and GROUP attributes as they go into forwarded calls; empty without account entries.
    uint8_t *accounts;
    size_t accounts_length;
};

// What an object publishes about its methods. Lives as long as an object has it.
struct object_type {
    struct avl_node by_id; // key: id
    uint32_t id;
    unsigned int objects;
    uint32_t length;
    uint8_t signature[]; // payload of the SIGNATURE attribute
};

struct object {
    struct avl_node by_id;   // key: id
    struct avl_node by_path; // key: path; only with one
    struct list_head of_owner;
    struct client *owner;
    struct object_type *type; // null: not to be found by LOOKUP
    char *path;               // null: unnamed
    uint32_t id;
    uint16_t notify_seq;          // of the daemon's own messages about this object
    size_t kept_bytes;            // charged to the owner
    unsigned int watcher_count;   // length of the next list
    struct list_head watchers;    // subscription.of_target
    struct avl_tree watched;      // subscription.of_watcher, by the target's id
    struct avl_tree patterns;     // of the events it listens to
    struct list_head of_listener; // in the list of objects with patterns
};

// A message as received. `attr` is filled from the body, wrongly shaped attributes left out.
struct message {
    const uint8_t *bytes; // header included
    size_t length;
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
    struct blob_attr *attr[UBUS_ATTR_MAX];
};

// Work is measured in bytes of listings; these are what other things are worth.
#ifndef UBUSD_WORK_PER_TURN
#define UBUSD_WORK_PER_TURN 262144
#endif
enum {
    kWorkPerTurn = UBUSD_WORK_PER_TURN,
    kWorkLook = 16, // at one pattern or object
    kWorkSend = 64, // one message to one of many
};

// Where a message comes from, which decides how much of its kind may wait.
struct origin {
    struct client *from; // null: the daemon itself
    bool is_call;
};

// client.c
bool clients_listen(const char *path);
void clients_end(const char *path);
struct client *client_find(uint32_t id);
bool user_may_have(const struct user *user, size_t bytes);
bool client_stores(struct client *client, size_t bytes);
void client_gives_back(struct client *client, size_t bytes);
bool client_keeps(struct client *client, unsigned int *count, size_t bytes);
void client_releases(struct client *client, size_t bytes);
void client_goes_on(struct client *client);

// output.c: a message goes out whole or not at all.
void output_init(struct client *client);
void output_send(struct client *to, struct origin origin, const struct iovec *parts, int count);
void output_flush(void);
void output_resume(struct client *client);
void output_forget(struct client *client);
void output_watch(struct client *client);

// queue.c
enum queue_result { kQueueKept, kQueueFull, kQueueNoMemory };
void queue_init(struct queue *queue);
enum queue_result queue_add(struct queue *queue, struct origin origin, const struct iovec *parts,
                            int count, size_t sent, size_t total);
int queue_parts(const struct queue *queue, struct iovec *parts, int count);
void queue_sent(struct queue *queue, size_t length);
bool queue_holds_daemons(const struct queue *queue);
void queue_clear(struct queue *queue);
void queue_sender_left(struct client *sender);

// message.c
bool message_parse(struct message *message, const uint8_t *bytes, size_t length);
uint32_t message_u32(const struct message *message, int attr);
void send_blob(struct client *to, struct client *from, uint8_t type, uint16_t seq, uint32_t peer,
               struct blob_attr *body);
void send_status(struct client *to, const struct message *request, uint32_t status);
struct blob_buf *answer_begin(void);

// request.c
void request_handle(struct client *client, const struct message *message);
bool call_has_room_for_names(const struct client *from, const struct message *call);
void forward_call(struct client *to, uint32_t object_id, struct client *from,
                  const struct message *call, bool no_reply);

// object.c
void objects_init(void);
struct object *object_find(uint32_t id);
void object_remove(struct object *object);
void request_add_object(struct client *client, const struct message *message);
void request_remove_object(struct client *client, const struct message *message);
bool is_system_object(uint32_t id);
struct object *object_of_request(struct client *client, const struct message *message);

// lookup.c
void request_lookup(struct client *client, const struct message *message);
void lookups_resume(struct client *client);
void lookups_forget(struct client *client);
extern struct avl_tree objects_by_path;

// event.c
void event_call(struct client *client, const struct message *message);
void event_object_added(const struct object *object);
void event_object_removed(const struct object *object);
void event_init_listener(struct object *object);
void event_forget_listener(struct object *object);

// subscribe.c
void request_subscribe(struct client *client, const struct message *message);
void request_unsubscribe(struct client *client, const struct message *message);
void request_notify(struct client *client, const struct message *message);
void subscriptions_forget(struct object *object);

// ids.c
void ids_init(struct avl_tree *tree);
bool ids_insert(struct avl_tree *tree, struct avl_node *node, uint32_t *id);

#endif
