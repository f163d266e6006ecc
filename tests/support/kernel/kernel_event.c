/* SPDX-License-Identifier: ISC */
/*
 * kernel_event PORT TYPE TEXT: sends one kernel event to the service whose netlink port id is
 * PORT (its process id), as the gateway driver would: a netlink header with the event's code as
 * type, then the payload. Where the driver is there, it is asked to do it.
 */
#include <fcntl.h>
#include <linux/netlink.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#define LARGEST 1024

/* Through the emulated gateway's driver, which knows the service that registered with it. */
static int send_from_driver(int fd, unsigned short type, const char *text)
{
    struct {
        char name[256];
        unsigned length, result;
        char data[sizeof(type) + LARGEST];
    } record;
    int result;

    memset(&record, 0, sizeof(record));
    strcpy(record.name, "nl-send");
    record.length = (unsigned)(sizeof(type) + strlen(text));
    memcpy(record.data, &type, sizeof(type));
    memcpy(record.data + sizeof(type), text, strlen(text));
    result = ioctl(fd, 0, &record);
    close(fd);
    if (result != 0)
        perror("kernel_event");
    return result != 0;
}

int main(int argc, char **argv)
{
    struct sockaddr_nl to = {.nl_family = AF_NETLINK};
    struct {
        struct nlmsghdr header;
        char text[LARGEST];
    } message;
    size_t length;
    int fd;

    if (argc != 4 || strlen(argv[3]) > sizeof(message.text)) {
        fputs("usage: kernel_event PORT TYPE TEXT\n", stderr);
        return 2;
    }
    fd = open("/dev/brovan", O_RDWR);
    if (fd >= 0)
        return send_from_driver(fd, (unsigned short)atoi(argv[2]), argv[3]);

    fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK);
    length = strlen(argv[3]);
    to.nl_pid = (unsigned)atoi(argv[1]);
    memset(&message, 0, sizeof(message));
    message.header.nlmsg_len = (unsigned)(sizeof(message.header) + length);
    message.header.nlmsg_type = (unsigned short)atoi(argv[2]);
    memcpy(message.text, argv[3], length);
    if (fd < 0 ||
        sendto(fd, &message, message.header.nlmsg_len, 0, (struct sockaddr *)&to, sizeof(to)) < 0) {
        perror("kernel_event");
        return 1;
    }
    return 0;
}
