/*
 * kernel_event PORT TYPE TEXT: sends one kernel event to the service whose netlink port id is
 * PORT (its process id), as the gateway driver would: a netlink header with the event's code as
 * type, then the payload.
 */
#include <linux/netlink.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

int main(int argc, char **argv)
{
    struct sockaddr_nl to = {.nl_family = AF_NETLINK};
    struct {
        struct nlmsghdr header;
        char text[1024];
    } message;
    size_t length;
    int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK);

    if (argc != 4 || strlen(argv[3]) > sizeof(message.text)) {
        fputs("usage: kernel_event PORT TYPE TEXT\n", stderr);
        return 2;
    }
    length = strlen(argv[3]);
    to.nl_pid = (unsigned)atoi(argv[1]);
    memset(&message, 0, sizeof(message));
    message.header.nlmsg_len = (unsigned)(sizeof(message.header) + length);
    message.header.nlmsg_type = (unsigned short)atoi(argv[2]);
    memcpy(message.text, argv[3], length);
    if (fd < 0 || sendto(fd, &message, message.header.nlmsg_len, 0, (struct sockaddr *)&to,
                         sizeof(to)) < 0) {
        perror("kernel_event");
        return 1;
    }
    return 0;
}
