// SPDX-License-Identifier: ISC
// Changes of instances: planned first, then made all together or not at all. A plan finds instances
// in a tree, since a walk for each of a thousand would take seconds on the gateway.

#include "service/internal.h"

#include <search.h>

namespace {

using namespace bv::service;

int compare_numbers(const void *a, const void *b)
{
    const int32_t first = static_cast<const Change *>(a)->number;
    const int32_t second = static_cast<const Change *>(b)->number;
    return first < second ? -1 : first > second ? 1 : 0;
}

void drop_tree(FamilyPlan &plan)
{
    tdestroy(plan.by_number, [](void *) {}); // the list has the changes
    plan.by_number = nullptr;
}

void drop_change(Change *change)
{
    free(change->is);
    free(change->was);
    free(change);
}

uint8_t *copy_image(const Family &family, const void *image)
{
    auto *copy = static_cast<uint8_t *>(malloc(family.size()));
    if (copy != nullptr)
        memcpy(copy, image, family.size());
    return copy;
}

// The change of an instance; a new one if the plan has none. Null without memory.
Change *change_of(FamilyPlan &plan, int32_t number)
{
    Change key = {};
    key.number = number;
    void *found = tfind(&key, &plan.by_number, compare_numbers);
    if (found != nullptr)
        return *static_cast<Change **>(found);
    auto *change = static_cast<Change *>(calloc(1, sizeof(Change)));
    if (change == nullptr)
        return nullptr;
    change->number = number;
    if (tsearch(change, &plan.by_number, compare_numbers) == nullptr) {
        free(change);
        return nullptr;
    }
    *plan.end = change;
    plan.end = &change->next;
    plan.highest = number > plan.highest ? number : plan.highest;
    return change;
}

// A plan of a family in which every instance stays. Null without memory.
FamilyPlan *add_family(Plan &plan, const bv_service_family &listed)
{
    auto *added = static_cast<FamilyPlan *>(malloc(sizeof(FamilyPlan)));
    if (added == nullptr)
        return nullptr;
    *added = {nullptr, Family(listed), nullptr, nullptr, nullptr, 0};
    added->end = &added->first;
    FamilyPlan **end = &plan.first;
    while (*end != nullptr)
        end = &(*end)->next;
    *end = added;
    for (bv_db_inst &instance : instances(added->family)) {
        Change *change = change_of(*added, instance.number);
        if (change == nullptr)
            return nullptr;
        if (change->present == nullptr) // the first of a number counts
            change->present = &instance;
    }
    return added;
}

// ---- requests and files ----

bool is_file(Meaning meaning)
{
    return meaning == Meaning::Load || meaning == Meaning::Saved;
}

// The number that an element of a request names, or for a new instance the next one. The highest of
// all is refused: the database proposes the one after it.
int32_t take_number(const FamilyPlan &plan, json_object *inst, Meaning meaning, int32_t &number,
                    Words &words)
{
    size_t length;
    const char *text = text_of(inst, length);
    if (meaning == Meaning::Add && text != nullptr && length == 0) {
        number = plan.highest + 1;
        return plan.highest < INT32_MAX - 1
                   ? BV_OK
                   : words.refuse(BV_ERR_FULL, "%s: no number left", plan.family.name());
    }
    return number_of(inst, number) && number != INT32_MAX
               ? BV_OK
               : words.refuse(BV_ERR_INVALID, "%s: an instance needs a number", plan.family.name());
}

// Whether an instance may be changed in the way that is meant.
int32_t check_instance(const FamilyPlan &plan, const Change &change, Meaning meaning, Words &words)
{
    const char *name = plan.family.name();
    const bool is_added = meaning == Meaning::Add;
    if (change.named)
        return words.refuse(BV_ERR_INVALID, "%s.%d: named twice", name, change.number);
    if (is_added && change.present != nullptr)
        return words.refuse(BV_ERR_EXISTS, "%s.%d: already exists", name, change.number);
    if (!is_added && meaning != Meaning::Import && change.present == nullptr)
        return words.refuse(BV_ERR_NO_INSTANCE, "%s.%d: no such instance", name, change.number);
    return BV_OK;
}

// Sets what the "para" of an element names.
int32_t take_values(const Family &family, uint8_t *image, json_object *para, Meaning meaning,
                    Words &words)
{
    for (const Members::Member member : Members{para}) {
        if (is_file(meaning) && member.value == nullptr)
            continue;
        const int32_t status = set_value(family, image, member, words);
        if (status == BV_OK)
            continue;
        if (!is_file(meaning))
            return status;
        set_default(family, image, member.name);
        if (meaning == Meaning::Load)
            note("%s: the value in the file is left out", words.text);
    }
    return BV_OK;
}

// In a file, a parameter that an element lacks is as in the element before.
int32_t plan_element(FamilyPlan &plan, json_object *element, Meaning meaning,
                     const uint8_t *&before, Words &words)
{
    const bool is_delete = meaning == Meaning::Delete;
    json_object *inst = is_delete ? element : bv_json_object_object_get(element, "inst");
    json_object *para = nullptr;
    const bool has_para = json_object_object_get_ex(element, "para", &para) != 0;
    int32_t number = bv_json_object_get_int(inst);
    if (is_file(meaning) && (inst == nullptr || para == nullptr))
        return BV_OK;
    if (!is_file(meaning) && has_para && bv_json_object_is_type(para, json_type_object) == 0)
        return words.refuse(BV_ERR_INVALID, "%s: \"para\" must be an object", plan.family.name());
    int32_t status = is_file(meaning) ? BV_OK : take_number(plan, inst, meaning, number, words);
    if (status != BV_OK)
        return status;
    Change *change = change_of(plan, number);
    if (change == nullptr)
        return words.no_memory();
    if (!is_file(meaning))
        status = check_instance(plan, *change, meaning, words);
    change->named = true;
    if (status != BV_OK || is_delete)
        return status;

    const uint8_t *base = plan.family.record->default_image;
    if (meaning == Meaning::Set)
        base = change->present->image;
    else if (is_file(meaning) && before != nullptr)
        base = before;
    uint8_t *image = copy_image(plan.family, base);
    if (image == nullptr)
        return words.no_memory();
    free(change->is); // a file may name an instance twice
    before = change->is = image;
    return take_values(plan.family, image, para, meaning, words);
}

// ---- making ----

bool differs(const Family &family, const Change &change)
{
    if (!change.named)
        return false;
    if (change.is == nullptr || change.present == nullptr)
        return change.is != nullptr || change.present != nullptr;
    return !same_values(family, change.present->image, change.is);
}

// Copies what the instances are now, and adds the new ones: all that needs memory.
bool prepare(FamilyPlan &plan)
{
    bv_db_family *record = plan.family.record;
    for (Change *change = plan.first; change != nullptr; change = change->next) {
        if (change->present != nullptr) {
            change->was = copy_image(plan.family, change->present->image);
            if (change->was == nullptr)
                return false;
        } else {
            if (bv_db_data_add_inst(record, change->is, plan.family.size(), change->number) !=
                BV_OK)
                return false;
            change->present = &bv::record_of<bv_db_inst>(record->inst_list.prev);
            change->added = true;
        }
    }
    return true;
}

void take_back(FamilyPlan &plan)
{
    for (Change *change = plan.first; change != nullptr; change = change->next)
        if (change->added)
            bv_db_data_del_inst(plan.family.record, change->present);
}

void finish(FamilyPlan &plan)
{
    bv_db_family *record = plan.family.record;
    for (Change *change = plan.first; change != nullptr; change = change->next) {
        if (change->is == nullptr)
            bv_db_data_del_inst(record, change->present);
        else
            bv_db_data_set_context(record, change->present, change->is, plan.family.size());
    }
}

// A callback may change the families again, so the instances are not looked at any more.
void tell(const FamilyPlan &plan)
{
    const bv_service_family &listed = *plan.family.listed;
    for (const Change *change = plan.first; change != nullptr; change = change->next)
        if (listed.changed != nullptr)
            listed.changed(change->was, change->is, static_cast<uint32_t>(change->number));
    if (plan.first != nullptr)
        announce(listed);
}

} // namespace

