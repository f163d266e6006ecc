// SPDX-License-Identifier: ISC
// Finding objects by path.
//
// A full listing can be longer than a client's queue, which would drop the end of it and leave the
// client waiting for good. So a listing goes out only while the client reads: while a message of
// the daemon's is queued it waits, remembering the last path sent. It also waits when the client's
// turn is over, so that others are served in between.

#include "ubusd.h"

#include <stdlib.h>
#include <string.h>

enum {
    kPostponedMaximum = 1048576, // bytes per client, as for its queue
};

struct lookup {
    struct list_head list; // in client.lookups once postponed
    struct message request;
    char *pattern; // null: everything
    char *last;    // path sent last, null before the first
    size_t size;   // charged to the client
    bool found;
    bool no_memory;
};

static bool has_to_wait(const struct client *client)
{
    return queue_holds_daemons(&client->queue) || client->work >= kWorkPerTurn;
}

static void forget_last(struct client *client, struct lookup *lookup)
{
    if (lookup->last == NULL)
        return;
    client_gives_back(client, strlen(lookup->last) + 1);
    free(lookup->last);
    lookup->last = NULL;
}

static void remember_last(struct client *client, struct lookup *lookup, const char *path)
{
    size_t size = strlen(path) + 1;
    forget_last(client, lookup);
    if (!client_stores(client, size))
        return;
    lookup->last = strdup(path);
    if (lookup->last == NULL)
        client_gives_back(client, size);
}

static bool is_prefix_pattern(const char *pattern)
{
    size_t length = strlen(pattern);
    return length > 0 && pattern[length - 1] == '*';
}

static void send_object(struct client *client, const struct lookup *lookup,
                        const struct object *object)
{
    struct blob_buf *answer = answer_begin();
    if (answer == NULL || blob_put_string(answer, UBUS_ATTR_OBJPATH, object->path) == NULL ||
        blob_put_u32(answer, UBUS_ATTR_OBJID, object->id) == NULL ||
        blob_put_u32(answer, UBUS_ATTR_OBJTYPE, object->type->id) == NULL ||
        blob_put(answer, UBUS_ATTR_SIGNATURE, object->type->signature, object->type->length) ==
            NULL)
        return;
    client->work += blob_raw_len(answer->head);
    send_blob(client, NULL, UBUS_MSG_DATA, lookup->request.seq, lookup->request.peer, answer->head);
}

// The object after the last one sent, or the first that can match.
static struct object *next_object(const struct lookup *lookup, const char *prefix)
{
    const char *from = lookup->last != NULL ? lookup->last : prefix;
    struct avl_node *node = avl_find_greaterequal(&objects_by_path, from);
    if (node != NULL && lookup->last != NULL && strcmp(node->key, lookup->last) == 0) {
        if (avl_is_last(&objects_by_path, node))
            return NULL;
        node = list_entry(node->list.next, struct avl_node, list);
    }
    return node != NULL ? container_of(node, struct object, by_path) : NULL;
}

// Sends the objects whose paths begin with the prefix. False when the rest has to wait.
static bool list_prefix(struct client *client, struct lookup *lookup, const char *prefix,
                        size_t length)
{
    struct object *object = next_object(lookup, prefix);
    const char *sent = NULL;
    while (object != NULL && strncmp(object->path, prefix, length) == 0) {
        if (has_to_wait(client)) {
            if (sent != NULL)
                remember_last(client, lookup, sent);
            // Without the place to go on from, the listing ends here.
            lookup->no_memory = sent != NULL && lookup->last == NULL;
            return lookup->no_memory;
        }
        lookup->found = true;
        client->work += kWorkLook;
        if (object->type != NULL)
            send_object(client, lookup, object);
        sent = object->path;
        object = avl_is_last(&objects_by_path, &object->by_path)
                     ? NULL
                     : avl_next_element(object, by_path);
    }
    return true;
}

static bool list_matching(struct client *client, struct lookup *lookup)
{
    char *star = lookup->pattern + strlen(lookup->pattern) - 1;

    // The star is put back: a postponed look-up needs the pattern again.
    *star = '\0';
    bool done = list_prefix(client, lookup, lookup->pattern, (size_t)(star - lookup->pattern));
    *star = '*';
    return done;
}

static void list_one(struct client *client, struct lookup *lookup)
{
    struct object *object;
    object = avl_find_element(&objects_by_path, lookup->pattern, object, by_path);
    if (object == NULL)
        return;
    lookup->found = true;
    if (object->type != NULL)
        send_object(client, lookup, object);
}

// False when the rest has to wait.
static bool run(struct client *client, struct lookup *lookup)
{
    uint32_t status = UBUS_STATUS_OK;
    if (has_to_wait(client))
        return false;
    if (lookup->pattern == NULL) {
        if (!list_prefix(client, lookup, "", 0))
            return false;
    } else {
        if (!is_prefix_pattern(lookup->pattern))
            list_one(client, lookup);
        else if (!list_matching(client, lookup))
            return false;
        if (!lookup->found)
            status = UBUS_STATUS_NOT_FOUND;
    }
    if (lookup->no_memory)
        status = UBUS_STATUS_NO_MEMORY;
    send_status(client, &lookup->request, status);
    return true;
}

// Keeps the look-up for later. Beyond the limit it is dropped, as output is.
static void postpone(struct client *client, struct lookup *lookup)
{
    size_t length = lookup->pattern != NULL ? strlen(lookup->pattern) + 1 : 0;
    size_t size = sizeof(*lookup) + length;
    struct lookup *kept = NULL;

    if (client->lookups_size + size <= kPostponedMaximum && client_stores(client, size)) {
        kept = malloc(size);
        if (kept == NULL)
            client_gives_back(client, size);
    }
    if (kept == NULL) {
        forget_last(client, lookup);
        return;
    }
    *kept = *lookup;
    kept->size = size;
    if (length > 0)
        kept->pattern = memcpy(kept + 1, lookup->pattern, length);
    client->lookups_size += size;
    list_add_tail(&kept->list, &client->lookups);
    output_watch(client);
}

static void forget(struct client *client, struct lookup *lookup)
{
    client->lookups_size -= lookup->size;
    client_gives_back(client, lookup->size);
    forget_last(client, lookup);
    list_del(&lookup->list);
    free(lookup);
}

void request_lookup(struct client *client, const struct message *message)
{
    struct blob_attr *path = message->attr[UBUS_ATTR_OBJPATH];
    struct lookup lookup = {.request = *message, .pattern = path != NULL ? blob_data(path) : NULL};
    if (lookup.pattern != NULL && lookup.pattern[0] == '\0') {
        send_status(client, message, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    if (!list_empty(&client->lookups) || !run(client, &lookup))
        postpone(client, &lookup);
    else
        forget_last(client, &lookup);
}

void lookups_resume(struct client *client)
{
    while (!list_empty(&client->lookups) && !has_to_wait(client)) {
        struct lookup *lookup = list_first_entry(&client->lookups, struct lookup, list);
        if (!run(client, lookup))
            return;
        forget(client, lookup);
        output_flush();
    }
}

void lookups_forget(struct client *client)
{
    while (!list_empty(&client->lookups))
        forget(client, list_first_entry(&client->lookups, struct lookup, list));
}
