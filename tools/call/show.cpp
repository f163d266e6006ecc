#include "tools/call/show.h"

#include <bv/status.h>

#include "tools/call/parameters.h"
#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/common/visible.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>

namespace {

using namespace tools;

// The library's code of a number, in parentheses; empty if there is none.
const char *code_of(uint32_t result)
{
#define CODE(name)                                                                                 \
    case static_cast<uint32_t>(name):                                                              \
        return " (" #name ")"
    switch (result) {
        CODE(BV_ERR_FAILED);
        CODE(BV_ERR_RANGE);
        CODE(BV_ERR_WRITE_OPEN);
        CODE(BV_ERR_NO_FAMILY);
        CODE(BV_ERR_INVALID);
        CODE(BV_ERR_NULL);
        CODE(BV_ERR_NO_INSTANCE);
        CODE(BV_ERR_EXISTS);
        CODE(BV_ERR_FULL);
        CODE(BV_ERR_OPEN);
        CODE(BV_ERR_SHORT_READ);
        CODE(BV_ERR_SHORT_WRITE);
        CODE(BV_ERR_NO_FILE);
        CODE(BV_ERR_RECORD);
        CODE(BV_ERR_CHANNEL);
        CODE(BV_ERR_EMPTY);
        CODE(BV_ERR_MEMORY);
        CODE(BV_ERR_TOO_LONG);
    default:
        return "";
    }
#undef CODE
}

bool write_raw(const char *path, const Bytes &bytes)
{
    File file(open_or_standard(path, "wb"));
    if (file.get() == nullptr)
        return complain(path, strerror(errno));
    const bool written =
        fwrite(bytes.data, 1, bytes.length, file.get()) == bytes.length && fflush(file.get()) == 0;
    return (file.close() && written) || complain(path, "cannot be written");
}

bool print_form(Form form, const Bytes &bytes, size_t offset)
{
    switch (form) {
    case Form::Hex:
        print_hex(stdout, bytes.data, bytes.length);
        return true;
    case Form::Text:
        print_visible(stdout, bytes.data,
                      strnlen(reinterpret_cast<const char *>(bytes.data), bytes.length));
        putchar('\n');
        return true;
    case Form::Parameters:
        // What comes before the image, a status perhaps, is shown as bytes.
        if (bytes.length >= offset)
            print_hex(stdout, bytes.data, offset);
        return print_parameters(bytes, offset);
    default:
        return true;
    }
}

} // namespace

void tools::show_result(uint32_t result, const Bytes &bytes)
{
    fprintf(stderr, "bv-call: result 0x%08" PRIx32 "%s, %zu byte%s\n", result, code_of(result),
            bytes.length, bytes.length == 1 ? "" : "s");
}

bool tools::show_bytes(const Showing &showing, const Bytes &bytes, size_t offset)
{
    const bool written = showing.write == nullptr || write_raw(showing.write, bytes);
    const bool printed = print_form(showing.form, bytes, offset);
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        return complain("standard output", "cannot be written");
    return written && printed;
}
