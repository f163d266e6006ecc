// SPDX-License-Identifier: ISC
// list, show, diff, status, names: what runs, and what its families have.

#include <bv/service.h>

#include "tools/ctl/ctl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

using bv::JsonTree;

namespace {

using namespace tools;

constexpr size_t kMaxPath = 256;

// Instances as a person writes them: "1-3 7".
struct Ranges {
    static constexpr size_t kRoom = 32; // the first ones; " ... LAST" fits after them
    char text[kRoom + 24] = "none";
    explicit Ranges(json_object *instances)
    {
        const size_t count = count_of(instances);
        size_t length = 0;
        for (size_t i = 0; i < count;) {
            const int first = bv_json_object_get_int(element(instances, i));
            int last = first;
            for (++i; i < count && bv_json_object_get_int(element(instances, i)) == last + 1; ++i)
                ++last;
            char range[32];
            snprintf(range, sizeof(range), first == last ? "%s%d" : "%s%d-%d",
                     length == 0 ? "" : " ", first, last);
            if (length + strlen(range) >= kRoom) {
                snprintf(text + length, sizeof(text) - length, " ... %d",
                         bv_json_object_get_int(element(instances, count - 1)));
                return;
            }
            memcpy(text + length, range, strlen(range) + 1);
            length += strlen(range);
        }
    }
};

bool is_hidden(json_object *details)
{
    return json_object_get_boolean(member(details, "hidden")) != 0;
}

// {"lan.json":["1"]}; all instances without a number.
json_object *query(const char *family, const char *instance)
{
    json_object *data = json_object_new_object();
    json_object *instances = array_in(data, family);
    if (*instance != '\0')
        append(instances, json_object_new_string(instance));
    return data;
}

int exit_status()
{
    return g_failed ? kExitRefused : 0;
}

// ---- list ----

void list_briefly(json_object *services, json_object *others)
{
    Table table(0);
    table.row(Style::Bold, "SERVICE", "FAMILY", "INSTANCES", "SAVED IN", nullptr);
    for (const auto &service : Members(services)) {
        const char *name = service.name();
        for (const auto &family : Members(service.value())) {
            const Ranges instances(member(family.value(), "instances"));
            table.row(Style::Plain, name, family.name(), instances.text,
                      text_of(family.value(), "store"), nullptr);
            name = "";
        }
        if (*name != '\0')
            table.row(Style::Plain, name, "-", nullptr);
    }
    if (has_services(services))
        table.print();
    if (has_members(others))
        puts("\nWithout families here; call their functions with 'bv-call -o OBJECT FUNCTION':");
    for (const auto &object : Members(others))
        print_line(Style::Plain, "  %s", object.name());
}

void list_fully(json_object *families, json_object *functions)
{
    if (!has_members(families))
        puts("no families");
    for (const auto &family : Members(families)) {
        json_object *details = family.value();
        const Ranges instances(member(details, "instances"));
        print_line(Style::Bold, "%s  size %s, store %s%s, instances %s", family.name(),
                   text_of(details, "size"), text_of(details, "store"),
                   is_hidden(details) ? ", hidden" : "", instances.text);
        Table table(2);
        table.row(Style::Faint, "PARAMETER", "TYPE", "BYTES", "DEFAULT", nullptr);
        json_object *para = member(details, "para");
        for (size_t i = 0; i < count_of(para); ++i) {
            json_object *one = element(para, i);
            table.row(Style::Plain, text_of(one, "name"), text_of(one, "type"), text_of(one, "len"),
                      text_of(one, "value"), nullptr);
        }
        table.print();
    }
    if (count_of(functions) > 0)
        print_line(Style::Bold, "functions");
    for (size_t i = 0; i < count_of(functions); ++i)
        print_line(Style::Plain, "  %s", text_of(element(functions, i)));
}

// The names, as members, of objects of services that are not built on the kit. The functions of
// those that are may be on an object of any name, which the status has.
json_object *find_other_objects()
{
    json_object *objects = find_callable_objects();
    const JsonTree services(ask_all("status"));
    for (const auto &service : Members(services.get()))
        json_object_object_del(objects, text_of(service.value(), "object"));
    return objects;
}

// Puts each service's answer into its object of `all`.
void add_answers(json_object *all, const char *name, json_object *answers)
{
    for (const auto &service : Members(answers))
        put(object_in(all, service.name()), name, share(service.value()));
}

// ---- show ----

// For people a hidden parameter has a value that says so.
void fill_hidden(json_object *instance, json_object *details)
{
    json_object *para = member(details, "para");
    json_object *hidden = json_object_new_object();
    for (size_t i = 0; i < count_of(para); ++i)
        put(hidden, text_of(element(para, i), "name"), "(hidden)");
    put(instance, "para", hidden);
}

bool has_parameter(json_object *details, const char *name)
{
    json_object *para = member(details, "para");
    for (size_t i = 0; i < count_of(para); ++i)
        if (strcmp(text_of(element(para, i), "name"), name) == 0)
            return true;
    return false;
}

// Leaves only one parameter in an instance; nothing if its value is hidden.
void keep_only(json_object *instance, const char *parameter)
{
    json_object *only = json_object_new_object();
    json_object *value = nullptr;
    if (json_object_object_get_ex(member(instance, "para"), parameter, &value) != 0)
        put(only, parameter, share(value));
    put(instance, "para", only);
}

// Whether another service, which comes first, owns a family of this name too. Values are shown
// without the service's name, so the two could not be told apart.
bool is_left_out(const char *service, const char *family)
{
    for (const auto &first : Members(all_families())) {
        if (strcmp(first.name(), service) == 0)
            break;
        if (member(first.value(), family) != nullptr) {
            g_failed = true;
            refused("%s of %s is left out: %s owns one too; say -s %s", family, service,
                    first.name(), service);
            return true;
        }
    }
    return false;
}

// Adds the running values that `data` asks a service for; all of them when it is null. With a
// parameter only that.
int collect(json_object *all, const char *service, json_object *data, const char *parameter)
{
    const bool is_all = data == nullptr;
    json_object *got = nullptr;
    if (ask(service, "get", data, &got) != BV_OK)
        return kExitRefused;
    const JsonTree answer(got);
    for (const auto &family : Members(got)) {
        if (is_all && is_left_out(service, family.name()))
            continue;
        json_object *details = member(member(all_families(), service), family.name());
        json_object *instances = array_in(all, family.name());
        for (size_t i = 0; i < count_of(family.value()); ++i) {
            json_object *instance = element(family.value(), i);
            if (bv_json_object_is_type(instance, json_type_object) == 0)
                continue;
            if (is_hidden(details) && !g_options.json)
                fill_hidden(instance, details);
            if (*parameter != '\0')
                keep_only(instance, parameter);
            append(instances, share(instance));
        }
    }
    return 0;
}

int collect_target(json_object *all, const char *text, Target &target)
{
    const int status = find_target(text, target);
    if (status != 0)
        return status;
    if (*target.parameter != '\0' && !has_parameter(target.details, target.parameter))
        return refused("%s has no parameter %s; 'bv-ctl show %s' shows those it has", target.family,
                       target.parameter, target.family);
    json_object *instances = member(target.details, "instances");
    bool known = target.instance[0] == '\0';
    for (size_t i = 0; i < count_of(instances); ++i)
        known |= strcmp(text_of(element(instances, i)), target.instance) == 0;
    return known ? collect(all, target.service, query(target.family, target.instance),
                           target.parameter)
                 : refused("%s has no instance %s; it has %s", target.family, target.instance,
                           Ranges(instances).text);
}

void print_families(json_object *all)
{
    const char *gap = "";
    for (const auto &family : Members(all)) {
        if (count_of(family.value()) == 0) {
            fputs(gap, stdout);
            gap = "\n";
            print_line(Style::Bold, "%s: no instances", family.name());
        }
        for (size_t i = 0; i < count_of(family.value()); ++i) {
            json_object *instance = element(family.value(), i);
            fputs(gap, stdout);
            gap = "\n";
            print_line(Style::Bold, "%s.%s", family.name(), text_of(instance, "inst"));
            Table table(2);
            for (const auto &parameter : Members(member(instance, "para")))
                table.row(Style::Plain, parameter.name(), text_of(parameter.value()), nullptr);
            table.print();
        }
    }
}

// ---- diff ----

bool differ(json_object *a, json_object *b)
{
    return strcmp(text_of(a), text_of(b)) != 0;
}

struct Difference {
    const char *service;
    const char *family;
    const char *instance;

