/* Options in getopt's way: its own complaints are left as they are. */
#include "common/command_line.h"

#include <stdio.h>

int command_line_wrong(const struct command_line *line, const char *what)
{
    if (what != NULL)
        fprintf(stderr, "%s: %s\n", line->program, what);
    fprintf(stderr, "Try '%s --help'.\n", line->program);
    return EXIT_USAGE;
}

bool command_line_take(const struct command_line *line, int argc, char **argv, int *status)
{
    int option;

    while ((option = getopt_long(argc, argv, line->letters, line->names, NULL)) != -1) {
        if (option == 'h') {
            bool printed = fputs(line->usage, stdout) >= 0 && fflush(stdout) == 0;
            *status = printed ? 0 : line->failed;
            return false;
        }
        if (option == '?') {
            *status = command_line_wrong(line, NULL);
            return false;
        }
        if (!line->take(option, optarg)) {
            fprintf(stderr, "%s: -%c does not take '%s'\n", line->program, option, optarg);
            *status = command_line_wrong(line, NULL);
            return false;
        }
    }
    return true;
}
