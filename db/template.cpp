// SPDX-License-Identifier: ISC
// Templates: JSON files that define a family's parameters.
//
// A template comes from outside. Elements that lack something are skipped. Lengths are taken as
// they are (a negative one shrinks the image): only the image's allocation limits what the
// conversions read and write.

#include <bv/db.h>

#include "bus/json_tree.h"
#include "core/list.h"
#include "db/internal.h"
#include "db/json_members.h"
#include "db/types.h"
#include "os/alloc.h"
#include "os/checked.h"
#include "os/inline.h"

#include <bv/os.h>
#include <bv/ubus.h>

#include <unistd.h>

namespace {

constexpr char kTemplateDir[] = "/etc/template";
constexpr uint32_t kPathSize = 1024;
constexpr uint32_t kTextSize = bv::kParameterTextSize;
static_assert(bv::kMaxParameters == 1310720 / sizeof(bv_db_para),
              "the largest allocation holds no more descriptors");

// Looks for a template's file by its name. Several matches give several lines, which are not a path
// and fail to open.
int32_t search(const char *name, char *path)
{
    return bv_os_systemex(path, kPathSize, "find %s -name \"%s\"", kTemplateDir, name);
}

// Copies a member's text, cut to the field. False if there is none.
bool take_text(bv::JsonMembers &members, const char *key, char (&field)[kTextSize])
{
    const char *text = bv_json_object_get_string(members.get(key));
    if (text == nullptr)
        return false;
    bv::copy_text(field, kTextSize, text);
    return true;
}

// Fills a slot from one element. False if the element lacks something or is too long: the slot then
// keeps its parts, invalid, until the next element overwrites them.
bool take_parameter(json_object *element, bv_db_para &slot)
{
    bv::JsonMembers members(element);
    const bool named = take_text(members, "name", slot.name);
    const bool typed = take_text(members, "type", slot.type);
    const json_object *len = members.get("len");
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
    const auto count = static_cast<size_t>(family.para_count);
    for (size_t i = 0; i < count; ++i) {
        if (take_parameter(bv_json_object_array_get_idx(para, i), *slot)) {
            slot->valid = 1;
            ++slot;
        }
    }
}

// Reads a parsed template into descriptors.
int32_t read_parameters(json_object *tree, bv_db_family &family)
{
    bv::JsonMembers members(tree);
    take_text(members, "getfunc", family.getfunc);
    take_text(members, "setfunc", family.setfunc);

    json_object *para = members.get("para");
    if (para == nullptr || bv_json_object_is_type(para, json_type_array) == 0)
        return BV_ERR_FAILED;

    bv::release_parameters(family);
    const size_t count = bv_json_object_array_length(para);
    if (count == 0)
        return BV_OK;
    if (count > bv::kMaxParameters)
        return BV_ERR_FAILED;

    family.para = bv::allocate_zeroed<bv_db_para>(uint64_t{count} * sizeof(bv_db_para));
    if (family.para == nullptr)
        return BV_ERR_MEMORY;
    family.para_count = static_cast<int32_t>(count);
    take_parameters(para, family);
    return BV_OK;
}

int32_t sum_of_lengths(const bv_db_family &family)
{
    int32_t sum = 0;
    for (const bv_db_para &para : bv::Parameters(family))
        sum = bv::checked_add(sum, para.len);
    return sum;
}

// A copy of the working image, which holds the defaults for as long as the family exists. It is
// never freed: see bv_db_hash_free().
uint8_t *make_default_image(const bv_db_family &family)
{
    uint8_t *image = bv::make_image(family.image_size);
    if (image != nullptr)
        bv_os_memcpy(image, bv::image_allocation(family.image_size), family.working_image,
                     static_cast<uint32_t>(family.image_size));
    return image;
}

// Makes both images, with the defaults in them; none when there is nothing to hold. Without memory
// for both the family has no parameters afterwards.
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

int32_t read_file(const char *path, bv_db_family &family)
{
    const bv::JsonTree tree(bv_json_object_from_file(path));
    return tree ? read_parameters(tree.get(), family) : BV_ERR_FAILED;
}

int32_t read_template(const char *path, bv_db_family &family)
{
    const int32_t size_before = family.image_size;
    int32_t status = read_file(path, family);
    if (status == BV_OK)
        status = make_images(family);

    // Instances may hold settings that are stored nowhere else. They go only when their images no
    // longer fit.
    if (family.image_size != size_before)
        bv::release_instances(family);
    return status;
}

} // namespace

int32_t bv_db_template_read(bv_list_head *list)
{
    if (list == nullptr)
        return BV_OK;
    for (const bv_db_reg &registration : bv::each<bv_db_reg>(*list)) {
        bv_db_family *family = bv_db_hash_add(registration.name);
        if (family != nullptr)
            bv_db_template_read_single(registration.name, family);
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
        const int32_t status = search(name, found);
        if (status != BV_OK)
            return status;
        path = found;
    }
    return read_template(path, *family);
}
