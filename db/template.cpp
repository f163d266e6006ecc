// Templates: JSON files that define a family's parameters.
//
// A template is outside input. Elements that lack something are skipped, lengths are taken as
// they are (a negative one shrinks the image), and what the conversions may touch is decided by
// the image's allocation alone.

#include <bv/db.h>

#include "core/list.h"
#include "db/internal.h"
#include "db/json_members.h"
#include "db/types.h"
#include "os/alloc.h"
#include "os/checked.h"

#include <bv/os.h>
#include <bv/ubus.h>

#include <unistd.h>

namespace {

constexpr char kTemplateDir[] = "/etc/template";
constexpr uint32_t kPathSize = 1024;
constexpr uint32_t kTextSize = bv::kParameterTextSize;
static_assert(bv::kMaxParameters == 1310720 / sizeof(bv_db_para), "what one allocation may hold");

// Looks for a template's file by its name. Several matches come as several lines, which are no
// path and fail to open.
int32_t search(const char *name, char *path)
{
    return bv_os_systemex(path, kPathSize, "find %s -name \"%s\"", kTemplateDir, name);
}

// Copies a member's text, cut to the field. False if there is none.
bool take_text(bv::JsonMembers &members, const char *key, char *field)
{
    const char *text = bv_json_object_get_string(members.get(key));
    if (text == nullptr)
        return false;
    bv_os_strncpy(field, kTextSize, text, kTextSize - 1);
    return true;
}

// Fills a slot from one element. False if the element lacks something or is too long: what it
// had stays in the slot, invalid, for the next element to overwrite.
bool take_parameter(json_object *element, bv_db_para &slot)
{
    bv::JsonMembers members(element);
    bool named = take_text(members, "name", slot.name);
    bool typed = take_text(members, "type", slot.type);
    json_object *len = members.get("len");
    if (len == nullptr)
        return false;
    slot.len = bv_json_object_get_int(len);
    if (slot.len > bv::kMaxParameterLength)
        return false;
    return take_text(members, "value", slot.value) && named && typed;
}

void take_parameters(json_object *para, bv_db_family &family)
{
    bv_db_para *slot = family.para;
    auto count = static_cast<size_t>(family.para_count);
    for (size_t i = 0; i < count; ++i) {
        if (take_parameter(bv_json_object_array_get_idx(para, i), *slot)) {
            slot->valid = 1;
            ++slot;
        }
    }
}

// Reads the parsed template into descriptors. The tree is the caller's.
int32_t read_parameters(json_object *tree, bv_db_family &family)
{
    bv::JsonMembers members(tree);
    take_text(members, "getfunc", family.getfunc);
    take_text(members, "setfunc", family.setfunc);

    json_object *para = members.get("para");
    if (para == nullptr || bv_json_object_is_type(para, json_type_array) == 0)
        return BV_ERR_FAILED;

    bv::release_parameters(family);
    size_t count = bv_json_object_array_length(para);
    if (count == 0)
        return BV_OK;
    if (count > bv::kMaxParameters)
        return BV_ERR_FAILED;

    uint64_t size = uint64_t{count} * sizeof(bv_db_para);
    family.para = static_cast<bv_db_para *>(bv::allocate(size));
    if (family.para == nullptr)
        return BV_ERR_MEMORY;
    bv_os_memset(family.para, static_cast<uint32_t>(size), 0, static_cast<uint32_t>(size));
    family.para_count = static_cast<int32_t>(count);
    take_parameters(para, family);
    return BV_OK;
}

int32_t sum_of_lengths(const bv_db_family &family)
{
    int32_t sum = 0;
    for (int32_t i = 0; i < family.para_count && family.para[i].valid != 0; ++i)
        sum = bv::checked_add(sum, family.para[i].len);
    return sum;
}

// A copy of the working image that holds the defaults for the rest of the family's life, and
// beyond: no one frees it.
uint8_t *make_default_image(const bv_db_family &family)
{
    uint8_t *image = bv::make_image(family.image_size);
    if (image != nullptr)
        bv_os_memcpy(image, bv::image_allocation(family.image_size), family.working_image,
                     static_cast<uint32_t>(family.image_size));
    return image;
}

// Both images, holding the defaults; none where there is nothing to hold. Without memory for both
// the family ends up without parameters.
int32_t make_images(bv_db_family &family)
{
    family.image_size = sum_of_lengths(family);
    if (family.image_size <= 0)
        return BV_OK;

    family.working_image = bv::make_image(family.image_size);
    if (family.working_image != nullptr) {
        bv_db_user_fill_tomem(&family, 0);
        family.default_image = make_default_image(family);
    }
    if (family.default_image == nullptr) {
        bv::release_parameters(family);
        return BV_ERR_FAILED;
    }
    return BV_OK;
}

} // namespace

int32_t bv_db_template_read(bv_list_head *list)
{
    if (list == nullptr)
        return BV_OK;
    for (bv_list_head *link = list->next; link != list; link = link->next) {
        const char *name = bv::registration_of(link)->name;
        bv_db_family *family = bv_db_hash_add(name);
        if (family != nullptr)
            bv_db_template_read_single(name, family);
    }
    return BV_OK;
}

int32_t bv_db_template_read_single(const char *name, bv_db_family *family)
{
    if (name == nullptr || family == nullptr)
        return BV_ERR_FAILED;

    char found[kPathSize];
    const char *path = name;
    if (bv_os_access(name, F_OK) != 0) {
        int32_t status = search(name, found);
        if (status != BV_OK)
            return status;
        path = found;
    }

    json_object *tree = bv_json_object_from_file(path);
    if (tree == nullptr)
        return BV_ERR_FAILED;
    const int32_t size_before = family->image_size;
    int32_t status = read_parameters(tree, *family);
    bv_json_object_put(tree);
    if (status == BV_OK)
        status = make_images(*family);

    // Instances hold settings that may be nowhere else: only those whose images do not fit go.
    if (family->image_size != size_before)
        bv::release_instances(*family);
    return status;
}
