// SPDX-License-Identifier: ISC
// list, show, diff, status, names: what runs, and what its families have.

#include <bv/service.h>

#include "tools/common/visible.h"
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
    char text[64];
    explicit Ranges(json_object *instances)
    {
        size_t length = 0;
        text[0] = '\0';
        for (size_t i = 0, next; i < count_of(instances); i = next) {
            const int first = bv_json_object_get_int(element(instances, i));
            for (next = i + 1; next < count_of(instances); ++next)
                if (bv_json_object_get_int(element(instances, next)) !=
                    first + static_cast<int>(next - i))
                    break;
            const int last = first + static_cast<int>(next - i) - 1;
            const char *gap = i == 0 ? "" : " ";
            const int added =
                first == last
                    ? snprintf(text + length, sizeof(text) - length, "%s%d", gap, first)
                    : snprintf(text + length, sizeof(text) - length, "%s%d-%d", gap, first, last);
            length += static_cast<size_t>(added);
            if (length >= sizeof(text)) { // too many: how many is all that fits
                snprintf(text, sizeof(text), "%zu instances", count_of(instances));
                return;
            }
        }
        if (text[0] == '\0')
            snprintf(text, sizeof(text), "none");
    }
};

bool is_hidden(json_object *details)
{
    return json_object_get_boolean(member(details, "hidden")) != 0;
}

json_object *para_of(json_object *details)
{
    return member(details, "para");
}

