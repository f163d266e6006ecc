#include "tools/common/command_line.h"

#include "tools/common/visible.h"

#include <cstdio>

namespace {

const char *g_program = "";

// The short options are the long ones' letters.
void list_letters(const option *options, char *to)
{
    for (; options->name != nullptr; ++options) {
        *to++ = static_cast<char>(options->val);
        if (options->has_arg == required_argument)
            *to++ = ':';
    }
    *to = '\0';
}

} // namespace

namespace tools {

int wrong_usage(const CommandLine &line, const char *what)
{
    if (what != nullptr)
        fprintf(stderr, "%s: %s\n", line.program, what);
    fprintf(stderr, "Try '%s --help'.\n", line.program);
    return kExitUsage;
}

bool take_options(const CommandLine &line, int argc, char **argv, int &status)
{
    g_program = line.program;
    char letters[64];
    list_letters(line.options, letters);

    int option;
    while ((option = getopt_long(argc, argv, letters, line.options, nullptr)) != -1) {
        if (option == 'h') {
            const bool printed = fputs(line.usage, stdout) >= 0 && fflush(stdout) == 0;
            status = printed ? 0 : line.failed;
            return false;
        }
        const bool known = option != '?';
        if (known && line.take(option, optarg))
            continue;
        if (known)
            fprintf(stderr, "%s: -%c: invalid argument '%s'\n", line.program, option, optarg);
        status = wrong_usage(line, nullptr);
        return false;
    }
    return true;
}

bool complain(const char *what, const char *why)
{
    fprintf(stderr, "%s: ", g_program);
    print_visible(stderr, what);
    fprintf(stderr, ": %s\n", why);
    return false;
}

} // namespace tools
