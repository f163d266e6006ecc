// SPDX-License-Identifier: ISC
// bv-collect: receives the debug messages of services, or reads them from a capture file, and
// prints one line for each.
//
// Everything that arrives goes into the capture file. Filters only choose what is printed, so that
// a capture can be read again with others.

#include "tools/collect/capture.h"
#include "tools/collect/datagram.h"
#include "tools/collect/receiver.h"
#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/common/numbers.h"
#include "tools/common/visible.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>
#include <poll.h>

namespace {

using namespace tools;

constexpr int kExitFailed = 1; // 2: kExitUsage

constexpr char kUsage[] =
    "usage: bv-collect [OPTION]...\n"
    "Receives debug messages and prints one line each.\n"
    "\n"
    "  -a, --address=ADDRESS  listen on this IPv4 address only (default all)\n"
    "  -p, --port=PORT        UDP port (default 5344; 0 takes any free one); with -r, read only\n"
    "                         what was sent to it (default any)\n"
    "  -m, --module=LIST      print only these modules, as in 0,2-4; senders use 0 to 9\n"
    "  -l, --level=LIST       print only these levels; senders use 0 to 7\n"
    "  -w, --write=FILE       also write a capture file for Wireshark, of everything that "
    "arrives;\n"
    "                         - is the standard output, which then has no lines\n"
    "  -r, --read=FILE        read a capture file instead; - is the standard input\n"
    "  -c, --count=COUNT      end after this many datagrams\n"
    "  -h, --help             print this\n"
    "  -V, --version          print the version\n"
    "\n"
    "SIGINT and SIGTERM end it. Exit status: 0 ended as asked, 1 a socket or file failed,\n"
    "2 wrong usage.\n";

struct {
    in_addr address;
    unsigned port;
    bool port_given;
    NumberList modules;
    NumberList levels;
    const char *write;
    const char *read;
    unsigned count; // 0: no end
} g_options = {{}, 5344, false, {}, {}, nullptr, nullptr, 0};

struct {
    unsigned received;
    unsigned shown;
    unsigned malformed;
} g_counts;

volatile sig_atomic_t g_stop;

int fail(const char *what, const char *why)
{
    complain(what, why);
    return kExitFailed;
}

const char *plural(size_t count)
{
    return count == 1 ? "" : "s";
}

// ---- one line each ----

bool lines_wanted()
{
    return g_options.write == nullptr || strcmp(g_options.write, "-") != 0;
}

void print_origin(const Packet &packet)
{
    char date[32] = "";
    char address[INET_ADDRSTRLEN] = "";
    tm local;
    if (localtime_r(&packet.time.tv_sec, &local) != nullptr)
        strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &local);
    inet_ntop(AF_INET, &packet.source, address, sizeof(address));
    printf("%s.%06ld %s:%u ", date, packet.time.tv_nsec / 1000, address, packet.source_port);
}

// A malformed datagram has no module and no level, so it passes no filter.
void show_malformed(const Packet &packet, const char *fault)
{
    ++g_counts.malformed;
    if (!lines_wanted() || !g_options.modules.is_empty() || !g_options.levels.is_empty())
        return;
    print_origin(packet);
    printf("malformed: %u byte%s, %s\n", packet.payload.length, plural(packet.payload.length),
           fault);
}

void show(const Packet &packet)
{
    ++g_counts.received;
    Datagram datagram;
    const char *fault = read_datagram(datagram, packet.payload);
    if (fault != nullptr)
        return show_malformed(packet, fault);
    if (!g_options.modules.matches(datagram.module) || !g_options.levels.matches(datagram.level))
        return;
    ++g_counts.shown;
    if (!lines_wanted())
        return;
    print_origin(packet);
    printf("category=%u module=%u level=%u tag=0x%04x ", datagram.category, datagram.module,
           datagram.level, datagram.tag);
    print_visible(stdout, datagram.text);
    putchar('\n');
}

bool enough()
{
    return g_options.count != 0 && g_counts.received >= g_options.count;
}

int report(unsigned skipped, unsigned dropped)
{
    fprintf(stderr, "bv-collect: %u datagram%s, %u selected, %u malformed", g_counts.received,
            plural(g_counts.received), g_counts.shown, g_counts.malformed);
    if (skipped != 0)
        fprintf(stderr, ", %u other packet%s skipped", skipped, plural(skipped));
    if (dropped != 0)
        fprintf(stderr, ", %u dropped by the system", dropped);
    fputc('\n', stderr);
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        return fail("standard output", strerror(errno));
    return 0;
}

// ---- from a capture file ----

