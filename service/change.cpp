// SPDX-License-Identifier: ISC
// Changes of instances: planned first, then made all together or not at all.

#include "service/internal.h"

#include "tools/template/values.h"

namespace {

using namespace bv::service;

bv_db_inst *find_instance(const bv_db_family &family, int32_t number)
{
    return bv_db_data_get_inst(const_cast<bv_db_family *>(&family), number);
}

uint32_t image_size(const bv_db_family &family)
{
    return static_cast<uint32_t>(family.image_size);
}

int32_t no_memory(Words &words)
{
    return words.refuse(BV_ERR_MEMORY, "no memory");
}

// ---- planning ----

// A family that is served, or null with the words set.
const bv_service_family *find_family(const char *name, bv_db_family *&family, Words &words)
{
    const bv_service_family *listed = find_listed(name);
    if (listed == nullptr)
        words.refuse(0, "%.80s: no such family", name);
    else
        family = bv_db_hash_find(name);
    return listed;
}

bool is_file(Meaning meaning)
{
    return meaning == Meaning::Load || meaning == Meaning::Saved;
}

// A whole number, in quotes or not. The highest one is refused: the database proposes the number
// after it for the next instance.
bool take_number(json_object *value, int32_t &number)
{
    const char *text = bv_json_object_get_string(value);
    int64_t wide;
    if (text == nullptr || !tools::parse_decimal(text, wide) || wide < INT32_MIN ||
        wide >= INT32_MAX)
        return false;
    number = static_cast<int32_t>(wide);
    return true;
}

// The number after the highest one in use, or 0 if no number is left.
int32_t next_number(const Plan &plan, const bv_db_family &family)
{
    int32_t highest = 0;
    for (const bv_db_inst &instance : instances(family))
        if (instance.number > highest)
            highest = instance.number;
    for (uint32_t i = 0; i < plan.count; ++i)
        if (plan.changes[i].family == &family && plan.changes[i].instance > highest)
            highest = plan.changes[i].instance;
    return highest < INT32_MAX - 1 ? highest + 1 : 0;
}

// The number of an element's instance, which must suit what is meant.
int32_t take_instance(const Plan &plan, const bv_db_family &family, json_object *inst,
                      Meaning meaning, int32_t &number, Words &words)
{
    const char *text = bv_json_object_get_string(inst);
    if (meaning == Meaning::Add && text != nullptr && *text == '\0') {
        number = next_number(plan, family);
        return number != 0 ? BV_OK : words.refuse(BV_ERR_FULL, "%s: no number left", family.name);
    }
    if (!take_number(inst, number))
        return words.refuse(BV_ERR_INVALID, "%s: \"inst\" must be a number", family.name);
    const bool exists = find_instance(family, number) != nullptr;
    if (meaning == Meaning::Set && !exists)
        return words.refuse(BV_ERR_NO_INSTANCE, "%s.%d: no such instance", family.name, number);
    if (meaning == Meaning::Add && exists)
        return words.refuse(BV_ERR_EXISTS, "%s.%d: exists already", family.name, number);
    if (find_change(plan, family, number) != nullptr)
        return words.refuse(BV_ERR_INVALID, "%s.%d: named twice", family.name, number);
    return BV_OK;
}

// In a file, a parameter that an element lacks is as in the element before.
const uint8_t *base_image(const Plan &plan, const bv_db_family &family, Meaning meaning,
                          int32_t number)
{
    if (meaning == Meaning::Set)
        return find_instance(family, number)->image;
    const bool is_next =
        is_file(meaning) && plan.count != 0 && plan.changes[plan.count - 1].family == &family;
    return is_next ? plan.changes[plan.count - 1].is : family.default_image;
}

// Sets what the "para" of an element names. What does not fit takes its default when it is from a
// file, and refuses a request.
int32_t take_values(const bv_db_family &family, uint8_t *image, json_object *para, Meaning meaning,
                    Words &words)
{
    for (const Members::Member member : Members{para}) {
        if (is_file(meaning) && member.value == nullptr)
            continue;
        const int32_t status = set_value(family, image, member, words);
        if (status != BV_OK && !is_file(meaning))
            return status;
        int32_t at;
        const bv_db_para *unfit =
            status == BV_OK ? nullptr : find_parameter(family, member.name, at);
        if (unfit != nullptr)
            memcpy(image + at, family.default_image + at, static_cast<size_t>(unfit->len));
        if (status != BV_OK && meaning == Meaning::Load)
            note("%s: the value in the file is left out", words.text);
    }
    return BV_OK;
}

int32_t plan_element(Plan &plan, const bv_service_family &listed, bv_db_family &family,
                     json_object *element, Meaning meaning, Words &words)
{
    const bool is_object = bv_json_object_is_type(element, json_type_object) != 0;
    json_object *inst = is_object ? bv_json_object_object_get(element, "inst") : nullptr;
    json_object *para = nullptr;
    const bool has_para = is_object && json_object_object_get_ex(element, "para", &para) != 0;
    if (is_file(meaning) && (inst == nullptr || para == nullptr))
        return BV_OK;
    if (!is_file(meaning) &&
        (!is_object || (has_para && bv_json_object_is_type(para, json_type_object) == 0)))
        return words.refuse(BV_ERR_INVALID, "%s: an instance is {\"inst\":..., \"para\":{...}}",
                            family.name);
    int32_t number = bv_json_object_get_int(inst);
    int32_t status =
        is_file(meaning) ? BV_OK : take_instance(plan, family, inst, meaning, number, words);
    if (status != BV_OK)
        return status;

    uint8_t *image = copy_image(family, base_image(plan, family, meaning, number));
    Change *known = find_change(plan, family, number);
    if (image == nullptr)
        return no_memory(words);
    if (known != nullptr) {
        free(known->is);
        known->is = image;
    } else if (!add_change(plan, listed, family, number, image)) {
        return no_memory(words);
    }
    return take_values(family, image, para, meaning, words);
}

} // namespace

