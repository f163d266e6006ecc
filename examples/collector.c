/*
 * The collector: prints every debug message that arrives, one line each.
 *
 *   collector [PORT]   the UDP port on loopback (default 5344)
 *
 * A datagram is ten bytes and a text, big-endian: category, level, module, total length, source
 * tag, length of the element (tag, this length, text), text without a terminating zero.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define HEADER 10

static unsigned get16(const unsigned char *at)
{
    return (unsigned)(at[0] << 8 | at[1]);
}

static void print(const unsigned char *datagram, size_t length)
{
    if (length < HEADER || get16(datagram + 4) != length || get16(datagram + 8) != length - 6) {
        printf("collector: %zu bytes that are no debug message\n", length);
        return;
    }
    printf("collector: category=%u level=%u module=%u tag=0x%04x text=%.*s\n", datagram[0],
           datagram[1], get16(datagram + 2), get16(datagram + 6), (int)(length - HEADER),
           (const char *)datagram + HEADER);
}

int main(int argc, char **argv)
{
    struct sockaddr_in address;
    unsigned char datagram[65536];
    int fd = socket(AF_INET, SOCK_DGRAM, 0);

    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons((unsigned short)(argc > 1 ? atoi(argv[1]) : 5344));
    if (fd < 0 || bind(fd, (const struct sockaddr *)&address, sizeof(address)) != 0) {
        perror("collector");
        return 1;
    }
    puts("collector: listening");
    fflush(stdout);
    for (;;) {
        ssize_t length = recv(fd, datagram, sizeof(datagram), 0);

        if (length < 0)
            return 1;
        print(datagram, (size_t)length);
        fflush(stdout);
    }
}
