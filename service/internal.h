// SPDX-License-Identifier: ISC
// What the files of the kit share. All of it belongs to the owner's thread.
//
//   text.cpp      lines for people; texts that grow; JSON as text
//   values.cpp    families, and their values as text
//   change.cpp    planned changes of instances: all are checked, then all are made
//   template.cpp  templates: found, checked and read
//   store.cpp     data files: lock, load, commit, revert, reset
//   run.cpp       bv_service_run(): start, loop, bus connections, end
//   object.cpp    NAME.config: requests and answers, events, rights
//   client.cpp    the caller's half
#ifndef BV_SERVICE_INTERNAL_H
#define BV_SERVICE_INTERNAL_H

#include <bv/bv.h>
#include <bv/service.h>

#include "bus/json_tree.h"
#include "core/list.h"
#include "db/types.h"
#include "os/owned.h"
#include "tools/common/json_members.h"

#include <cerrno>

namespace bv::service {

using tools::Members;

// The service that runs, or null.
extern const struct bv_service *g_service;

// ---- text.cpp ----

// One line on stderr, in syslog (LOG_ERR) and on the debug channel.
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
// One line in syslog (LOG_INFO) and on the debug channel only.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Why a request was refused, for the one who asked.
struct Words {
    char text[512];
    Words() { text[0] = '\0'; }
    // Writes the text, and returns `status`.
    int32_t refuse(int32_t status, const char *format, ...) __attribute__((format(printf, 3, 4)));
    int32_t no_memory() { return refuse(BV_ERR_MEMORY, "the service is out of memory"); }
};

// A text that grows, always terminated. After a failed allocation, or when it would be
// too long, it stays as it is.
constexpr uint32_t kMaxText = 16 * 1024 * 1024;
struct Text {
    char *bytes = nullptr; // null while empty
    uint32_t length = 0;
    uint32_t capacity = 0;
    bool failed = false;
    Text() = default;
    Text(const Text &) = delete;
    ~Text();
    void put(const char *text);
    void put(const char *text, size_t size);
    // For JSON: with a comma in front unless a bracket or colon is there.
    void item(const char *format, ...) __attribute__((format(printf, 2, 3)));
    // A JSON string: with quotes and escapes. Names need none: they are checked at the start.
    void quote(const char *text);
    void hex(const uint8_t *data, size_t count); // with quotes, two digits for each byte
};

// The elements of an array; 0 of anything else.
size_t count_of(json_object *array);
// The text of a JSON string, or of a number as json-c writes it; null for anything else.
const char *text_of(json_object *value, size_t &length);
// A whole number of 32 bits, in quotes or not.
bool number_of(json_object *value, int32_t &number);

// Takes what Text::hex() wrote, without the quotes; after it must be something else than a digit.
// False, with nothing taken, for anything else.
bool read_hex(const char *text, uint8_t *bytes, uint32_t count);

// Appends a JSON text with a question mark for each byte in a string that json-c may refuse when it
// is strict: 0.18 and later refuse control characters, and 0.18 takes bytes from 0x80 for such
// where a char has a sign.
void put_plain(Text &out, const char *text);
// Appends the members of an object that are not of this store, byte for byte and with their
// comments. json-c must have parsed the text.
void put_others(Text &out, const char *text, uint32_t store);
// The names in all objects of a text without comments: the parser keeps the last of equal ones.
// SIZE_MAX for what the parser takes besides JSON even if it is strict: NaN, Infinity, 1. and 'a'.
size_t count_raw_names(const char *text);

// ---- values.cpp ----

// A family of the service: what the program says, and the record in the database.
struct Family {
    const bv_service_family *listed;
    bv_db_family *record;

