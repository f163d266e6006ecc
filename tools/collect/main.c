/*
 * bv-collect: receives the debug messages of services, or reads them from a capture file, and
 * prints one line each.
 *
 * Everything that arrives goes into the capture file; filters choose only what is printed, so that
 * a capture can be looked at again with others.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <getopt.h>
#include <inttypes.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "collect/capture.h"
#include "collect/datagram.h"
#include "common/numbers.h"
#include "common/visible.h"

enum { DEFAULT_PORT = 5344 };
enum { EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

static const char usage[] =
    "usage: bv-collect [OPTION]...\n"
    "Receives debug messages and prints one line each.\n"
    "\n"
    "  -a, --address=ADDRESS  listen on this IPv4 address only (default all)\n"
    "  -p, --port=PORT        UDP port (default 5344; 0 takes any free one); with -r, read only\n"
    "                         what was sent to it (default any)\n"
    "  -m, --module=LIST      print only these modules, as in 0,2-4\n"
    "  -l, --level=LIST       print only these levels\n"
    "  -w, --write=FILE       also write a capture file for Wireshark, of everything that "
    "arrives;\n"
    "                         - is the standard output, which then has no lines\n"
    "  -r, --read=FILE        read a capture file instead; - is the standard input\n"
    "  -c, --count=COUNT      end after as many datagrams\n"
    "  -h, --help             print this\n"
    "\n"
    "SIGINT and SIGTERM end it. Exit status: 0 ended as asked, 1 a socket or file failed,\n"
    "2 wrong usage.\n";

static struct {
    struct in_addr address;
    unsigned port;
    bool port_given;
    struct numbers modules;
    struct numbers levels;
    const char *write;
    const char *read;
    unsigned count; /* 0: no end */
} options = {.port = DEFAULT_PORT};

static struct {
    unsigned received;
    unsigned shown;
    unsigned malformed;
} counts;

static volatile sig_atomic_t stop;

static int fail(const char *what, const char *why)
{
    fprintf(stderr, "bv-collect: %s: %s\n", what, why);
    return EXIT_FAILED;
}

/* ---- one line each ---- */

static bool lines_wanted(void)
{
    return options.write == NULL || strcmp(options.write, "-") != 0;
}

static void print_origin(const struct packet *packet)
{
    char date[32] = "";
    char address[INET_ADDRSTRLEN] = "";
    struct tm local;

    if (localtime_r(&packet->time.tv_sec, &local) != NULL)
        strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &local);
    inet_ntop(AF_INET, &packet->source, address, sizeof(address));
    printf("%s.%06ld %s:%u ", date, packet->time.tv_nsec / 1000, address, packet->source_port);
}

/* A malformed datagram has no module and no level, so it passes no filter. */
static void show_malformed(const struct packet *packet, const char *fault)
{
    counts.malformed++;
    if (!lines_wanted() || options.modules.count != 0 || options.levels.count != 0)
        return;
    print_origin(packet);
    printf("malformed: %zu bytes, %s\n", packet->length, fault);
}

static void show(const struct packet *packet)
{
    struct datagram datagram;
    const char *fault = datagram_read(&datagram, packet->data, packet->length);

    counts.received++;
    if (fault != NULL) {
        show_malformed(packet, fault);
        return;
    }
    if (!numbers_match(&options.modules, datagram.module) ||
        !numbers_match(&options.levels, datagram.level))
        return;
    counts.shown++;
    if (!lines_wanted())
        return;
    print_origin(packet);
    printf("category=%u module=%u level=%u tag=0x%04x ", datagram.category, datagram.module,
           datagram.level, datagram.tag);
    print_visible(stdout, datagram.text, datagram.length);
    putchar('\n');
}

static bool enough(void)
{
    return options.count != 0 && counts.received >= options.count;
}

