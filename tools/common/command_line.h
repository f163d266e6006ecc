// The command line and the complaints of all the tools.
#ifndef TOOLS_COMMON_COMMAND_LINE_H
#define TOOLS_COMMON_COMMAND_LINE_H

#include <cstddef>
#include <getopt.h>

namespace tools {

constexpr int kExitUsage = 2;

// An option with an argument; --help needs no row.
struct Option {
    const char *name;
    char letter;
    const char **text;                  // keeps the argument as it is
    bool (*take)(const char *argument); // or null, and this reads it; false: it is invalid
};

struct CommandLine {
    const char *program;
    const char *usage;
    int failed; // exit status when the usage cannot be printed
    const Option *options;
    size_t count; // at most 15
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