bv::service::Plan::~Plan()
{
    while (first != nullptr) {
        FamilyPlan *next = first->next;
        drop_tree(*first);
        for (Change *change = first->first; change != nullptr;) {
            Change *after = change->next;
            drop_change(change);
            change = after;
        }
        free(first);
        first = next;
    }
}

int32_t bv::service::plan_family(Plan &plan, const bv_service_family &listed, json_object *elements,
                                 Meaning meaning, Words &words)
{
    FamilyPlan *family = add_family(plan, listed);
    if (family == nullptr)
        return words.no_memory();
    if (!is_file(meaning) && bv_json_object_is_type(elements, json_type_array) == 0)
        return words.refuse(BV_ERR_INVALID, "%s: an array of instances is expected", listed.name);
    const uint8_t *before = nullptr;
    const size_t count = count_of(elements);
    for (size_t i = 0; i < count; ++i) {
        const int32_t status = plan_element(*family, bv_json_object_array_get_idx(elements, i),
                                            meaning, before, words);
        if (status != BV_OK)
            return status;
    }
    if (is_file(meaning) && before == nullptr) {
        Change *only = change_of(*family, 1);
        if (only != nullptr)
            only->is = copy_image(family->family, family->family.record->default_image);
        if (only == nullptr || only->is == nullptr)
            return words.no_memory();
    }
    // What an import or a file does not name goes.
    if (is_file(meaning) || meaning == Meaning::Import)
        for (Change *change = family->first; change != nullptr; change = change->next)
            change->named = true;
    return BV_OK;
}

