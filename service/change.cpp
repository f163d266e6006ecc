// SPDX-License-Identifier: ISC
// Changes of instances: planned first, then made all together or not at all. A plan finds instances
// in a tree: a walk for each of a thousand would take seconds on the gateway.

#include "service/internal.h"

#include <search.h>

namespace {

using namespace bv::service;

int compare(const void *a, const void *b)
{
    const auto &one = *static_cast<const Change *>(a);
    const auto &other = *static_cast<const Change *>(b);
    if (one.family.listed != other.family.listed)
        return one.family.listed < other.family.listed ? -1 : 1;
    return one.number < other.number ? -1 : one.number > other.number ? 1 : 0;
}

void free_change(void *change)
{
    free(static_cast<Change *>(change)->is);
    free(static_cast<Change *>(change)->was);
    free(change);
}

// The change of an instance; a new one, in which it stays as it is, if the plan has none. Null
// without memory.
Change *change_of(Plan &plan, const Family &family, int32_t number)
{
    auto *change = static_cast<Change *>(malloc(sizeof(Change)));
    if (change == nullptr)
        return nullptr;
    *change = {{}, family, number, nullptr, nullptr, nullptr, false, false};
    void *found = tsearch(change, &plan.tree, compare);
    Change *planned = found != nullptr ? *static_cast<Change **>(found) : nullptr;
    if (planned == change)
        bv::list_append(plan.changes, change->link);
    else
        free(change);
    return planned;
}

bool set_image(Change &change, const void *image)
{
    auto *copy = static_cast<uint8_t *>(malloc(change.family.size()));
    if (copy == nullptr)
        return false;
    memcpy(copy, image, change.family.size());
    free(change.is); // a file may name an instance twice
    change.is = copy;
    return true;
}

// ---- requests and files ----

bool is_file(Meaning meaning)
{
    return meaning == Meaning::Load || meaning == Meaning::Saved;
}

bool is_import(Meaning meaning)
{
    return meaning == Meaning::Import || meaning == Meaning::Check;
}

// The elements of one family.
struct Elements {
    Plan &plan;
    const Family family;
    const Meaning meaning = plan.meaning;
    Words &words = plan.words;
    int32_t highest = 0;             // number
    const uint8_t *before = nullptr; // image of the last element
    Text noted = {};

    // Takes the instances that there are into the plan. False without memory.
    bool add_present()
    {
        for (bv_db_inst &instance : instances(family)) {
            Change *change = change_of(plan, family, instance.number);
            if (change == nullptr)
                return false;
            if (change->present == nullptr) // the first of a number counts
                change->present = &instance;
            highest = instance.number > highest ? instance.number : highest;
        }
        return true;
    }

    // What a start cannot take from its file: a line for all instances, and without the value,
    // which may be a password.
    void note_once(const char *parameter, const char *what)
    {
        if (meaning != Meaning::Load)
            return;
        char line[256];
        snprintf(line, sizeof line, "%s%s%.80s: %s", family.name(), *parameter == '\0' ? "" : ".",
                 parameter, what);
        if (noted.length != 0 && strstr(noted.bytes, line) != nullptr)
            return;
        note("%s", line);
        noted.put(line);
    }

    // The number of an element of a request; for a new instance the next one. The highest of all is
    // refused: the database proposes the one after it.
    int32_t take_number(json_object *inst, int32_t &number)
    {
        size_t length;
        const char *text = text_of(inst, length);
        if (meaning == Meaning::Add && text != nullptr && length == 0)
            number = highest == INT32_MAX ? highest : highest + 1;
        else if (!number_of(inst, number))
            return words.refuse(BV_ERR_INVALID, "%s: an instance needs a number", family.name());
        return number != INT32_MAX
                   ? BV_OK
                   : words.refuse(BV_ERR_FULL, "%s: the number is too high", family.name());
    }

    // Whether the instance that a request names suits what is meant.
    int32_t check_instance(const Change &change)
    {
        const char *name = family.name();
        const bool exists = change.present != nullptr;
        if (change.named)
            return words.refuse(BV_ERR_INVALID, "%s.%d: named twice", name, change.number);
        if (exists && meaning == Meaning::Add)
            return words.refuse(BV_ERR_EXISTS, "%s.%d: already exists", name, change.number);
        if (!exists && meaning != Meaning::Add && !is_import(meaning))
            return words.refuse(BV_ERR_NO_INSTANCE, "%s.%d: no such instance", name, change.number);
        return BV_OK;
    }

