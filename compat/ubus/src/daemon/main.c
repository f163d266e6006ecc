// SPDX-License-Identifier: ISC
// The message bus daemon: options, start and end.

#include "ubusd.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#define DEFAULT_DIRECTORY "/var/run/ubus"
#define DEFAULT_SOCKET DEFAULT_DIRECTORY "/ubus.sock"

static void end_requested(struct uloop_fd *signals, unsigned int events)
{
    (void)signals;
    (void)events;
    uloop_end();
}

// SIGTERM and SIGINT end the daemon. They are blocked and read from a descriptor: the loop's own
// handlers would lose one that comes before the loop runs.
static bool catch_end(void)
{
    static struct uloop_fd signals = {.cb = end_requested};
    sigset_t set;

    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    if (sigprocmask(SIG_BLOCK, &set, NULL) != 0)
        return false;
    signals.fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    return signals.fd >= 0 && uloop_fd_add(&signals, ULOOP_READ | ULOOP_BLOCKING) == 0;
}

// If a standard descriptor is closed, a client's socket would take its place and get the error
// messages.
static void fill_standard_descriptors(void)
{
    int fd;
    do
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

static int usage(const char *program)
{
    fprintf(stderr,
            "usage: %s [-s SOCKET] [-A DIRECTORY]\n"
            "  -s SOCKET     socket to listen on (" DEFAULT_SOCKET ")\n"
            "  -A DIRECTORY  access rules; no effect, every client may do everything\n",
            program);
    return 1;
}

int main(int argc, char **argv)
{
    const char *path = DEFAULT_SOCKET;
    int option;
    fill_standard_descriptors();
    while ((option = getopt(argc, argv, "s:A:")) != -1) {
        if (option == 's')
            path = optarg;
        else if (option == 'A')
            fprintf(stderr, "ubusd: -A has no effect: every client may do everything\n");
        else
            return usage(argv[0]);
    }
    if (optind != argc)
        return usage(argv[0]);

    signal(SIGPIPE, SIG_IGN);
    signal(SIGHUP, SIG_IGN); // there are no rules to read again
    mkdir(DEFAULT_DIRECTORY, 0755);
    objects_init();
    if (uloop_init() != 0 || !catch_end()) {
        perror("ubusd: cannot set up the event loop");
        return 1;
    }
    if (!clients_listen(path)) {
        fprintf(stderr, "ubusd: cannot listen on %s: ", path);
        perror(NULL);
        return 1;
    }

    uloop_run();
    clients_end(path);
    return 0;
}
