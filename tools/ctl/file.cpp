// SPDX-License-Identifier: ISC
// export, import: families as a data file. Everything in a file is checked, and every family's
// owner found, before the first service is asked to change anything.

#include <bv/service.h>

#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/ctl/ctl.h"
#include "tools/template/values.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

using bv::JsonTree;

namespace {

using namespace tools;

using Tokener = bv::Owned<json_tokener *, nullptr, json_tokener_free>;

// ---- export ----

// Adds a service's families. False after it printed why they cannot be exported.
bool add_families(json_object *all, const char *service, json_object *families)
{
    json_object *got = nullptr;
    if (ask(service, "get", nullptr, &got) != BV_OK)
        return false;
    const JsonTree answer(got);
    for (const auto &family : Members(families)) {
        if (json_object_get_boolean(member(family.value(), "hidden")) != 0) {
            refused("%s of %s is left out: its values are hidden", family.name(), service);
            continue;
        }
        if (member(all, family.name()) != nullptr) {
            refused("several services own %s: say -s SERVICE", family.name());
            return false;
        }
        put(all, family.name(), share(member(got, family.name())));
    }
    return true;
}

bool write_file(const char *path, json_object *families)
{
    File file(open_or_standard(path, "w"));
    if (!file)
        return complain(path, strerror(errno));
    const bool written = print_json(families, file.get());
    return (close_file(file.release()) && written) || complain(path, strerror(errno));
}

// ---- import ----

// Reads a whole file into a tree. Null after it printed why not.
json_object *read_tree(const char *path)
{
    const File file(open_or_standard(path, "r"));
    if (!file) {
        complain(path, strerror(errno));
        return nullptr;
    }
    const Tokener tokener(json_tokener_new());
    json_object *tree = nullptr;
    char piece[4096];
    int line = 1;
    size_t length;
    size_t end = 0; // of what was understood in the piece
    do {
        length = tokener ? fread(piece, 1, sizeof(piece), file.get()) : 0;
        if (tree == nullptr && length > 0) {
            tree = json_tokener_parse_ex(tokener.get(), piece, static_cast<int>(length));
            end = json_tokener_get_parse_end(tokener.get());
        } else {
            end = 0;
        }
        while (tree != nullptr && end < length && strchr(" \t\r\n", piece[end]) != nullptr)
            ++end;
        for (size_t i = 0; i < end; ++i)
            line += piece[i] == '\n' ? 1 : 0;
    } while (length > 0 && end == length);
    if (tree != nullptr && length == 0)
        return tree;
    refused("%s: line %d: %s", path, line,
            ferror(file.get()) != 0 ? strerror(errno) : "this is not JSON");
    bv_json_object_put(tree);
    return nullptr;
}

class Import {
public:
    Import(const char *path, json_object *services)
        : path_(path), services_(services), requests_(json_object_new_object())
    {
    }

    // Checks the file. False after every fault was printed.
    bool check()
    {
        const JsonTree root(read_tree(path_));
        if (!root)
            return false;
        if (bv_json_object_is_type(root.get(), json_type_object) == 0)
            fault("it should be an object of families, as 'bv-ctl export' writes it");
        for (const auto &family : Members(root.get()))
            take_family(family.name(), family.value());
        return !failed_;
    }

    // What each service is to be sent.
    json_object *requests() const { return requests_.get(); }

private:
    __attribute__((format(printf, 2, 3))) void fault(const char *format, ...)
    {
        char text[512];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(text, sizeof(text), format, arguments);
        va_end(arguments);
        refused("%s: %s", path_, text);
        failed_ = true;
    }

    void take_family(const char *name, json_object *instances)
    {
        const char *owner = nullptr;
        for (const auto &service : Members(services_)) {
            if (member(service.value(), name) == nullptr)
                continue;
            if (owner != nullptr)
                return fault("%s and %s both own %s: say -s SERVICE", owner, service.name(), name);
            owner = service.name();
        }
        if (owner == nullptr)
            return fault("no running service owns %s", name);
        if (bv_json_object_is_type(instances, json_type_array) == 0)
            return fault("%s should be an array of instances", name);
        put(object_in(requests_.get(), owner), name, share(instances));
        known_ = member(member(member(services_, owner), name), "para");
        const JsonTree seen(json_object_new_object());
        for (size_t i = 0; i < count_of(instances); ++i)
            check_instance(name, element(instances, i), i + 1, seen.get());
    }

    void check_instance(const char *family, json_object *instance, size_t place, json_object *seen)
    {
        json_object *para = member(instance, "para");
        const char *number = text_of(instance, "inst");
        int64_t value;
        if (!parse_decimal(number, value) || value < INT32_MIN || value > INT32_MAX ||
            bv_json_object_is_type(para, json_type_object) == 0)
            return fault("%s: element %zu needs a number \"inst\" and an object \"para\"", family,
                         place);
        char canonical[16]; // "01" is 1
        snprintf(canonical, sizeof(canonical), "%d", static_cast<int>(value));
        if (member(seen, canonical) != nullptr)
            fault("%s.%s is there twice", family, number);
        put(seen, canonical, canonical);
        for (const auto &parameter : Members(para))
            check_value(family, number, parameter.name(), parameter.value());
    }

    void check_value(const char *family, const char *number, const char *name, json_object *value)
    {
        json_object *parameter = find(known_, "name", name);
        if (parameter == nullptr)
            return fault("%s.%s.%s: the family has no such parameter", family, number, name);
        const char *text = text_of(value);
        // A number has none, and no zero bytes either.
        const auto string_length = static_cast<size_t>(json_object_get_string_len(value));
        const size_t length = string_length != 0 ? string_length : strlen(text);
        const bv::ParameterType *type = bv::find_type(text_of(parameter, "type"));
        Reason why;
        if (!text_survives(text, length, why) ||
            (type != nullptr &&
             !value_fits(*type, bv_json_object_get_int(member(parameter, "len")), text, why)))
            fault("%s.%s.%s: %s", family, number, name, why.text);
    }

    const char *path_;
    json_object *services_;
    json_object *known_ = nullptr; // the parameters of the family that is checked
    JsonTree requests_;
    bool failed_ = false;
};

} // namespace

int tools::do_export(Arguments arguments)
{
    json_object *services = all_families();
    if (services == nullptr || g_failed)
        return kExitRefused;
    const JsonTree all(json_object_new_object());
    for (const auto &service : Members(services))
        if (!add_families(all.get(), service.name(), service.value()))
            return kExitRefused;
    if (json_object_object_length(all.get()) == 0)
        return refused("no running service has families to export");
    return write_file(*arguments, all.get()) ? 0 : kExitRefused;
}

int tools::do_import(Arguments arguments)
{
    json_object *services = all_families();
    if (services == nullptr || g_failed)
        return kExitRefused;
    Import import(*arguments, services);
    if (!import.check())
        return refused("nothing was changed");
    int status = 0;
    for (const auto &service : Members(import.requests())) {
        if (ask(service.name(), "import", share(service.value()), nullptr) != BV_OK)
            status = refused("nothing of %s was changed", service.name());
        else if (!g_options.json)
            for (const auto &family : Members(service.value()))
                print_line(Style::Plain, "%s: imported %s", service.name(), family.name());
    }
    if (status == 0 && g_options.json)
        print_json(import.requests());
    return status;
}
