// bv-template: checks templates and data files, and writes C headers for families.

#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/template/checked_file.h"
#include "tools/template/data.h"
#include "tools/template/family.h"
#include "tools/template/header.h"
#include "tools/template/library.h"

#include <cerrno>
#include <iterator>
#include <sys/stat.h>

namespace {

using namespace tools;

constexpr int kExitFaults = 1;
constexpr int kExitTrouble = 2;

constexpr char kUsage[] =
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

struct {
    const char *templates;
    const char *name;
    const char *output;
} g_options = {"/etc/template", nullptr, nullptr};

int result()
{
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        file_trouble("standard output", strerror(errno));
    if (had_file_trouble())
        return kExitTrouble;
    return fault_count() == 0 ? 0 : kExitFaults;
}

int check(char **paths)
{
    for (; *paths != nullptr; ++paths) {
        Family family;
        read_family(*paths, family);
    }
    return result();
}

int data(char **paths)
{
    Library templates;
    if (!templates.open(g_options.templates))
        return kExitTrouble;
    for (; *paths != nullptr; ++paths)
        check_data(*paths, templates);
    return result();
}

bool is_regular(FILE *file)
{
    struct stat status;
    return fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode);
}

bool write_whole(FILE *file, const Family &family)
{
    return write_header(file, family, g_options.name) && fflush(file) == 0 && ferror(file) == 0;
}

// Leaves a whole file or none, but never removes a device or a pipe.
void write_output(const Family &family)
{
    if (g_options.output == nullptr) {
        if (!write_header(stdout, family, g_options.name))
            file_trouble("standard output", strerror(errno));
        return; // result() flushes it
    }
    File file(fopen(g_options.output, "w"));
    if (!file) {
        file_trouble(g_options.output, strerror(errno));
        return;
    }
    const bool removable = is_regular(file.get());
    const bool written = write_whole(file.get(), family);
    const int why = errno;
    if (close_file(file.release()) && written)
        return;
    file_trouble(g_options.output, strerror(written ? errno : why));
    if (removable)
        remove(g_options.output);
}

// A structure from a faulty template would not match what the library makes of it.
int header(const char *path)
{
    Family family;
    warn_on_standard_error();
    if (read_family(path, family) && fault_count() == 0)
        write_output(family);
    return result();
}

constexpr Option kOptions[] = {{"templates", 't', &g_options.templates, nullptr, nullptr},
                               {"name", 'n', &g_options.name, nullptr, nullptr},
                               {"output", 'o', &g_options.output, nullptr, nullptr}};

} // namespace

int main(int argc, char **argv)
{
    const CommandLine line = {"bv-template", kUsage, kExitTrouble, kOptions, std::size(kOptions)};
    int status;
    if (!take_options(line, argc, argv, status))
        return status;
    const char *verb = optind < argc ? argv[optind++] : "";
    if (optind >= argc)
        return wrong_usage(line, *verb == '\0' ? "what to do?" : "which file?");
    char **paths = argv + optind;
    if (strcmp(verb, "check") == 0)
        return check(paths);
    if (strcmp(verb, "data") == 0)
        return data(paths);
    if (strcmp(verb, "header") != 0)
        return wrong_usage(line, "there are check, data and header");
    return optind + 1 < argc ? wrong_usage(line, "header takes one template") : header(*paths);
}
