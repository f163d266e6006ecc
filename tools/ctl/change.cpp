// SPDX-License-Identifier: ISC
// set, add, del, commit, revert, reset, debug: requests that change something.

#include <bv/service.h>

#include "tools/ctl/ctl.h"

#include <cstdio>
#include <cstring>

using bv::JsonTree;

namespace {

using namespace tools;

// ---- set, add ----

// Reads NAME=VALUE arguments into "para". False at one that is not.
bool read_assignments(Arguments arguments, json_object *para)
{
    for (; *arguments != nullptr; ++arguments) {
        char *equals = strchr(*arguments, '=');
        if (equals == nullptr || equals == *arguments) {
            wrong_arguments("'%s' should be NAME=VALUE", *arguments);
            return false;
        }
        *equals = '\0';
        put(para, *arguments, equals + 1);
    }
    return true;
}

// The only instance of a family, for those who name none.
int take_only_instance(Target &target, const char *verb)
{
    json_object *instances = member(target.details, "instances");
    if (count_of(instances) == 0)
        return refused("%s has no instances; 'bv-ctl add %s' adds one", target.family,
                       target.family);
    if (count_of(instances) != 1)
        return wrong_arguments("%s has %zu instances: say which one, as in 'bv-ctl %s %s.%s'",
                               target.family, count_of(instances), verb, target.family,
                               text_of(element(instances, 0)));
    snprintf(target.instance, sizeof(target.instance), "%s", text_of(element(instances, 0)));
    return 0;
}

int find_instance_target(const char *text, const char *verb, Target &target)
{
    const int status = find_target(text, target);
    if (status != 0)
        return status;
    return *target.parameter == '\0'
               ? 0
               : wrong_arguments("%s names a parameter; write 'bv-ctl %s %s.%s %s=VALUE'", text,
                                 verb, target.family, target.instance, target.parameter);
}

// {"lan.json":[{"inst":"1","para":{...}}]}
int send_instance(const Target &target, const char *verb, Arguments assignments,
                  json_object **answer)
{
    const JsonTree data(json_object_new_object());
    json_object *instance = json_object_new_object();
    put(instance, "inst", target.instance);
    append(array_in(data.get(), target.family), instance);
    if (!read_assignments(assignments, object_in(instance, "para")))
        return kExitUsage;
    return ask(target.service, verb, share(data.get()), answer) == BV_OK ? 0 : kExitRefused;
}

// ---- revert, reset ----

int take_back(const char *op, Arguments arguments)
{
    if (*arguments == nullptr && g_options.service == nullptr)
        return wrong_arguments("which family? 'bv-ctl %s -s SERVICE' takes all of a service", op);
    const JsonTree requests(json_object_new_object());
    if (*arguments == nullptr)
        put(requests.get(), g_options.service, static_cast<json_object *>(nullptr));
    for (; *arguments != nullptr; ++arguments) {
        Target target;
        const int status = find_whole_family(*arguments, op, target);
        if (status != 0)
            return status;
        array_in(object_in(requests.get(), target.service), target.family);
    }
    return ask_each(op, requests.get()) ? done() : kExitRefused;
}

// ---- commit ----

bool holds(json_object *array, const char *text)
{
    for (size_t i = 0; i < count_of(array); ++i)
        if (strcmp(text_of(element(array, i)), text) == 0)
            return true;
    return false;
}

// Asks what is unsaved now: a commit leaves the families of other stores as they were.
bool print_saved(const char *service, json_object *unsaved)
{
    json_object *got = nullptr;
    if (ask(service, "status", nullptr, &got) != BV_OK)
        return false;
    const JsonTree now(got);
    if (count_of(unsaved) == 0)
        print_line(Style::Plain, "%s: nothing to save", service);
    for (size_t i = 0; i < count_of(unsaved); ++i) {
        const char *family = text_of(element(unsaved, i));
        print_line(Style::Plain, "%s: %s %s", service,
                   holds(member(got, "unsaved"), family) ? "not saved" : "saved", family);
    }
    return true;
}

bool commit(const char *service, json_object *unsaved)
{
    json_object *data = g_options.factory ? json_object_new_string("factory") : nullptr;
    return ask(service, "commit", data, nullptr) == BV_OK &&
           (g_options.json || print_saved(service, unsaved));
}

// ---- debug ----

bool has_switch(json_object *switches, const char *module, const char *level)
{
    for (size_t i = 0; i < count_of(switches); ++i)
        if (strcmp(text_of(element(switches, i), "module"), module) == 0 &&
            strcmp(text_of(element(switches, i), "level"), level) == 0)
            return true;
    return false;
}

// One row a module.
void print_switches(const char *service, json_object *switches)
{
    print_line(Style::Bold, "%s%s", service,
               count_of(switches) == 0 ? ": names no debug switches" : "");
    Table table(2);
    const char *module = nullptr;
    for (size_t i = 0; i < count_of(switches); ++i) {
        json_object *one = element(switches, i);
        const char *next = text_of(one, "module");
        if (module == nullptr || strcmp(next, module) != 0) {
            table.start_row();
            table.cell(next);
        }
        module = next;
        table.cell(text_of(one, "level"));
        table.cell(json_object_get_boolean(member(one, "on")) != 0 ? "on" : "off");
    }
    table.print();
}

// The only service that has a switch, or null after it printed why there is none.
const char *find_switch(json_object *services, const char *module, const char *level)
{
    const char *found = nullptr;
    for (const auto &service : Members(services)) {
        if (!has_switch(service.value(), module, level))
            continue;
        if (found != nullptr) {
            refused("%s and %s both have it: say -s %s or -s %s", found, service.name(), found,
                    service.name());
            return nullptr;
        }
        found = service.name();
    }
    if (found == nullptr)
        refused("no debug switch %s %s; 'bv-ctl debug' shows all", module, level);
    return found;
}

// MODULE LEVEL on|off, or nothing.
bool is_debug_line(Arguments arguments)
{
    return arguments[0] == nullptr ||
           (arguments[1] != nullptr && arguments[2] != nullptr &&
            (strcmp(arguments[2], "on") == 0 || strcmp(arguments[2], "off") == 0));
}

int set_switch(json_object *services, Arguments arguments)
{
    const bool on = strcmp(arguments[2], "on") == 0;
    const char *service = find_switch(services, arguments[0], arguments[1]);
    if (service == nullptr)
        return kExitRefused;
    json_object *data = json_object_new_object();
    put(data, "module", arguments[0]);
    put(data, "level", arguments[1]);
    put(data, "on", json_object_new_boolean(on ? 1 : 0));
    return ask(service, "debug", data, nullptr) == BV_OK ? done() : kExitRefused;
}

} // namespace

