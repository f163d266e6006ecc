// SPDX-License-Identifier: ISC
// Stand-ins for say, values, change and store, as thin as they can be.
#include "service/internal.h"
#include "db/types.h"
#include "tools/template/values.h"
#include <cstdarg>

namespace bv::service {

static void vsay(const char *format, va_list arguments)
{
    char line[512];
    vsnprintf(line, sizeof(line), format, arguments);
    fprintf(stderr, "%s\n", line);
}
void say(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsay(format, arguments);
    va_end(arguments);
}
void note(const char *format, ...)
{
    (void)format;
}
int32_t Words::refuse(int32_t status, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return status;
}
Text::~Text() { free(bytes); }
void Text::put(const char *text) { put(text, static_cast<uint32_t>(strlen(text))); }
void Text::put(const char *text, uint32_t count)
{
    if (failed)
        return;
    if (length + count + 1 > capacity) {
        uint32_t larger = (length + count + 1) * 2;
        char *block = static_cast<char *>(realloc(bytes, larger));
        if (block == nullptr) {
            failed = true;
            return;
        }
        bytes = block;
        capacity = larger;
    }
    memcpy(bytes + length, text, count);
    length += count;
    bytes[length] = '\0';
}
void Text::put_quoted(const char *text)
{
    put("\"");
    for (; *text != '\0'; ++text) {
        char escaped[8];
        if (*text == '"' || *text == '\\' || static_cast<unsigned char>(*text) < 0x20) {
            snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned char>(*text));
            put(escaped);
        } else
            put(text, 1);
    }
    put("\"");
}

const bv_service_family *find_listed(const char *family)
{
    for (uint32_t i = 0; i < g_service->n_families; ++i)
        if (strcmp(g_service->families[i].name, family) == 0)
            return &g_service->families[i];
    return nullptr;
}
int32_t check_image(const bv_db_family &, const uint8_t *, Words &) { return 0; }
int32_t set_value(const bv_db_family &family, uint8_t *image, const char *parameter,
                  const char *text, Words &words)
{
    int32_t offset = 0;
    for (int32_t i = 0; i < family.para_count && family.para[i].valid; offset += family.para[i++].len) {
        bv_db_para &para = family.para[i];
        if (strcmp(para.name, parameter) != 0)
            continue;
        tools::Reason why;
        const ParameterType *type = find_type(para.type);
        if (type == nullptr || !tools::value_fits(*type, para.len, text, why))
            return words.refuse(BV_ERR_INVALID, "%s.%s: %s", family.name, parameter, why.text);
        for (int32_t j = 0; j < family.para_count; ++j)
            family.para[j].selected = i == j;
        snprintf(para.value, sizeof(para.value), "%s", text);
        memcpy(family.working_image, image, static_cast<size_t>(family.image_size));
        bv_db_user_fill_tomem(const_cast<bv_db_family *>(&family), 1);
        memcpy(image, family.working_image, static_cast<size_t>(family.image_size));
        return 0;
    }
    return words.refuse(BV_ERR_INVALID, "%s has no parameter %s", family.name, parameter);
}
void put_instance(Text &out, const bv_db_family &family, const uint8_t *image, int32_t number,
                  bool hidden)
{
    char start[64];
    snprintf(start, sizeof(start), "{\"inst\":\"%d\",\"para\":{", number);
    out.put(start);
    auto *copy = static_cast<uint8_t *>(calloc(1, static_cast<size_t>(family.image_size) + 1024));
    memcpy(copy, image, static_cast<size_t>(family.image_size));
    bv_db_user_fill_frommem(copy, family.para_count, family.para);
    free(copy);
    for (int32_t i = 0; !hidden && i < family.para_count; ++i) {
        out.put(i == 0 ? "" : ",");
        out.put_quoted(family.para[i].name);
        out.put(":");
        out.put_quoted(family.para[i].value);
    }
    out.put("}}");
}

