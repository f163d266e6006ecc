// bv-call: calls a function that a service offers on the bus, with bytes from the command line, and
// shows what came back.

#include <bv/status.h>

#include "bus/rpc_message.h"
#include "tools/call/parameters.h"
#include "tools/call/remote.h"
#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/common/numbers.h"
#include "tools/common/visible.h"

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstring>
#include <iterator>
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

enum class Form { Default, Hex, Text, Parameters, Nothing };

struct {
    unsigned size = 0;
    unsigned offset = 0;
    const char *template_name = nullptr;
    Form form = Form::Default;
    const char *write = nullptr; // file that takes the bytes as they are
    Remote remote = {nullptr, bv::kDefaultObjectName, nullptr, kTimeoutMs};
} g_options;

Buffer g_bytes;

// ---- what came back ----

bool write_raw(const char *path, const Buffer &bytes)
{
    File file(open_or_standard(path, "wb"));
    if (!file)
        return complain(path, strerror(errno));
    const bool written =
        fwrite(bytes.data, 1, bytes.length, file.get()) == bytes.length && fflush(file.get()) == 0;
    const int why = errno;
    return close_file(file.release()) && written ? true
                                                 : complain(path, strerror(written ? errno : why));
}

// Bytes up to the first zero one.
uint32_t text_length(const Buffer &bytes)
{
    return static_cast<uint32_t>(strnlen(reinterpret_cast<const char *>(bytes.data), bytes.length));
}

bool print_form(const Buffer &bytes, uint32_t offset)
{
    switch (g_options.form) {
    case Form::Hex:
        print_hex(stdout, {bytes.data, bytes.length});
        return true;
    case Form::Text:
        print_visible(stdout, {bytes.data, text_length(bytes)});
        putchar('\n');
        return true;
    case Form::Parameters:
        // What comes before the image, a status perhaps, is shown as bytes.
        if (bytes.length >= offset)
            print_hex(stdout, {bytes.data, offset});
        return print_parameters(bytes, offset);
    default:
        return true;
    }
}

// On standard error, since the bytes may go to standard output. Other numbers than status codes
// mean what the function wants.
void show_result(uint32_t result)
{
    fprintf(stderr, "bv-call: result 0x%08" PRIx32, result);
    if (result >> 8 == 0x100000 || result == UINT32_MAX)
        fprintf(stderr, " (%s)", bv_status_text(result));
    fprintf(stderr, ", %" PRIu32 " byte%s\n", g_bytes.length, g_bytes.length == 1 ? "" : "s");
}

// Returns false after it printed what failed. When the function failed there are no parameters to
// print: the bytes may still be those that were sent.
bool show_bytes(uint32_t result)
{
    const bool written = g_options.write == nullptr || write_raw(g_options.write, g_bytes);
    const bool skipped = result != BV_OK && g_options.form == Form::Parameters;
    const bool printed = skipped || print_form(g_bytes, g_options.offset);
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        return complain("standard output", strerror(errno));
    return written && printed;
}

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
    show_result(result);
    if (!show_bytes(result))
        return kExitNoAnswer;
    return result == BV_OK ? 0 : kExitResult;
}

// ---- the command line ----

constexpr char kTooLong[] = "a call carries at most 1000000 bytes";
static_assert(kMaxBytes == 1000000);

bool add_text(const char *text)
{
    return g_bytes.add(text, strlen(text)) || complain("--text", kTooLong);
}

bool add_file(const char *path)
{
    const File file(open_or_standard(path, "rb"));
    if (!file)
        return complain(path, strerror(errno));
    return g_bytes.add_file(file.get()) ||
           complain(path, ferror(file.get()) != 0 ? strerror(errno) : kTooLong);
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
            g_options.form = row.form;
    return g_options.form != Form::Default;
}

bool take_timeout(const char *text)
{
    unsigned timeout_ms;
    if (!parse_number(text, 3600000, timeout_ms) || timeout_ms == 0)
        return false;
    g_options.remote.timeout_ms = static_cast<int>(timeout_ms);
    return true;
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
    if (g_options.form == Form::Parameters)
        return "--print=parameters needs a template";
    return g_options.offset != 0 ? "--offset needs a template" : nullptr;
}

Form default_form()
{
    if (g_options.write != nullptr)
        return Form::Nothing;
    return g_options.template_name != nullptr ? Form::Parameters : Form::Hex;
}

constexpr Option kOptions[] = {
    {"hex", 'x', nullptr, [](const char *text) { return g_bytes.add_hex(text); },
     "two hexadecimal digits a byte, of at most 1000000 bytes in all"},
    {"text", 't', nullptr, add_text, nullptr},
    {"file", 'f', nullptr, add_file, nullptr},
    {"size", 'n', nullptr,
     [](const char *text) { return parse_number(text, kMaxBytes, g_options.size); },
     "a number from 0 to 1000000"},
    {"template", 'T', &g_options.template_name, nullptr, nullptr},
    {"offset", 'O', nullptr,
     [](const char *text) { return parse_number(text, kMaxBytes, g_options.offset); },
     "a number from 0 to 1000000"},
    {"print", 'p', nullptr, take_form, "hex, text, parameters or nothing"},
    {"write", 'w', &g_options.write, nullptr, nullptr},
    {"object", 'o', &g_options.remote.object, nullptr, nullptr},
    {"socket", 's', &g_options.remote.socket, nullptr, nullptr},
    {"timeout", 'm', nullptr, take_timeout, "a number from 1 to 3600000"}};

} // namespace

int main(int argc, char **argv)
{
    const CommandLine line = {"bv-call", kUsage, kExitNoAnswer, kOptions, std::size(kOptions)};
    int status;
    if (!take_options(line, argc, argv, status))
        return status;
    const char *fault = combination_fault(argv + optind);
    if (fault != nullptr)
        return wrong_usage(line, fault);
    if (g_options.form == Form::Default)
        g_options.form = default_form();
    g_options.remote.function = argv[optind];
    return call(argv + optind + 1);
}