int tools::do_set(Arguments arguments)
{
    Target target;
    int status = find_instance_target(arguments[0], "set", target);
    if (status == 0 && target.instance[0] == '\0')
        status = take_only_instance(target, "set");
    if (status == 0)
        status = send_instance(target, "set", arguments + 1, nullptr);
    return status == 0 ? done() : status;
}

int tools::do_add(Arguments arguments)
{
    Target target;
    int status = find_instance_target(arguments[0], "add", target);
    json_object *got = nullptr;
    if (status == 0)
        status = send_instance(target, "add", arguments + 1, &got);
    const JsonTree answer(got);
    if (status != 0)
        return status;
    if (g_options.json) {
        print_json(got);
        return 0;
    }
    // What "show" and "del" take. A service leaves out an answer that is too long.
    const char *number = text_of(element(member(got, target.family), 0), "inst");
    number = *number != '\0' ? number : target.instance;
    print_line(Style::Plain, *number != '\0' ? "%s.%s" : "%s%s", target.family, number);
    return 0;
}

int tools::do_del(Arguments arguments)
{
    const JsonTree requests(json_object_new_object());
    for (; *arguments != nullptr; ++arguments) {
        Target target;
        const int status = find_target(*arguments, target);
        if (status != 0)
            return status;
        if (target.instance[0] == '\0' || *target.parameter != '\0')
            return wrong_arguments("%s: del takes instances, as in 'bv-ctl del %s.2'", *arguments,
                                   target.family);
        append(array_in(object_in(requests.get(), target.service), target.family),
               json_object_new_string(target.instance));
    }
    return ask_each("del", requests.get()) ? done() : kExitRefused;
}

int tools::do_commit(Arguments arguments)
{
    if (!take_service(arguments))
        return kExitUsage;
    const JsonTree services(ask_all("status"));
    if (!services)
        return kExitRefused;
    if (json_object_object_length(services.get()) == 0 && !g_failed)
        return refused("no service with families is running");
    for (const auto &service : Members(services.get()))
        g_failed |= !commit(service.name(), member(service.value(), "unsaved"));
    return g_failed ? kExitRefused : done();
}

int tools::do_revert(Arguments arguments)
{
    return take_back("revert", arguments);
}

int tools::do_reset(Arguments arguments)
{
    return take_back("reset", arguments);
}

int tools::do_debug(Arguments arguments)
{
    if (!is_debug_line(arguments))
        return wrong_arguments("debug takes MODULE LEVEL on|off");
    const JsonTree services(ask_all("debug"));
    if (!services)
        return kExitRefused;
    if (*arguments != nullptr)
        return set_switch(services.get(), arguments);
    if (g_options.json)
        print_json(services.get());
    else if (has_services(services.get()))
        for (const auto &service : Members(services.get()))
            print_switches(service.name(), service.value());
    return g_failed ? kExitRefused : 0;
}
