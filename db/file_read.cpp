// SPDX-License-Identifier: ISC
// Reads data files, which are JSON.
//
// Elements pass through the family's descriptors and working image one after the other, and neither
// is reset in between. That is meant: a parameter that an element lacks keeps the value of the
// element before it, so a file may name only what differs.

#include <bv/db.h>

#include "bus/json_tree.h"
#include "db/instance_index.h"
#include "db/internal.h"
#include "db/json_members.h"
#include "os/inline.h"

#include <bv/os.h>
#include <bv/ubus.h>

#include <unistd.h>

namespace {

// Takes the values that an element's "para" holds. A "para" that is not an object holds none.
void take_values(bv::JsonMembers values, bv_db_family &family)
{
    for (bv_db_para &para : bv::Parameters(family)) {
        const char *text = bv_json_object_get_string(values.get(para.name));
        if (text != nullptr)
            bv::copy_text(para.value, sizeof(para.value), text);
    }
}

bv::Bytes working_image(const bv_db_family &family)
{
    return {family.working_image, static_cast<uint32_t>(family.image_size)};
}

// Overwrites the instance of this number with the working image, or makes it.
void store_instance(bv::InstanceIndex &index, bv_db_family &family, int32_t number)
{
    const bv_db_inst *instance = index.find(number);
    if (instance != nullptr)
        bv::copy_image_in(family, instance->image, working_image(family));
    else if (bv::append_instance(family, working_image(family), number) == BV_OK)
        family.inst_max = index.highest();
}

// A family that the file lacks keeps its instances, and gets an instance 1 if it has none.
void add_first_instance(bv_db_family &family)
{
    if (bv::find_instance(family, 1) == nullptr)
        bv::add_instance(family, working_image(family), 1);
}

void read_element(json_object *element, bv_db_family &family, bv::InstanceIndex &index)
{
    bv::JsonMembers members(element);
    json_object *number = members.get("inst");
    json_object *values = members.get("para");
    if (number == nullptr || values == nullptr)
        return;

    take_values(bv::JsonMembers(values), family);
    bv_db_user_fill_tomem(&family, 0);
    store_instance(index, family, bv_json_object_get_int(number));
}

void read_family(bv::JsonMembers &tree, bv_db_family &family)
{
    if (family.image_size == 0)
        return;
    bv::terminate_texts(family);
    json_object *elements = tree.get(family.name);
    if (elements == nullptr)
        return add_first_instance(family);
    if (bv_json_object_is_type(elements, json_type_array) == 0)
        return;

    const size_t count = bv_json_object_array_length(elements);
    bv::InstanceIndex index(family);
    for (size_t i = 0; i < count; ++i)
        read_element(bv_json_object_array_get_idx(elements, i), family, index);
}

} // namespace

int32_t bv_db_user_read(bv_list_head *list, const char *path)
{
    if (list == nullptr || path == nullptr || bv_os_access(path, F_OK) != 0)
        return BV_ERR_FAILED;

    const bv::JsonTree tree(bv_json_object_from_file(path));
    if (!tree)
        return BV_ERR_FAILED;
    bv::JsonMembers members(tree.get());
    bv::for_each_family(*list, [&](bv_db_family &family) { read_family(members, family); });
    return BV_OK;
}
