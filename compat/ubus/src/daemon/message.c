// Taking messages apart and putting the daemon's own ones together.

#include "ubusd.h"

#include "../attributes.h"

#include <string.h>

void put_header(uint8_t *to, uint8_t type, uint16_t seq, uint32_t peer)
{
    to[0] = 0;
    to[1] = type;
    to[2] = (uint8_t)(seq >> 8);
    to[3] = (uint8_t)seq;
    put_be32(to + 4, peer);
}

// The first word of an attribute.
void put_attr(uint8_t *to, uint32_t id, size_t payload)
{
    put_be32(to, id << BLOB_ATTR_ID_SHIFT | (uint32_t)(kWordLength + payload));
}

// `bytes` is one whole message. Attributes point into it.
bool message_parse(struct message *message, const uint8_t *bytes, size_t length)
{
    if (length < kMessageMinimum)
        return false;

    message->bytes = bytes;
    message->length = length;
    message->type = bytes[1];
    message->seq = (uint16_t)(bytes[2] << 8 | bytes[3]);
    message->peer = get_be32(bytes + 4);
    memset(message->attr, 0, sizeof(message->attr));
    blob_parse_untrusted((struct blob_attr *)(uintptr_t)(bytes + kHeaderLength),
                         length - kHeaderLength, message->attr, kAttributes, UBUS_ATTR_MAX);
    return true;
}

uint32_t message_u32(const struct message *message, int attr)
{
    return blob_get_u32(message->attr[attr]);
}

void send_blob(struct client *to, struct client *from, uint8_t type, uint16_t seq, uint32_t peer,
               struct blob_attr *body)
{
    uint8_t header[kHeaderLength];
    struct iovec parts[] = {
        {header, sizeof(header)},
        {body, blob_raw_len(body)},
    };

    put_header(header, type, seq, peer);
    output_send(to, (struct origin){.from = from}, parts, 2);
}

// The end of every answer that the daemon gives itself.
void send_status(struct client *to, const struct message *request, uint32_t status)
{
    uint8_t bytes[kMessageMinimum + 2 * kWordLength];
    struct iovec part = {bytes, sizeof(bytes)};

    put_header(bytes, UBUS_MSG_STATUS, request->seq, request->peer);
    put_be32(bytes + 8, sizeof(bytes) - kHeaderLength);
    put_attr(bytes + 12, UBUS_ATTR_STATUS, kWordLength);
    put_be32(bytes + 16, status);
    output_send(to, (struct origin){.from = NULL}, &part, 1);
}

// The daemon's buffer for one body, emptied. Gone with the next call.
struct blob_buf *answer_begin(void)
{
    static struct blob_buf answer;

    return blob_buf_init(&answer, 0) == 0 ? &answer : NULL;
}