    // In a file, a parameter that an element lacks is as in the element before.
    const void *base_of(const Change &change) const
    {
        if (meaning == Meaning::Set && change.present != nullptr)
            return change.present->image;
        return is_file(meaning) && before != nullptr ? before : family.record->default_image;
    }

    // Sets what the "para" of an element names.
    int32_t take_values(Change &change, json_object *para)
    {
        for (const Members::Member &member : Members(para)) {
            if (is_file(meaning) && member.value() == nullptr)
                continue;
            const int32_t status = set_value(family, change.is, member, words);
            if (status == BV_OK)
                continue;
            if (!is_file(meaning))
                return status;
            note_once(member.name(), "does not fit the template, and is left out");
        }
        return BV_OK;
    }

    int32_t take(json_object *element)
    {
        const bool is_delete = meaning == Meaning::Delete;
        json_object *inst = is_delete ? element : bv_json_object_object_get(element, "inst");
        json_object *para = nullptr;
        const bool has_para = json_object_object_get_ex(element, "para", &para) != 0;
        const bool has_values = bv_json_object_is_type(para, json_type_object) != 0;
        int32_t number = 0;
        int32_t status = BV_OK;
        if (is_file(meaning)) {
            if (!number_of(inst, number) || !has_values)
                note_once("", "the file has an instance without a number or values");
            if (inst == nullptr || para == nullptr)
                return BV_OK;
            number = bv_json_object_get_int(inst); // what the database takes for a number
        } else if (has_para && !has_values) {
            status = words.refuse(BV_ERR_INVALID, "%s: \"para\" must be an object", family.name());
        } else {
            status = take_number(inst, number);
        }
        if (status != BV_OK)
            return status;
        Change *change = change_of(plan, family, number);
        if (change == nullptr)
            return words.no_memory();
        if (!is_file(meaning))
            status = check_instance(*change);
        if (status != BV_OK)
            return status;
        highest = change->number > highest ? change->number : highest;
        change->named = true;
        if (is_delete)
            return BV_OK;
        if (!set_image(*change, base_of(*change)))
            return words.no_memory();
        if (before == nullptr)
            for (const bv_db_para &one : parameters(family))
                if (bv_json_object_object_get(para, one.name) == nullptr)
                    note_once(one.name, "is not in the file, and has its default");
        before = change->is;
        return take_values(*change, para);
    }

    int32_t take_all(json_object *elements)
    {
        if (!add_present())
            return words.no_memory();
        if (elements != nullptr && bv_json_object_is_type(elements, json_type_array) == 0)
            note_once("", "the file has no list of instances, so all is as by default");
        int32_t status = BV_OK;
        for (size_t i = 0; i < count_of(elements) && status == BV_OK; ++i)
            status = take(bv_json_object_array_get_idx(elements, i));
        if (status != BV_OK)
            return status;
        if (is_file(meaning) && before == nullptr) {
            Change *only = change_of(plan, family, 1);
            if (only == nullptr || !set_image(*only, family.record->default_image))
                return words.no_memory();
        }
        // What an import or a file does not name goes.
        if (is_file(meaning) || is_import(meaning))
            for (Change &change : changes_of(plan))
                change.named = change.named || change.family.listed == family.listed;
        return BV_OK;
    }
};

// ---- making ----

bool differs(const Change &change)
{
    if (!change.named)
        return false;
    if (change.is == nullptr || change.present == nullptr)
        return change.is != nullptr || change.present != nullptr;
    return !same_values(change.family, change.present->image, change.is);
}

int32_t ask_checks(Plan &plan)
{
    for (const Change &change : changes_of(plan)) {
        const bv_service_check ask = change.family.listed->check;
        const uint8_t *was = change.present != nullptr ? change.present->image : nullptr;
        const uint32_t status =
            ask != nullptr ? ask(was, change.is, static_cast<uint32_t>(change.number)) : 0;
        if (status != 0)
            return plan.words.refuse(static_cast<int32_t>(status),
                                     "%s.%d: the service refuses this", change.family.name(),
                                     change.number);
    }
    return BV_OK;
}

// A callback may change the families again, so the instances are not looked at any more.
void tell(const Plan &plan)
{
    const bv_service_family *told = nullptr;
    for (const Change &change : changes_of(plan)) {
        const bv_service_family *listed = change.family.listed;
        if (told != nullptr && told != listed)
            announce(*told);
        told = listed;
        if (listed->changed != nullptr)
            listed->changed(change.was, change.is, static_cast<uint32_t>(change.number));
    }
    if (told != nullptr)
        announce(*told);
}

// Copies what an instance is now, or adds the new one: all that needs memory.
bool prepare(Change &change)
{
    bv_db_family *record = change.family.record;
    const uint32_t size = change.family.size();
    if (change.present != nullptr) {
        change.was = static_cast<uint8_t *>(malloc(size));
        if (change.was != nullptr)
            memcpy(change.was, change.present->image, size);
        return change.was != nullptr;
    }
    change.added = bv_db_data_add_inst(record, change.is, size, change.number) == BV_OK;
    if (change.added)
        change.present = &bv::record_of<bv_db_inst>(record->inst_list.prev);
    return change.added;
}

} // namespace