int32_t bv::service::plan_request(Plan &plan, json_object *data, Meaning meaning, Words &words)
{
    if (bv_json_object_is_type(data, json_type_object) == 0)
        return words.refuse(BV_ERR_INVALID, "an object of families is expected");
    for (const Members::Member member : Members{data}) {
        const bv_service_family *listed = find_listed(member.name);
        const int32_t status =
            listed == nullptr ? words.refuse(BV_ERR_NO_FAMILY, "%.80s: no such family", member.name)
                              : plan_family(plan, *listed, member.value, meaning, words);
        if (status != BV_OK)
            return status;
    }
    return BV_OK;
}

int32_t bv::service::plan_instance(Plan &plan, const char *family, int32_t number,
                                   const void *image, Words &words)
{
    const bv_service_family *listed = find_listed(family);
    if (listed == nullptr)
        return words.refuse(BV_ERR_NO_FAMILY, "%.80s: no such family", family);
    FamilyPlan *one = add_family(plan, *listed);
    Change *change = one != nullptr ? change_of(*one, number) : nullptr;
    if (change == nullptr)
        return words.no_memory();
    change->named = true;
    if (image == nullptr)
        return change->present != nullptr
                   ? BV_OK
                   : words.refuse(BV_ERR_NO_INSTANCE, "%s.%d: no such instance", family, number);
    const int32_t status = check_image(one->family, static_cast<const uint8_t *>(image), words);
    if (status != BV_OK)
        return status;
    change->is = copy_image(one->family, image);
    return change->is != nullptr ? BV_OK : words.no_memory();
}

void bv::service::drop_equal(Plan &plan)
{
    for (FamilyPlan *family = plan.first; family != nullptr; family = family->next) {
        drop_tree(*family);
        for (Change **at = &family->first; *at != nullptr;) {
            Change *change = *at;
            if (differs(family->family, *change)) {
                at = &change->next;
            } else {
                *at = change->next;
                drop_change(change);
            }
        }
    }
}

int32_t bv::service::check(Plan &plan, Words &words)
{
    drop_equal(plan);
    for (const FamilyPlan *family = plan.first; family != nullptr; family = family->next) {
        const bv_service_family &listed = *family->family.listed;
        for (const Change *change = family->first; change != nullptr; change = change->next) {
            const uint8_t *was = change->present != nullptr ? change->present->image : nullptr;
            const uint32_t status =
                listed.check == nullptr
                    ? 0
                    : listed.check(was, change->is, static_cast<uint32_t>(change->number));
            if (status != 0)
                return words.refuse(static_cast<int32_t>(status), "%s.%d: the service refuses this",
                                    listed.name, change->number);
        }
    }
    return BV_OK;
}

int32_t bv::service::make(Plan &plan, Words &words, bool silent)
{
    bool ready = true;
    for (FamilyPlan *family = plan.first; family != nullptr; family = family->next)
        ready = ready && prepare(*family);
    for (FamilyPlan *family = plan.first; family != nullptr; family = family->next)
        ready ? finish(*family) : take_back(*family);
    if (!ready)
        return words.no_memory();
    for (const FamilyPlan *family = plan.first; family != nullptr && !silent; family = family->next)
        tell(*family);
    return BV_OK;
}

int32_t bv_service_change(const char *family, const void *image, uint32_t instance)
{
    Plan plan;
    Words words;
    int32_t status = plan_instance(plan, family, static_cast<int32_t>(instance), image, words);
    if (status == BV_OK)
        status = check(plan, words);
    return status == BV_OK ? make(plan, words) : status;
}