    void add(json_object *all, const char *parameter, json_object *running, json_object *saved,
             json_object *standard) const
    {
        json_object *row = json_object_new_object();
        put(row, "service", service);
        put(row, "family", family);
        put(row, "inst", instance);
        put(row, "name", parameter);
        put(row, "running", running);
        put(row, "saved", saved);
        put(row, "default", standard);
        append(all, row);
    }
};

// One instance; `saved` is null when it is not saved.
void compare_instance(json_object *all, const Difference &where, json_object *para,
                      json_object *running, json_object *saved)
{
    for (size_t i = 0; i < count_of(para); ++i) {
        const char *name = text_of(element(para, i), "name");
        json_object *is = member(running, name);
        json_object *was = member(saved, name);
        json_object *standard = member(element(para, i), "value");
        if (differ(is, standard) || (was != nullptr && differ(is, was)))
            where.add(all, name, share(is), share(was), share(standard));
    }
}

void compare_family(json_object *all, const char *service, const char *family, json_object *details)
{
    json_object *got = nullptr;
    json_object *kept = nullptr;
    const bool failed = ask(service, "get", query(family, ""), &got) != BV_OK ||
                        ask(service, "saved", query(family, ""), &kept) != BV_OK;
    const JsonTree got_tree(got);
    const JsonTree kept_tree(kept);
    g_failed |= failed;
    if (failed)
        return;
    const JsonTree running(by_number(member(got, family)));
    const JsonTree saved(by_number(member(kept, family)));
    for (const auto &instance : Members(running.get())) {
        const Difference where = {service, family, instance.name()};
        json_object *there = member(saved.get(), instance.name());
        // A family that was never saved has its defaults.
        if (there == nullptr && has_members(saved.get()))
            where.add(all, "", json_object_new_string("added"), nullptr, nullptr);
        compare_instance(all, where, member(details, "para"), instance.value(), there);
    }
    for (const auto &instance : Members(saved.get())) {
        const Difference where = {service, family, instance.name()};
        if (member(running.get(), instance.name()) == nullptr)
            where.add(all, "", nullptr, json_object_new_string("deleted"), nullptr);
    }
}

// Compares every family that can be, and returns what was compared, for people.
const char *compare_all(json_object *all)
{
    const char *what = "Everything";
    for (const auto &service : Members(all_families()))
        for (const auto &family : Members(service.value())) {
            if (is_hidden(family.value()))
                what = "Everything that is not hidden";
            else if (!is_left_out(service.name(), family.name()))
                compare_family(all, service.name(), family.name(), family.value());
        }
    return what;
}

const char *or_dash(json_object *value)
{
    return value != nullptr ? text_of(value) : "-";
}

void print_differences(json_object *all, const char *what)
{
    Table table(0);
    table.row(Style::Bold, "PARAMETER", "RUNNING", "SAVED", "DEFAULT", nullptr);
    for (size_t i = 0; i < count_of(all); ++i) {
        json_object *row = element(all, i);
        char path[kMaxPath];
        const char *name = text_of(row, "name");
        snprintf(path, sizeof(path), "%s.%s%s%s", text_of(row, "family"), text_of(row, "inst"),
                 *name != '\0' ? "." : "", name);
        json_object *running = member(row, "running");
        json_object *saved = member(row, "saved");
        table.row(differ(running, saved) ? Style::Bold : Style::Plain, path, or_dash(running),
                  or_dash(saved), text_of(row, "default"), nullptr);
    }
    if (count_of(all) > 0)
        table.print();
    else if (!g_failed)
        printf("%s is saved and has its default.\n", what);
}

// ---- status ----

// Seconds since 1970 as local time.
struct When {
    char text[32] = "";
    explicit When(const char *seconds)
    {
        const auto at = static_cast<time_t>(strtoll(seconds, nullptr, 10));
        tm local;
        if (at != 0 && localtime_r(&at, &local) != nullptr)
            strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    }
};

const char *origin(const char *loaded)
{
    if (strcmp(loaded, "file") == 0)
        return "from the data file";
    if (strcmp(loaded, "good") == 0)
        return "from the .good file: the data file was missing or broken";
    return strcmp(loaded, "defaults") == 0 ? "defaults: there was no data file" : loaded;
}

void print_status(const char *service, json_object *status)
{
    const When started(text_of(status, "started"));
    const When saved(text_of(status, "saved"));
    const auto result = static_cast<int32_t>(strtoll(text_of(status, "saved_status"), nullptr, 10));
    print_line(Style::Bold, "%s", service);
    print_line(Style::Plain, "  running    since %s, process %s, version %s", started.text,
               text_of(status, "pid"), text_of(status, "version"));
    print_line(Style::Plain, "  settings   %s", origin(text_of(status, "loaded")));
    print_line(Style::Plain, "  saved      %s%s%s",
               saved.text[0] != '\0' ? saved.text : "not since the start",
               result != 0 ? ", failed: " : "", result != 0 ? bv_service_text(result) : "");
    json_object *unsaved = member(status, "unsaved");
    for (size_t i = 0; i < count_of(unsaved); ++i)
        print_line(Style::Bold, "  not saved  %s", text_of(element(unsaved, i)));
    print_line(Style::Plain, "  calls      %s, %s refused, %s messages dropped",
               text_of(status, "calls"), text_of(status, "refused"), text_of(status, "dropped"));
}

} // namespace

