// Sending: a message is put together from pieces where they lie and leaves in one call.

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include "internal.h"

const uint8_t kZeros[4];

// First word of an attribute.
uint8_t *put_attr(uint8_t *to, int id, size_t payload)
{
    return put_be32(to, (uint32_t)id << BLOB_ATTR_ID_SHIFT | (uint32_t)(kWordLength + payload));
}

uint8_t *put_u32(uint8_t *to, int id, uint32_t value)
{
    return put_be32(put_attr(to, id, sizeof(value)), value);
}

// Zero bytes after so many of payload.
size_t padding(size_t length)
{
    return -length & (BLOB_ATTR_ALIGN - 1);
}

// The descriptor goes with the first byte of the message.
static void attach_fd(struct msghdr *header, void *control, size_t size, int fd)
{
    memset(control, 0, size);
    header->msg_control = control;
    header->msg_controllen = (__typeof__(header->msg_controllen))size;
    struct cmsghdr *item = CMSG_FIRSTHDR(header);
    item->cmsg_level = SOL_SOCKET;
    item->cmsg_type = SCM_RIGHTS;
    item->cmsg_len = (__typeof__(item->cmsg_len))CMSG_LEN(sizeof(fd));
    memcpy(CMSG_DATA(item), &fd, sizeof(fd));
}

static void skip_sent(struct msghdr *header, size_t sent)
{
    while (header->msg_iovlen > 0 && sent >= header->msg_iov->iov_len) {
        sent -= header->msg_iov->iov_len;
        header->msg_iov++;
        header->msg_iovlen--;
    }
    if (header->msg_iovlen > 0) {
        header->msg_iov->iov_base = (uint8_t *)header->msg_iov->iov_base + sent;
        header->msg_iov->iov_len -= sent;
    }
}

// Waits for a daemon that does not read.
static int send_all(int sock, struct msghdr *header, int64_t deadline)
{
    bool begun = false;

    while (header->msg_iovlen > 0) {
        ssize_t sent = sendmsg(sock, header, MSG_NOSIGNAL | MSG_DONTWAIT);

        if (sent >= 0) {
            skip_sent(header, (size_t)sent);
            begun = true;
            header->msg_control = NULL;
            header->msg_controllen = 0;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!deadline_poll(sock, POLLOUT, deadline))
                return begun ? kSendCutShort : kSendExpired;
        } else if (errno != EINTR) {
            return kSendFailed;
        }
    }
    return 0;
}

// 0, or one of kSend...; only requests are held to the daemon's limit by their callers.
int message_send(struct connection *connection, uint8_t type, uint16_t seq, uint32_t peer,
                 struct iovec *parts, int count, int fd, int64_t deadline)
{
    uint8_t head[kMessageMinimum];
    union {
        struct cmsghdr align;
        uint8_t bytes[CMSG_SPACE(sizeof(int))];
    } control;
    struct msghdr header = {
        .msg_iov = parts,
        .msg_iovlen = (__typeof__(header.msg_iovlen))count,
    };
    size_t length = kWordLength;

    if (connection->lost)
        return kSendFailed;
    for (int i = 1; i < count; i++)
        length += parts[i].iov_len;
    if (length > BLOB_ATTR_LEN_MASK)
        return kSendTooLong;

    head[0] = 0;
    head[1] = type;
    head[2] = (uint8_t)(seq >> 8);
    head[3] = (uint8_t)seq;
    put_be32(put_be32(head + 4, peer), (uint32_t)length);
    parts[0] = (struct iovec){head, sizeof(head)};
    if (fd >= 0)
        attach_fd(&header, control.bytes, sizeof(control.bytes), fd);
    return send_all(connection->ctx.sock.fd, &header, deadline);
}
