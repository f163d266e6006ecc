// The calls that services use: instances by the name of their family.
//
// What a copy makes of a buffer of the wrong size is not reported here: services give buffers of
// any size and count on 0.

#include <bv/db.h>

#include "db/internal.h"
#include "os/checked.h"

namespace {

// Finds the named family and its instance for the calls below.
int32_t find_instance(const char *name, uint32_t inst, bv_db_family **family, bv_db_inst **instance)
{
    *family = bv_db_hash_find(name);
    if (*family == nullptr)
        return BV_ERR_NO_FAMILY;
    *instance = bv_db_data_get_inst(*family, static_cast<int32_t>(inst));
    return *instance == nullptr ? BV_ERR_NO_INSTANCE : BV_OK;
}

} // namespace

int32_t bv_db_inst_add(const char *name, const void *buf, uint32_t buflen, uint32_t inst)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr)
        return BV_ERR_NO_FAMILY;
    if (bv_db_data_get_inst(family, static_cast<int32_t>(inst)) != nullptr)
        return BV_ERR_EXISTS;
    return bv_db_data_add_inst(family, buf, buflen, static_cast<int32_t>(inst));
}

int32_t bv_db_inst_del(const char *name, uint32_t inst)
{
    bv_db_family *family;
    bv_db_inst *instance;
    int32_t status = find_instance(name, inst, &family, &instance);
    return status == BV_OK ? bv_db_data_del_inst(family, instance) : status;
}

int32_t bv_db_inst_getnew(const char *name, uint32_t *out)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr || out == nullptr)
        return BV_ERR_NO_FAMILY;
    *out = static_cast<uint32_t>(bv::checked_add(family->inst_max, 1));
    return BV_OK;
}

int32_t bv_db_inst_getnum(const char *name)
{
    bv_db_family *family = bv_db_hash_find(name);
    return family == nullptr ? 0 : family->inst_count;
}

int32_t bv_db_read(const char *name, void *buf, uint32_t buflen, uint32_t inst)
{
    bv_db_family *family;
    bv_db_inst *instance;
    int32_t status = find_instance(name, inst, &family, &instance);
    // A family that was never stored still has its settings: the template's.
    if (status == BV_ERR_NO_INSTANCE && inst == 1) {
        bv::copy_image_out(*family, family->default_image, buf, buflen);
        return BV_OK;
    }
    if (status == BV_OK)
        bv_db_data_get_context(family, instance, buf, buflen);
    return status;
}

int32_t bv_db_read_first(const char *name, void *buf, uint32_t buflen, uint32_t *inst)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr)
        return BV_ERR_NO_FAMILY;
    auto *number = reinterpret_cast<int32_t *>(inst);
    bv_db_inst *instance = bv_db_data_get_inst_first(family, number);
    if (instance == nullptr)
        return BV_ERR_NO_INSTANCE;
    bv_db_data_get_context(family, instance, buf, buflen);
    return BV_OK;
}

int32_t bv_db_read_next(const char *name, void *buf, uint32_t buflen, uint32_t prev, uint32_t *inst)
{
    bv_db_family *family = bv_db_hash_find(name);
    if (family == nullptr)
        return BV_ERR_NO_FAMILY;
    auto *number = reinterpret_cast<int32_t *>(inst);
    bv_db_inst *instance = bv_db_data_get_inst_next(family, static_cast<int32_t>(prev), number);
    if (instance == nullptr)
        return BV_ERR_NO_INSTANCE;
    bv_db_data_get_context(family, instance, buf, buflen);
    return BV_OK;
}

int32_t bv_db_write(const char *name, const void *buf, uint32_t buflen, uint32_t inst)
{
    bv_db_family *family;
    bv_db_inst *instance;
    int32_t status = find_instance(name, inst, &family, &instance);
    if (status == BV_OK)
        bv_db_data_set_context(family, instance, buf, buflen);
    return status;
}
