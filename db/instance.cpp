// Instances: the numbered images of a family record.
//
// The list is in the order of adding, which is the order that walks and data files show. Its
// length and highest number are kept in the family record, for bv_db_inst_getnum() and
// bv_db_inst_getnew().

#include <bv/db.h>

#include "core/list.h"
#include "db/internal.h"
#include "os/checked.h"

#include <bv/os.h>

namespace {

// The instance after a link of the list (its head for the first one), or null at the end.
bv_db_inst *instance_after(bv_db_family &family, bv_list_head &link)
{
    return link.next == &family.inst_list ? nullptr : bv::instance_of(link.next);
}

bv_db_inst *report_number(bv_db_inst *instance, int32_t *number)
{
    if (instance != nullptr)
        *number = instance->number;
    return instance;
}

bv_db_inst *make_instance(const bv_db_family &family)
{
    auto *instance = static_cast<bv_db_inst *>(bv_os_malloc(sizeof(bv_db_inst)));
    if (instance == nullptr)
        return nullptr;
    instance->image = bv::make_image(family.image_size);
    if (instance->image == nullptr && family.image_size > 0) {
        bv_os_free(instance);
        return nullptr;
    }
    return instance;
}

void free_instance(bv_db_inst *instance)
{
    bv::list_unlink(instance->link);
    bv_os_free(instance->image);
    bv_os_free(instance);
}

int32_t copy_in(const bv_db_family &family, uint8_t *image, const void *buf, uint32_t buflen)
{
    if (family.image_size <= 0 || image == nullptr)
        return BV_OK;
    return bv_os_memcpy(image, static_cast<uint32_t>(family.image_size), buf, buflen);
}

} // namespace

bv_db_inst *bv_db_data_get_inst(bv_db_family *family, int32_t inst)
{
    if (family == nullptr)
        return nullptr;
    bv_list_head &list = bv::instances_of(*family);
    for (bv_list_head *link = list.next; link != &list; link = link->next)
        if (bv::instance_of(link)->number == inst)
            return bv::instance_of(link);
    return nullptr;
}

bv_db_inst *bv_db_data_get_inst_first(bv_db_family *family, int32_t *inst)
{
    if (family == nullptr || inst == nullptr)
        return nullptr;
    return report_number(instance_after(*family, bv::instances_of(*family)), inst);
}

bv_db_inst *bv_db_data_get_inst_next(bv_db_family *family, int32_t prev, int32_t *inst)
{
    bv_db_inst *before = bv_db_data_get_inst(family, prev);
    if (before == nullptr || inst == nullptr)
        return nullptr;
    return report_number(instance_after(*family, before->link), inst);
}

int32_t bv_db_data_get_inst_max(bv_db_family *family)
{
    int32_t highest = 1;
    if (family == nullptr)
        return highest;
    bv_list_head &list = bv::instances_of(*family);
    for (bv_list_head *link = list.next; link != &list; link = link->next)
        if (bv::instance_of(link)->number > highest)
            highest = bv::instance_of(link)->number;
    return highest;
}

int32_t bv::copy_image_out(const bv_db_family &family, const uint8_t *image, void *buf,
                           uint32_t buflen)
{
    if (family.image_size <= 0 || image == nullptr)
        return BV_OK;
    return bv_os_memcpy(buf, buflen, image, static_cast<uint32_t>(family.image_size));
}

int32_t bv_db_data_get_context(bv_db_family *family, bv_db_inst *instance, void *buf,
                               uint32_t buflen)
{
    if (family == nullptr || instance == nullptr)
        return BV_ERR_FAILED;
    return bv::copy_image_out(*family, instance->image, buf, buflen);
}

int32_t bv_db_data_set_context(bv_db_family *family, bv_db_inst *instance, const void *buf,
                               uint32_t buflen)
{
    if (family == nullptr || instance == nullptr)
        return BV_ERR_FAILED;
    return copy_in(*family, instance->image, buf, buflen);
}

int32_t bv::append_instance(bv_db_family &family, const void *buf, uint32_t buflen, int32_t number)
{
    bv_db_inst *instance = make_instance(family);
    if (instance == nullptr)
        return BV_ERR_MEMORY;

    instance->number = number;
    copy_in(family, instance->image, buf, buflen);
    list_append(instances_of(family), instance->link);
    family.inst_count = checked_add(family.inst_count, 1);
    return BV_OK;
}

int32_t bv_db_data_add_inst(bv_db_family *family, const void *buf, uint32_t buflen, int32_t inst)
{
    if (family == nullptr)
        return BV_ERR_FAILED;
    int32_t status = bv::append_instance(*family, buf, buflen, inst);
    if (status == BV_OK)
        family->inst_max = bv_db_data_get_inst_max(family);
    return status;
}

int32_t bv_db_data_del_inst(bv_db_family *family, bv_db_inst *instance)
{
    if (family == nullptr || instance == nullptr)
        return BV_ERR_FAILED;
    free_instance(instance);
    family->inst_max = bv_db_data_get_inst_max(family);
    family->inst_count = bv::checked_sub(family->inst_count, 1);
    return BV_OK;
}

int32_t bv_db_data_free(bv_db_family *family)
{
    if (family == nullptr)
        return BV_ERR_FAILED;
    bv_list_head &list = bv::instances_of(*family);
    while (!bv::list_empty(list))
        free_instance(bv::instance_of(list.next));
    family->inst_count = 0;
    family->inst_max = 1;
    return BV_OK;
}
