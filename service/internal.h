// SPDX-License-Identifier: ISC
// What the files of the kit share. All of it belongs to the owner's thread.
//
//   say.cpp      lines for people: stderr, syslog, debug channel
//   values.cpp   values as text: what a type and a file can hold; JSON of families
//   change.cpp   planned changes of instances: all are checked, then all are made
//   store.cpp    data files: lock, load, commit, revert, reset
//   run.cpp      bv_service_run(): start, loop, bus connections, end
//   object.cpp   NAME.config: requests and answers, events, rights
//   client.cpp   the caller's half
#ifndef BV_SERVICE_INTERNAL_H
#define BV_SERVICE_INTERNAL_H

#include <bv/bv.h>
#include <bv/service.h>

#include "core/list.h"
#include "db/types.h"
#include "os/owned.h"

namespace bv::service {

// The service that runs, or null.
extern const struct bv_service *g_service;

// ---- say.cpp ----

// One line on stderr, in syslog (LOG_ERR) and on the debug channel.
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
// One line in syslog (LOG_INFO) and on the debug channel only.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Why a request was refused, for the one who asked.
struct Words {
    char text[512] = "";
    // Writes the text, and returns `status`.
    int32_t refuse(int32_t status, const char *format, ...) __attribute__((format(printf, 3, 4)));
};

// A text that grows. After a failed allocation it stays as it is, and failed is true.
struct Text {
    char *bytes = nullptr; // terminated, or null while empty
    uint32_t length = 0;
    uint32_t capacity = 0;
    bool failed = false;
    ~Text();
    void put(const char *text);
    void put(const char *text, uint32_t size);
    // With quotes around it, and escaped as JSON wants it.
    void put_quoted(const char *text);
    // Formats at most 255 characters.
    void print(const char *format, ...) __attribute__((format(printf, 2, 3)));
};

// The members of a JSON object, for a range-for loop; none of anything else.
struct Members {
    struct Member {
        const char *name;
        json_object *value; // null for JSON's null
    };
    struct Iterator {
        lh_entry *at;
        Member operator*() const
        {
            return {static_cast<const char *>(lh_entry_k(at)),
                    static_cast<json_object *>(lh_entry_v(at))};
        }
        void operator++() { at = lh_entry_next(at); }
        bool operator!=(const Iterator &other) const { return at != other.at; }
    };
    json_object *object;
    Iterator begin() const
    {
        const bool is_object = bv_json_object_is_type(object, json_type_object) != 0;
        return {is_object ? json_object_get_object(object)->head : nullptr};
    }
    static Iterator end() { return {nullptr}; }
};

// ---- values.cpp ----

const struct bv_service_family *find_listed(const char *family);

// The descriptors of a loaded family, all of which are valid; for a range-for loop.
struct Parameters {
    const bv_db_family &family;
    const bv_db_para *begin() const { return family.para; }
    const bv_db_para *end() const { return family.para + family.para_count; }
};
inline Parameters parameters(const bv_db_family &family)
{
    return {family};
}
inline auto instances(const bv_db_family &family)
{
    return each<bv_db_inst>(family.inst_list);
}
// Null if the family has none of that name; otherwise also gives its place in the image.
const bv_db_para *find_parameter(const bv_db_family &family, const char *name, int32_t &position);

// The text of one value; good until the next call.
const char *value_text(const bv_db_para &para, const uint8_t *value);
// Whether a text can be stored, and is the same when it comes back; the words say why not.
bool value_fits(const bv_db_para &para, const char *text, size_t length, Words &words);
// Stores a text that fits. All bytes of the value are set.
void put_value(const bv_db_para &para, uint8_t *value, const char *text);
// Bytes after a text's NUL do not count.
bool same_values(const bv_db_family &family, const uint8_t *a, const uint8_t *b);

// Whether every value of an image would come back from a data file: no quote, backslash or control
// character, each string terminated in its len. The words name the parameter.
int32_t check_image(const bv_db_family &family, const uint8_t *image, Words &words);
// Sets the parameter of an image: type, range, length.
int32_t set_value(const bv_db_family &family, uint8_t *image, const char *parameter,
                  const char *text, size_t length, Words &words);
int32_t set_value(const bv_db_family &family, uint8_t *image, const Members::Member &member,
                  Words &words);
// Appends {"inst":"1","para":{...}}; without values for a hidden family.
void put_instance(Text &out, const bv_db_family &family, const uint8_t *image, int32_t number,
                  bool hidden);

// ---- change.cpp ----

// The changes of one request, in order. An instance appears once.
struct Change {
    const struct bv_service_family *listed;
    bv_db_family *family;
    int32_t instance;
    uint8_t *is;  // null: delete
    uint8_t *was; // set by make(); null: added
};
struct Plan {
    Change *changes = nullptr;
    uint32_t count = 0;
    uint32_t capacity = 0;
    ~Plan();
};
// Load and Saved are of data files: what does not fit is left out. Load says so.
enum class Meaning { Set, Add, Import, Load, Saved };

// Takes over `is`, from malloc(), whatever the result; null deletes. False without memory.
bool add_change(Plan &plan, const bv_service_family &listed, bv_db_family &family, int32_t instance,
                uint8_t *is);
// Leaves out what is in memory already.
void drop_equal(Plan &plan);
// The planned change of an instance, or null.
Change *find_change(const Plan &plan, const bv_db_family &family, int32_t instance);
// Plans to delete all instances of a family that the plan does not name.
bool add_removals(Plan &plan, const bv_service_family &listed, bv_db_family &family);
// A copy of an image, for free(); null without memory.
uint8_t *copy_image(const bv_db_family &family, const void *image);

// Reads a request in the form of a data file. Nothing is changed, whatever the result.
int32_t plan_from_json(Plan &plan, struct json_object *data, Meaning meaning, Words &words);
// The same for one family.
int32_t plan_family(Plan &plan, const char *name, struct json_object *elements, Meaning meaning,
                    Words &words);
int32_t plan_one(Plan &plan, const char *family, const void *image_or_null, int32_t instance,
                 Words &words);
// Asks the checks of all, then makes all of them: memory is taken before the first is made.
// Instances that would not differ are left out. Calls `changed`, counts, and sends the events.
// Without `ask` no check is asked.
int32_t make(Plan &plan, Words &words, bool ask = true);

// ---- store.cpp ----

// Registers, reads the templates and loads the families. 0, or an exit status, which was said.
int load();
// Saves the families of one store that changed; see bv_service_commit().
int32_t commit(enum bv_service_store store);
int32_t revert(const struct bv_service_family &family);
int32_t reset(const struct bv_service_family &family);
// The instances that the data file has, as put_instance() writes them: [...] of one family.
int32_t put_saved(Text &out, const struct bv_service_family &family, Words &words);

// For "status": where the families came from, when they were saved last and with which result.
struct StoreState {
    const char *loaded; // "file", "good" or "defaults"
    int64_t saved;      // seconds since 1970; 0: never
    int32_t saved_status;
};
const StoreState &store_state();
bool is_unsaved(const struct bv_service_family &family);

// ---- run.cpp ----

constexpr uint32_t kMaxServiceName = 100;
bool is_service_name(const char *name);

// ---- object.cpp ----

// Takes memory for the counters of the families; false when it is short.
bool open_object();
void close_object();
// After a change of a family: count, and tell those who watch. Never waits.
void announce(const struct bv_service_family &family);
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

} // namespace bv::service

#endif
