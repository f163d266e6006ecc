/* The command line as all the tools take it. */
#ifndef TOOLS_COMMON_COMMAND_LINE_H
#define TOOLS_COMMON_COMMAND_LINE_H

#include <getopt.h>
#include <stdbool.h>

enum { EXIT_USAGE = 2 };

struct command_line {
    const char *program;
    const char *usage;
    const char *letters;        /* as getopt_long() takes them; h is --help */
    const struct option *names; /* the same with their long names */
    /* Takes one option; false when its argument makes no sense. */
    bool (*take)(int option, const char *argument);
    int failed; /* exit status when the usage cannot be printed */
};

/* Takes all options, up to `optind`. False when the program ends with `status` instead: usage was
 * asked for and is printed, or the command line is wrong, which was said. */
bool command_line_take(const struct command_line *line, int argc, char **argv, int *status);

/* Says what is wrong, unless that is known already (NULL), and how to get help; EXIT_USAGE. */
int command_line_wrong(const struct command_line *line, const char *what);

#endif
