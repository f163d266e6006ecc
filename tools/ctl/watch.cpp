// SPDX-License-Identifier: ISC
// watch, wait.

#include <bv/service.h>

#include "os/owned.h"
#include "tools/common/numbers.h"
#include "tools/common/visible.h"
#include "tools/ctl/ctl.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

using bv::JsonTree;

namespace {

using namespace tools;

using Client = bv::Owned<bv_service_client *, nullptr, bv_service_close>;

// A restart of a service or of the bus ends no watching.
constexpr uint32_t kPatience_ms = 24 * 60 * 60 * 1000;
constexpr uint32_t kRestart_ms = 10 * 1000;
constexpr unsigned kMaxWait_s = 24 * 60 * 60;
constexpr unsigned kDefaultWait_s = 30;

// ---- what changed ----

struct Clock {
    char text[16] = "";
    Clock()
    {
        const time_t now = time(nullptr);
        tm local;
        if (localtime_r(&now, &local) != nullptr)
            strftime(text, sizeof(text), "%H:%M:%S", &local);
    }
};

json_object *new_line(const char *service, const char *family)
{
    json_object *line = json_object_new_object();
    put(line, "service", service);
    put(line, "family", family);
    return line;
}

void print_plainly(json_object *line)
{
    print_visible_json(stdout, json_object_to_json_string_ext(line, JSON_C_TO_STRING_PLAIN));
    puts("");
}

// Prints one change; null for a value that did not exist before, or does not now.
void print_change(const char *service, const char *family, const char *number, const char *name,
                  json_object *was, json_object *is)
{
    if (g_options.json) {
        const JsonTree line(new_line(service, family));
        put(line.get(), "inst", number);
        put(line.get(), "name", name);
        put(line.get(), "was", share(was));
        put(line.get(), "is", share(is));
        print_plainly(line.get());
    } else {
        print_line(Style::Plain, "%s %s %s.%s.%s %s -> %s", Clock().text, service, family, number,
                   name, was != nullptr ? text_of(was) : "-", is != nullptr ? text_of(is) : "-");
    }
}

// A service does not tell the values of a hidden family, nor which of them changed.
void print_hidden_change(const char *service, const char *family)
{
    if (g_options.json) {
        const JsonTree line(new_line(service, family));
        put(line.get(), "hidden", json_object_new_boolean(1));
        print_plainly(line.get());
    } else {
        print_line(Style::Plain, "%s %s %s changed (hidden)", Clock().text, service, family);
    }
}

// Whether there are instances, but none with values.
bool hides_values(json_object *instances)
{
    for (const auto &instance : Members(instances))
        if (has_members(instance.value()))
            return false;
    return has_members(instances);
}

void print_changes(const char *service, const char *family, json_object *before, json_object *after)
{
    for (const auto &instance : Members(after))
        for (const auto &parameter : Members(instance.value())) {
            json_object *was = member(member(before, instance.name()), parameter.name());
            if (was == nullptr || strcmp(text_of(was), text_of(parameter.value())) != 0)
                print_change(service, family, instance.name(), parameter.name(), was,
                             parameter.value());
        }
    for (const auto &instance : Members(before))
        for (const auto &parameter : Members(instance.value()))
            if (member(after, instance.name()) == nullptr)
                print_change(service, family, instance.name(), parameter.name(), parameter.value(),
                             nullptr);
}

struct Watch {
    const char *family; // null: all
    json_object *seen;  // the families of each service as they were seen last
};

// How many families of a service there were at the start; of one that starts later none.
int count_at_start(const Watch &watch, const char *service)
{
    json_object *families = member(all_families(), service);
    if (bv_json_object_is_type(families, json_type_object) == 0)
        return 0;
    return watch.family != nullptr ? 1 : json_object_object_length(families);
}

// From here on a person, or a script, sees what changes.
void print_begin(const char *service, json_object *families)
{
    fputs("watching ", stderr);
    print_visible(stderr, service);
    putc(':', stderr);
    for (const auto &family : Members(families)) {
        putc(' ', stderr);
        print_visible(stderr, family.name());
    }
    putc('\n', stderr);
}

void family_changed(const char *service, const char *family, void *priv)
{
    const Watch &watch = *static_cast<const Watch *>(priv);
    json_object *families = object_in(watch.seen, service);
    json_object *query = json_object_new_object();
    array_in(query, family);
    json_object *got = nullptr;
    if (ask(service, "get", query, &got) != BV_OK)
        return;
    const JsonTree answer(got);
    json_object *after = by_number(member(got, family));
    json_object *before = member(families, family);
    if (hides_values(before) || (before != nullptr && hides_values(after)))
        print_hidden_change(service, family);
    else if (before != nullptr)
        print_changes(service, family, before, after);
    if (fflush(stdout) != 0 || ferror(stdout) != 0) // nobody can read the rest
        _exit(refused("standard output: %s", strerror(errno)));
    const bool is_first = before == nullptr;
    put(families, family, after);
    if (is_first && json_object_object_length(families) == count_at_start(watch, service))
        print_begin(service, families);
}

} // namespace

int tools::do_watch(Arguments arguments)
{
    json_object *services = all_families();
    if (services == nullptr) // a bus that is not there now is worth a word
        return kExitRefused;
    Target target = {};
    target.service = g_options.service;
    const int found = *arguments != nullptr ? find_whole_family(*arguments, "watch", target) : 0;
    if (found != 0)
        return found;
    // A service may be restarting while it is asked. It does not keep the others waiting for long.
    g_options.wait_ms = target.service != nullptr ? kPatience_ms : kRestart_ms;
    if (!has_members(services))
        fputs("watching: no service is running yet\n", stderr);
    const JsonTree seen(json_object_new_object());
    Watch watch = {target.family, seen.get()};
    const Client client(bv_service_open(target.service, kPatience_ms));
    const int32_t status =
        client ? bv_service_watch(client.get(), target.family, family_changed, &watch, 0)
               : BV_ERR_MEMORY;
    return status == BV_OK ? 0 : refused("%s", bv_service_text(status));
}

int tools::do_wait(Arguments arguments)
{
    unsigned seconds = kDefaultWait_s;
    if (arguments[1] != nullptr && !parse_number(arguments[1], kMaxWait_s, seconds))
        return wrong_arguments("'%s' should be seconds, from 0 to %u", arguments[1], kMaxWait_s);
    if (is_bare(arguments[0]))
        return refuse_bare(arguments[0]);
    const Client client(bv_service_open(arguments[0], seconds * 1000));
    if (!client)
        return refused("'%s' cannot be the name of a service", arguments[0]);
    const int32_t status = bv_service_request(client.get(), "counters", nullptr, nullptr);
    if (status != BV_OK)
        return refused("%s is not there after %u s: %s", arguments[0], seconds,
                       bv_service_text(status));
    return done();
}