    explicit Family(const bv_service_family &family)
        : listed(&family), record(bv_db_hash_find(family.name))
    {
    }
    const char *name() const { return listed->name; }
    uint32_t size() const { return listed->size; }
    bool is_hidden() const { return (listed->flags & BV_SERVICE_HIDDEN) != 0; }
};

// The families that the service lists, the descriptors and the instances of a family; for range-for
// loops.
template <typename Item>
struct Range {
    const Item *first;
    size_t count;
    const Item *begin() const { return first; }
    const Item *end() const { return first + count; }
};
inline Range<bv_service_family> families()
{
    return {g_service->families, g_service->n_families};
}
inline Range<bv_db_para> parameters(const Family &family)
{
    return {family.record->para, static_cast<size_t>(family.record->para_count)};
}
inline auto instances(const Family &family)
{
    return each<bv_db_inst>(family.record->inst_list);
}
// Whether the service keeps a family of this name in a store.
bool is_stored(uint32_t store, const char *name, size_t length);
// Null, with the words set, for a family that is not the service's.
const bv_service_family *find_listed(const char *family, Words &words);

// The text of one value; good until the next call.
const char *value_text(const bv_db_para &para, const uint8_t *value);
// Whether every value of an image would come back from a data file: no quote, backslash or control
// character, each string terminated in its len. The words name the parameter.
int32_t check_image(const Family &family, const uint8_t *image, Words &words);
// Sets a parameter of an image after it checked type, range and length; what does not fit is
// refused, and sets the default.
int32_t set_value(const Family &family, uint8_t *image, const Members::Member &member,
                  Words &words);
// Bytes after a text's NUL do not count.
bool same_values(const Family &family, const uint8_t *a, const uint8_t *b);
// Appends {"inst":"1","para":{...}}; without values for a hidden family.
void put_instance(Text &out, const Family &family, int32_t number, const uint8_t *image);

// ---- change.cpp ----

// What the instances of a request (Set to Check) or of a data file (Load, Saved) mean. In a file,
// what does not fit takes its default, which Load says; a family without instances has one with the
// defaults, as it is saved.
enum class Meaning : uint8_t { None, Set, Add, Delete, Import, Check, Load, Saved };

// What is to become of one instance.
struct Change {
    bv_list_head link;
    Family family;
    int32_t number;
    bv_db_inst *present; // null: to be added
    uint8_t *is;         // what is wanted; null: to be deleted
    uint8_t *was;        // what it was; null: added
    bool added;          // by make()
    bool named;          // otherwise it stays as it is
};

// The changes of one request, those of a family together.
struct Plan {
    Meaning meaning;
    Words words = {}; // why it is refused
    bv_list_head changes;
    void *tree = nullptr; // of tsearch(), by family and number: all that were ever planned
    explicit Plan(Meaning of_request) : meaning(of_request) { list_init(changes); }
    Plan(const Plan &) = delete;
    ~Plan();
};
inline auto changes_of(const Plan &plan)
{
    return each<Change>(plan.changes);
}

// Plans what a request in the form of a data file wants. Nothing changes, whatever the result.
int32_t plan_request(Plan &plan, json_object *data);
// The same for one family.
int32_t plan_family(Plan &plan, const bv_service_family &listed, json_object *elements);
// Plans one instance; a null image deletes it.
int32_t plan_instance(Plan &plan, const bv_service_family &listed, int32_t number,
                      const void *image);
// Leaves out what would not differ.
void drop_equal(Plan &plan);
// Asks the checks, makes all changes or none, calls `changed`, counts, and sends the events. Check
// only asks; Saved does not ask; Load neither asks nor tells.
int32_t make(Plan &plan);
// Appends what the planned instances are to be: {"lan.json":[...], ...}.
void put_planned(Text &out, const Plan &plan);

// ---- template.cpp ----

// Registers a family and reads its template. 0, or an exit status, which was said.
int load_template(const bv_service_family &listed);

// ---- store.cpp ----

// A file's text with its tree.
struct Contents {
    Text text;
    json_object *tree = nullptr;
    const char *from = nullptr; // as in StoreState
    Contents() = default;
    Contents(const Contents &) = delete;
    ~Contents() { clear(); }
    void clear();
};
// Reads a file. False with errno, which is 0 for one that is not a JSON object. Strict JSON has no
// comments, and nothing after its end; its strings may have any bytes but 0.
bool read_file(const char *path, Contents &out, bool strict = false);

// Loads all families. 0, or an exit status, which was said.
int load();
// The data files during one request: each is read once, when it is needed.
struct Files {
    Contents contents[BV_SERVICE_FACTORY + 1];
    // Null when neither the file nor its .good can be read.
    json_object *tree_of(uint32_t store);
};
// Plans to take a family to what its data file has; without files, to its defaults.
int32_t plan_back(Plan &plan, const bv_service_family &family, Files *files);
bool is_unsaved(const bv_service_family &family, Files &files);

// For "status".
struct StoreState {
    const char *loaded;   // "file", "good" or "defaults"
    int64_t saved;        // when a file was written last, in seconds since 1970; 0: never
    int32_t saved_status; // of the last commit
};
const StoreState &store_state();

// ---- run.cpp ----

constexpr uint32_t kMaxServiceName = 100;
bool is_service_name(const char *name);
// Whether a bus daemon answers. Connecting to one that hangs would never end. Readable, or hung up,
// `end_fd` ends the wait; -1 for none.
bool is_bus_alive(int end_fd);

// ---- object.cpp ----

// Of the functions: the service's, if it names none.
inline const char *object_name()
{
    return g_service->object != nullptr ? g_service->object : g_service->name;
}
// Takes memory for the counters of the families; false when it is short.
bool open_object();
void close_object();
// After a change of a family: count, and tell those who watch. Never waits.
void announce(const bv_service_family &family);
// Publishes NAME.config on a connection of its own, in the event loop.
enum class Published { Yes, NoBus, NameTaken };
Published publish();
void unpublish();

// ---- messages: object.cpp and client.cpp ----

constexpr uint32_t kMessageVersion = 1;
constexpr uint32_t kMaxPart = 65536;               // bytes of an answer in one reply
constexpr int32_t kStartAgain = BV_ERR_EMPTY;      // the answer is another one by now
constexpr char kObjectSuffix[] = ".config";        // of the object's name
constexpr char kEventSuffix[] = ".config.changed"; // of the event's
// A message to the bus.
struct BusMessage {
    blob_buf buffer = {};
    bool failed; // without memory
    BusMessage();
    BusMessage(const BusMessage &) = delete;
    ~BusMessage();
    void put(const char *name, uint32_t number);
    void put(const char *name, const char *text);
};
// Takes the fields of a message apart; those that are missing are null.
bool parse_message(blob_attr *message, const blobmsg_policy *policy, int count, blob_attr **fields);
// Whether an operation belongs to the method `read`: the others change something.
bool is_read(const char *op, bool has_data);

} // namespace bv::service

#endif
