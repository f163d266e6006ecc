// SPDX-License-Identifier: ISC
// Templates. The database takes what it can of one and says nothing: it skips elements, cuts texts
// and keeps the last of two equal names. A service does not start on less than the template says.

#include "service/internal.h"

#include <ftw.h>

#include "tools/template/values.h"

namespace {

using namespace bv::service;

// Looks for a template as the database does: the one file of that name below the folder.
const char *g_wanted; // nftw() passes nothing on
char g_found[1024];
int g_matches;

int match(const char *path, const struct stat *, int, FTW *at)
{
    if (strcmp(path + at->base, g_wanted) != 0)
        return 0;
    ++g_matches;
    snprintf(g_found, sizeof g_found, "%s", path);
    return 0;
}

size_t count_members(json_object *value)
{
    size_t count = 0;
    for (const Members::Member &member : Members(value))
        count += 1 + count_members(member.value());
    for (size_t i = 0; i < count_of(value); ++i)
        count += count_members(bv_json_object_array_get_idx(value, i));
    return count;
}

// The text of a member that a data file can keep; null for any other.
const char *text_in(json_object *object, const char *name)
{
    size_t length;
    tools::Reason why;
    const char *text = text_of(bv_json_object_object_get(object, name), length);
    return text != nullptr && tools::text_survives(text, length, why) ? text : nullptr;
}

bool is_parameter(json_object *element)
{
    const char *name = text_in(element, "name");
    const char *type_name = text_in(element, "type");
    const char *value = text_in(element, "value");
    const bv::ParameterType *type = type_name != nullptr ? bv::find_type(type_name) : nullptr;
    int32_t len;
    tools::Reason why;
    return name != nullptr && *name != '\0' && type != nullptr && value != nullptr &&
           number_of(bv_json_object_object_get(element, "len"), len) && len > 0 &&
           len <= bv::kMaxParameterLength && (type->size == 0 || type->size == len) &&
           tools::value_fits(*type, len, value, why);
}

bool is_name_twice(json_object *para, size_t index)
{
    const char *name = text_in(bv_json_object_array_get_idx(para, index), "name");
    for (size_t i = 0; i < index; ++i)
        if (strcmp(text_in(bv_json_object_array_get_idx(para, i), "name"), name) == 0)
            return true;
    return false;
}

// Whether the name of a function is missing, or one that the database does not cut.
bool is_function(json_object *tree, const char *member)
{
    size_t length = 0;
    json_object *value = bv_json_object_object_get(tree, member);
    return value == nullptr || (text_of(value, length) != nullptr && length <= tools::kMaxText);
}

// The database finds a file by a shell's pattern.
bool is_file_name(const char *name)
{
    tools::Reason why;
    return tools::text_survives(name, strlen(name), why) && strpbrk(name, "$`*?[") == nullptr &&
           name[strlen(name) - 1] != ' ';
}

// Whether the database takes all of a template as it is.
bool is_whole(const Contents &file)
{
    json_object *para = bv_json_object_object_get(file.tree, "para");
    const size_t count = count_of(para);
    if (count_raw_names(file.text.bytes) != count_members(file.tree) || count == 0 ||
        count > bv::kMaxParameters || !is_function(file.tree, "getfunc") ||
        !is_function(file.tree, "setfunc"))
        return false;
    for (size_t i = 0; i < count; ++i)
        if (!is_parameter(bv_json_object_array_get_idx(para, i)) || is_name_twice(para, i))
            return false;
    return true;
}

} // namespace

int bv::service::load_template(const bv_service_family &listed)
{
    static constexpr int32_t (*kRegister[])(const char *) = {bv_db_reg_user, bv_db_reg_private,
                                                             bv_db_reg_factory};
    g_wanted = listed.name;
    g_matches = 0;
    nftw("/etc/template", match, 8, FTW_PHYS);
    if (g_matches != 1) {
        say("/etc/template has %d templates %s: install one", g_matches, listed.name);
        return BV_SERVICE_TEMPLATE;
    }
    Contents file;
    if (!is_file_name(listed.name) || !read_file(g_found, file, true) || !is_whole(file)) {
        say("%s has faults: bv-template check tells which", g_found);
        return BV_SERVICE_TEMPLATE;
    }
    bv_db_family *family = bv_db_hash_add(listed.name);
    const int32_t status = kRegister[listed.store](listed.name);
    if (family == nullptr || (status != BV_OK && status != BV_ERR_EXISTS) ||
        bv_db_template_read_single(g_found, family) != BV_OK) {
        say("no memory for %s", listed.name);
        return BV_SERVICE_NO_MEMORY;
    }
    if (family->image_size == static_cast<int32_t>(listed.size))
        return BV_SERVICE_ENDED;
    say("%s has %d bytes, and the program wants %u: install the two that belong together", g_found,
        family->image_size, listed.size);
    return BV_SERVICE_SIZE;
}
