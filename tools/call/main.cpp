// bv-call: calls a function that a service offers on the bus, with bytes from the command line, and
// shows what came back.

#include <bv/status.h>

#include "bus/rpc_message.h"
#include "tools/call/parameters.h"
#include "tools/call/remote.h"
#include "tools/call/show.h"
#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/common/numbers.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <unistd.h>

namespace {

using namespace tools;

// 2: kExitUsage
constexpr int kExitNoAnswer = 1;
constexpr int kExitResult = 3;

constexpr size_t kMaxFunctionName = 255;
constexpr int kTimeoutMs = 3000;

constexpr char kUsage[] =
    "usage: bv-call [OPTION]... FUNCTION [NAME=VALUE]...\n"
    "Calls a function of the gateway's services and prints the bytes that come back.\n"
    "\n"
    "What is sent, in the order given (nothing: no bytes):\n"
    "  -x, --hex=DIGITS       bytes in hexadecimal; blanks and colons between them are fine\n"
    "  -t, --text=TEXT        the characters of a text, without a zero byte\n"
    "  -f, --file=FILE        the contents of a file; - is the standard input\n"
    "  -n, --size=SIZE        zero bytes up to this size\n"
    "  -T, --template=FILE    parameters of a family: NAME=VALUE sets them, the others keep the\n"
    "                         bytes given or have the template's defaults\n"
    "  -O, --offset=OFFSET    where the family's image begins in the bytes (default 0)\n"
    "What is printed:\n"
    "  -p, --print=FORM       hex, text (up to a zero byte), parameters or nothing; the default\n"
    "                         is parameters with a template, else hex\n"
    "  -w, --write=FILE       write the bytes as they are; - is the standard output\n"
    "Whom to call:\n"
    "  -o, --object=NAME      object on the bus (default brovan.gateway.server)\n"
    "  -s, --socket=PATH      the bus's socket\n"
    "  -m, --timeout=MS       how long to wait, in milliseconds (default 3000)\n"
    "  -h, --help             print this\n"
    "\n"
    "The function's result goes to the standard error output.\n"
    "Exit status: 0 the function returned 0, 1 no answer, 2 wrong usage, 3 it returned something\n"
    "else.\n";

struct {
    unsigned size;
    unsigned offset;
    const char *template_name;
    Showing showing;
    Remote remote;
} g_options = {0,
               0,
               nullptr,
               {Form::Default, nullptr},
               {nullptr, bv::kDefaultObjectName, nullptr, kTimeoutMs}};

Bytes g_bytes;

// ---- the call ----

// Connecting to the bus takes over the signals for its event loop, which does not run here.
void end_at_once(int number)
{
    _exit(128 + number);
}

// Connecting and looking up have no limit of their own; see remote.cpp.
void end_without_bus(int)
{
    constexpr char kText[] = "bv-call: the bus does not answer\n";
    (void)!write(STDERR_FILENO, kText, sizeof(kText) - 1);
    _exit(kExitNoAnswer);
}

bool fill_bytes(char **assignments)
{
    if (g_options.template_name != nullptr &&
        (!open_template(g_options.template_name) || !place_image(g_bytes, g_options.offset)))
        return false;
    for (; *assignments != nullptr; ++assignments)
        if (!set_parameter(g_bytes, g_options.offset, *assignments))
            return false;
    if (g_bytes.length < g_options.size)
        g_bytes.length = g_options.size;
    return true;
}

int call(char **assignments)
{
    if (!fill_bytes(assignments))
        return kExitUsage;
    signal(SIGINT, end_at_once);
    signal(SIGTERM, end_at_once);
    signal(SIGALRM, end_without_bus);

    const Remote &remote = g_options.remote;
    uint32_t result;
    const char *why = call_remote(remote, g_bytes, result);
    if (why != nullptr) {
        fprintf(stderr, "bv-call: %s on %s: %s\n", remote.function, remote.object, why);
        return kExitNoAnswer;
    }
    show_result(result, g_bytes);
    if (!show_bytes(g_options.showing, g_bytes, g_options.offset))
        return kExitNoAnswer;
    return result == BV_OK ? 0 : kExitResult;
}

// ---- the command line ----

bool add_file(const char *path)
{
    const File file(open_or_standard(path, "rb"));
    if (file.get() == nullptr)
        return complain(path, strerror(errno));
    return g_bytes.add_file(file.get());
}

bool take_form(const char *text)
{
    static constexpr struct {
        const char *name;
        Form form;
    } kForms[] = {{"hex", Form::Hex},
                  {"text", Form::Text},
                  {"parameters", Form::Parameters},
                  {"nothing", Form::Nothing}};
    for (const auto &row : kForms)
        if (strcmp(row.name, text) == 0)
            g_options.showing.form = row.form;
    return g_options.showing.form != Form::Default;
}

bool take_timeout(const char *text)
{
    unsigned timeout_ms;
    if (!parse_number(text, 3600000, timeout_ms) || timeout_ms == 0)
        return false;
    g_options.remote.timeout_ms = static_cast<int>(timeout_ms);
    return true;
}

bool take_option(int option, const char *argument)
{
    switch (option) {
    case 'x':
        return g_bytes.add_hex(argument);
    case 't':
        return g_bytes.add(argument, strlen(argument));
    case 'f':
        return add_file(argument);
    case 'n':
        return parse_number(argument, kMaxBytes, g_options.size);
    case 'T':
        g_options.template_name = argument;
        return true;
    case 'O':
        return parse_number(argument, kMaxBytes, g_options.offset);
    case 'p':
        return take_form(argument);
    case 'w':
        g_options.showing.write = argument;
        return true;
    case 'o':
        g_options.remote.object = argument;
        return true;
    case 's':
        g_options.remote.socket = argument;
        return true;
    case 'm':
        return take_timeout(argument);
    default:
        return false;
    }
}

// What is wrong with the arguments as a whole, or null.
const char *combination_fault(char **arguments)
{
    if (arguments[0] == nullptr)
        return "which function?";
    if (strlen(arguments[0]) > kMaxFunctionName)
        return "a function's name has at most 255 characters";
    if (g_options.template_name != nullptr)
        return nullptr;
    if (arguments[1] != nullptr)
        return "NAME=VALUE needs a template";
    if (g_options.showing.form == Form::Parameters)
        return "--print=parameters needs a template";
    return g_options.offset != 0 ? "--offset needs a template" : nullptr;
}

void set_default_form(Showing &showing)
{
    if (showing.form == Form::Default && showing.write != nullptr)
        showing.form = Form::Nothing;
    if (showing.form == Form::Default)
        showing.form = g_options.template_name != nullptr ? Form::Parameters : Form::Hex;
}

constexpr option kOptions[] = {{"hex", required_argument, nullptr, 'x'},
                               {"text", required_argument, nullptr, 't'},
                               {"file", required_argument, nullptr, 'f'},
                               {"size", required_argument, nullptr, 'n'},
                               {"template", required_argument, nullptr, 'T'},
                               {"offset", required_argument, nullptr, 'O'},
                               {"print", required_argument, nullptr, 'p'},
                               {"write", required_argument, nullptr, 'w'},
                               {"object", required_argument, nullptr, 'o'},
                               {"socket", required_argument, nullptr, 's'},
                               {"timeout", required_argument, nullptr, 'm'},
                               {"help", no_argument, nullptr, 'h'},
                               {}};

} // namespace

int main(int argc, char **argv)
{
    const CommandLine line = {"bv-call", kUsage, kOptions, take_option, kExitNoAnswer};
    int status;
    if (!take_options(line, argc, argv, status))
        return status;
    const char *fault = combination_fault(argv + optind);
    if (fault != nullptr)
        return wrong_usage(line, fault);
    set_default_form(g_options.showing);
    g_options.remote.function = argv[optind];
    return call(argv + optind + 1);
}
