/* Results by their names, and bytes in the form that was asked for. */
#include "call/show.h"

#include <errno.h>
#include <inttypes.h>
#include <string.h>

#include <bv/status.h>

#include "call/parameters.h"
#include "common/visible.h"

static bool fail(const char *what, const char *why)
{
    fprintf(stderr, "bv-call: %s: %s\n", what, why);
    return false;
}

static const char *result_name(uint32_t result)
{
    static const struct {
        uint32_t code;
        const char *name;
    } names[] = {{(uint32_t)BV_ERR_FAILED, "BV_ERR_FAILED"},
                 {BV_ERR_RANGE, "BV_ERR_RANGE"},
                 {BV_ERR_WRITE_OPEN, "BV_ERR_WRITE_OPEN"},
                 {BV_ERR_NO_FAMILY, "BV_ERR_NO_FAMILY"},
                 {BV_ERR_INVALID, "BV_ERR_INVALID"},
                 {BV_ERR_NULL, "BV_ERR_NULL"},
                 {BV_ERR_NO_INSTANCE, "BV_ERR_NO_INSTANCE"},
                 {BV_ERR_EXISTS, "BV_ERR_EXISTS"},
                 {BV_ERR_FULL, "BV_ERR_FULL"},
                 {BV_ERR_OPEN, "BV_ERR_OPEN"},
                 {BV_ERR_SHORT_READ, "BV_ERR_SHORT_READ"},
                 {BV_ERR_SHORT_WRITE, "BV_ERR_SHORT_WRITE"},
                 {BV_ERR_NO_FILE, "BV_ERR_NO_FILE"},
                 {BV_ERR_RECORD, "BV_ERR_RECORD"},
                 {BV_ERR_CHANNEL, "BV_ERR_CHANNEL"},
                 {BV_ERR_EMPTY, "BV_ERR_EMPTY"},
                 {BV_ERR_MEMORY, "BV_ERR_MEMORY"},
                 {BV_ERR_TOO_LONG, "BV_ERR_TOO_LONG"}};
    size_t i;

    for (i = 0; i < sizeof(names) / sizeof(names[0]); i++)
        if (names[i].code == result)
            return names[i].name;
    return NULL;
}

void show_result(uint32_t result, const struct bytes *bytes)
{
    const char *name = result_name(result);

    fprintf(stderr, "bv-call: result 0x%08" PRIx32 "%s%s%s, %zu byte%s\n", result,
            name != NULL ? " (" : "", name != NULL ? name : "", name != NULL ? ")" : "",
            bytes->length, bytes->length == 1 ? "" : "s");
}

static bool write_raw(const char *path, const struct bytes *bytes)
{
    bool is_stdout = strcmp(path, "-") == 0;
    FILE *file = is_stdout ? stdout : fopen(path, "wb");
    bool written;

    if (file == NULL)
        return fail(path, strerror(errno));
    written = fwrite(bytes->data, 1, bytes->length, file) == bytes->length && fflush(file) == 0;
    if (!is_stdout && fclose(file) != 0)
        written = false;
    return written ? true : fail(path, "cannot be written");
}

/* What stands in front of the image, a status perhaps, is shown as bytes. */
static bool print_parameters(const struct bytes *bytes, size_t offset)
{
    if (bytes->length >= offset)
        print_hex(stdout, bytes->data, offset);
    return parameters_print(bytes, offset);
}

static bool print_form(enum form form, const struct bytes *bytes, size_t offset)
{
    switch (form) {
    case FORM_HEX:
        print_hex(stdout, bytes->data, bytes->length);
        return true;
    case FORM_TEXT:
        print_visible(stdout, bytes->data, strnlen((const char *)bytes->data, bytes->length));
        putchar('\n');
        return true;
    case FORM_PARAMETERS:
        return print_parameters(bytes, offset);
    default:
        return true;
    }
}

bool show_bytes(const struct showing *showing, const struct bytes *bytes, size_t offset)
{
    bool written = showing->write == NULL || write_raw(showing->write, bytes);
    bool printed = print_form(showing->form, bytes, offset);

    if (fflush(stdout) != 0 || ferror(stdout))
        return fail("standard output", "cannot be written");
    return written && printed;
}
