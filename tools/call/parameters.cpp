// Parameters by name. The library converts them with the template that services use, so what is
// sent and shown here is what its database would store and write.

#include "tools/call/parameters.h"

#include <bv/bv.h>

#include "bus/json_tree.h"
#include "db/internal.h"
#include "db/types.h"
#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/common/visible.h"
#include "tools/template/values.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

using tools::complain;

// How far a template can lead beyond the start of its image: the library reads types in their own
// width and texts up to their NUL, whatever the lengths say.
constexpr size_t kReach =
    bv::kMaxParameters * size_t{bv::kMaxParameterLength} + bv::kParameterTextSize;

bv_db_family g_family;
const char *g_template_name; // as given

uint32_t image_size()
{
    return static_cast<uint32_t>(g_family.image_size);
}

// The library adds up the lengths and ends the process when the sum leaves 32 bits.
bool lengths_add_up(json_object *para)
{
    if (bv_json_object_is_type(para, json_type_array) == 0)
        return true;
    int64_t sum = 0;
    for (size_t i = 0; i < bv_json_object_array_length(para); ++i) {
        json_object *element = bv_json_object_array_get_idx(para, i);
        const int32_t len = bv_json_object_get_int(bv_json_object_object_get(element, "len"));
        sum += len < 0 ? len : 0;
    }
    return sum >= INT32_MIN;
}

// Why a file cannot be read at all, or null.
const char *file_fault(const char *path)
{
    const tools::File file(fopen(path, "rb"));
    return !file || (getc(file.get()) == EOF && ferror(file.get()) != 0) ? strerror(errno)
                                                                         : nullptr;
}

bool read_template(const char *path)
{
    const bv::JsonTree tree(bv_json_object_from_file(path));
    return tree && lengths_add_up(bv_json_object_object_get(tree.get(), "para")) &&
           bv_db_template_read_single(path, &g_family) == BV_OK;
}

// The parameter whose name is the first `length` bytes of a text.
bv_db_para *find(const char *name, size_t length)
{
    for (bv_db_para &para : bv::Parameters(g_family))
        if (strlen(para.name) == length && memcmp(para.name, name, length) == 0)
            return &para;
    return nullptr;
}

// The library would store something else instead, or write a data file that it cannot read again;
// here it is a typing mistake.
bool check_value(const bv_db_para &para, const char *value)
{
    const bv::ParameterType *type = bv::find_type(para.type);
    if (type == nullptr)
        return complain(para.name, "its type in the template is unknown");
    tools::Reason why;
    return (tools::value_fits(*type, para.len, value, why) &&
            tools::text_survives(value, strlen(value), why)) ||
           complain(para.name, why.text);
}

} // namespace

bool tools::open_template(const char *name)
{
    g_template_name = name;
    char in_folder[1024];
    const char *path = name;
    if (access(path, F_OK) != 0 && errno == ENOENT) {
        snprintf(in_folder, sizeof(in_folder), "/etc/template/%s", name);
        path = in_folder;
        if (access(path, F_OK) != 0 && errno == ENOENT)
            return complain(name, "no such template, neither here nor in /etc/template");
    }
    const char *fault = file_fault(path);
    if (fault != nullptr)
        return complain(path, fault);
    if (!read_template(path))
        return complain(path, "not a template; bv-template check says why");
    if (g_family.image_size <= 0 || g_family.default_image == nullptr)
        return complain(path, "has no parameters");
    return true;
}

bool tools::place_image(Buffer &bytes, uint32_t offset)
{
    const uint32_t end = offset + image_size(); // both are far too small to wrap
    if (end > kMaxBytes)
        return complain("--offset", "the image does not fit into a call");
    const uint32_t given = bytes.length > offset ? bytes.length - offset : 0;
    if (given < image_size())
        memcpy(bytes.data + offset + given, g_family.default_image + given, image_size() - given);
    if (bytes.length < end)
        bytes.length = end;
    return true;
}

bool tools::set_parameter(Buffer &bytes, uint32_t offset, const char *assignment)
{
    const char *equals = strchr(assignment, '=');
    if (equals == nullptr)
        return complain(assignment, "is not of the form NAME=VALUE");
    bv_db_para *para = find(assignment, static_cast<size_t>(equals - assignment));
    if (para == nullptr)
        return complain(assignment, "the template has no such parameter");
    if (!check_value(*para, equals + 1))
        return false;
    bv_os_strcpy(para->value, sizeof(para->value), equals + 1);

    para->selected = 1;
    memcpy(g_family.working_image, bytes.data + offset, image_size());
    bv_db_user_fill_tomem(&g_family, 1); // the selected one only
    memcpy(bytes.data + offset, g_family.working_image, image_size());
    para->selected = 0;
    return true;
}

bool tools::print_parameters(const Buffer &bytes, uint32_t offset)
{
    static uint8_t image[kReach]; // zero after the image
    if (bytes.length < offset + image_size())
        return complain(g_template_name, "the reply is shorter than the family's image");
    memcpy(image, bytes.data + offset, image_size());
    bv_db_user_fill_frommem(image, g_family.para_count, g_family.para);
    for (const bv_db_para &para : bv::Parameters(g_family)) {
        print_visible(stdout, para.name);
        putchar('=');
        print_visible(stdout, para.value);
        putchar('\n');
    }
    return true;
}
