// SPDX-License-Identifier: ISC
// export, import: families as a data file. Every family's owner is found, and every owner has
// checked its part of a file, before the first service is asked to change anything.

#include <bv/service.h>

#include "tools/common/file.h"
#include "tools/ctl/ctl.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

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

int write_file(const char *path, json_object *families)
{
    umask(077); // a new file is like the data files, which may have passwords
    File file(fopen(path, "w"));
    const bool written = file && write_json(families, file.get());
    if (written && close_file(file.release()))
        return done();
    complain(path, strerror(errno));
    return kExitRefused;
}

// main() sees when standard output takes no more.
int write_standard_output(json_object *families)
{
    if (isatty(STDOUT_FILENO) != 0)
        print_json(families);
    else
        write_json(families, stdout);
    return 0;
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

// The only service that owns a family of a file, or null after it printed why there is none.
const char *find_owner(const char *path, json_object *services, const char *family)
{
    const char *owner = nullptr;
    for (const auto &service : Members(services)) {
        if (member(service.value(), family) == nullptr)
            continue;
        if (owner != nullptr) {
            refused("%s: %s and %s both own %s: say -s SERVICE", path, owner, service.name(),
                    family);
            return nullptr;
        }
        owner = service.name();
    }
    if (owner == nullptr)
        refused("%s: no running service owns %s", path, family);
    return owner;
}

// What each service is to take from a file. Null after every family without an owner was printed.
json_object *read_requests(const char *path, json_object *services)
{
    const JsonTree root(read_tree(path));
    bool usable = bv_json_object_is_type(root.get(), json_type_object) != 0;
    if (root && !usable)
        refused("%s: it should be an object of families, as 'bv-ctl export' writes it", path);
    JsonTree requests(json_object_new_object());
    for (const auto &family : Members(root.get())) {
        const char *owner = find_owner(path, services, family.name());
        usable = usable && owner != nullptr;
        if (owner != nullptr)
            put(object_in(requests.get(), owner), family.name(), share(family.value()));
    }
    return usable ? requests.release() : nullptr;
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
    return strcmp(*arguments, "-") == 0 ? write_standard_output(all.get())
                                        : write_file(*arguments, all.get());
}

int tools::do_import(Arguments arguments)
{
    json_object *services = all_families();
    if (services == nullptr || g_failed)
        return kExitRefused;
    const JsonTree requests(read_requests(*arguments, services));
    if (!requests || !ask_each("check", requests.get()))
        return refused("nothing was changed");
    int status = 0;
    for (const auto &service : Members(requests.get())) {
        if (ask(service.name(), "import", share(service.value()), nullptr) != BV_OK)
            status = refused("nothing of %s was changed", service.name());
        else if (!g_options.json)
            for (const auto &family : Members(service.value()))
                print_line(Style::Plain, "%s: imported %s", service.name(), family.name());
    }
    if (status == 0 && g_options.json)
        print_json(requests.get());
    return status;
}
