// SPDX-License-Identifier: ISC
// Data files: load, commit, revert, reset.
//
// A file is never rewritten in place. The families are written to FILE.tmp, followed by what other
// services have in FILE; the result is parsed and compared with memory, synced and renamed to FILE.
// The old file stays as FILE.good. So at any moment FILE or FILE.good is whole, and a start takes
// the first that is. FILE.lock serialises the services that share a file.

#include "service/internal.h"

#include <cerrno>
#include <fcntl.h>
#include <ftw.h>
#include <sys/file.h>

#include "tools/template/values.h"

namespace {

using namespace bv::service;

constexpr size_t kPathSize = 1024;
constexpr int kLockWaitMs = 2000;
constexpr int kLockStepMs = 10;
constexpr int kReadTries = 5;
constexpr int kReadStepMs = 100;

struct Place {
    const char *path;
    int32_t (*register_family)(const char *name);
};
constexpr Place kPlaces[] = {{"/config/work/userdata.json", bv_db_reg_user},
                             {"/config/work/privdata.json", bv_db_reg_private},
                             {"/config/factory/factory.json", bv_db_reg_factory}};
constexpr uint32_t kStores = sizeof kPlaces / sizeof *kPlaces;

StoreState g_state = {"defaults", 0, BV_OK};

void close_file(int fd)
{
    const int error = errno;
    close(fd);
    errno = error;
}
using File = bv::Owned<int, -1, close_file>;

// The families that the service lists.
struct Listed {
    static const bv_service_family *begin() { return g_service->families; }
    static const bv_service_family *end() { return g_service->families + g_service->n_families; }
};

bool is_ours(uint32_t store, const char *name, size_t length)
{
    for (const bv_service_family &family : Listed())
        if (family.store == store && strlen(family.name) == length &&
            memcmp(family.name, name, length) == 0)
            return true;
    return false;
}

bool is_used(uint32_t store)
{
    for (const bv_service_family &family : Listed())
        if (family.store == store)
            return true;
    return false;
}

bv_db_family &record(const bv_service_family &family)
{
    return *bv_db_hash_find(family.name);
}

// ---- files ----

// The file, and what is beside it. A link is followed, so that it stays one.
struct Paths {
    char file[kPathSize];
    char tmp[kPathSize + 16];
    char good[kPathSize + 16];
    char linked[kPathSize + 16]; // becomes .good
    char bad[kPathSize + 16];
    char lock[kPathSize + 16];
    char folder[kPathSize];

