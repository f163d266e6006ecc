/*
 * bv-collect: receives the debug messages of services, or reads them from a capture file, and
 * prints one line each.
 *
 * Everything that arrives goes into the capture file; filters choose only what is printed, so that
 * a capture can be looked at again with others.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "collect/capture.h"
#include "collect/datagram.h"
#include "collect/receiver.h"
#include "common/command_line.h"
#include "common/numbers.h"
#include "common/visible.h"

enum { DEFAULT_PORT = 5344 };
enum { EXIT_DONE = 0, EXIT_FAILED = 1 }; /* 2: EXIT_USAGE */

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

static const char *plural(size_t count)
{
    return count == 1 ? "" : "s";
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
    printf("malformed: %zu byte%s, %s\n", packet->length, plural(packet->length), fault);
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

static int report(unsigned skipped, unsigned dropped)
{
    fprintf(stderr, "bv-collect: %u datagram%s, %u selected, %u malformed", counts.received,
            plural(counts.received), counts.shown, counts.malformed);
    if (skipped != 0)
        fprintf(stderr, ", %u other packet%s skipped", skipped, plural(skipped));
    if (dropped != 0)
        fprintf(stderr, ", %u dropped by the system", dropped);
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
    status = report(capture.skipped, 0);
    return result == CAPTURE_DAMAGED ? fail(options.read, "damaged or cut off") : status;
}

/* ---- from the network ---- */

static void announce(const struct receiver *receiver)
{
    char text[INET_ADDRSTRLEN] = "";

    inet_ntop(AF_INET, &receiver->address, text, sizeof(text));
    fprintf(stderr, "bv-collect: listening on %s:%u\n", text, receiver->port);
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
static int collect_from(struct receiver *receiver, FILE *file, const sigset_t *waiting)
{
    struct pollfd readable = {.fd = receiver->fd, .events = POLLIN};
    struct packet packet;

    while (!stop && !enough()) {
        if (ppoll(&readable, 1, NULL, waiting) < 0 && errno != EINTR)
            return fail("cannot wait", strerror(errno));
        if (stop || !receiver_take(receiver, &packet))
            continue;
        if (file != NULL && !capture_append(file, &packet))
            return fail(options.write, strerror(errno));
        show(&packet);
        if (ferror(stdout))
            break;
    }
    return report(0, receiver->dropped);
}

/* The socket comes first: a collector that cannot have its port leaves an older capture alone. */
static int collect(void)
{
    struct receiver receiver;
    FILE *file = NULL;
    sigset_t waiting;
    int status;

    take_signals(&waiting);
    if (!receiver_open(&receiver, options.address, (uint16_t)options.port))
        return fail("cannot listen", strerror(errno));
    if (options.write != NULL) {
        file = lines_wanted() ? fopen(options.write, "wb") : stdout;
        if (file == NULL || !capture_begin(file))
            return fail(options.write, strerror(errno));
    }
    announce(&receiver);
    status = collect_from(&receiver, file, &waiting);
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
    static const struct command_line line = {"bv-collect", usage,       "a:p:m:l:w:r:c:h",
                                             names,        take_option, EXIT_FAILED};
    int status;

    if (!command_line_take(&line, argc, argv, &status))
        return status;
    if (optind != argc)
        return command_line_wrong(&line, "takes no arguments besides options");
    if (options.read != NULL && options.write != NULL)
        return command_line_wrong(&line, "reads a capture file or writes one, not both");
    setvbuf(stdout, NULL, _IOLBF, 0);
    return options.read != NULL ? read_capture() : collect();
}