int tools::do_list(Arguments arguments)
{
    if (!take_service(arguments))
        return kExitUsage;
    json_object *services = all_families();
    if (services == nullptr)
        return kExitRefused;
    const bool in_full = g_options.service != nullptr;
    const JsonTree functions(in_full || g_options.json ? ask_all("functions") : nullptr);
    const JsonTree others(in_full ? nullptr : find_other_objects());
    if (g_options.json) {
        const JsonTree all(json_object_new_object());
        add_answers(object_in(all.get(), "services"), "families", services);
        add_answers(object_in(all.get(), "services"), "functions", functions.get());
        json_object *names = array_in(all.get(), "other_objects");
        for (const auto &object : Members(others.get()))
            append(names, json_object_new_string(object.name()));
        print_json(all.get());
    } else if (in_full) {
        list_fully(member(services, g_options.service), member(functions.get(), g_options.service));
    } else {
        list_briefly(services, others.get());
    }
    return exit_status();
}

int tools::do_show(Arguments arguments)
{
    json_object *services = all_families();
    if (services == nullptr)
        return kExitRefused;
    const JsonTree all(json_object_new_object());
    Target target = {};
    int status = 0;
    if (*arguments == nullptr) {
        for (const auto &service : Members(services))
            status |= collect(all.get(), service.name(), nullptr, "");
        status |= exit_status();
    }
    for (size_t i = 0; arguments[i] != nullptr; ++i) {
        status = collect_target(all.get(), arguments[i], target);
        if (status != 0)
            return status;
    }
    if (g_options.json)
        print_json(all.get());
    else if (*arguments != nullptr && arguments[1] == nullptr && *target.parameter != '\0')
        print_line(Style::Plain, "%s",
                   text_of(member(element(member(all.get(), target.family), 0), "para"),
                           target.parameter));
    else if (has_services(services))
        print_families(all.get());
    return status;
}

