// SPDX-License-Identifier: ISC
// The calls that services use: instances by the name of their family.
//
// A failed copy is not reported here: services pass buffers of any size and expect 0.

#include <bv/db.h>

#include "db/internal.h"
#include "os/checked.h"

namespace {

// Copies an instance that a walk has found, and its number; null is the end of the walk.
int32_t read_found(const bv_db_family &family, const bv_db_inst *instance, bv::MutableBytes buf,
                   uint32_t &number)
{
    if (instance == nullptr)
        return BV_ERR_NO_INSTANCE;
    number = static_cast<uint32_t>(instance->number);
    bv::copy_image_out(family, instance->image, buf);
    return BV_OK;
}

} // namespace

int32_t bv_db_inst_add(const char *name, const void *buf, uint32_t buflen, uint32_t inst)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr)
        return BV_ERR_NO_FAMILY;
    const auto number = static_cast<int32_t>(inst);
    if (bv::find_instance(*family, number) != nullptr)
        return BV_ERR_EXISTS;
    return bv::add_instance(*family, bv::bytes_of(buf, buflen), number);
}

int32_t bv_db_inst_del(const char *name, uint32_t inst)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr)
        return BV_ERR_NO_FAMILY;
    bv_db_inst *instance = bv::find_instance(*family, static_cast<int32_t>(inst));
    if (instance == nullptr)
        return BV_ERR_NO_INSTANCE;
    bv::remove_instance(*family, *instance);
    return BV_OK;
}

int32_t bv_db_inst_getnew(const char *name, uint32_t *out)
{
    const bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr || out == nullptr)
        return BV_ERR_NO_FAMILY;
    *out = static_cast<uint32_t>(bv::checked_add(family->inst_max, 1));
    return BV_OK;
}

int32_t bv_db_inst_getnum(const char *name)
{
    const bv_db_family *family = bv_db_hash_find(name);
    return family == nullptr ? 0 : family->inst_count;
}

int32_t bv_db_read(const char *name, void *buf, uint32_t buflen, uint32_t inst)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr)
        return BV_ERR_NO_FAMILY;

    const uint8_t *image;
    const bv_db_inst *instance = bv::find_instance(*family, static_cast<int32_t>(inst));
    if (instance != nullptr)
        image = instance->image;
    else if (inst == 1) // a family that was never stored still has the template's settings
        image = family->default_image;
    else
        return BV_ERR_NO_INSTANCE;

    bv::copy_image_out(*family, image, bv::bytes_of(buf, buflen));
    return BV_OK;
}

int32_t bv_db_read_first(const char *name, void *buf, uint32_t buflen, uint32_t *inst)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr)
        return BV_ERR_NO_FAMILY;
    if (inst == nullptr)
        return BV_ERR_NO_INSTANCE;
    return read_found(*family, bv::first_instance(*family), bv::bytes_of(buf, buflen), *inst);
}

int32_t bv_db_read_next(const char *name, void *buf, uint32_t buflen, uint32_t prev, uint32_t *inst)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr)
        return BV_ERR_NO_FAMILY;
    if (inst == nullptr)
        return BV_ERR_NO_INSTANCE;
    return read_found(*family, bv::instance_after(*family, static_cast<int32_t>(prev)),
                      bv::bytes_of(buf, buflen), *inst);
}

int32_t bv_db_write(const char *name, const void *buf, uint32_t buflen, uint32_t inst)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr)
        return BV_ERR_NO_FAMILY;
    const bv_db_inst *instance = bv::find_instance(*family, static_cast<int32_t>(inst));
    if (instance == nullptr)
        return BV_ERR_NO_INSTANCE;
    bv::copy_image_in(*family, instance->image, bv::bytes_of(buf, buflen));
    return BV_OK;
}
