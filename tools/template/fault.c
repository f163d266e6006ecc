/* What both kinds of files have in common: being read, being JSON, and being reported on. */
#include "template/fault.h"

#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/visible.h"

/* What is as large is something else: all of the gateway's flash is not much more. */
enum { FILE_MAX = 16 * 1024 * 1024, MESSAGE_MAX = 512 };

static unsigned faults;
static bool trouble;

static void print_text(FILE *to, const char *text)
{
    print_visible(to, (const uint8_t *)text, strlen(text));
}

void fault(const char *path, unsigned line, const char *format, ...)
{
    char message[MESSAGE_MAX];
    va_list arguments;

    va_start(arguments, format);
    vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    print_text(stdout, path);
    printf(":%u: ", line);
    print_text(stdout, message);
    putchar('\n');
    faults++;
}

unsigned fault_count(void)
{
    return faults;
}

void file_trouble(const char *path, const char *why)
{
    fputs("bv-template: ", stderr);
    print_text(stderr, path);
    fprintf(stderr, ": %s\n", why);
    trouble = true;
}

bool had_file_trouble(void)
{
    return trouble;
}

/* Reads on until the end of the file. NULL with errno; the caller frees. */
static char *read_stream(FILE *file, size_t *length)
{
    size_t room = 0;
    char *bytes = NULL;

    *length = 0;
    while (*length == room) {
        char *more = room < FILE_MAX ? realloc(bytes, room + 65536) : NULL;

        if (more == NULL) {
            free(bytes);
            errno = room < FILE_MAX ? ENOMEM : EFBIG;
            return NULL;
        }
        bytes = more;
        room += 65536;
        *length += fread(bytes + *length, 1, room - *length, file);
    }
    if (ferror(file)) {
        free(bytes);
        return NULL;
    }
    return bytes;
}

struct json *read_json(const char *path)
{
    FILE *file = fopen(path, "rb");
    struct json_fault what;
    struct json *tree;
    size_t length;
    char *bytes;

    bytes = file == NULL ? NULL : read_stream(file, &length);
    if (bytes == NULL)
        file_trouble(path, strerror(errno));
    if (file != NULL)
        fclose(file);
    if (bytes == NULL)
        return NULL;
    tree = json_parse(bytes, length, &what);
    if (tree == NULL)
        fault(path, what.line, "no JSON: %s", what.what);
    free(bytes);
    return tree;
}