int read_capture()
{
    static Capture capture;
    File file(open_or_standard(g_options.read, "rb"));
    if (!file)
        return fail(g_options.read, strerror(errno));
    const char *fault = capture.open(file.get());
    if (fault != nullptr)
        return fail(g_options.read, fault);

    auto result = Capture::Result::End;
    Packet packet;
    while (!enough() && ferror(stdout) == 0 &&
           (result = capture.next(packet)) == Capture::Result::Packet) {
        if (!g_options.port_given || packet.destination_port == g_options.port)
            show(packet);
        else
            ++capture.skipped;
    }
    const int status = report(capture.skipped, 0);
    const bool damaged = result == Capture::Result::Damaged;
    if (!damaged)
        return status;
    return fail(g_options.read, ferror(file.get()) != 0 ? strerror(errno) : "damaged or cut off");
}

// ---- from the network ----

void announce(const Receiver &receiver)
{
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &receiver.address, text, sizeof(text));
    fprintf(stderr, "bv-collect: listening on %s:%u\n", text, receiver.port);
}

// SIGINT and SIGTERM stay blocked except during the wait itself, so that none is lost between the
// look at g_stop and the wait. The result is the mask to wait with.
sigset_t take_signals()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { g_stop = 1; };
    constexpr int kEnding[] = {SIGINT, SIGTERM};
    sigset_t ending;
    sigset_t waiting;
    sigemptyset(&ending);
    for (int number : kEnding) {
        sigaction(number, &action, nullptr);
        sigaddset(&ending, number);
    }
    sigprocmask(SIG_BLOCK, &ending, &waiting);
    for (int number : kEnding)
        sigdelset(&waiting, number);
    return waiting;
}

// Takes what arrives until there is nothing left to do; `file` may be null.
int collect_from(Receiver &receiver, FILE *file, const sigset_t &waiting)
{
    pollfd readable = {receiver.fd, POLLIN, 0};
    Packet packet;
    while (g_stop == 0 && !enough()) {
        if (ppoll(&readable, 1, nullptr, &waiting) < 0 && errno != EINTR)
            return fail("cannot wait", strerror(errno));
        if (g_stop != 0 || !take_packet(receiver, packet))
            continue;
        if (file != nullptr && !append_packet(file, packet))
            return fail(g_options.write, strerror(errno));
        show(packet);
        if (ferror(stdout) != 0)
            break;
    }
    return report(0, receiver.dropped);
}

// The socket comes first: a collector that cannot have its port leaves an older capture alone.
int collect()
{
    const sigset_t waiting = take_signals();
    Receiver receiver;
    if (!open_receiver(receiver, g_options.address, static_cast<uint16_t>(g_options.port)))
        return fail("cannot listen", strerror(errno));
    const bool writing = g_options.write != nullptr;
    File file(writing ? open_or_standard(g_options.write, "wb") : nullptr);
    if (writing && (!file || !begin_capture(file.get())))
        return fail(g_options.write, strerror(errno));
    announce(receiver);
    const int status = collect_from(receiver, file.get(), waiting);
    return close_file(file.release()) ? status : fail(g_options.write, strerror(errno));
}

// ---- the command line ----

bool take_address(const char *text)
{
    return inet_pton(AF_INET, text, &g_options.address) == 1;
}

bool take_port(const char *text)
{
    g_options.port_given = true;
    return parse_number(text, 65535, g_options.port);
}

bool take_count(const char *text)
{
    return parse_number(text, 1000000000, g_options.count) && g_options.count != 0;
}

constexpr Option kOptions[] = {
    {"address", 'a', nullptr, take_address, "an IPv4 address, as in 192.168.1.1"},
    {"port", 'p', nullptr, take_port, "a number from 0 to 65535"},
    {"module", 'm', nullptr, [](const char *text) { return g_options.modules.add(text, 65535); },
     "a list of at most 32 numbers or ranges from 0 to 65535, as in 0,2-4"},
    {"level", 'l', nullptr, [](const char *text) { return g_options.levels.add(text, 255); },
     "a list of at most 32 numbers or ranges from 0 to 255, as in 0,2-4"},
    {"write", 'w', &g_options.write, nullptr, nullptr},
    {"read", 'r', &g_options.read, nullptr, nullptr},
    {"count", 'c', nullptr, take_count, "a number from 1 to 1000000000"}};

} // namespace

int main(int argc, char **argv)
{
    const CommandLine line = {"bv-collect", kUsage, kExitFailed, kOptions, std::size(kOptions)};
    int status;
    if (!take_options(line, argc, argv, status))
        return status;
    if (optind != argc)
        return wrong_usage(line, "takes no arguments besides options");
    if (g_options.read != nullptr && g_options.write != nullptr)
        return wrong_usage(line, "reads a capture file or writes one, not both");
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return g_options.read != nullptr ? read_capture() : collect();
}