// The instance of that number in an array of a data file; null for none.
json_object *find_instance(json_object *instances, const char *number)
{
    for (size_t i = 0; i < count_of(instances); ++i)
        if (strcmp(text_of(element(instances, i), "inst"), number) == 0)
            return element(instances, i);
    return nullptr;
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

// Takes an argument as -s does.
bool take_service(Arguments arguments)
{
    if (*arguments == nullptr)
        return true;
    if (g_options.service != nullptr && strcmp(g_options.service, *arguments) != 0)
        return false;
    g_options.service = *arguments;
    return true;
}

// ---- list ----

void list_briefly(json_object *services)
{
    Table table(0);
    table.row(Style::Bold, "SERVICE", "FAMILY", "INSTANCES", "SAVED IN");
    for (const auto &service : Members(services)) {
        const char *name = service.name();
        for (const auto &family : Members(service.value())) {
            const Ranges instances(member(family.value(), "instances"));
            table.row(Style::Plain, name, family.name(), instances.text,
                      text_of(family.value(), "store"));
            name = "";
        }
        if (*name != '\0')
            table.row(Style::Plain, name, "-");
    }
    if (json_object_object_length(services) > 0)
        table.print();
    else
        puts("No service with families is running.");
}

// Objects of services that are not built on the kit. The functions of those that are may be on an
// object of any name, which the status has.
json_object *find_other_objects()
{
    json_object *others = json_object_new_array();
    const JsonTree bare(find_bare_objects());
    const JsonTree services(ask_all("status"));
    for (size_t i = 0; i < count_of(bare.get()); ++i) {
        bool known = false;
        for (const auto &service : Members(services.get()))
            known |= strcmp(text_of(service.value(), "object"), text_of(element(bare.get(), i))) == 0;
        if (!known)
            append(others, share(element(bare.get(), i)));
    }
    return others;
}

void list_bare(json_object *bare)
{
    if (count_of(bare) == 0)
        return;
    printf("\nWithout families here; call their functions with 'bv-call -o OBJECT FUNCTION':\n");
    for (size_t i = 0; i < count_of(bare); ++i) {
        fputs("  ", stdout);
        print_visible(stdout, text_of(element(bare, i)));
        putchar('\n');
    }
}

void list_family(const char *name, json_object *details)
{
    const Ranges instances(member(details, "instances"));
    print_styled(Style::Bold, name);
    const char *size = text_of(details, "size");
    printf("  %s byte%s, ", size, strcmp(size, "1") == 0 ? "" : "s");
    print_visible(stdout, text_of(details, "store"));
    printf("%s, instances: %s\n", is_hidden(details) ? ", hidden" : "", instances.text);

    Table table(2);
    table.row(Style::Faint, "PARAMETER", "TYPE", "BYTES", "DEFAULT");
    json_object *para = para_of(details);
    for (size_t i = 0; i < count_of(para); ++i) {
        json_object *one = element(para, i);
        table.row(Style::Plain, text_of(one, "name"), text_of(one, "type"), text_of(one, "len"),
                  text_of(one, "value"));
    }
    table.print();
}

void list_fully(json_object *families, json_object *functions)
{
    for (const auto &family : Members(families))
        list_family(family.name(), family.value());
    if (count_of(functions) > 0) {
        print_styled(Style::Bold, "functions");
        putchar('\n');
    }
    for (size_t i = 0; i < count_of(functions); ++i) {
        fputs("  ", stdout);
        print_visible(stdout, text_of(element(functions, i)));
        putchar('\n');
    }
}

// ---- show ----

void show_instance(const char *family, json_object *details, json_object *instance)
{
    char path[kMaxPath];
    snprintf(path, sizeof(path), "%s.%s", family, text_of(instance, "inst"));
    print_styled(Style::Bold, path);
    putchar('\n');

    Table table(2);
    if (is_hidden(details))
        for (size_t i = 0; i < count_of(para_of(details)); ++i)
            table.row(Style::Faint, text_of(element(para_of(details), i), "name"), "(hidden)");
    else
        for (const auto &parameter : Members(member(instance, "para")))
            table.row(Style::Plain, parameter.name(), text_of(parameter.value()));
    table.print();
}

void show_family(const char *family, json_object *details, json_object *instances)
{
    static bool first = true;
    for (size_t i = 0; i < count_of(instances); ++i) {
        if (!first)
            putchar('\n');
        first = false;
        show_instance(family, details, element(instances, i));
    }
}

// Leaves only one parameter in an instance. False when it has no such parameter.
bool keep_only(json_object *instance, const char *parameter)
{
    json_object *value = nullptr;
    if (json_object_object_get_ex(member(instance, "para"), parameter, &value) == 0)
        return false;
    json_object *only = json_object_new_object();
    put(only, parameter, share(value));
    put(instance, "para", only);
    return true;
}

int no_instance(const Target &target)
{
    const Ranges instances(member(target.details, "instances"));
    return refused("%s has no instance %s; it has: %s", target.family, target.instance,
                   instances.text);
}

bool lists(json_object *texts, const char *text)
{
    for (size_t i = 0; i < count_of(texts); ++i)
        if (strcmp(text_of(element(texts, i)), text) == 0)
            return true;
    return false;
}

// Shows what one argument names, or puts it into `all`.
int show_target(const char *text, json_object *all)
{
    Target target;
    const int status = find_target(text, target);
    if (status != 0)
        return status;
    if (target.instance[0] != '\0' && !lists(member(target.details, "instances"), target.instance))
        return no_instance(target);
    json_object *got = nullptr;
    if (ask(target.service, "get", query(target.family, target.instance), &got) != BV_OK)
        return kExitRefused;
    const JsonTree answer(got);
    json_object *instances = member(got, target.family);
    if (*target.parameter != '\0') {
        if (is_hidden(target.details))
            return refused("%s: the values of this family are hidden", target.family);
        if (!keep_only(element(instances, 0), target.parameter))
            return refused("%s has no parameter %s; 'bv-ctl show %s' shows those it has",
                           target.family, target.parameter, target.family);
        if (all == nullptr) {
            print_visible(stdout, text_of(member(element(instances, 0), "para"), target.parameter));
            putchar('\n');
            return 0;
        }
    }
    if (all == nullptr)
        show_family(target.family, target.details, instances);
    else
        for (size_t i = 0; i < count_of(instances); ++i)
            append(array_in(all, target.family), share(element(instances, i)));
    return 0;
}

int show_all()
{
    json_object *services = all_families();
    if (services == nullptr)
        return kExitRefused;
    const JsonTree all(json_object_new_object());
    for (const auto &service : Members(services)) {
        json_object *got = nullptr;
        if (ask(service.name(), "get", nullptr, &got) != BV_OK) {
            g_failed = true;
            continue;
        }
        const JsonTree answer(got);
        for (const auto &family : Members(got)) {
            if (!g_options.json)
                show_family(family.name(), member(service.value(), family.name()), family.value());
            for (size_t i = 0; i < count_of(family.value()); ++i)
                append(array_in(all.get(), family.name()), share(element(family.value(), i)));
        }
    }
    if (g_options.json)
        print_json(all.get());
    return exit_status();
}

// ---- diff ----

void add_difference(json_object *all, const char *service, const char *family, const char *instance,
                    const char *parameter, json_object *running, json_object *saved,
                    json_object *standard)
{
    json_object *row = json_object_new_object();
    put(row, "service", service);
    put(row, "family", family);
    put(row, "inst", instance);
    put(row, "name", parameter);
    put(row, "running", share(running));
    put(row, "saved", share(saved));
    put(row, "default", share(standard));
    append(all, row);
}

bool differ(json_object *a, json_object *b)
{
    return strcmp(text_of(a), text_of(b)) != 0;
}

// One instance; null where it is not running, or not saved.
void compare_instance(json_object *all, const char *service, const char *family, const char *number,
                      json_object *details, json_object *running, json_object *saved)
{
    json_object *para = para_of(details);
    for (size_t i = 0; i < count_of(para); ++i) {
        json_object *one = element(para, i);
        const char *name = text_of(one, "name");
        json_object *is = member(member(running, "para"), name);
        json_object *was = member(member(saved, "para"), name);
        json_object *standard = member(one, "value");
        if ((is == nullptr) != (was == nullptr) ? differ(is != nullptr ? is : was, standard)
                                                : differ(is, was) || differ(is, standard))
            add_difference(all, service, family, number, name, is, was, standard);
    }
}

void compare_family(json_object *all, const char *service, const char *family, json_object *details,
                    json_object *running, json_object *saved)
{
    for (size_t i = 0; i < count_of(running); ++i) {
        const char *number = text_of(element(running, i), "inst");
        json_object *there = find_instance(saved, number);
        if (there == nullptr && count_of(saved) != 0)
            add_difference(all, service, family, number, "", json_object_new_string("added"),
                           nullptr, nullptr);
        compare_instance(all, service, family, number, details, element(running, i), there);
    }
    for (size_t i = 0; i < count_of(saved); ++i) {
        const char *number = text_of(element(saved, i), "inst");
        if (find_instance(running, number) == nullptr)
            add_difference(all, service, family, number, "", nullptr,
                           json_object_new_string("deleted"), nullptr);
    }
}

// One family, or all of a service when it is null.
void compare(json_object *all, const char *service, json_object *families, const char *family)
{
    json_object *running = nullptr;
    json_object *saved = nullptr;
    if (ask(service, "get", family != nullptr ? query(family, "") : nullptr, &running) != BV_OK ||
        ask(service, "saved", family != nullptr ? query(family, "") : nullptr, &saved) != BV_OK)
        g_failed = true;
    else
        for (const auto &one : Members(families))
            if ((family == nullptr || strcmp(family, one.name()) == 0) && !is_hidden(one.value()))
                compare_family(all, service, one.name(), one.value(), member(running, one.name()),
                               member(saved, one.name()));
    bv_json_object_put(running);
    bv_json_object_put(saved);
}

void print_differences(json_object *all)
{
    Table table(0);
    table.row(Style::Bold, "PARAMETER", "RUNNING", "SAVED", "DEFAULT");
    for (size_t i = 0; i < count_of(all); ++i) {
        json_object *row = element(all, i);
        char path[kMaxPath];
        const char *name = text_of(row, "name");
        snprintf(path, sizeof(path), "%s.%s%s%s", text_of(row, "family"), text_of(row, "inst"),
                 *name != '\0' ? "." : "", name);
        json_object *running = member(row, "running");
        json_object *saved = member(row, "saved");
        table.row(differ(running, saved) ? Style::Bold : Style::Plain, path,
                  running != nullptr ? text_of(running) : "-",
                  saved != nullptr ? text_of(saved) : "-",
                  *name != '\0' ? text_of(row, "default") : "");
    }
    if (count_of(all) > 0)
        table.print();
    else if (!g_failed)
        puts("Everything is saved and has its default.");
}

// ---- status ----

// Seconds since 1970 as local time.
struct When {
    char text[32];
    explicit When(const char *seconds)
    {
        const time_t at = static_cast<time_t>(strtoll(seconds, nullptr, 10));
        tm local;
        text[0] = '\0';
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
    char line[kMaxPath];
    print_styled(Style::Bold, service);
    putchar('\n');
    Table table(2);
    const When started(text_of(status, "started"));
    snprintf(line, sizeof(line), "since %s, process %s, version %s", started.text,
             text_of(status, "pid"), text_of(status, "version"));
    table.row(Style::Plain, "running", line);
    table.row(Style::Plain, "settings", origin(text_of(status, "loaded")));
    const When saved(text_of(status, "saved"));
    const auto result = static_cast<int32_t>(strtoll(text_of(status, "saved_status"), nullptr, 10));
    snprintf(line, sizeof(line), "%s%s%s", saved.text, result != 0 ? ", failed: " : "",
             result != 0 ? bv_service_text(result) : "");
    table.row(Style::Plain, "saved", saved.text[0] != '\0' ? line : "not since the start");
    json_object *unsaved = member(status, "unsaved");
    for (size_t i = 0; i < count_of(unsaved); ++i)
        table.row(Style::Bold, i == 0 ? "not saved" : "", text_of(element(unsaved, i)));
    snprintf(line, sizeof(line), "%s, %s refused, %s messages dropped", text_of(status, "calls"),
             text_of(status, "refused"), text_of(status, "dropped"));
    table.row(Style::Plain, "calls", line);
    table.print();
}

} // namespace

int tools::do_list(Arguments arguments)
{
    if (!take_service(arguments))
        return wrong_arguments("-s names another service");
    json_object *services = all_families();
    if (services == nullptr)
        return kExitRefused;
    const JsonTree functions(g_options.service != nullptr || g_options.json
                                 ? ask_all("functions")
                                 : json_object_new_object());
    const JsonTree bare(g_options.service == nullptr ? find_other_objects() : nullptr);
    if (g_options.json) {
        const JsonTree all(json_object_new_object());
        for (const auto &service : Members(services)) {
            json_object *one = object_in(object_in(all.get(), "services"), service.name());
            put(one, "families", share(service.value()));
            put(one, "functions", share(member(functions.get(), service.name())));
        }
        if (bare)
            put(all.get(), "other_objects", share(bare.get()));
        print_json(all.get());
    } else if (g_options.service != nullptr) {
        list_fully(member(services, g_options.service), member(functions.get(), g_options.service));
    } else {
        list_briefly(services);
        list_bare(bare.get());
    }
    return exit_status();
}

int tools::do_show(Arguments arguments)
{
    if (*arguments == nullptr)
        return show_all();
    const JsonTree all(json_object_new_object());
    for (; *arguments != nullptr; ++arguments) {
        const int status = show_target(*arguments, g_options.json ? all.get() : nullptr);
        if (status != 0)
            return status;
    }
    if (g_options.json)
        print_json(all.get());
    return 0;
}

int tools::do_diff(Arguments arguments)
{
    json_object *services = all_families();
    if (services == nullptr)
        return kExitRefused;
    const JsonTree all(json_object_new_array());
    if (*arguments == nullptr)
        for (const auto &service : Members(services))
            compare(all.get(), service.name(), service.value(), nullptr);
    for (; *arguments != nullptr; ++arguments) {
        Target target;
        const int status = find_target(*arguments, target);
        if (status != 0)
            return status;
        if (target.instance[0] != '\0')
            return wrong_arguments("%s: diff takes whole families, as in 'bv-ctl diff %s'",
                                   *arguments, target.family);
        compare(all.get(), target.service, member(services, target.service), target.family);
    }
    if (g_options.json)
        print_json(all.get());
    else
        print_differences(all.get());
    return exit_status();
}

int tools::do_status(Arguments arguments)
{
    if (!take_service(arguments))
        return wrong_arguments("-s names another service");
    const JsonTree all(ask_all("status"));
    if (!all)
        return kExitRefused;
    if (g_options.json)
        print_json(all.get());
    else
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
        printf("service %s\n", service.name());
        for (const auto &family : Members(service.value())) {
            json_object *instances = member(family.value(), "instances");
            json_object *para = para_of(family.value());
            printf("family %s\n", family.name());
            for (size_t i = 0; i < count_of(instances); ++i)
                printf("instance %s.%s\n", family.name(), text_of(element(instances, i)));
            for (size_t i = 0; i < count_of(para); ++i)
                printf("parameter %s %s\n", family.name(), text_of(element(para, i), "name"));
        }
    }
    return exit_status();
}
