// The command line and the complaints of all the tools.
#ifndef TOOLS_COMMON_COMMAND_LINE_H
#define TOOLS_COMMON_COMMAND_LINE_H

#include <getopt.h>

namespace tools {

constexpr int kExitUsage = 2;

struct CommandLine {
    const char *program;
    const char *usage;
    const option *options;                          // as getopt_long() takes them; h is --help
    bool (*take)(int option, const char *argument); // false: the argument is invalid
    int failed;                                     // exit status when the usage cannot be printed
};

// Takes all options, up to `optind`. False when the program ends with `status` instead: it printed
// its usage, or said what is wrong with the command line.
bool take_options(const CommandLine &line, int argc, char **argv, int &status);

// Says what is wrong, unless getopt_long() did (null), and how to get help. The exit status.
int wrong_usage(const CommandLine &line, const char *what);

// Prints "PROGRAM: WHAT: WHY" on standard error. False, so that callers can return it.
bool complain(const char *what, const char *why);

} // namespace tools

#endif
