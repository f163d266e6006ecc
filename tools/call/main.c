/*
 * bv-call: calls a function that a service offers on the bus, with bytes from the command line,
 * and shows what it made of them.
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <bv/status.h>

#include "call/bytes.h"
#include "call/parameters.h"
#include "call/remote.h"
#include "call/show.h"
#include "common/command_line.h"
#include "common/numbers.h"

enum { EXIT_DONE = 0, EXIT_NO_ANSWER = 1, EXIT_RESULT = 3 }; /* 2: EXIT_USAGE */
enum { FUNCTION_MAX = 255, TIMEOUT_MS = 3000 };

static const char usage[] =
    "usage: bv-call [OPTION]... FUNCTION [NAME=VALUE]...\n"
    "Calls a function of the gateway's services and prints the bytes that come back.\n"
    "\n"
    "What is sent, in the order given (nothing: no bytes):\n"
    "  -x, --hex=DIGITS       bytes in hexadecimal; blanks and colons may stand between them\n"
    "  -t, --text=TEXT        the characters of a text, without a zero byte\n"
    "  -f, --file=FILE        the contents of a file; - is the standard input\n"
    "  -n, --size=SIZE        zero bytes up to this size\n"
    "  -T, --template=FILE    parameters of a family: NAME=VALUE sets them, the others keep the\n"
    "                         bytes given or have the template's defaults\n"
    "  -O, --offset=OFFSET    where the family's image begins in the bytes (default 0)\n"
    "What is printed:\n"
    "  -p, --print=FORM       hex, text (up to a zero byte), parameters or nothing; the default "
    "is\n"
    "                         parameters with a template, else hex\n"
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

static struct {
    unsigned size;
    unsigned offset;
    const char *template_name;
    struct showing showing;
    struct remote remote;
} options = {.remote = {.object = "brovan.gateway.server", .timeout_ms = TIMEOUT_MS}};

static struct bytes bytes;

/* ---- the call ---- */

/* Connecting to the bus takes these over for its event loop, which does not run here. */
static void end_at_once(int number)
{
    _exit(128 + number);
}

/* Connecting and looking up wait without limit; see remote.c. */
static void bus_is_silent(int number)
{
    static const char text[] = "bv-call: the bus does not answer\n";

    (void)number;
    (void)write(STDERR_FILENO, text, sizeof(text) - 1);
    _exit(EXIT_NO_ANSWER);
}

static bool fill_bytes(char **assignments)
{
    if (options.template_name != NULL &&
        (!parameters_open(options.template_name) || !parameters_place(&bytes, options.offset)))
        return false;
    for (; *assignments != NULL; assignments++)
        if (!parameters_set(&bytes, options.offset, *assignments))
            return false;
    if (bytes.length < options.size)
        bytes.length = options.size;
    return true;
}

static int call(char **assignments)
{
    const char *why;
    uint32_t result;

    if (!fill_bytes(assignments))
        return EXIT_USAGE;
    signal(SIGINT, end_at_once);
    signal(SIGTERM, end_at_once);
    signal(SIGALRM, bus_is_silent);
    why = remote_call(&options.remote, &bytes, &result);
    if (why != NULL) {
        fprintf(stderr, "bv-call: %s on %s: %s\n", options.remote.function, options.remote.object,
                why);
        return EXIT_NO_ANSWER;
    }
    show_result(result, &bytes);
    if (!show_bytes(&options.showing, &bytes, options.offset))
        return EXIT_NO_ANSWER;
    return result == BV_OK ? EXIT_DONE : EXIT_RESULT;
}

/* ---- the command line ---- */

static bool add_file(const char *path)
{
    bool is_stdin = strcmp(path, "-") == 0;
    FILE *file = is_stdin ? stdin : fopen(path, "rb");
    bool added;

    if (file == NULL) {
        fprintf(stderr, "bv-call: %s: %s\n", path, strerror(errno));
        return false;
    }
    added = bytes_add_file(&bytes, file);
    if (!is_stdin)
        fclose(file);
    return added;
}

static bool take_form(const char *text)
{
    static const char *const forms[] = {"", "hex", "text", "parameters", "nothing"};
    size_t i;

    for (i = FORM_HEX; i < sizeof(forms) / sizeof(forms[0]); i++)
        if (strcmp(forms[i], text) == 0)
            options.showing.form = (enum form)i;
    return options.showing.form != FORM_DEFAULT;
}

static bool take_timeout(const char *text)
{
    unsigned timeout_ms;

    if (!number_parse(text, 3600000, &timeout_ms) || timeout_ms == 0)
        return false;
    options.remote.timeout_ms = (int)timeout_ms;
    return true;
}

static bool take_option(int option, const char *argument)
{
    switch (option) {
    case 'x':
        return bytes_add_hex(&bytes, argument);
    case 't':
        return bytes_add(&bytes, argument, strlen(argument));
    case 'f':
        return add_file(argument);
    case 'n':
        return number_parse(argument, BYTES_MAX, &options.size);
    case 'T':
        options.template_name = argument;
        return true;
    case 'O':
        return number_parse(argument, BYTES_MAX, &options.offset);
    case 'p':
        return take_form(argument);
    case 'w':
        options.showing.write = argument;
        return true;
    case 'o':
        options.remote.object = argument;
        return true;
    case 's':
        options.remote.socket = argument;
        return true;
    case 'm':
        return take_timeout(argument);
    default:
        return false;
    }
}

/* What is wrong with the arguments as a whole; NULL: nothing. */
static const char *combination_fault(char **arguments)
{
    if (arguments[0] == NULL)
        return "which function?";
    if (strlen(arguments[0]) > FUNCTION_MAX)
        return "no function has a name of more than 255 characters";
    if (arguments[1] != NULL && options.template_name == NULL)
        return "NAME=VALUE needs a template";
    if (options.showing.form == FORM_PARAMETERS && options.template_name == NULL)
        return "--print=parameters needs a template";
    if (options.offset != 0 && options.template_name == NULL)
        return "--offset needs a template";
    return NULL;
}

static void set_default_form(void)
{
    if (options.showing.form != FORM_DEFAULT)
        return;
    options.showing.form = options.template_name != NULL ? FORM_PARAMETERS : FORM_HEX;
    if (options.showing.write != NULL)
        options.showing.form = FORM_NOTHING;
}

int main(int argc, char **argv)
{
    static const struct option names[] = {{"hex", required_argument, NULL, 'x'},
                                          {"text", required_argument, NULL, 't'},
                                          {"file", required_argument, NULL, 'f'},
                                          {"size", required_argument, NULL, 'n'},
                                          {"template", required_argument, NULL, 'T'},
                                          {"offset", required_argument, NULL, 'O'},
                                          {"print", required_argument, NULL, 'p'},
                                          {"write", required_argument, NULL, 'w'},
                                          {"object", required_argument, NULL, 'o'},
                                          {"socket", required_argument, NULL, 's'},
                                          {"timeout", required_argument, NULL, 'm'},
                                          {"help", no_argument, NULL, 'h'},
                                          {NULL, 0, NULL, 0}};
    static const struct command_line line = {"bv-call", usage,       "x:t:f:n:T:O:p:w:o:s:m:h",
                                             names,     take_option, EXIT_NO_ANSWER};
    const char *fault;
    int status;

    if (!command_line_take(&line, argc, argv, &status))
        return status;
    fault = combination_fault(argv + optind);
    if (fault != NULL)
        return command_line_wrong(&line, fault);
    set_default_form();
    options.remote.function = argv[optind];
    return call(argv + optind + 1);
}
