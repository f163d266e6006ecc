// SPDX-License-Identifier: ISC
// The manager record, the three registration lists and the table of families.
//
// Families are in the hash table, as zeroed records that are filled in place: bv_hash_find()
// returns the family itself, which stays where it is until it is removed. Their links form the list
// in creation order.

#include <bv/db.h>

#include "core/hash.h"
#include "core/list.h"
#include "db/internal.h"
#include "os/alloc.h"
#include "os/inline.h"

#include <bv/os.h>

namespace {

constexpr uint32_t kFamilyBuckets = 2048;
constexpr uint32_t kNameSize = sizeof(bv_db_family::name);

static_assert(sizeof(bv_db_para) == 3084);
static_assert(offsetof(bv_db_para, selected) == 4 && offsetof(bv_db_para, len) == 8 &&
              offsetof(bv_db_para, name) == 12 && offsetof(bv_db_para, type) == 1036 &&
              offsetof(bv_db_para, value) == 2060);
static_assert(offsetof(bv_db_family, inst_max) == 4 && offsetof(bv_db_family, image_size) == 8 &&
              offsetof(bv_db_family, para_count) == 12 && offsetof(bv_db_family, name) == 16 &&
              offsetof(bv_db_family, getfunc) == 1040 && offsetof(bv_db_family, setfunc) == 2064);
static_assert(sizeof(void *) != 4 || (sizeof(bv_db_mng) == 40 && sizeof(bv_db_reg) == 1032 &&
                                      sizeof(bv_db_inst) == 16 && sizeof(bv_db_family) == 3116));
static_assert(sizeof(void *) != 4 ||
              (offsetof(bv_db_mng, private_list) == 8 && offsetof(bv_db_mng, factory_list) == 16 &&
               offsetof(bv_db_mng, family_list) == 24 && offsetof(bv_db_mng, table) == 32 &&
               offsetof(bv_db_mng, ready) == 36));
static_assert(sizeof(void *) != 4 ||
              (offsetof(bv_db_family, inst_list) == 3088 && offsetof(bv_db_family, link) == 3096 &&
               offsetof(bv_db_family, para) == 3104 &&
               offsetof(bv_db_family, default_image) == 3108 &&
               offsetof(bv_db_family, working_image) == 3112));
static_assert(sizeof(void *) != 4 ||
              (offsetof(bv_db_reg, name) == 8 && offsetof(bv_db_inst, number) == 8 &&
               offsetof(bv_db_inst, image) == 12));

bool is_registered(const bv_list_head &list, const char *name)
{
    for (const bv_db_reg &registration : bv::each<bv_db_reg>(list))
        if (bv_os_strcmp(registration.name, name) == 0)
            return true;
    return false;
}

int32_t register_name(bv_list_head &list, const char *name)
{
    if (name == nullptr)
        return BV_ERR_FAILED;
    if (is_registered(list, name))
        return BV_ERR_EXISTS;

    auto *registration = bv::allocate_zeroed<bv_db_reg>();
    if (registration == nullptr)
        return BV_ERR_MEMORY;
    bv_os_strcpy(registration->name, sizeof(registration->name), name);
    bv::list_append(list, registration->link);
    return BV_OK;
}

// What follows a family that was taken out of the list, until it is taken out of the table.
bv_list_head g_gone;

// Whether an entry of the table is a family that was taken out of the list. Each record goes by its
// own name only: a record that a service renamed stays in the table under the old one.
bool is_gone(const uint8_t *key, void *data)
{
    auto *family = static_cast<bv_db_family *>(data);
    if (family->link.next != &g_gone)
        return false;
    family->link.next = nullptr;
    return bv_os_strcmp(reinterpret_cast<const char *>(key), family->name) == 0;
}

} // namespace

// The lists are empty rings from the start, so that a call before bv_db_init() finds nothing and
// does not fault.
bv_db_mng g_st_db_mng = {{&g_st_db_mng.user_list, &g_st_db_mng.user_list},
                         {&g_st_db_mng.private_list, &g_st_db_mng.private_list},
                         {&g_st_db_mng.factory_list, &g_st_db_mng.factory_list},
                         {&g_st_db_mng.family_list, &g_st_db_mng.family_list},
                         nullptr,
                         0};

int32_t bv_db_init(void)
{
    g_st_db_mng = {};
    bv::list_init(g_st_db_mng.user_list);
    bv::list_init(g_st_db_mng.private_list);
    bv::list_init(g_st_db_mng.factory_list);
    bv::list_init(g_st_db_mng.family_list);

    g_st_db_mng.table = bv_hash_init(kFamilyBuckets, kNameSize, sizeof(bv_db_family));
    return g_st_db_mng.table == nullptr ? BV_ERR_MEMORY : BV_OK;
}

int32_t bv_db_reg_user(const char *name)
{
    return register_name(g_st_db_mng.user_list, name);
}

int32_t bv_db_reg_private(const char *name)
{
    return register_name(g_st_db_mng.private_list, name);
}

int32_t bv_db_reg_factory(const char *name)
{
    return register_name(g_st_db_mng.factory_list, name);
}

void bv::release_instances(bv_db_family &family)
{
    if (!list_empty(instance_list(family)))
        bv_db_data_free(&family);
}

void bv::release_parameters(bv_db_family &family)
{
    bv_os_free(family.para);
    bv_os_free(family.working_image);
    family.image_size = 0;
    family.para_count = 0;
    family.para = nullptr;
    family.working_image = nullptr;
    family.default_image = nullptr; // not freed: see bv_db_hash_free()
}

int32_t bv_db_hash_free(void)
{
    if (bv::list_empty(g_st_db_mng.family_list))
        return BV_OK;
    for (bv_db_family &family : bv::each_removable<bv_db_family>(g_st_db_mng.family_list)) {
        bv::release_instances(family);
        bv::release_parameters(family);
        bv::list_unlink(family.link);
        family.link.next = &g_gone;
    }
    bv::hash_remove_if(g_st_db_mng.table, is_gone);
    return BV_OK;
}

bv_db_family *bv::find_family(const char *name)
{
    return static_cast<bv_db_family *>(hash_find_name(g_st_db_mng.table, name));
}

bv_db_family *bv_db_hash_find(const char *name)
{
    return name == nullptr ? nullptr : bv::find_family(name);
}

bv_db_family *bv_db_hash_add(const char *name)
{
    if (name == nullptr)
        return nullptr;

    auto *family = static_cast<bv_db_family *>(bv::hash_add_name(g_st_db_mng.table, name));
    if (family == nullptr)
        return nullptr;

    bv_os_strcpy(family->name, sizeof(family->name), name);
    bv::list_init(family->inst_list);
    bv::list_append(g_st_db_mng.family_list, family->link);
    return family;
}
