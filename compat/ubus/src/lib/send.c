// SPDX-License-Identifier: ISC
// Sending: a message goes out in one call, gathered from its pieces.

#include "internal.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

const uint8_t kZeros[BLOB_ATTR_ALIGN];

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

// Returns 0 or one of kSend... The daemon's limit is checked by the callers, and only for requests.
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

    put_be32(put_header(head, type, seq, peer), (uint32_t)length);
    parts[0] = (struct iovec){head, sizeof(head)};
    if (fd >= 0)
        attach_fd(&header, control.bytes, sizeof(control.bytes), fd);
    return send_all(connection->ctx.sock.fd, &header, deadline);
}
