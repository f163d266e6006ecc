// SPDX-License-Identifier: ISC
// Writes data files, which are JSON.
//
// The text is built in one buffer and written in large pieces: a print call for every line made a
// commit several times slower. The buffer is on the stack, so that settings can be saved when
// memory is short. The file is rewritten in place, so its owner, mode and links stay as the
// deployment set them; the price is a cut file when the power or the disk fails half-way.

#include <bv/db.h>

#include "core/list.h"
#include "db/internal.h"
#include "os/descriptor.h"

#include <bv/os.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr uint32_t kBufferSize = 8192;
constexpr mode_t kFileMode = 0600;

// The text on its way to the file.
struct Output {
    explicit Output(FILE *file) : stream(file) {}

    FILE *stream;
    uint32_t length = 0;
    bool failed = false; // the disk is full: writing on would only leave a hole in the text
    char buffer[kBufferSize];
};

void flush(Output &out)
{
    if (!out.failed && bv_os_fwrite(out.buffer, 1, out.length, out.stream) != out.length)
        out.failed = true;
    out.length = 0;
}

// Byte by byte: names, values and what stands between them have a few characters, and measuring and
// copying each one with calls took longer.
void put(Output &out, const char *text)
{
    char *buffer = out.buffer;
    uint32_t length = out.length;
    for (; *text != '\0'; ++text) {
        if (length == kBufferSize) {
            out.length = length;
            flush(out);
            length = 0;
        }
        buffer[length++] = *text;
    }
    out.length = length;
}

void put_parameters(Output &out, const bv_db_family &family)
{
    bool first = true;
    for (const bv_db_para &para : bv::Parameters(family)) {
        if (!first)
            put(out, ",\n");
        first = false;
        put(out, "\t\t\t\t\"");
        put(out, para.name);
        put(out, "\":\"");
        put(out, para.value);
        put(out, "\"");
    }
}

// One instance. Its image is converted into the descriptors' values, which are written.
void put_instance(Output &out, bv_db_family &family, const uint8_t *image, int32_t number)
{
    bv::image_to_text(image, bv::image_allocation(family.image_size), family.para,
                      family.para_count);

    char text[12];
    bv::number_to_text(number, text);
    put(out, "\t\t{\n\t\t\t\"inst\":\"");
    put(out, text);
    put(out, "\",\n\t\t\t\"para\":{\n");
    put_parameters(out, family);
    put(out, "\n\t\t\t}\n\t\t}");
}

void put_instances(Output &out, bv_db_family &family)
{
    if (bv::list_empty(bv::instance_list(family)) && family.para_count != 0)
        put_instance(out, family, family.default_image, 1);

    bool first = true;
    for (const bv_db_inst &instance : bv::instances_of(family)) {
        if (!first)
            put(out, ",\n");
        first = false;
        put_instance(out, family, instance.image, instance.number);
    }
}

void put_families(Output &out, bv_list_head &list)
{
    bool first = true;
    bv::for_each_family(list, [&](bv_db_family &family) {
        if (!first)
            put(out, ",\n");
        first = false;
        bv::terminate_texts(family);
        put(out, "\t\"");
        put(out, family.name);
        put(out, "\":[\n");
        put_instances(out, family);
        put(out, "\n\t]");
    });
}

// Opens the file for rewriting. A missing one is made first: fopen() would make it readable for
// every user, and it holds passwords.
FILE *open_for_rewriting(const char *path)
{
    if (bv_os_access(path, F_OK) != 0)
        const bv::Descriptor made(bv::close_on_exec(bv_os_open(path, O_CREAT, kFileMode)));
    return bv::close_on_exec(bv_os_fopen(path, "w"));
}

} // namespace

int32_t bv_db_user_write(bv_list_head *list, const char *path)
{
    if (list == nullptr || path == nullptr)
        return BV_ERR_WRITE_OPEN;
    const bv::Stream stream(open_for_rewriting(path));
    if (!stream)
        return BV_ERR_WRITE_OPEN;

    Output out(stream.get());
    put(out, "{\n");
    put_families(out, *list);
    put(out, "\n}\n");
    flush(out);
    return BV_OK; // also with a full disk: memory still holds everything
}
