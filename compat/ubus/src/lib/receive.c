// SPDX-License-Identifier: ISC
// Receiving: as much as there is in one read, then message by message.

#include "internal.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "../attributes.h"

enum {
    // The daemon may add the caller's names to the largest request; stay in step with it.
    kBodyMaximum = UBUS_MAX_MSGLEN + UBUS_MSG_CHUNK_SIZE,
    kReadsBeforeShrinking = 32,
};

void message_attrs(const struct message *message, struct blob_attr **attrs)
{
    parse_attrs((const uint8_t *)message->body, message->body_size, attrs);
}

struct input *input_create(size_t size)
{
    struct input *input = malloc(sizeof(*input) + size);
    if (input == NULL)
        return NULL;
    *input = (struct input){.size = size};
    return input;
}

// Size of the message being received, as far as it is known.
static size_t wanted(const struct input *input)
{
    const uint8_t *bytes = input->bytes + input->start;
    if (input->end - input->start < kMessageMinimum)
        return kMessageMinimum;
    return kHeaderLength + (body_length(bytes));
}

// Moves what is not handled yet to another buffer. A pinned one is left to those who pinned it.
static bool input_replace(struct connection *connection, size_t size)
{
    struct input *old = connection->input;
    struct input *input = input_create(size);
    if (input == NULL)
        return false;
    input->end = old->end - old->start;
    memcpy(input->bytes, old->bytes + old->start, input->end);
    connection->input = input;
    if (old->pins == 0)
        free(old);
    return true;
}

static bool input_make_room(struct connection *connection)
{
    struct input *input = connection->input;
    size_t size = wanted(input);
    if (size < UBUS_MSG_CHUNK_SIZE)
        size = UBUS_MSG_CHUNK_SIZE;
    else
        connection->ctx.msgbuf_reduction_counter = 0;

    if (input->pins == 0) {
        input->end -= input->start;
        memmove(input->bytes, input->bytes + input->start, input->end);
        input->start = 0;
        if (input->size < size)
            return input_replace(connection, size);
        // A buffer that grew for a large message shrinks after a while without another.
        if (input->size > size &&
            connection->ctx.msgbuf_reduction_counter++ > kReadsBeforeShrinking)
            input_replace(connection, size);
        return true;
    }
    if (input->end < input->size && input->start + wanted(input) <= input->size)
        return true;
    return input_replace(connection, size);
}

// One read. kInputNone: nothing there.
enum input_state input_read(struct connection *connection)
{
    ssize_t length;
    if (!input_make_room(connection))
        return kInputEnd;

    struct input *input = connection->input;
    do
        length = recv(connection->ctx.sock.fd, input->bytes + input->end, input->size - input->end,
                      MSG_DONTWAIT);
    while (length < 0 && errno == EINTR);

    if (length > 0) {
        input->end += (size_t)length;
        return kInputMore;
    }
    if (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return kInputNone;
    return kInputEnd;
}

// A new stream begins.
void input_reset(struct connection *connection)
{
    struct input *input = connection->input;
    input->start = input->end;
    if (input->pins == 0)
        input->start = input->end = 0;
}

static void unpin(struct connection *connection, struct input *input)
{
    if (--input->pins == 0 && input != connection->input)
        free(input);
}

// `bytes` is one whole message.
struct message message_read(const uint8_t *bytes, size_t size)
{
    return (struct message){
        .type = bytes[1],
        .seq = get_be16(bytes + 2),
        .peer = get_be32(bytes + 4),
        .body = (struct blob_attr *)(uintptr_t)(bytes + kHeaderLength),
        .body_size = size - kHeaderLength,
    };
}

static void serve(struct connection *connection, const uint8_t *bytes, size_t size)
{
    struct message message = message_read(bytes, size);
    switch (message.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        request_answered(connection, &message);
        break;
    case UBUS_MSG_INVOKE:
    case UBUS_MSG_NOTIFY:
    case UBUS_MSG_UNSUBSCRIBE:
        call_arrived(connection, &message, bytes, size);
        break;
    default:
        break; // nothing a client has to answer
    }
}

// Handles every whole message. A stream out of step is closed: what follows could mean anything.
// The version byte is not checked: daemons pass on what the other service wrote there.
void input_serve(struct connection *connection)
{
    for (;;) {
        struct input *input = connection->input;
        const uint8_t *bytes = input->bytes + input->start;
        if (connection->freed || input->end - input->start < kMessageMinimum)
            return;
        size_t size = wanted(input);
        if (size < kMessageMinimum || size > kHeaderLength + kBodyMaximum) {
            input->start = input->end;
            connection_break(connection);
            return;
        }
        if (input->end - input->start < size)
            return;

        input->start += size;
        input->pins++;
        serve(connection, bytes, size);
        unpin(connection, input);
    }
}
