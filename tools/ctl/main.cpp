// SPDX-License-Identifier: ISC
// bv-ctl: shows and changes the parameters of running services.

#include "tools/ctl/ctl.h"

#include <csignal>
#include <cstring>
#include <iterator>
#include <unistd.h>

namespace {

using namespace tools;

constexpr char kUsage[] =
    "usage: bv-ctl [-s SERVICE] [--json] VERB [ARGUMENT...]\n"
    "Shows and changes the parameters of running services.\n"
    "\n"
    "  list [SERVICE]               services and their families\n"
    "  show [FAMILY[.INSTANCE[.PARAMETER]]...]\n"
    "  set FAMILY[.INSTANCE] NAME=VALUE...\n"
    "  add FAMILY[.INSTANCE] [NAME=VALUE...]\n"
    "  del FAMILY.INSTANCE...\n"
    "  diff [FAMILY...]             running, saved and default values\n"
    "  commit [SERVICE]             saves\n"
    "  revert FAMILY...             takes back to what is saved\n"
    "  reset FAMILY...              takes back to the defaults\n"
    "  export FILE, import FILE     families as a data file\n"
    "  watch [FAMILY]               prints changes\n"
    "  debug [MODULE LEVEL on|off]  debug messages\n"
    "  status [SERVICE]\n"
    "  wait SERVICE [SECONDS]       until it runs\n"
    "\n"
    "  -s, --service=SERVICE  which one, where several own a family\n"
    "  -j, --json             print JSON\n"
    "  -h, --help             this, or about a verb: bv-ctl set --help\n"
    "  -V, --version\n"
    "\n"
    "FAMILY is lan.json or lan. Exit status: 0 done, 1 refused, 2 wrong use.\n";

struct Verb {
    const char *name;
    int (*run)(Arguments arguments);
    int least, most; // arguments
    const char *usage;
};

constexpr int kAny = 10000;

// Usages begin after the program's name.
constexpr Verb kVerbs[] = {
    {"list", do_list, 0, 1,
     "[SERVICE]\n"
     "Lists services, families and instances; of one service also the parameters with\n"
     "types, sizes and defaults, and the functions.\n"},
    {"show", do_show, 0, kAny,
     "[FAMILY[.INSTANCE[.PARAMETER]]...]\n"
     "Shows running values: bv-ctl show lan; bv-ctl show lan.1.mtu\n"},
    {"set", do_set, 2, kAny,
     "FAMILY[.INSTANCE] NAME=VALUE...\n"
     "Changes parameters, all or none: bv-ctl set lan mtu=1400 hostname=router\n"
     "INSTANCE can be left out where there is only one. 'bv-ctl commit' saves.\n"},
    {"add", do_add, 1, kAny,
     "FAMILY[.INSTANCE] [NAME=VALUE...]\n"
     "Adds an instance with defaults for what is not named, and prints its name.\n"},
    {"del", do_del, 1, kAny,
     "FAMILY.INSTANCE...\n"
     "Deletes instances.\n"},
    {"diff", do_diff, 0, kAny,
     "[FAMILY...]\n"
     "Shows values that are not saved, or differ from their defaults.\n"},
    {"commit", do_commit, 0, 1,
     "[--factory] [SERVICE]\n"
     "Saves the families of all services, or of one.\n"
     "\n"
     "  -f, --factory  the factory families instead of all others\n"},
    {"revert", do_revert, 0, kAny,
     "FAMILY... | -s SERVICE\n"
     "Takes families, or all of a service, back to what is saved.\n"},
    {"reset", do_reset, 0, kAny,
     "FAMILY... | -s SERVICE\n"
     "Takes families, or all of a service, back to their defaults: one instance,\n"
     "number 1. What is saved stays until 'bv-ctl commit'.\n"},
    {"export", do_export, 1, 1,
     "FILE\n"
     "Writes the running values of all families, or of -s SERVICE, as a data file.\n"
     "- is the standard output. Hidden families are left out.\n"},
    {"import", do_import, 1, 1,
     "FILE\n"
     "Takes families from a data file; - is the standard input. Each family in it\n"
     "then has exactly its instances. All services check it before one changes.\n"},
    {"watch", do_watch, 0, 1,
     "[FAMILY]\n"
     "Prints each change until Ctrl-C, also of services that start later.\n"},
    {"debug", do_debug, 0, 3,
     "[MODULE LEVEL on|off]\n"
     "Shows the debug switches, or turns one on or off. 'bv-collect' prints the\n"
     "messages.\n"},
    {"status", do_status, 0, 1,
     "[SERVICE]\n"
     "Shows since when services run, where their settings came from, when they were\n"
     "saved, and counts of calls.\n"},
    {"wait", do_wait, 1, 2,
     "SERVICE [SECONDS]\n"
     "Waits until a service answers, at most 30 seconds unless told.\n"},
    {"names", do_names, 0, 0,
     "\n"
     "Prints services, families, instances and parameters for shell completion.\n"},
};

constexpr Option kOptions[] = {{"service", 's', &g_options.service, nullptr, nullptr},
                               {"json", 'j', nullptr, nullptr, nullptr, &g_options.json},
                               {"factory", 'f', nullptr, nullptr, nullptr, &g_options.factory}};

const Verb *find_verb(const char *name)
{
    for (const Verb &verb : kVerbs)
        if (strcmp(verb.name, name) == 0)
            return &verb;
    return nullptr;
}

// The verb that --help is about, before the options are read: the first word that is not an option
// or the argument of one. Null when there is none.
const Verb *verb_of(char *const *arguments)
{
    for (; *arguments != nullptr; ++arguments)
        if (strcmp(*arguments, "-s") == 0 || strcmp(*arguments, "--service") == 0) {
            if (*++arguments == nullptr)
                return nullptr;
        } else if (**arguments != '-') {
            return find_verb(*arguments);
        }
    return nullptr;
}

// Connecting to the bus takes over the signals for its event loop, which does not run here.
void end_at_once(int number)
{
    _exit(128 + number);
}

// See ask.cpp.
void end_without_bus(int)
{
    constexpr char kText[] = "bv-ctl: the bus does not answer\n";
    (void)!write(STDERR_FILENO, kText, sizeof(kText) - 1);
    _exit(kExitRefused);
}

} // namespace

Options tools::g_options;

int main(int argc, char **argv)
{
    const Verb *verb = verb_of(argv + 1);
    char usage[512];
    if (verb != nullptr)
        snprintf(usage, sizeof(usage), "usage: bv-ctl %s %s", verb->name, verb->usage);
    const CommandLine line = {"bv-ctl", verb != nullptr ? usage : kUsage, kExitRefused, kOptions,
                              std::size(kOptions)};
    int status;
    if (!take_options(line, argc, argv, status))
        return status;
    if (argv[optind] == nullptr)
        return wrong_usage(line, "which verb?");
    verb = find_verb(argv[optind]);
    if (verb == nullptr)
        return wrong_arguments("'%s' is not a verb", argv[optind]);
    const int count = argc - optind - 1;
    if (count < verb->least || count > verb->most) {
        fprintf(stderr, "usage: bv-ctl %s %s", verb->name, verb->usage);
        return kExitUsage;
    }
    if (g_options.factory && verb->run != do_commit)
        return wrong_arguments("--factory belongs to commit");

    signal(SIGINT, end_at_once);
    signal(SIGTERM, end_at_once);
    signal(SIGALRM, end_without_bus);
    status = verb->run(argv + optind + 1);
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        return refused("standard output: %s", strerror(errno));
    return status;
}