bv::service::Plan::~Plan()
{
    tdestroy(tree, free_change);
}

int32_t bv::service::plan_family(Plan &plan, const bv_service_family &listed, json_object *elements)
{
    if (!is_file(plan.meaning) && bv_json_object_is_type(elements, json_type_array) == 0)
        return plan.words.refuse(BV_ERR_INVALID, "%s: an array of instances is expected",
                                 listed.name);
    return Elements{plan, Family(listed)}.take_all(elements);
}

int32_t bv::service::plan_request(Plan &plan, json_object *data)
{
    if (bv_json_object_is_type(data, json_type_object) == 0)
        return plan.words.refuse(BV_ERR_INVALID, "an object of families is expected");
    for (const Members::Member &member : Members(data)) {
        const bv_service_family *listed = find_listed(member.name(), plan.words);
        const int32_t status = listed != nullptr ? plan_family(plan, *listed, member.value())
                                                 : static_cast<int32_t>(BV_ERR_NO_FAMILY);
        if (status != BV_OK)
            return status;
    }
    return BV_OK;
}

int32_t bv::service::plan_instance(Plan &plan, const bv_service_family &listed, int32_t number,
                                   const void *image)
{
    Elements all = {plan, Family(listed)};
    Change *change = all.add_present() ? change_of(plan, all.family, number) : nullptr;
    if (change == nullptr)
        return plan.words.no_memory();
    const int32_t status =
        image == nullptr ? all.check_instance(*change)
                         : check_image(all.family, static_cast<const uint8_t *>(image), plan.words);
    change->named = true;
    return status == BV_OK && image != nullptr && !set_image(*change, image)
               ? plan.words.no_memory()
               : status;
}

void bv::service::drop_equal(Plan &plan)
{
    for (Change &change : each_removable<Change>(plan.changes))
        if (!differs(change))
            bv::list_unlink(change.link);
}

int32_t bv::service::make(Plan &plan)
{
    drop_equal(plan);
    const int32_t status = is_file(plan.meaning) ? BV_OK : ask_checks(plan);
    if (status != BV_OK || plan.meaning == Meaning::Check)
        return status;
    bool ready = true;
    for (Change &change : changes_of(plan))
        ready = ready && prepare(change);
    for (const Change &change : changes_of(plan)) {
        bv_db_family *record = change.family.record;
        if (ready ? change.is == nullptr : change.added)
            bv_db_data_del_inst(record, change.present);
        else if (ready)
            bv_db_data_set_context(record, change.present, change.is, change.family.size());
    }
    if (!ready)
        return plan.words.no_memory();
    if (plan.meaning != Meaning::Load)
        tell(plan);
    return BV_OK;
}

void bv::service::put_planned(Text &out, const Plan &plan)
{
    const bv_service_family *last = nullptr;
    for (const Change &change : changes_of(plan)) {
        if (change.is == nullptr)
            continue;
        if (change.family.listed != last) {
            out.put(last == nullptr ? "{" : "]");
            out.item("\"%s\":[", change.family.name());
        }
        last = change.family.listed;
        put_instance(out, change.family, change.number, change.is);
    }
    out.put(last == nullptr ? "{}" : "]}");
}

int32_t bv_service_change(const char *family, const void *image, uint32_t instance)
{
    Plan plan(Meaning::Set);
    const bv_service_family *listed = find_listed(family, plan.words);
    if (listed == nullptr)
        return BV_ERR_NO_FAMILY;
    const int32_t status = plan_instance(plan, *listed, static_cast<int32_t>(instance), image);
    return status == BV_OK ? make(plan) : status;
}