static int report(unsigned skipped)
{
    fprintf(stderr, "bv-collect: %u datagrams, %u selected, %u malformed", counts.received,
            counts.shown, counts.malformed);
    if (skipped != 0)
        fprintf(stderr, ", %u other packets skipped", skipped);
    fputc('\n', stderr);
    if (fflush(stdout) != 0 || ferror(stdout))
        return fail("standard output", "cannot be written");
    return EXIT_DONE;
}

/* ---- from a capture file ---- */

static int read_capture(void)
{
    static struct capture capture;
    bool is_stdin = strcmp(options.read, "-") == 0;
    FILE *file = is_stdin ? stdin : fopen(options.read, "rb");
    enum capture_result result = CAPTURE_END;
    struct packet packet;
    const char *fault;
    int status;

    if (file == NULL)
        return fail(options.read, strerror(errno));
    fault = capture_open(&capture, file);
    while (fault == NULL && !enough() && !ferror(stdout) &&
           (result = capture_next(&capture, &packet)) == CAPTURE_PACKET) {
        if (!options.port_given || packet.destination_port == options.port)
            show(&packet);
        else
            capture.skipped++;
    }
    if (!is_stdin)
        fclose(file);
    if (fault != NULL)
        return fail(options.read, fault);
    status = report(capture.skipped);
    return result == CAPTURE_DAMAGED ? fail(options.read, "damaged or cut off") : status;
}

/* ---- from the network ---- */

static int open_socket(void)
{
    struct sockaddr_in address = {.sin_family = AF_INET,
                                  .sin_port = htons((uint16_t)options.port),
                                  .sin_addr = options.address};
    socklen_t length = sizeof(address);
    int on = 1;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);

    if (fd < 0 || setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof(on)) != 0 ||
        bind(fd, (const struct sockaddr *)&address, sizeof(address)) != 0 ||
        getsockname(fd, (struct sockaddr *)&address, &length) != 0) {
        fail("cannot listen", strerror(errno));
        return -1;
    }
    options.port = ntohs(address.sin_port);
    return fd;
}

static void announce(void)
{
    char text[INET_ADDRSTRLEN] = "";

    inet_ntop(AF_INET, &options.address, text, sizeof(text));
    fprintf(stderr, "bv-collect: listening on %s:%u\n", text, options.port);
}

/* The address that a datagram was sent to; a capture needs it and the socket's own may be "all". */
static struct in_addr destination_of(struct msghdr *message)
{
    struct in_pktinfo info = {.ipi_addr = options.address};
    const struct cmsghdr *control = CMSG_FIRSTHDR(message); /* the only one asked for */

    if (control != NULL && control->cmsg_level == IPPROTO_IP && control->cmsg_type == IP_PKTINFO)
        memcpy(&info, CMSG_DATA(control), sizeof(info));
    return info.ipi_addr;
}

static bool receive(int fd, struct packet *packet)
{
    static uint8_t bytes[65536];
    union {
        struct cmsghdr aligned;
        uint8_t room[CMSG_SPACE(sizeof(struct in_pktinfo))];
    } control;
    struct sockaddr_in from = {.sin_family = AF_INET};
    struct iovec data = {bytes, sizeof(bytes)};
    struct msghdr message = {.msg_name = &from,
                             .msg_namelen = sizeof(from),
                             .msg_iov = &data,
                             .msg_iovlen = 1,
                             .msg_control = &control,
                             .msg_controllen = sizeof(control)};
    ssize_t length = recvmsg(fd, &message, MSG_DONTWAIT);

    if (length < 0)
        return false;
    clock_gettime(CLOCK_REALTIME, &packet->time);
    packet->source = from.sin_addr;
    packet->source_port = ntohs(from.sin_port);
    packet->destination = destination_of(&message);
    packet->destination_port = (uint16_t)options.port;
    packet->data = bytes;
    packet->length = (size_t)length;
    return true;
}

static void on_signal(int number)
{
    (void)number;
    stop = 1;
}

/* The two signals stay blocked but for the wait itself, so that none gets lost between looking at
 * `stop` and waiting. `waiting` is the mask to wait with. */