Plan::~Plan()
{
    for (uint32_t i = 0; i < count; ++i)
        free(changes[i].is);
    free(changes);
}
static int32_t plan_any(Plan &plan, const char *family, const void *image, int32_t instance, Words &words)
{
    const auto *listed = find_listed(family);
    if (listed == nullptr)
        return words.refuse(BV_ERR_NO_FAMILY, "%s: no such family", family);
    auto *more = static_cast<Change *>(realloc(plan.changes, sizeof(Change) * (plan.count + 1)));
    bv_db_family *record = bv_db_hash_find(family);
    plan.changes = more;
    Change &change = plan.changes[plan.count++];
    change = {listed, record, instance, nullptr};
    if (image != nullptr) {
        change.is = static_cast<uint8_t *>(malloc(static_cast<size_t>(record->image_size)));
        memcpy(change.is, image, static_cast<size_t>(record->image_size));
    }
    return 0;
}
int32_t plan_one(Plan &plan, const char *family, const void *image, int32_t instance, Words &words)
{
    bv_db_family *record = bv_db_hash_find(family);
    if (image == nullptr && record != nullptr && bv_db_data_get_inst(record, instance) == nullptr)
        return words.refuse(BV_ERR_NO_INSTANCE, "%s.%d: no such instance", family, instance);
    return plan_any(plan, family, image, instance, words);
}
int32_t plan_from_json(Plan &plan, json_object *data, Meaning meaning, Words &words)
{
    if (!bv_json_object_is_type(data, json_type_object))
        return words.refuse(BV_ERR_INVALID, "not an object of families");
    json_object_object_foreach(data, family, instances)
    {
        bv_db_family *record = find_listed(family) != nullptr ? bv_db_hash_find(family) : nullptr;
        if (record == nullptr)
            return words.refuse(BV_ERR_NO_FAMILY, "%s: no such family", family);
        for (size_t i = 0; i < json_object_array_length(instances); ++i) {
            json_object *element = json_object_array_get_idx(instances, i);
            const char *inst = json_object_get_string(bv_json_object_object_get(element, "inst"));
            int32_t number = inst != nullptr ? atoi(inst) : 0;
            if (inst != nullptr && *inst == '\0')
                number = bv_db_data_get_inst_max(record) + 1;
            bv_db_inst *old = bv_db_data_get_inst(record, number);
            if (old == nullptr && meaning == Meaning::Set)
                return words.refuse(BV_ERR_NO_INSTANCE, "%s.%d: no such instance", family, number);
            if (old != nullptr && meaning == Meaning::Add)
                return words.refuse(BV_ERR_EXISTS, "%s.%d: exists", family, number);
            int32_t status = plan_any(plan, family, old != nullptr ? old->image : record->default_image, number, words);
            if (status != 0)
                return status;
            json_object *para = bv_json_object_object_get(element, "para");
            json_object_object_foreach(para, name, value)
            {
                status = set_value(*record, plan.changes[plan.count - 1].is, name, json_object_get_string(value), words);
                if (status != 0)
                    return status;
            }
        }
    }
    return 0;
}
int32_t make(Plan &plan, Words &words)
{
    for (uint32_t i = 0; i < plan.count; ++i) {
        Change &c = plan.changes[i];
        bv_db_inst *old = bv_db_data_get_inst(c.family, c.instance);
        uint32_t status = c.listed->check == nullptr ? 0 : c.listed->check(old ? old->image : nullptr, c.is, static_cast<uint32_t>(c.instance));
        if (status != 0)
            return words.refuse(static_cast<int32_t>(status), "%s.%d: refused", c.listed->name, c.instance);
    }
    for (uint32_t i = 0; i < plan.count; ++i) {
        Change &c = plan.changes[i];
        bv_db_inst *old = bv_db_data_get_inst(c.family, c.instance);
        if (c.is == nullptr)
            bv_db_data_del_inst(c.family, old);
        else if (old == nullptr)
            bv_db_data_add_inst(c.family, c.is, static_cast<uint32_t>(c.family->image_size), c.instance);
        else
            memcpy(old->image, c.is, static_cast<size_t>(c.family->image_size));
        if (c.listed->changed != nullptr)
            c.listed->changed(nullptr, c.is, static_cast<uint32_t>(c.instance));
        announce(*c.listed);
    }
    return 0;
}

int load()
{
    for (uint32_t i = 0; i < g_service->n_families; ++i)
        bv_db_reg_user(g_service->families[i].name);
    bv_db_template_read(&g_st_db_mng.user_list);
    bv_db_user_read(&g_st_db_mng.user_list, "/config/work/userdata.json");
    for (uint32_t i = 0; i < g_service->n_families; ++i) {
        bv_db_family *family = bv_db_hash_find(g_service->families[i].name);
        if (family == nullptr || family->image_size == 0)
            return BV_SERVICE_TEMPLATE;
        if (family->inst_count == 0)
            bv_db_data_add_inst(family, family->default_image, static_cast<uint32_t>(family->image_size), 1);
    }
    return 0;
}
int32_t commit(enum bv_service_store) { return bv_db_user_write(&g_st_db_mng.user_list, "/config/work/userdata.json"); }
int32_t revert(const bv_service_family &) { return 0; }
int32_t reset(const bv_service_family &) { return 0; }
int32_t put_saved(Text &out, const bv_service_family &, Words &) { out.put("[]"); return 0; }
const StoreState &store_state() { static StoreState state = {"file", 0, 0}; return state; }
bool is_unsaved(const bv_service_family &) { return false; }

} // namespace bv::service

int32_t bv_service_commit(void) { return bv::service::commit(BV_SERVICE_USER); }
int32_t bv_service_commit_factory(void) { return 0; }
int32_t bv_service_change(const char *family, const void *image, uint32_t instance)
{
    bv::service::Plan plan;
    bv::service::Words words;
    int32_t status = bv::service::plan_one(plan, family, image, static_cast<int32_t>(instance), words);
    return status != 0 ? status : bv::service::make(plan, words);
}
int32_t bv_service_revert(const char *) { return 0; }
int32_t bv_service_reset(const char *) { return 0; }
