// SPDX-License-Identifier: ISC
// What the files of bv-ctl share.
//
//   main.cpp    the command line
//   ask.cpp     requests to services; which service owns a family
//   print.cpp   tables, colours and JSON
//   show.cpp    list, show, diff, status, names
//   change.cpp  set, add, del, commit, revert, reset, debug
//   file.cpp    export, import
//   watch.cpp   watch, wait
#ifndef TOOLS_CTL_CTL_H
#define TOOLS_CTL_CTL_H

#include <bv/ubus.h>

#include "bus/json_tree.h"
#include "tools/common/command_line.h"
#include "tools/common/json_members.h"

#include <cstddef>
#include <cstdio>

namespace tools {

constexpr int kExitRefused = 1; // 2: kExitUsage

struct Options {
    const char *service; // null: every service
    bool json;
    bool factory;
    uint32_t wait_ms; // for a service that is away; set by watch
};
extern Options g_options;

// A verb gets its arguments, ended by null, and returns the exit status.
using Arguments = char *const *;
int do_add(Arguments arguments);
int do_commit(Arguments arguments);
int do_debug(Arguments arguments);
int do_del(Arguments arguments);
int do_diff(Arguments arguments);
int do_export(Arguments arguments);
int do_import(Arguments arguments);
int do_list(Arguments arguments);
int do_names(Arguments arguments);
int do_reset(Arguments arguments);
int do_revert(Arguments arguments);
int do_set(Arguments arguments);
int do_show(Arguments arguments);
int do_status(Arguments arguments);
int do_wait(Arguments arguments);
int do_watch(Arguments arguments);

// Prints what is wrong with the command line. Returns the exit status.
int wrong_arguments(const char *format, ...) __attribute__((format(printf, 1, 2)));
// Prints what was refused, or is not there. Returns the exit status.
int refused(const char *format, ...) __attribute__((format(printf, 1, 2)));
// What is done without a word prints an object with --json. Returns the exit status.
int done();

// ---- JSON ----

// What is not there, or has another type, is an empty text and has no members and elements.
const char *text_of(json_object *value);
const char *text_of(json_object *object, const char *name);
size_t count_of(json_object *array);
json_object *element(json_object *array, size_t index);
json_object *member(json_object *object, const char *name);
inline bool has_members(json_object *object)
{
    return Members(object).begin() != Members::end();
}
// {"1":{"mtu":"1500"}}: easier to compare than the array of a data file.
json_object *by_number(json_object *instances);

// Puts a text or a value, which is taken over, into an object.
void put(json_object *object, const char *name, const char *text);
void put(json_object *object, const char *name, json_object *value);
void append(json_object *array, json_object *value);
// The member of that name, which is made if it is missing.
json_object *object_in(json_object *object, const char *name);
json_object *array_in(json_object *object, const char *name);

// Another reference to a value.
inline json_object *share(json_object *value)
{
    return json_object_get(value);
}

// ---- ask.cpp ----

// Sends a request, whose data is taken over and may be null, and takes the answer, which is the
// caller's and may be null. A refusal is printed, with the service's words. Returns the status.
int32_t ask(const char *service, const char *op, json_object *data, json_object **answer);

// Sends each service what is for it, as in {"network":DATA, ...}. False when one of them refuses.
bool ask_each(const char *op, json_object *requests);

// What the running services answer to an operation of `read`, by their names: all of them, or the
// one of -s. Null after it printed why there is none. Sets g_failed when one does not answer.
json_object *ask_all(const char *op);
extern bool g_failed;

// The services' families; kept for the next call.
json_object *all_families();

// Takes an argument that names a service, as -s does. False after it printed what is wrong.
bool take_service(Arguments arguments);

// A family, and maybe an instance and a parameter of it, as a person names them.
struct Target {
    const char *service;
    const char *family;
    json_object *details;  // of the answer to "families"
    char instance[16];     // "" for none
    const char *parameter; // "" for none
};
// Finds the family and its owner. Returns 0, or an exit status after it printed why not.
int find_target(const char *text, Target &target);
// The same for a verb that takes no instances.
int find_whole_family(const char *text, const char *verb, Target &target);

// The names of the objects that bv-call can call, as members.
json_object *find_callable_objects();
// Whether a service is not built on the kit, but bv-call can call it.
bool is_bare(const char *service);
int refuse_bare(const char *service);

// ---- print.cpp ----

enum class Style { Plain, Bold, Faint }; // where standard output is a terminal
// Prints a line, visibly.
void print_line(Style style, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Columns as wide as their widest cell; a value of unusual length is not counted.
class Table {
public:
    explicit Table(int indent) : indent_(indent), rows_(json_object_new_array()) {}
    ~Table() { bv_json_object_put(rows_); }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;

    void start_row(Style style = Style::Plain);
    void cell(const char *text);
    // A whole row; the cells end with a null.
    void row(Style style, ...) __attribute__((sentinel));
    void print();

private:
    int indent_;
    json_object *rows_; // arrays: what starts the style, then the cells
};

// Prints JSON in the layout of the data files, visibly.
void print_json(json_object *value);
// Writes JSON as the database does, byte by byte. False, with errno, when it cannot be written.
bool write_json(json_object *value, FILE *to);
// Whether there are services to print something about. Says so if none runs.
bool has_services(json_object *services);

} // namespace tools

#endif
