// Data files, written.
//
// The text is built in one buffer and leaves in large pieces: one print call per line made a
// commit several times slower. The buffer is on the stack, so that settings can still be saved
// when memory is short. The file is rewritten in place, so its owner, mode and links stay as the
// deployment set them; the price is a cut-off file when the power or the disk fails half-way.

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
    bool failed = false; // the disk is full: what follows would only leave a hole in the text
    char buffer[kBufferSize];
};

void flush(Output &out)
{
    if (!out.failed && bv_os_fwrite(out.buffer, 1, out.length, out.stream) != out.length)
        out.failed = true;
    out.length = 0;
}

// Byte by byte: names and values are a few characters long, and measuring and copying each one
// by calls took longer than the characters themselves.
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

// The fixed texts between them: the size is known, so the compiler copies one in a few words.
template <uint32_t Size>
void put_literal(Output &out, const char (&text)[Size])
{
    if (kBufferSize - out.length < Size)
        flush(out);
    __builtin_memcpy(out.buffer + out.length, text, Size - 1);
    out.length += Size - 1;
}

void put_parameters(Output &out, const bv_db_family &family)
{
    if (family.para == nullptr)
        return;
    for (int32_t i = 0; i < family.para_count && family.para[i].valid != 0; ++i) {
        if (i > 0)
            put_literal(out, ",\n");
        put_literal(out, "\t\t\t\t\"");
        put(out, family.para[i].name);
        put_literal(out, "\":\"");
        put(out, family.para[i].value);
        put_literal(out, "\"");
    }
}

// One instance, from the descriptors' values: its image goes through them.
void put_instance(Output &out, bv_db_family &family, const uint8_t *image, int32_t number)
{
    bv::image_to_text(image, bv::image_allocation(family.image_size), family.para,
                      family.para_count);

    char text[12];
    bv::number_to_text(number, text);
    put_literal(out, "\t\t{\n\t\t\t\"inst\":\"");
    put(out, text);
    put_literal(out, "\",\n\t\t\t\"para\":{\n");
    put_parameters(out, family);
    put_literal(out, "\n\t\t\t}\n\t\t}");
}

void put_instances(Output &out, bv_db_family &family)
{
    bv_list_head &list = bv::instances_of(family);
    if (bv::list_empty(list) && family.para_count != 0)
        put_instance(out, family, family.default_image, 1);

    for (bv_list_head *link = list.next; link != &list; link = link->next) {
        if (link != list.next)
            put_literal(out, ",\n");
        put_instance(out, family, bv::instance_of(link)->image, bv::instance_of(link)->number);
    }
}

void put_families(Output &out, bv_list_head &list)
{
    bool first = true;
    bv::for_each_family(list, [&](bv_db_family &family) {
        if (!first)
            put_literal(out, ",\n");
        first = false;
        bv::terminate_texts(family);
        put_literal(out, "\t\"");
        put(out, family.name);
        put_literal(out, "\":[\n");
        put_instances(out, family);
        put_literal(out, "\n\t]");
    });
}

// Opens the file for rewriting. A new one is made beforehand, since fopen() would make it
// readable for everyone, and there are passwords in it.
FILE *open_for_rewriting(const char *path)
{
    if (bv_os_access(path, F_OK) != 0) {
        int fd = bv::close_on_exec(bv_os_open(path, O_CREAT, kFileMode));
        if (fd >= 0)
            bv_os_close(fd);
    }
    return bv::close_on_exec(bv_os_fopen(path, "w"));
}

} // namespace

int32_t bv_db_user_write(bv_list_head *list, const char *path)
{
    if (list == nullptr || path == nullptr)
        return BV_ERR_WRITE_OPEN;
    FILE *stream = open_for_rewriting(path);
    if (stream == nullptr)
        return BV_ERR_WRITE_OPEN;

    Output out(stream);
    put_literal(out, "{\n");
    put_families(out, *list);
    put_literal(out, "\n}\n");
    flush(out);
    bv_os_fclose(stream); // a full disk is not an error here: memory still has everything
    return BV_OK;
}
