// SPDX-License-Identifier: ISC
// Parses messages and builds the daemon's own.

#include "ubusd.h"

#include "../attributes.h"

#include <string.h>

// `bytes` is one whole message. Attributes point into it.
bool message_parse(struct message *message, const uint8_t *bytes, size_t length)
{
    if (length < kMessageMinimum)
        return false;

    message->bytes = bytes;
    message->length = length;
    message->type = bytes[1];
    message->seq = get_be16(bytes + 2);
    message->peer = get_be32(bytes + 4);
    parse_attrs(bytes + kHeaderLength, length - kHeaderLength, message->attr);
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
    uint8_t *body = put_header(bytes, UBUS_MSG_STATUS, request->seq, request->peer);
    put_u32(put_be32(body, sizeof(bytes) - kHeaderLength), UBUS_ATTR_STATUS, status);
    output_send(to, (struct origin){.from = NULL}, &part, 1);
}

// The daemon's buffer for one body, emptied. Gone with the next call.
struct blob_buf *answer_begin(void)
{
    static struct blob_buf answer;
    return blob_buf_init(&answer, 0) == 0 ? &answer : NULL;
}