static void take_signals(sigset_t *waiting)
{
    struct sigaction action;
    sigset_t ending;

    memset(&action, 0, sizeof(action));
    action.sa_handler = on_signal;
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, waiting);
    sigdelset(waiting, SIGINT);
    sigdelset(waiting, SIGTERM);
}

/* Takes what has arrived until there is nothing left to do; `file` may be NULL. */
static int collect_from(int fd, FILE *file, const sigset_t *waiting)
{
    struct pollfd readable = {.fd = fd, .events = POLLIN};
    struct packet packet;

    while (!stop && !enough()) {
        if (ppoll(&readable, 1, NULL, waiting) < 0 && errno != EINTR)
            return fail("cannot wait", strerror(errno));
        if (stop || !receive(fd, &packet))
            continue;
        if (file != NULL && !capture_append(file, &packet))
            return fail(options.write, strerror(errno));
        show(&packet);
        if (ferror(stdout))
            break;
    }
    return report(0);
}

/* The socket comes first: a collector that cannot have its port leaves an older capture alone. */
static int collect(void)
{
    FILE *file = NULL;
    sigset_t waiting;
    int fd, status;

    take_signals(&waiting);
    fd = open_socket();
    if (fd < 0)
        return EXIT_FAILED;
    if (options.write != NULL) {
        file = lines_wanted() ? fopen(options.write, "wb") : stdout;
        if (file == NULL || !capture_begin(file))
            return fail(options.write, strerror(errno));
    }
    announce();
    status = collect_from(fd, file, &waiting);
    if (file != NULL && file != stdout && fclose(file) != 0)
        return fail(options.write, strerror(errno));
    return status;
}

/* ---- the command line ---- */

static bool take_option(int option, const char *argument)
{
    switch (option) {
    case 'a':
        return inet_pton(AF_INET, argument, &options.address) == 1;
    case 'p':
        options.port_given = true;
        return number_parse(argument, 65535, &options.port);
    case 'm':
        return numbers_add(&options.modules, argument, 65535);
    case 'l':
        return numbers_add(&options.levels, argument, 255);
    case 'w':
        options.write = argument;
        return true;
    case 'r':
        options.read = argument;
        return true;
    case 'c':
        return number_parse(argument, 1000000000, &options.count) && options.count != 0;
    default:
        return false;
    }
}

static int wrong_usage(const char *what)
{
    if (what != NULL)
        fprintf(stderr, "bv-collect: %s\n", what);
    fputs("Try 'bv-collect --help'.\n", stderr);
    return EXIT_USAGE;
}

int main(int argc, char **argv)
{
    static const struct option names[] = {{"address", required_argument, NULL, 'a'},
                                          {"port", required_argument, NULL, 'p'},
                                          {"module", required_argument, NULL, 'm'},
                                          {"level", required_argument, NULL, 'l'},
                                          {"write", required_argument, NULL, 'w'},
                                          {"read", required_argument, NULL, 'r'},
                                          {"count", required_argument, NULL, 'c'},
                                          {"help", no_argument, NULL, 'h'},
                                          {NULL, 0, NULL, 0}};
    int option;

    while ((option = getopt_long(argc, argv, "a:p:m:l:w:r:c:h", names, NULL)) != -1) {
        if (option == 'h')
            return fputs(usage, stdout) < 0 ? EXIT_FAILED : EXIT_DONE;
        if (option == '?')
            return wrong_usage(NULL);
        if (!take_option(option, optarg)) {
            fprintf(stderr, "bv-collect: -%c does not take '%s'\n", option, optarg);
            return wrong_usage(NULL);
        }
    }
    if (optind != argc)
        return wrong_usage("takes no arguments besides options");
    if (options.read != NULL && options.write != NULL)
        return wrong_usage("reads a capture file or writes one, not both");
    setvbuf(stdout, NULL, _IOLBF, 0);
    return options.read != NULL ? read_capture() : collect();
}
