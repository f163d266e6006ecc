/* bv-template: checks templates and data files, and writes C headers for families. */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "common/command_line.h"
#include "template/data.h"
#include "template/family.h"
#include "template/fault.h"
#include "template/header.h"
#include "template/library.h"

enum { EXIT_DONE = 0, EXIT_FAULTS = 1, EXIT_TROUBLE = 2 };

static const char usage[] =
    "usage: bv-template check TEMPLATE...\n"
    "       bv-template data [-t FOLDER] DATAFILE...\n"
    "       bv-template header [-n NAME] [-o FILE] TEMPLATE\n"
    "\n"
    "check   checks templates, data checks data files against the templates of their families:\n"
    "        one line for every fault, FILE:LINE: MESSAGE.\n"
    "header  writes a C header with the packed structure of a family.\n"
    "\n"
    "  -t, --templates=FOLDER  where the templates are (default /etc/template)\n"
    "  -n, --name=NAME         name of the structure (default the family's, without .json)\n"
    "  -o, --output=FILE       where the header goes (default the standard output)\n"
    "  -h, --help              print this\n"
    "\n"
    "Exit status: 0 no fault, 1 faults were found, 2 a file cannot be read or written, or wrong\n"
    "usage.\n";

static struct {
    const char *templates;
    const char *name;
    const char *output;
} options = {"/etc/template", NULL, NULL};

static struct family family; /* too large for small stacks */

static int result(void)
{
    if (fflush(stdout) != 0 || ferror(stdout))
        file_trouble("standard output", strerror(errno));
    if (had_file_trouble())
        return EXIT_TROUBLE;
    return fault_count() == 0 ? EXIT_DONE : EXIT_FAULTS;
}

static int check(char **paths)
{
    for (; *paths != NULL; paths++) {
        family_read(&family, *paths);
        family_free(&family);
    }
    return result();
}

static int data(char **paths)
{
    if (!library_open(options.templates))
        return EXIT_TROUBLE;
    for (; *paths != NULL; paths++)
        data_check(*paths);
    library_close();
    return result();
}

static bool is_regular(FILE *file)
{
    struct stat status;

    return fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode);
}

/* Writes to a file that is complete or not there; a device or a pipe stays where it is. */
static void write_header(void)
{
    FILE *file = options.output == NULL ? stdout : fopen(options.output, "w");
    bool written, removable;

    if (file == NULL) {
        file_trouble(options.output, strerror(errno));
        return;
    }
    removable = file != stdout && is_regular(file);
    written = header_write(file, &family, options.name) && fflush(file) == 0 && !ferror(file);
    if (file != stdout && fclose(file) != 0)
        written = false;
    if (written)
        return;
    file_trouble(file == stdout ? "standard output" : options.output, "the header is incomplete");
    if (removable)
        remove(options.output);
}

/* A structure made from a faulty template would not be what the library makes of it. */
static int header(const char *path)
{
    if (family_read(&family, path) && fault_count() == 0)
        write_header();
    family_free(&family);
    return result();
}

static bool take_option(int option, const char *argument)
{
    switch (option) {
    case 't':
        options.templates = argument;
        return true;
    case 'n':
        options.name = argument;
        return true;
    case 'o':
        options.output = argument;
        return true;
    default:
        return false;
    }
}

int main(int argc, char **argv)
{
    static const struct option names[] = {{"templates", required_argument, NULL, 't'},
                                          {"name", required_argument, NULL, 'n'},
                                          {"output", required_argument, NULL, 'o'},
                                          {"help", no_argument, NULL, 'h'},
                                          {NULL, 0, NULL, 0}};
    static const struct command_line line = {"bv-template", usage,       "t:n:o:h",
                                             names,         take_option, EXIT_TROUBLE};
    const char *verb;
    int status;

    if (!command_line_take(&line, argc, argv, &status))
        return status;
    verb = optind < argc ? argv[optind++] : "";
    if (optind >= argc)
        return command_line_wrong(&line, *verb == '\0' ? "what to do?" : "which file?");
    if (strcmp(verb, "check") == 0)
        return check(argv + optind);
    if (strcmp(verb, "data") == 0)
        return data(argv + optind);
    if (strcmp(verb, "header") != 0)
        return command_line_wrong(&line, "there are check, data and header");
    if (optind + 1 < argc)
        return command_line_wrong(&line, "header takes one template");
    return header(argv[optind]);
}
