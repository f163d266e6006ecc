// SPDX-License-Identifier: ISC
// Instances: the numbered images of a family.
//
// The list is in the order of adding, and walks and data files keep that order. The family record
// holds its length and highest number, for bv_db_inst_getnum() and bv_db_inst_getnew().

#include <bv/db.h>

#include "core/list.h"
#include "db/internal.h"
#include "os/alloc.h"
#include "os/checked.h"
#include "os/inline.h"

#include <bv/os.h>

#include <algorithm>

namespace {

bv_db_inst *instance_at(const bv_list_head &list, bv_list_head *link)
{
    return link == &list ? nullptr : &bv::record_of<bv_db_inst>(link);
}

bv_db_inst *report_number(bv_db_inst *instance, int32_t *number)
{
    if (instance != nullptr)
        *number = instance->number;
    return instance;
}

// An instance with a zeroed image, not linked yet; null if memory is short.
bv_db_inst *make_instance(const bv_db_family &family)
{
    bv::Block<bv_db_inst> instance(bv::allocate<bv_db_inst>());
    if (!instance)
        return nullptr;
    instance->image = bv::make_image(family.image_size);
    if (instance->image == nullptr && family.image_size > 0)
        return nullptr;
    return instance.release();
}

void free_instance(bv_db_inst &instance)
{
    bv::list_unlink(instance.link);
    bv_os_free(instance.image);
    bv_os_free(&instance);
}

int32_t highest_number(bv_db_family &family)
{
    int32_t highest = 1;
    for (const bv_db_inst &instance : bv::instances_of(family))
        highest = std::max(highest, instance.number);
    return highest;
}

} // namespace

bv_db_inst *bv::find_instance(bv_db_family &family, int32_t number)
{
    for (bv_db_inst &instance : instances_of(family))
        if (instance.number == number)
            return &instance;
    return nullptr;
}

bv_db_inst *bv::first_instance(bv_db_family &family)
{
    const bv_list_head &list = instance_list(family);
    return instance_at(list, list.next);
}

bv_db_inst *bv::instance_after(bv_db_family &family, int32_t number)
{
    const bv_db_inst *before = find_instance(family, number);
    return before == nullptr ? nullptr : instance_at(family.inst_list, before->link.next);
}

int32_t bv::copy_image_out(const bv_db_family &family, const uint8_t *image, MutableBytes buf)
{
    if (family.image_size <= 0 || image == nullptr)
        return BV_OK;
    return bv_os_memcpy(buf.data, buf.length, image, static_cast<uint32_t>(family.image_size));
}

int32_t bv::copy_image_in(const bv_db_family &family, uint8_t *image, Bytes buf)
{
    if (family.image_size <= 0 || image == nullptr)
        return BV_OK;
    return bv_os_memcpy(image, static_cast<uint32_t>(family.image_size), buf.data, buf.length);
}

int32_t bv::append_instance(bv_db_family &family, Bytes buf, int32_t number)
{
    bv_db_inst *instance = make_instance(family);
    if (instance == nullptr)
        return BV_ERR_MEMORY;

    instance->number = number;
    copy_image_in(family, instance->image, buf);
    list_append(instance_list(family), instance->link);
    family.inst_count = checked_add(family.inst_count, 1);
    return BV_OK;
}

int32_t bv::add_instance(bv_db_family &family, Bytes buf, int32_t number)
{
    const int32_t status = append_instance(family, buf, number);
    if (status == BV_OK)
        family.inst_max = highest_number(family);
    return status;
}

void bv::remove_instance(bv_db_family &family, bv_db_inst &instance)
{
    free_instance(instance);
    family.inst_max = highest_number(family);
    family.inst_count = checked_sub(family.inst_count, 1);
}

bv_db_inst *bv_db_data_get_inst(bv_db_family *family, int32_t inst)
{
    return family == nullptr ? nullptr : bv::find_instance(*family, inst);
}

bv_db_inst *bv_db_data_get_inst_first(bv_db_family *family, int32_t *inst)
{
    if (family == nullptr || inst == nullptr)
        return nullptr;
    return report_number(bv::first_instance(*family), inst);
}

bv_db_inst *bv_db_data_get_inst_next(bv_db_family *family, int32_t prev, int32_t *inst)
{
    if (family == nullptr || inst == nullptr)
        return nullptr;
    return report_number(bv::instance_after(*family, prev), inst);
}

int32_t bv_db_data_get_inst_max(bv_db_family *family)
{
    return family == nullptr ? 1 : highest_number(*family);
}

int32_t bv_db_data_get_context(bv_db_family *family, bv_db_inst *instance, void *buf,
                               uint32_t buflen)
{
    if (family == nullptr || instance == nullptr)
        return BV_ERR_FAILED;
    return bv::copy_image_out(*family, instance->image, bv::bytes_of(buf, buflen));
}

int32_t bv_db_data_set_context(bv_db_family *family, bv_db_inst *instance, const void *buf,
                               uint32_t buflen)
{
    if (family == nullptr || instance == nullptr)
        return BV_ERR_FAILED;
    return bv::copy_image_in(*family, instance->image, bv::bytes_of(buf, buflen));
}

int32_t bv_db_data_add_inst(bv_db_family *family, const void *buf, uint32_t buflen, int32_t inst)
{
    if (family == nullptr)
        return BV_ERR_FAILED;
    return bv::add_instance(*family, bv::bytes_of(buf, buflen), inst);
}

int32_t bv_db_data_del_inst(bv_db_family *family, bv_db_inst *instance)
{
    if (family == nullptr || instance == nullptr)
        return BV_ERR_FAILED;
    bv::remove_instance(*family, *instance);
    return BV_OK;
}

int32_t bv_db_data_free(bv_db_family *family)
{
    if (family == nullptr)
        return BV_ERR_FAILED;
    for (bv_db_inst &instance : bv::each_removable<bv_db_inst>(bv::instance_list(*family)))
        free_instance(instance);
    family->inst_count = 0;
    family->inst_max = 1;
    return BV_OK;
}
