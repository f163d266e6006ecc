// SPDX-License-Identifier: ISC
// export, import: families as a data file. Everything in a file is checked, and every family's
// owner found, before the first service is asked to change anything.

#include <bv/service.h>

#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/common/visible.h"
#include "tools/ctl/ctl.h"
#include "tools/template/checked_file.h"
#include "tools/template/values.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

using bv::JsonTree;

namespace {

using namespace tools;

// ---- export: the format is that of the database, docs/formats.md ----

void write_quoted(FILE *to, const char *text)
{
    json_object *quoted = json_object_new_string(text);
    fputs(json_object_to_json_string_ext(quoted, JSON_C_TO_STRING_NOSLASHESCAPE), to);
    bv_json_object_put(quoted);
}

void write_instance(FILE *to, json_object *instance)
{
    fputs("\t\t{\n\t\t\t\"inst\":", to);
    write_quoted(to, text_of(instance, "inst"));
    fputs(",\n\t\t\t\"para\":{", to);
    const char *gap = "\n";
    for (const auto &parameter : Members(member(instance, "para"))) {
        fprintf(to, "%s\t\t\t\t", gap);
        write_quoted(to, parameter.name());
        fputc(':', to);
        write_quoted(to, text_of(parameter.value()));
        gap = ",\n";
    }
    fputs("\n\t\t\t}\n\t\t}", to);
}

void write_families(FILE *to, json_object *families)
{
    const char *gap = "\n";
    fputc('{', to);
    for (const auto &family : Members(families)) {
        fprintf(to, "%s\t", gap);
        write_quoted(to, family.name());
        fputs(":[\n", to);
        for (size_t i = 0; i < count_of(family.value()); ++i) {
            if (i > 0)
                fputs(",\n", to);
            write_instance(to, element(family.value(), i));
        }
        fputs("\n\t]", to);
        gap = ",\n";
    }
    fputs("\n}\n", to);
}

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
    write_families(file.get(), families);
    const bool written = fflush(file.get()) == 0 && ferror(file.get()) == 0;
    return (close_file(file.release()) && written) || complain(path, strerror(errno));
}

// ---- import ----

class Import {
public:
    Import(const char *path, json_object *services)
        : file_{strcmp(path, "-") == 0 ? "/dev/stdin" : path}, services_(services),
          requests_(json_object_new_object())
    {
    }

    // Reads the file. False after every fault was printed.
    bool read()
    {
        report_on_standard_error();
        JsonDocument document;
        if (!file_.read(document))
            return false;
        const Json &root = *document.root();
        if (root.kind != Json::Kind::Object)
            file_.fault(root.line, "should be an object of families, as 'bv-ctl export' writes it");
        file_.check_names_once(root);
        for (const Json &family : root)
            take_family(family);
        return fault_count() == 0 && !had_file_trouble();
    }

    // What each service is to be sent.
    json_object *requests() const { return requests_.get(); }

private:
    // The family's description, and its owner. Null after it printed why there is none.
    json_object *find_owner(const Json &family, const char *&owner) const
    {
        json_object *details = nullptr;
        for (const auto &service : Members(services_)) {
            json_object *one = member(service.value(), family.name);
            if (one == nullptr)
                continue;
            if (details != nullptr) {
                file_.fault(family.name_line, "%s and %s both own %.80s: say -s SERVICE", owner,
                            service.name(), family.name);
                return nullptr;
            }
            details = one;
            owner = service.name();
        }
        if (details == nullptr)
            file_.fault(family.name_line, "no running service owns %.80s", family.name);
        return details;
    }

    void take_family(const Json &family)
    {
        const char *owner = nullptr;
        json_object *details = find_owner(family, owner);
        if (details == nullptr)
            return;
        if (family.kind != Json::Kind::Array)
            return file_.fault(family.line, "%.80s should be an array of instances", family.name);
        json_object *instances = array_in(object_in(requests_.get(), owner), family.name);
        Seen seen(file_, family.count());
        for (const Json &instance : family)
            take_instance(instance, member(details, "para"), instances, seen);
    }

    void take_instance(const Json &instance, json_object *known, json_object *instances, Seen &seen)
    {
        const Json *inst = instance.member("inst");
        const Json *para = instance.member("para");
        if (inst == nullptr || para == nullptr || para->kind != Json::Kind::Object)
            return file_.fault(instance.line, "an instance needs \"inst\" and \"para\"");
        int32_t number;
        if (!file_.take_number(*inst, "\"inst\"", number))
            return;
        const unsigned line = seen.add(number, instance.line);
        if (line != 0)
            file_.fault(instance.line, "instance %d again, first in line %u", number, line);
        json_object *taken = json_object_new_object();
        append(instances, taken);
        put(taken, "inst", inst->text);
        file_.check_names_once(*para);
        for (const Json &value : *para)
            if (check_value(value, known))
                put(object_in(taken, "para"), value.name, value.text);
    }

    bool check_value(const Json &value, json_object *known) const
    {
        json_object *parameter = nullptr;
        for (size_t i = 0; i < count_of(known) && parameter == nullptr; ++i)
            if (strcmp(text_of(element(known, i), "name"), value.name) == 0)
                parameter = element(known, i);
        if (parameter == nullptr) {
            file_.fault(value.name_line, "the family has no parameter \"%.80s\"", value.name);
            return false;
        }
        if (file_.take_text(value, value.name) == nullptr)
            return false;
        const bv::ParameterType *type = bv::find_type(text_of(parameter, "type"));
        Reason why;
        if (text_survives(value.text, value.length, why) &&
            (type == nullptr ||
             value_fits(*type, bv_json_object_get_int(member(parameter, "len")), value.text, why)))
            return true;
        file_.fault(value.line, "%.80s: %s", value.name, why.text);
        return false;
    }

    CheckedFile file_;
    json_object *services_;
    JsonTree requests_;
};

void print_imported(const char *service, json_object *families)
{
    print_styled(Style::Bold, service);
    const char *gap = ": imported ";
    for (const auto &family : Members(families)) {
        fputs(gap, stdout);
        print_visible(stdout, family.name());
        gap = ", ";
    }
    putchar('\n');
}

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
    if (!import.read())
        return refused("nothing was changed");
    int status = 0;
    for (const auto &service : Members(import.requests())) {
        if (ask(service.name(), "import", share(service.value()), nullptr) != BV_OK)
            status = refused("nothing of %s was changed", service.name());
        else if (!g_options.json)
            print_imported(service.name(), service.value());
    }
    if (status == 0 && g_options.json)
        print_json(import.requests());
    return status;
}
