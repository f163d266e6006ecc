// SPDX-License-Identifier: ISC
// The whole database between memory and files: start, reset, restore, commit and the flag that lets
// it write, and the command word by which a message asks for one of them.

#include <bv/db.h>

#include "core/list.h"
#include "db/internal.h"

#include <bv/os.h>

#include <iterator>

namespace {

constexpr char kUserFile[] = "/config/work/userdata.json";
constexpr char kPrivateFile[] = "/config/work/privdata.json";
constexpr char kFactoryFile[] = "/config/factory/factory.json";

void dump_family(bv_db_family &family)
{
    bv_os_printf("\nname=%.1023s cnt=%d memsize=%d instnum=%d instance=%d", family.name,
                 family.para_count, family.image_size, family.inst_count, family.inst_max);
    for (const bv_db_inst &instance : bv::instances_of(family))
        bv_os_printb(instance.image, family.image_size);
}

int32_t dump(bv_list_head &list)
{
    bv::for_each_family(list, dump_family);
    return BV_OK;
}

// Families from their templates, and their settings from a data file.
void load(bv_list_head &list, const char *file)
{
    bv_db_template_read(&list);
    bv_db_user_read(&list, file);
}

// Indexed by the command word.
constexpr int32_t (*kCommands[])() = {
    [] { return int32_t{BV_OK}; },
    bv_db_commit,
    bv_db_private,
    bv_db_factory,
    bv_db_template,
    bv_db_restore,
    bv_db_start,
    [] { return dump(g_st_db_mng.factory_list); },
    [] { return dump(g_st_db_mng.user_list); },
    [] { return dump(g_st_db_mng.private_list); },
};

} // namespace

int32_t bv_db_status(void)
{
    return static_cast<int32_t>(g_st_db_mng.ready);
}

int32_t bv_db_ready(void)
{
    g_st_db_mng.ready = 1;
    return BV_OK;
}

int32_t bv_db_commit(void)
{
    if (g_st_db_mng.ready != 1)
        return BV_OK;
    return bv_db_user_write(&g_st_db_mng.user_list, kUserFile);
}

int32_t bv_db_private(void)
{
    if (g_st_db_mng.ready != 1)
        return BV_OK;
    return bv_db_user_write(&g_st_db_mng.private_list, kPrivateFile);
}

int32_t bv_db_factory(void)
{
    return bv_db_user_write(&g_st_db_mng.factory_list, kFactoryFile);
}

int32_t bv_db_template(void)
{
    bv_db_hash_free();
    bv_db_template_read(&g_st_db_mng.factory_list);
    bv_db_template_read(&g_st_db_mng.user_list);
    bv_db_template_read(&g_st_db_mng.private_list);
    return BV_OK;
}

int32_t bv_db_restore(void)
{
    bv_db_hash_free();
    load(g_st_db_mng.factory_list, kFactoryFile);
    bv_db_template_read(&g_st_db_mng.user_list);
    bv_db_template_read(&g_st_db_mng.private_list);
    return BV_OK;
}

// Factory families first: a name in several lists then belongs to the first of factory, user and
// private that has it.
int32_t bv_db_start(void)
{
    bv_db_hash_free();
    load(g_st_db_mng.factory_list, kFactoryFile);
    load(g_st_db_mng.user_list, kUserFile);
    load(g_st_db_mng.private_list, kPrivateFile);
    return BV_OK;
}

int32_t bv_db_trigger(const uint32_t *msg)
{
    if (msg == nullptr)
        return BV_OK;
    uint32_t command = 0; // copied: a message on the wire need not be aligned
    bv_os_memcpy(&command, sizeof(command), msg, sizeof(command));
    return command < std::size(kCommands) ? kCommands[command]() : BV_OK;
}
