// SPDX-License-Identifier: ISC
// Requests to services. Each has a connection of its own: bv-ctl makes a few requests, and ends.

#include <bv/service.h>

#include "os/owned.h"
#include "tools/common/visible.h"
#include "tools/ctl/ctl.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

using bv::JsonTree;

namespace {

using namespace tools;

using Client = bv::Owned<bv_service_client *, nullptr, bv_service_close>;
using Connection = bv::Owned<ubus_context *, nullptr, bv_ubus_free>;

// Connecting to the bus and looking up wait without limit. No request takes that long.
constexpr unsigned kLimit = 20;

void print_complaint(const char *end, const char *format, va_list arguments)
{
    char text[1024];
    vsnprintf(text, sizeof(text), format, arguments);
    fflush(stdout);
    fputs("bv-ctl: ", stderr);
    print_visible(stderr, text);
    fputs(end, stderr);
}

// ---- services that are not built on the kit ----

void note_object(ubus_context *, ubus_object_data *object, void *priv)
{
    blob_attr *method;
    int rest;
    if (object->path == nullptr || object->signature == nullptr)
        return;
    blob_for_each_attr(method, object->signature,
                       rest) if (strcmp(bv_blobmsg_name(method), "method") == 0)
        put(static_cast<json_object *>(priv), object->path, static_cast<json_object *>(nullptr));
}

// ---- refusals ----

// What a person can do about a failure, or null.
const char *advice(int32_t status)
{
    if (status == UBUS_STATUS_PERMISSION_DENIED)
        return "the bus's access rules, or the service, do not let your user do this";
    if (status == UBUS_STATUS_INVALID_ARGUMENT)
        return "the request is too long for the bus, or the service is of another version";
    if (status == UBUS_STATUS_CONNECTION_FAILED)
        return "is ubusd running?";
    return status == UBUS_STATUS_TIMEOUT ? "it is busy or hangs" : nullptr;
}

void print_refusal(const bv_service_client *client, const char *service, int32_t status)
{
    const char *words = bv_service_words(client);
    const char *hint = advice(status);
    const char *text = bv_service_text(status);
    if (*words != '\0' && strcmp(text, bv_status_text(INT32_MAX)) == 0)
        refused("%s: %s (status 0x%x)", service, words, static_cast<unsigned>(status));
    else if (strstr(words, text) != nullptr)
        refused("%s: %s", service, words);
    else if (*words != '\0')
        refused("%s: %s (%s)", service, words, text);
    else if (hint != nullptr)
        refused("%s: %s: %s", service, text, hint);
    else if (status != UBUS_STATUS_NOT_FOUND)
        refused("%s: %s", service, text);
    else if (is_bare(service))
        refuse_bare(service);
    else
        refused("no service %s is running; 'bv-ctl list' shows those that are", service);
}

void note_service(const char *service, void *priv)
{
    put(static_cast<json_object *>(priv), service, static_cast<json_object *>(nullptr));
}

// The names of the services to ask, as members. Null after it printed why there is none.
json_object *find_services()
{
    json_object *found = json_object_new_object();
    if (g_options.service != nullptr) {
        note_service(g_options.service, found);
        return found;
    }
    const Client client(bv_service_open(nullptr, 0));
    alarm(kLimit);
    const int32_t status =
        client ? bv_service_list(client.get(), note_service, found) : BV_ERR_MEMORY;
    alarm(0);
    if (status == BV_OK)
        return found;
    const char *hint = advice(status);
    refused("cannot list the services: %s%s%s", bv_service_text(status),
            hint != nullptr ? ": " : "", hint != nullptr ? hint : "");
    bv_json_object_put(found);
    return nullptr;
}

// ---- names of families ----

constexpr char kJson[] = ".json";

// How many bytes of a text name this family, with or without ".json"; 0: another one. A whole name
// counts one more, so that it wins.
size_t match(const char *text, const char *family)
{
    const size_t length = strlen(family);
    const size_t stem =
        length > strlen(kJson) && strcmp(family + length - strlen(kJson), kJson) == 0
            ? length - strlen(kJson)
            : length;
    for (const size_t part : {length, stem})
        if (strncmp(text, family, part) == 0 && (text[part] == '\0' || text[part] == '.'))
            return 2 * part + (part == length ? 1 : 0);
    return 0;
}

// Reads ".INSTANCE.PARAMETER". False when the instance is not a number.
bool read_rest(const char *rest, Target &target)
{
    target.instance[0] = '\0';
    target.parameter = "";
    if (*rest == '\0')
        return true;
    ++rest;
    const size_t length = strcspn(rest, ".");
    const size_t sign = *rest == '-' ? 1 : 0;
    if (length == sign || length >= sizeof(target.instance) ||
        strspn(rest + sign, "0123456789") != length - sign)
        return false;
    memcpy(target.instance, rest, length);
    target.instance[length] = '\0';
    target.parameter = rest[length] == '.' ? rest + length + 1 : "";
    return true;
}

} // namespace

