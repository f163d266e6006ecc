// SPDX-License-Identifier: ISC
// The command line and the complaints of all the tools.
#ifndef TOOLS_COMMON_COMMAND_LINE_H
#define TOOLS_COMMON_COMMAND_LINE_H

#include <cstddef>
#include <getopt.h>

namespace tools {

constexpr int kExitUsage = 2;

// An option with an argument, or a flag; --help and --version need no row.
struct Option {
    const char *name;
    char letter;
    const char **text;                  // keeps the argument as it is
    bool (*take)(const char *argument); // if text is null: reads it; false when it is invalid
    const char *expected;               // what it reads, as in "an address"; null: take complains
    bool *flag = nullptr;               // set instead: the option has no argument
};

struct CommandLine {
    const char *program;
    const char *usage;
    int failed; // exit status when the usage or the version cannot be printed
    const Option *options;
    size_t count; // at most 16
};

// Takes all options, up to `optind`. Returns false when the program ends with `status` instead: it
// has printed its usage or version, or what is wrong with the command line.
bool take_options(const CommandLine &line, int argc, char **argv, int &status);

// Prints what is wrong (null: getopt_long() already did) and how to get help. Returns the exit
// status.
int wrong_usage(const CommandLine &line, const char *what);

// Prints "PROGRAM: WHAT: WHY" on standard error. Returns false, so that callers can return that.
bool complain(const char *what, const char *why);

} // namespace tools

#endif