int tools::do_diff(Arguments arguments)
{
    json_object *services = all_families();
    if (services == nullptr)
        return kExitRefused;
    const JsonTree all(json_object_new_array());
    const char *what = *arguments == nullptr ? compare_all(all.get()) : "Everything";
    for (; *arguments != nullptr; ++arguments) {
        Target target;
        const int status = find_whole_family(*arguments, "diff", target);
        if (status != 0)
            return status;
        if (is_hidden(target.details))
            return refused("%s: the values of this family are hidden", target.family);
        compare_family(all.get(), target.service, target.family, target.details);
    }
    if (g_options.json)
        print_json(all.get());
    else if (has_services(services))
        print_differences(all.get(), what);
    return exit_status();
}

int tools::do_status(Arguments arguments)
{
    if (!take_service(arguments))
        return kExitUsage;
    const JsonTree all(ask_all("status"));
    if (!all)
        return kExitRefused;
    if (g_options.json)
        print_json(all.get());
    else if (has_services(all.get()))
        for (const auto &service : Members(all.get()))
            print_status(service.name(), service.value());
    return exit_status();
}

// For the shell's completion: a kind and a text a line.
int tools::do_names(Arguments)
{
    json_object *services = all_families();
    if (services == nullptr)
        return kExitRefused;
    for (const auto &service : Members(services)) {
        print_line(Style::Plain, "service %s", service.name());
        for (const auto &family : Members(service.value())) {
            json_object *instances = member(family.value(), "instances");
            json_object *para = member(family.value(), "para");
            print_line(Style::Plain, "family %s", family.name());
            for (size_t i = 0; i < count_of(instances); ++i)
                print_line(Style::Plain, "instance %s.%s", family.name(),
                           text_of(element(instances, i)));
            for (size_t i = 0; i < count_of(para); ++i)
                print_line(Style::Plain, "parameter %s %s", family.name(),
                           text_of(element(para, i), "name"));
        }
    }
    return exit_status();
}