int32_t bv::service::plan_family(Plan &plan, const char *name, json_object *elements,
                                 Meaning meaning, Words &words)
{
    bv_db_family *family;
    const bv_service_family *listed = find_family(name, family, words);
    if (listed == nullptr)
        return BV_ERR_NO_FAMILY;
    const bool is_array = bv_json_object_is_type(elements, json_type_array) != 0;
    if (!is_array && !is_file(meaning))
        return words.refuse(BV_ERR_INVALID, "%s: an array of instances is expected", name);
    const size_t count = is_array ? bv_json_object_array_length(elements) : 0;
    for (size_t i = 0; i < count; ++i) {
        const int32_t status = plan_element(
            plan, *listed, *family, bv_json_object_array_get_idx(elements, i), meaning, words);
        if (status != BV_OK)
            return status;
    }
    if (meaning == Meaning::Import && !add_removals(plan, *listed, *family))
        return no_memory(words);
    return BV_OK;
}

namespace {

// ---- making ----

bool differs(const Change &change)
{
    const bv_db_inst *instance = find_instance(*change.family, change.instance);
    if (change.is == nullptr || instance == nullptr)
        return change.is != nullptr || instance != nullptr;
    return !same_values(*change.family, instance->image, change.is);
}

int32_t ask_checks(const Plan &plan, Words &words)
{
    for (uint32_t i = 0; i < plan.count; ++i) {
        const Change &change = plan.changes[i];
        if (change.listed->check == nullptr)
            continue;
        const bv_db_inst *instance = find_instance(*change.family, change.instance);
        const uint32_t status =
            change.listed->check(instance == nullptr ? nullptr : instance->image, change.is,
                                 static_cast<uint32_t>(change.instance));
        if (status != 0)
            return words.refuse(static_cast<int32_t>(status), "%s.%d: the service refuses this",
                                change.family->name, change.instance);
    }
    return BV_OK;
}

// Copies what the instances are now, and adds the new ones: all that needs memory. Undone when
// there is not enough.
bool prepare(Plan &plan)
{
    uint32_t i = 0;
    for (; i < plan.count; ++i) {
        Change &change = plan.changes[i];
        const bv_db_inst *instance = find_instance(*change.family, change.instance);
        if (instance != nullptr) {
            change.was = copy_image(*change.family, instance->image);
            if (change.was == nullptr)
                break;
        } else if (bv_db_inst_add(change.family->name, change.is, image_size(*change.family),
                                  static_cast<uint32_t>(change.instance)) != BV_OK) {
            break;
        }
    }
    if (i == plan.count)
        return true;
    while (i-- > 0)
        if (plan.changes[i].was == nullptr)
            bv_db_inst_del(plan.changes[i].family->name,
                           static_cast<uint32_t>(plan.changes[i].instance));
    return false;
}

void finish(const Change &change)
{
    const auto number = static_cast<uint32_t>(change.instance);
    if (change.is == nullptr)
        bv_db_inst_del(change.family->name, number);
    else if (change.was != nullptr)
        bv_db_write(change.family->name, change.is, image_size(*change.family), number);
}

void tell(const Plan &plan)
{
    for (uint32_t i = 0; i < plan.count; ++i) {
        const Change &change = plan.changes[i];
        if (change.listed->changed != nullptr)
            change.listed->changed(change.was, change.is, static_cast<uint32_t>(change.instance));
        // The changes of a family are together.
        if (i + 1 == plan.count || plan.changes[i + 1].listed != change.listed)
            announce(*change.listed);
    }
}

} // namespace

