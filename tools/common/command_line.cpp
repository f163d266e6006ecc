/* SPDX-License-Identifier: ISC */
#include "tools/common/command_line.h"

#include "tools/common/visible.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

using tools::CommandLine;
using tools::Option;

constexpr size_t kMaxOptions = 18; // --help and --version included

const char *g_program = "";

// The letter of the next option, long or short; -1 at the end, '?' for an unknown one.
int next_option(const CommandLine &line, int argc, char **argv)
{
    option names[kMaxOptions + 1] = {};
    char letters[2 * kMaxOptions + 1];
    char *to = letters;
    for (size_t i = 0; i < line.count; ++i) {
        const Option &option = line.options[i];
        const bool is_flag = option.flag != nullptr;
        names[i] = {option.name, is_flag ? no_argument : required_argument, nullptr, option.letter};
        *to++ = option.letter;
        if (!is_flag)
            *to++ = ':';
    }
    names[line.count] = {"help", no_argument, nullptr, 'h'};
    names[line.count + 1] = {"version", no_argument, nullptr, 'V'};
    *to++ = 'h';
    *to++ = 'V';
    *to = '\0';
    return getopt_long(argc, argv, letters, names, nullptr);
}

// A tool may be started with a closed standard stream. A socket must not get its number, or what is
// printed goes to the bus. With a file that is open the wrong way, reading and printing still fail.
void occupy_closed_streams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) == -1)
            (void)!open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

// Shows an argument that may be anything, even very long.
bool complain_of_argument(const CommandLine &line, const Option &option)
{
    const char *argument = optarg;
    fprintf(stderr, "%s: --%s: '", line.program, option.name);
    tools::print_visible(stderr,
                         bv::bytes_of(argument, static_cast<uint32_t>(strnlen(argument, 60))));
    fprintf(stderr, "' is not %s\n", option.expected);
    return false;
}

// Returns false after it printed what is wrong.
bool take_option(const CommandLine &line, int letter)
{
    for (size_t i = 0; i < line.count; ++i) {
        const Option &option = line.options[i];
        if (option.letter != letter)
            continue;
        if (option.flag != nullptr)
            return *option.flag = true;
        if (option.text == nullptr)
            return option.take(optarg) ||
                   (option.expected != nullptr && complain_of_argument(line, option));
        *option.text = optarg;
        return true;
    }
    return false; // getopt_long() printed it
}

} // namespace

bool tools::take_options(const CommandLine &line, int argc, char **argv, int &status)
{
    g_program = line.program;
    occupy_closed_streams();
    int letter;
    while ((letter = next_option(line, argc, argv)) != -1) {
        if (letter == 'h' || letter == 'V') {
            const int printed = letter == 'h' ? fputs(line.usage, stdout)
                                              : printf("%s " BV_VERSION "\n", line.program);
            status = printed >= 0 && fflush(stdout) == 0 ? 0 : line.failed;
            return false;
        }
        if (!take_option(line, letter)) {
            status = wrong_usage(line, nullptr);
            return false;
        }
    }
    return true;
}

int tools::wrong_usage(const CommandLine &line, const char *what)
{
    if (what != nullptr)
        fprintf(stderr, "%s: %s\n", line.program, what);
    fprintf(stderr, "Try '%s --help'.\n", line.program);
    return kExitUsage;
}

bool tools::complain(const char *what, const char *why)
{
    fprintf(stderr, "%s: ", g_program);
    print_visible(stderr, what);
    fprintf(stderr, ": %s\n", why);
    return false;
}