bool tools::g_failed;

int tools::refused(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print_complaint("\n", format, arguments);
    va_end(arguments);
    return kExitRefused;
}

int tools::wrong_arguments(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print_complaint("\nTry 'bv-ctl --help'.\n", format, arguments);
    va_end(arguments);
    return kExitUsage;
}

// ---- JSON ----

const char *tools::text_of(json_object *value)
{
    const char *text = bv_json_object_get_string(value);
    return text != nullptr ? text : "";
}

const char *tools::text_of(json_object *object, const char *name)
{
    return text_of(member(object, name));
}

size_t tools::count_of(json_object *array)
{
    return bv_json_object_is_type(array, json_type_array) != 0 ? bv_json_object_array_length(array)
                                                               : 0;
}

json_object *tools::element(json_object *array, size_t index)
{
    return index < count_of(array) ? bv_json_object_array_get_idx(array, index) : nullptr;
}

json_object *tools::member(json_object *object, const char *name)
{
    return bv_json_object_object_get(object, name);
}

void tools::put(json_object *object, const char *name, json_object *value)
{
    json_object_object_add(object, name, value);
}

void tools::put(json_object *object, const char *name, const char *text)
{
    put(object, name, json_object_new_string(text));
}

void tools::append(json_object *array, json_object *value)
{
    json_object_array_add(array, value);
}

json_object *tools::object_in(json_object *object, const char *name)
{
    if (member(object, name) == nullptr)
        put(object, name, json_object_new_object());
    return member(object, name);
}

json_object *tools::array_in(json_object *object, const char *name)
{
    if (member(object, name) == nullptr)
        put(object, name, json_object_new_array());
    return member(object, name);
}

json_object *tools::by_number(json_object *instances)
{
    json_object *all = json_object_new_object();
    for (size_t i = 0; i < count_of(instances); ++i)
        put(all, text_of(element(instances, i), "inst"),
            share(member(element(instances, i), "para")));
    return all;
}

// ---- requests ----

int32_t tools::ask(const char *service, const char *op, json_object *data, json_object **answer)
{
    const JsonTree owned(data);
    const Client client(bv_service_open(service, g_options.wait_ms));
    if (!client) {
        refused("'%s' cannot be the name of a service", service);
        return BV_ERR_INVALID;
    }
    char *text = nullptr;
    alarm(g_options.wait_ms == 0 ? kLimit : 0);
    int32_t status = bv_service_request(
        client.get(), op,
        data != nullptr ? json_object_to_json_string_ext(data, JSON_C_TO_STRING_PLAIN) : nullptr,
        &text);
    alarm(0);
    if (status == BV_OK && answer != nullptr) {
        *answer = text != nullptr ? bv_json_tokener_parse(text) : nullptr;
        if (*answer == nullptr && text != nullptr) {
            refused("%s: its answer to \"%s\" is not JSON", service, op);
            status = BV_ERR_INVALID;
        }
    } else if (status != BV_OK) {
        print_refusal(client.get(), service, status);
    }
    free(text);
    return status;
}