    explicit Paths(uint32_t store)
    {
        snprintf(file, sizeof file, "%s", kPlaces[store].path);
        char target[kPathSize];
        for (int links = 0; links < 8; ++links) {
            const ssize_t length = readlink(file, target, sizeof target - 1);
            if (length <= 0)
                break;
            target[length] = '\0';
            char *last = *target == '/' ? file : strrchr(file, '/') + 1;
            snprintf(last, sizeof file - static_cast<size_t>(last - file), "%s", target);
        }
        snprintf(tmp, sizeof tmp, "%s.tmp", file);
        snprintf(good, sizeof good, "%s.good", file);
        snprintf(linked, sizeof linked, "%s.good.tmp", file);
        snprintf(bad, sizeof bad, "%s.bad", file);
        snprintf(lock, sizeof lock, "%s.lock", file);
        snprintf(folder, sizeof folder, "%.*s", static_cast<int>(strrchr(file, '/') + 1 - file),
                 file);
    }
};

// Holds FILE.lock. Without it the file can be read, as it is replaced at once.
class Lock {
public:
    explicit Lock(const Paths &paths) : file_(open(paths.lock, O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        for (int waited = 0; file_ && !held_; waited += kLockStepMs) {
            held_ = flock(file_.get(), LOCK_EX | LOCK_NB) == 0;
            if (held_ || errno != EWOULDBLOCK || waited >= kLockWaitMs)
                break;
            bv_os_usleep(kLockStepMs * 1000);
        }
    }
    bool held() const { return held_; }

private:
    File file_;
    bool held_ = false;
};

// A file's text with its tree.
struct Contents {
    Text text;
    json_object *tree = nullptr;
    const char *from = nullptr; // as in StoreState
    Contents() = default;
    ~Contents() { clear(); }
    Contents(const Contents &) = delete;
    void clear()
    {
        bv_json_object_put(tree);
        tree = nullptr;
        text.length = 0;
    }
};

// Reads a file. False with errno, which is 0 for a file that is not a JSON object.
bool read_file(const char *path, Contents &out)
{
    const File file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return false;
    char buffer[4096];
    ssize_t got;
    while ((got = read(file.get(), buffer, sizeof buffer)) > 0)
        out.text.put(buffer, static_cast<uint32_t>(got));
    if (got < 0)
        return false;
    errno = out.text.failed ? ENOMEM : 0;
    if (errno != 0 || out.text.length == 0)
        return false;
    json_tokener_error error = json_tokener_success;
    out.tree = json_tokener_parse_verbose(out.text.bytes, &error);
    // Without memory the parser finds no fault, but gives nothing either.
    errno = out.tree == nullptr && error <= json_tokener_continue ? ENOMEM : 0;
    return bv_json_object_is_type(out.tree, json_type_object) != 0;
}

// Look: says nothing and does not wait. Repair: moves a damaged file away, so the lock is needed.
enum class Access { Look, Load, Repair };

// Reads a data file, or its .good when it is missing or damaged; a missing one without .good has
// nothing in it. False, with nothing changed, when the service cannot start from it.
bool read_store(const Paths &paths, Access access, Contents &out)
{
    // A service on the bare interface may be rewriting the file just now.
    int error = 0;
    for (int tries = access == Access::Look ? 1 : kReadTries; error == 0 && tries > 0; --tries) {
        out.clear();
        out.from = "file";
        if (read_file(paths.file, out))
            return true;
        error = errno;
        if (error == 0 && tries > 1)
            bv_os_usleep(kReadStepMs * 1000);
    }
    const char *why = error == 0 ? "it is damaged" : strerror(error);
    bool missing = error == ENOENT;
    if (missing || error == 0) {
        out.clear();
        out.from = "good";
        if (read_file(paths.good, out)) {
            if (access == Access::Repair && error == 0)
                rename(paths.file, paths.bad);
            if (access != Access::Look)
                say("%s: %s: taking %s, which was saved before", paths.file, why, paths.good);
            return true;
        }
        missing = missing && errno == ENOENT;
    }
    if (missing) {
        out.clear();
        out.from = "defaults";
        out.tree = json_object_new_object();
    } else if (access != Access::Look) {
        say("%s: %s, and %s cannot be used: repair or remove them", paths.file, why, paths.good);
    }
    return missing && out.tree != nullptr;
}

// ---- what a file has ----

// Plans the instances that a file has of a family. One that it lacks has an instance 1 with the
// defaults: that is also what a family without instances is saved as. False without memory.
bool plan_saved(json_object *tree, const bv_service_family &listed, Plan &plan,
                Meaning meaning = Meaning::Saved)
{
    bv_db_family &family = record(listed);
    Words words;
    if (plan_family(plan, listed.name, bv_json_object_object_get(tree, listed.name), meaning,
                    words) != BV_OK)
        return false;
    if (plan.count != 0)
        return true;
    uint8_t *image = copy_image(family, family.default_image);
    return image != nullptr && add_change(plan, listed, family, 1, image);
}

// Whether a file has a family as it is in memory.
bool is_saved(json_object *tree, const bv_service_family &listed)
{
    bv_db_family &family = record(listed);
    Plan plan;
    if (!plan_saved(tree, listed, plan) || !add_removals(plan, listed, family))
        return false;
    if (family.inst_count != 0) {
        drop_equal(plan);
        return plan.count == 0;
    }
    return plan.count == 1 && plan.changes->instance == 1 &&
           same_values(family, plan.changes->is, family.default_image);
}

bool are_saved(json_object *tree, uint32_t store)
{
    for (const bv_service_family &family : Listed())
        if (family.store == store && !is_saved(tree, family))
            return false;
    return true;
}

// Whether a file has all that another one has of other services.
bool has_others(json_object *tree, json_object *wanted, uint32_t store)
{
    for (const Members::Member member : Members{wanted}) {
        json_object *value = nullptr;
        if (!is_ours(store, member.name, strlen(member.name)) &&
            (json_object_object_get_ex(tree, member.name, &value) == 0 ||
             json_object_equal(value, member.value) == 0))
            return false;
    }
    return true;
}

// ---- the members of other services, as bytes ----

const char *skip_space(const char *at)
{
    return at + strspn(at, " \t\r\n");
}

// To after the closing quote, or to the end of the text.
const char *skip_string(const char *at)
{
    for (++at; *at != '\0' && *at != '"'; ++at)
        if (*at == '\\' && at[1] != '\0')
            ++at;
    return *at == '"' ? at + 1 : at;
}

// To the comma or brace after a value.
const char *skip_value(const char *at)
{
    for (int depth = 0; *at != '\0';) {
        if (depth == 0 && (*at == ',' || *at == '}'))
            break;
        if (*at == '{' || *at == '[')
            ++depth;
        if (*at == '}' || *at == ']')
            --depth;
        at = *at == '"' ? skip_string(at) : at + 1;
    }
    return at;
}

// Appends the members that are not this store's. The text was parsed; what this reads in another
// way than the parser did, a comment for instance, shows when the result is compared.
void put_others(Text &out, const char *text, uint32_t store)
{
    const char *at = skip_space(text);
    while (*at == '{' || *at == ',') {
        const char *const name = skip_space(at + 1);
        if (*name != '"')
            break;
        const char *const after = skip_string(name);
        at = skip_value(after);
        const char *end = at;
        while (end > after && strchr(" \t\r\n", end[-1]) != nullptr)
            --end;
        if (is_ours(store, name + 1, static_cast<size_t>(after - name - 2)))
            continue;
        out.put(",\n\t");
        out.put(name, static_cast<uint32_t>(end - name));
    }
}

// ---- saving ----

constexpr char kEnd[] = "\n}\n"; // of what the library writes
constexpr uint32_t kEndLength = sizeof kEnd - 1;

// Writes the families of a store. The list that the library takes is made for this.
bool write_families(uint32_t store, const char *path)
{
    bv_list_head list;
    bv::list_init(list);
    uint32_t count = 0;
    auto *records = static_cast<bv_db_reg *>(calloc(g_service->n_families, sizeof(bv_db_reg)));
    if (records == nullptr)
        return false;
    for (const bv_service_family &family : Listed()) {
        if (family.store != store)
            continue;
        bv_db_reg &one = records[count++];
        snprintf(one.name, sizeof one.name, "%s", family.name);
        bv::list_append(list, one.link);
    }
    const int32_t status = bv_db_user_write(&list, path);
    free(records);
    return status == BV_OK;
}

// Appends what other services have, and gives the file the owner and mode of the old one.
bool complete(int fd, const Text &ours, uint32_t store, const Contents &present, const Paths &paths)
{
    Text rest;
    if (present.text.length != 0)
        put_others(rest, present.text.bytes, store);
    rest.put(kEnd);
    if (rest.failed) {
        errno = ENOMEM;
        return false;
    }
    off_t at = ours.length - kEndLength;
    for (uint32_t done = 0; done < rest.length;) {
        const ssize_t wrote = pwrite(fd, rest.bytes + done, rest.length - done, at + done);
        if (wrote < 0)
            return false;
        done += static_cast<uint32_t>(wrote);
    }
    struct stat old;
    if (stat(paths.file, &old) != 0 && stat(paths.good, &old) != 0)
        return true;
    return fchown(fd, old.st_uid, old.st_gid) == 0 && fchmod(fd, old.st_mode & 07777) == 0;
}

// Puts the written file in place of the old one, which becomes .good.
bool put_in_place(const Paths &paths)
{
    unlink(paths.linked);
    if (link(paths.file, paths.linked) == 0)
        rename(paths.linked, paths.good);
    else if (errno != ENOENT)
        note("%s cannot be made: %s", paths.good, strerror(errno));
    if (rename(paths.tmp, paths.file) != 0)
        return false;
    const File folder(open(paths.folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && fsync(folder.get()) == 0;
}

// Writes FILE.tmp. False with errno, which is 0 when it does not come back as it was meant.
bool write_beside(uint32_t store, const Contents &present, const Paths &paths)
{
    unlink(paths.tmp);
    errno = 0;
    if (!write_families(store, paths.tmp))
        return false;
    Contents ours;
    if (!read_file(paths.tmp, ours))
        return false;
    const File file(open(paths.tmp, O_WRONLY | O_CLOEXEC));
    if (!file || !complete(file.get(), ours.text, store, present, paths))
        return false;
    Contents written;
    if (!read_file(paths.tmp, written))
        return false;
    errno = 0;
    return are_saved(written.tree, store) && has_others(written.tree, present.tree, store) &&
           fsync(file.get()) == 0;
}

// Whether every value would come back from a file.
bool check_families(uint32_t store)
{
    for (const bv_service_family &listed : Listed()) {
        if (listed.store != store)
            continue;
        const bv_db_family &family = record(listed);
        Words words;
        for (const bv_db_inst &instance : instances(family))
            if (check_image(family, instance.image, words) != BV_OK) {
                say("nothing is saved: instance %d of %s", instance.number, words.text);
                return false;
            }
    }
    return true;
}

int32_t save(uint32_t store)
{
    if (!check_families(store))
        return BV_ERR_INVALID;
    const Paths paths(store);
    const Lock lock(paths);
    if (!lock.held()) {
        say("%s cannot be saved: %s: %s", paths.file, paths.lock, strerror(errno));
        return BV_ERR_WRITE_OPEN;
    }
    Contents present;
    if (!read_store(paths, Access::Repair, present))
        return BV_ERR_WRITE_OPEN;
    if (strcmp(present.from, "file") == 0 && are_saved(present.tree, store))
        return BV_OK;

    if (write_beside(store, present, paths) && put_in_place(paths))
        return BV_OK;
    const int error = errno;
    unlink(paths.tmp);
    say("%s cannot be saved: %s", paths.file,
        error != 0 ? strerror(error)
                   : "what was written is not complete: is the disk full, or a comment in it?");
    return BV_ERR_WRITE_OPEN;
}

// ---- loading ----

// Looks for a template as the database does: the one file of that name below the folder.
const char *g_wanted; // nftw() passes nothing on
char g_found[kPathSize];
int g_matches;

int match(const char *path, const struct stat *, int, FTW *at)
{
    if (strcmp(path + at->base, g_wanted) != 0)
        return 0;
    ++g_matches;
    snprintf(g_found, sizeof g_found, "%s", path);
    return 0;
}

// Whether the database takes a parameter as it is, and would not skip it, cut it, or store it as
// something else.
bool check_parameter(const bv_db_family &family, const bv_db_para &para)
{
    const bv::ParameterType *type = bv::find_type(para.type);
    int32_t position;
    Words why;
    tools::Reason reason;
    return para.valid != 0 && type != nullptr && para.len > 0 &&
           (type->size == 0 || para.len == type->size) && *para.name != '\0' &&
           tools::text_survives(para.name, strlen(para.name), reason) &&
           find_parameter(family, para.name, position) == &para &&
           value_fits(para, para.value, strlen(para.value), why);
}

bool check_template(const bv_db_family &family)
{
    for (const bv_db_para &para : parameters(family))
        if (!check_parameter(family, para))
            return false;
    return family.para_count > 0;
}

int load_template(const bv_service_family &listed)
{
    g_wanted = listed.name;
    g_matches = 0;
    nftw("/etc/template", match, 8, FTW_PHYS);
    if (g_matches != 1) {
        say("/etc/template has %d templates %s: install one", g_matches, listed.name);
        return BV_SERVICE_TEMPLATE;
    }
    bv_db_family *family = bv_db_hash_add(listed.name);
    const int32_t status = kPlaces[listed.store].register_family(listed.name);
    if (family == nullptr || (status != BV_OK && status != BV_ERR_EXISTS))
        return say("no memory for %s", listed.name), BV_SERVICE_NO_MEMORY;
    bv_db_template_read_single(g_found, family);
    if (!check_template(*family)) {
        say("%s has faults: bv-template check tells which", g_found);
        return BV_SERVICE_TEMPLATE;
    }
    if (family->image_size != static_cast<int32_t>(listed.size)) {
        say("%s has %d bytes, and the program wants %u: install the two that belong together",
            g_found, family->image_size, listed.size);
        return BV_SERVICE_SIZE;
    }
    return BV_SERVICE_ENDED;
}

// Without memory some instances may be missing: the service must not go on.
bool fill(const bv_service_family &listed, json_object *tree)
{
    bv_db_family &family = record(listed);
    Plan plan;
    if (!plan_saved(tree, listed, plan, Meaning::Load))
        return false;
    bv_db_data_free(&family);
    for (uint32_t i = 0; i < plan.count; ++i)
        if (bv_db_data_add_inst(&family, plan.changes[i].is, listed.size,
                                plan.changes[i].instance) != BV_OK)
            return false;
    return true;
}

int load_store(uint32_t store)
{
    const Paths paths(store);
    const Lock lock(paths);
    Contents contents;
    if (!read_store(paths, lock.held() ? Access::Repair : Access::Load, contents))
        return BV_SERVICE_DATA;
    for (const bv_service_family &family : Listed())
        if (family.store == store && !fill(family, contents.tree))
            return say("no memory for %s", family.name), BV_SERVICE_NO_MEMORY;
    if (strcmp(contents.from, "good") == 0 || strcmp(g_state.loaded, "defaults") == 0)
        g_state.loaded = contents.from;
    return BV_SERVICE_ENDED;
}

// The family has exactly the planned instances afterwards.
int32_t replace(const bv_service_family &family, Plan &plan)
{
    Words words;
    return add_removals(plan, family, record(family)) ? make(plan, words, false) : BV_ERR_MEMORY;
}

} // namespace

int bv::service::load()
{
    int status = BV_SERVICE_ENDED;
    g_state = {"defaults", 0, BV_OK};
    for (const bv_service_family &family : Listed())
        if (status == BV_SERVICE_ENDED)
            status = load_template(family);
    for (uint32_t store = 0; store < kStores; ++store)
        if (status == BV_SERVICE_ENDED && is_used(store))
            status = load_store(store);
    bv_db_ready();
    return status;
}

int32_t bv::service::commit(bv_service_store store)
{
    if (g_service == nullptr)
        return BV_ERR_FAILED;
    if (!is_used(store))
        return BV_OK;
    g_state.saved_status = save(store);
    if (g_state.saved_status == BV_OK)
        g_state.saved = time(nullptr);
    return g_state.saved_status;
}

int32_t bv::service::revert(const bv_service_family &family)
{
    Contents contents;
    Plan plan;
    if (!read_store(Paths(family.store), Access::Look, contents))
        return BV_ERR_NO_FILE;
    return plan_saved(contents.tree, family, plan) ? replace(family, plan) : BV_ERR_MEMORY;
}

int32_t bv::service::reset(const bv_service_family &family)
{
    Plan plan;
    return plan_saved(nullptr, family, plan) ? replace(family, plan) : BV_ERR_MEMORY;
}

int32_t bv::service::put_saved(Text &out, const bv_service_family &family, Words &words)
{
    Contents contents;
    Plan plan;
    if (!read_store(Paths(family.store), Access::Look, contents))
        return words.refuse(BV_ERR_NO_FILE, "%s cannot be read", kPlaces[family.store].path);
    if (!plan_saved(contents.tree, family, plan))
        out.failed = true;
    for (uint32_t i = 0; i < plan.count; ++i) {
        out.put(i == 0 ? "[" : ",");
        put_instance(out, record(family), plan.changes[i].is, plan.changes[i].instance,
                     (family.flags & BV_SERVICE_HIDDEN) != 0);
    }
    out.put("]");
    return BV_OK;
}

const StoreState &bv::service::store_state()
{
    return g_state;
}

bool bv::service::is_unsaved(const bv_service_family &family)
{
    Contents contents;
    return !read_store(Paths(family.store), Access::Look, contents) ||
           !is_saved(contents.tree, family);
}

int32_t bv_service_commit()
{
    const int32_t user = commit(BV_SERVICE_USER);
    const int32_t others = commit(BV_SERVICE_PRIVATE);
    return user != BV_OK ? user : others;
}

int32_t bv_service_commit_factory()
{
    return commit(BV_SERVICE_FACTORY);
}

int32_t bv_service_revert(const char *family)
{
    const bv_service_family *listed = family == nullptr ? nullptr : find_listed(family);
    return listed == nullptr ? BV_ERR_NO_FAMILY : revert(*listed);
}

int32_t bv_service_reset(const char *family)
{
    const bv_service_family *listed = family == nullptr ? nullptr : find_listed(family);
    return listed == nullptr ? BV_ERR_NO_FAMILY : reset(*listed);
}