bv::service::Plan::~Plan()
{
    for (uint32_t i = 0; i < count; ++i) {
        free(changes[i].is);
        free(changes[i].was);
    }
    free(changes);
}

void bv::service::drop_equal(Plan &plan)
{
    uint32_t kept = 0;
    for (uint32_t i = 0; i < plan.count; ++i) {
        if (differs(plan.changes[i]))
            plan.changes[kept++] = plan.changes[i];
        else
            free(plan.changes[i].is);
    }
    plan.count = kept;
}

uint8_t *bv::service::copy_image(const bv_db_family &family, const void *image)
{
    auto *copy = static_cast<uint8_t *>(malloc(image_size(family)));
    if (copy != nullptr)
        memcpy(copy, image, image_size(family));
    return copy;
}

bool bv::service::add_change(Plan &plan, const bv_service_family &listed, bv_db_family &family,
                             int32_t instance, uint8_t *is)
{
    if (plan.count == plan.capacity) {
        const uint32_t capacity = 2 * plan.capacity + 8;
        auto *grown = static_cast<Change *>(realloc(plan.changes, capacity * sizeof(Change)));
        if (grown == nullptr) {
            free(is);
            return false;
        }
        plan.changes = grown;
        plan.capacity = capacity;
    }
    plan.changes[plan.count++] = {&listed, &family, instance, is, nullptr};
    return true;
}

Change *bv::service::find_change(const Plan &plan, const bv_db_family &family, int32_t instance)
{
    for (uint32_t i = plan.count; i-- > 0;)
        if (plan.changes[i].family == &family && plan.changes[i].instance == instance)
            return &plan.changes[i];
    return nullptr;
}

bool bv::service::add_removals(Plan &plan, const bv_service_family &listed, bv_db_family &family)
{
    for (const bv_db_inst &instance : instances(family))
        if (find_change(plan, family, instance.number) == nullptr &&
            !add_change(plan, listed, family, instance.number, nullptr))
            return false;
    return true;
}

int32_t bv::service::plan_from_json(Plan &plan, json_object *data, Meaning meaning, Words &words)
{
    if (bv_json_object_is_type(data, json_type_object) == 0)
        return words.refuse(BV_ERR_INVALID, "an object of families is expected");
    for (const Members::Member member : Members{data}) {
        const int32_t status = plan_family(plan, member.name, member.value, meaning, words);
        if (status != BV_OK)
            return status;
    }
    return BV_OK;
}

int32_t bv::service::plan_one(Plan &plan, const char *family, const void *image_or_null,
                              int32_t instance, Words &words)
{
    bv_db_family *found;
    const bv_service_family *listed = find_family(family, found, words);
    if (listed == nullptr)
        return BV_ERR_NO_FAMILY;
    if (image_or_null == nullptr) {
        if (find_instance(*found, instance) == nullptr)
            return words.refuse(BV_ERR_NO_INSTANCE, "%s.%d: no such instance", family, instance);
        return add_change(plan, *listed, *found, instance, nullptr) ? BV_OK : no_memory(words);
    }
    const int32_t status = check_image(*found, static_cast<const uint8_t *>(image_or_null), words);
    if (status != BV_OK)
        return status;
    uint8_t *image = copy_image(*found, image_or_null);
    return image != nullptr && add_change(plan, *listed, *found, instance, image)
               ? BV_OK
               : no_memory(words);
}

int32_t bv::service::make(Plan &plan, Words &words, bool ask)
{
    drop_equal(plan);
    const int32_t status = ask ? ask_checks(plan, words) : BV_OK;
    if (status != BV_OK)
        return status;
    if (!prepare(plan))
        return no_memory(words);
    for (uint32_t i = 0; i < plan.count; ++i)
        finish(plan.changes[i]);
    tell(plan);
    return BV_OK;
}

int32_t bv_service_change(const char *family, const void *image, uint32_t instance)
{
    Plan plan;
    Words words;
    const int32_t status =
        family == nullptr ? BV_ERR_NO_FAMILY
                          : plan_one(plan, family, image, static_cast<int32_t>(instance), words);
    return status == BV_OK ? make(plan, words) : status;
}