bool tools::ask_each(const char *op, json_object *requests)
{
    bool taken = true;
    for (const auto &service : Members(requests))
        taken = ask(service.name(), op, share(service.value()), nullptr) == BV_OK && taken;
    return taken;
}

bool tools::take_service(Arguments arguments)
{
    if (arguments[0] == nullptr)
        return true;
    if (g_options.service != nullptr && strcmp(g_options.service, arguments[0]) != 0) {
        wrong_arguments("-s %s or %s?", g_options.service, arguments[0]);
        return false;
    }
    g_options.service = arguments[0];
    return true;
}

json_object *tools::ask_all(const char *op)
{
    // Services that did not answer before: each is waited for, and complained of, once.
    static json_object *silent;
    const JsonTree services(find_services());
    if (!services)
        return nullptr;
    silent = silent != nullptr ? silent : json_object_new_object();
    json_object *answers = json_object_new_object();
    for (const auto &service : Members(services.get())) {
        json_object *answer = nullptr;
        if (json_object_object_get_ex(silent, service.name(), nullptr) != 0)
            continue;
        if (ask(service.name(), op, nullptr, &answer) == BV_OK) {
            put(answers, service.name(), answer);
        } else {
            note_service(service.name(), silent);
            g_failed = true;
        }
    }
    if (g_options.service == nullptr || !g_failed)
        return answers;
    bv_json_object_put(answers);
    return nullptr;
}

json_object *tools::all_families()
{
    static json_object *families;
    if (families == nullptr)
        families = ask_all("families");
    return families;
}

int tools::find_target(const char *text, Target &target)
{
    json_object *services = all_families();
    if (services == nullptr)
        return kExitRefused;
    size_t best = 0;
    const char *other = nullptr; // owns it as well
    for (const auto &service : Members(services))
        for (const auto &family : Members(service.value())) {
            const size_t found = match(text, family.name());
            if (found == best && best != 0)
                other = service.name();
            if (found <= best)
                continue;
            best = found;
            other = nullptr;
            target.service = service.name();
            target.family = family.name();
            target.details = family.value();
        }
    if (best == 0)
        return g_options.service != nullptr
                   ? refused("%s has no family %s; 'bv-ctl list %s' shows what it has",
                             g_options.service, text, g_options.service)
                   : refused("no running service owns a family %s; 'bv-ctl list' shows all", text);
    if (other != nullptr)
        return wrong_arguments("%s and %s both own %s: say -s %s or -s %s", target.service, other,
                               target.family, target.service, other);
    if (!read_rest(text + best / 2, target))
        return wrong_arguments("%s: '%s' should be the number of an instance, as in %s.1", text,
                               text + best / 2 + 1, target.family);
    return 0;
}

int tools::find_whole_family(const char *text, const char *verb, Target &target)
{
    const int status = find_target(text, target);
    if (status != 0 || target.instance[0] == '\0')
        return status;
    return wrong_arguments("%s: %s takes a whole family, as in 'bv-ctl %s %s'", text, verb, verb,
                           target.family);
}

json_object *tools::find_callable_objects()
{
    json_object *objects = json_object_new_object();
    alarm(kLimit);
    const Connection bus(bv_ubus_connect(nullptr));
    if (bus)
        ubus_lookup(bus.get(), nullptr, note_object, objects);
    alarm(0);
    return objects;
}

bool tools::is_bare(const char *service)
{
    const JsonTree objects(find_callable_objects());
    if (json_object_object_get_ex(objects.get(), service, nullptr) == 0)
        return false;
    // Asked last: a service that starts just now is on the bus with both objects then.
    const Client client(bv_service_open(service, 0));
    return bv_service_request(client.get(), "counters", nullptr, nullptr) == UBUS_STATUS_NOT_FOUND;
}

int tools::refuse_bare(const char *service)
{
    return refused("%s is a service without settings for bv-ctl; call its functions with "
                   "'bv-call -o %s FUNCTION'",
                   service, service);
}
