// SPDX-License-Identifier: ISC
// Data files: load, commit, revert, reset.
//
// A file is never rewritten in place. The families are written to FILE.tmp, followed by what other
// services have in FILE; the result is parsed and compared with memory, synced and renamed to FILE.
// The old file stays as FILE.good. So at any moment FILE or FILE.good is whole, and a start takes
// the first that is. FILE.lock serialises the services that share a file.

#include "service/internal.h"

#include <fcntl.h>
#include <sys/file.h>

namespace {

using namespace bv::service;

constexpr size_t kPathSize = 1024;
constexpr int kLockWaitMs = 2000;
constexpr int kLockStepMs = 10;
constexpr int kReadTries = 5;
constexpr int kReadStepMs = 100;

constexpr char kPaths[][32] = {"/config/work/userdata.json", "/config/work/privdata.json",
                               "/config/factory/factory.json"};
constexpr uint32_t kStores = sizeof kPaths / sizeof *kPaths;

StoreState g_state = {"defaults", 0, BV_OK};

void close_file(int fd)
{
    const int error = errno;
    close(fd);
    errno = error;
}
using File = bv::Owned<int, -1, close_file>;

bool is_used(uint32_t store)
{
    for (const bv_service_family &family : families())
        if (family.store == store)
            return true;
    return false;
}

// ---- files ----

// The data file that is worked on, the next one and the last one.
char g_file[kPathSize];
char g_tmp[kPathSize + 16];
char g_good[kPathSize + 16];

// Another one beside it; good until the next call.
char *beside(const char *suffix)
{
    static char path[kPathSize + 16];
    snprintf(path, sizeof path, "%s%s", g_file, suffix);
    return path;
}

// Follows a link, so that it stays one.
void choose_file(uint32_t store)
{
    char target[kPathSize];
    snprintf(g_file, sizeof g_file, "%s", kPaths[store]);
    for (int links = 0; links < 8; ++links) {
        const ssize_t length = readlink(g_file, target, sizeof target - 1);
        if (length <= 0)
            break;
        target[length] = '\0';
        char *last = *target == '/' ? g_file : strrchr(g_file, '/') + 1;
        snprintf(last, static_cast<size_t>(g_file + sizeof g_file - last), "%s", target);
    }
    snprintf(g_tmp, sizeof g_tmp, "%s.tmp", g_file);
    snprintf(g_good, sizeof g_good, "%s.good", g_file);
}

// Holds FILE.lock. Without it the file can be read, as it is replaced at once.
class Lock {
public:
    Lock() : file_(open(beside(".lock"), O_RDWR | O_CREAT | O_CLOEXEC, 0600))
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

// Writes a text, from a byte of it on, into FILE.tmp, which gets the owner and mode of the old
// file.
bool write_beside(const Text &text, uint32_t from)
{
    const File file(open(g_tmp, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (!file)
        return false;
    for (uint32_t done = from; done < text.length;) {
        const ssize_t wrote = pwrite(file.get(), text.bytes + done, text.length - done, done);
        if (wrote < 0)
            return false;
        done += static_cast<uint32_t>(wrote);
    }
    struct stat old;
    if ((stat(g_file, &old) == 0 || stat(g_good, &old) == 0) &&
        (fchown(file.get(), old.st_uid, old.st_gid) != 0 ||
         fchmod(file.get(), old.st_mode & 07777) != 0))
        return false;
    return fsync(file.get()) == 0;
}

// Puts the written file in place of the old one, which becomes .good if it is whole.
bool put_in_place(bool is_whole)
{
    const char *next_good = beside(".good.tmp");
    unlink(next_good);
    if (is_whole && link(g_file, next_good) == 0)
        rename(next_good, g_good);
    else if (is_whole)
        note("%s cannot be made: %s", g_good, strerror(errno));
    if (rename(g_tmp, g_file) != 0)
        return false;
    char *folder = beside("");
    strrchr(folder, '/')[1] = '\0';
    const File opened(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return opened && fsync(opened.get()) == 0;
}

// Puts a copy of .good in place of a file that is damaged or missing. Without one, a service on the
// bare interface would begin a file with nothing but its own families.
void restore(const Text &good)
{
    unlink(g_tmp);
    if (!write_beside(good, 0) || !put_in_place(false))
        note("%s cannot be restored: %s", g_file, strerror(errno));
}

// A flash block whose checksum is wrong gives EIO.
bool is_damage(int error)
{
    return error == 0 || error == EIO;
}

// Look: says nothing and does not wait. Repair: puts a copy of .good in place of a file that cannot
// be used, which becomes .bad, so the lock is needed.
enum class Access { Look, Load, Repair };

// Reads a data file, or its .good when it is missing or damaged; a missing one without .good has
// nothing in it. False, with nothing changed, when the service cannot start from it.
bool read_store(uint32_t store, Access access, Contents &out)
{
    choose_file(store);
    // A service on the bare interface may be rewriting the file just now.
    int error = 0;
    for (int tries = access == Access::Look ? 1 : kReadTries; error == 0 && tries > 0; --tries) {
        out.from = "file";
        if (read_file(g_file, out))
            return true;
        error = errno;
        if (error == 0 && tries > 1)
            bv_os_usleep(kReadStepMs * 1000);
    }
    const char *path = g_file;
    const char *why = error == 0 ? "it is damaged" : strerror(error);
    bool missing = error == ENOENT;
    if (missing || is_damage(error)) {
        out.from = "good";
        path = g_good;
        if (read_file(path, out)) {
            if (access == Access::Repair && !missing)
                rename(g_file, beside(".bad"));
            if (access == Access::Repair)
                restore(out.text);
            if (access != Access::Look)
                say("%s: %s: taking %s, which was saved before", g_file, why, g_good);
            return true;
        }
        error = errno;
        missing = missing && error == ENOENT;
    }
    if (missing) {
        out.clear();
        out.from = "defaults";
        out.tree = bv_json_tokener_parse("{}");
    } else if (access != Access::Look && (error == ENOENT || is_damage(error))) {
        say("%s: %s, and %s cannot be used: repair or remove them", g_file, why, g_good);
    } else if (access != Access::Look) {
        say("%s cannot be read: %s", path, strerror(error));
    }
    return missing && out.tree != nullptr;
}

// ---- what a file has ----

int32_t plan_saved(Plan &plan, json_object *tree, const bv_service_family &listed)
{
    return plan_family(plan, listed, bv_json_object_object_get(tree, listed.name));
}

// Whether a file has a family as it is in memory. One without instances is saved with instance 1.
bool is_saved(json_object *tree, const bv_service_family &listed)
{
    const Family family(listed);
    Plan plan(Meaning::Saved);
    if (plan_saved(plan, tree, listed) != BV_OK)
        return false;
    drop_equal(plan);
    for (const Change &change : changes_of(plan))
        if (family.record->inst_count != 0 || change.number != 1 ||
            !same_values(family, change.is, family.record->default_image))
            return false;
    return true;
}

bool are_saved(json_object *tree, uint32_t store)
{
    for (const bv_service_family &family : families())
        if (family.store == store && !is_saved(tree, family))
            return false;
    return true;
}

// Whether a file has all that another one has of other services.
bool has_others(json_object *tree, json_object *wanted, uint32_t store)
{
    for (const Members::Member &member : Members(wanted)) {
        json_object *value = nullptr;
        if (!is_stored(store, member.name(), strlen(member.name())) &&
            (json_object_object_get_ex(tree, member.name(), &value) == 0 ||
             json_object_equal(value, member.value()) == 0))
            return false;
    }
    return true;
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
    for (const bv_service_family &family : families()) {
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

// Writes FILE.tmp: our families, then what other services have. False with errno, which is 0 when
// it does not come back as it was meant.
bool write_all(uint32_t store, const Contents &present)
{
    Contents written;
    Text &text = written.text;
    unlink(g_tmp);
    errno = 0;
    if (!write_families(store, g_tmp) || !read_file(g_tmp, written))
        return false;
    text.length -= kEndLength;
    const uint32_t ours = text.length;
    if (present.text.length != 0)
        put_others(text, present.text.bytes, store);
    text.put(kEnd);
    if (text.failed)
        errno = ENOMEM;
    if (text.failed || !write_beside(text, ours) || !read_file(g_tmp, written))
        return false;
    errno = 0;
    return are_saved(written.tree, store) && has_others(written.tree, present.tree, store);
}

// Whether every value would come back from a file.
bool check_families(uint32_t store)
{
    for (const bv_service_family &listed : families()) {
        if (listed.store != store)
            continue;
        const Family family(listed);
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
    choose_file(store);
    const Lock lock;
    if (!lock.held()) {
        say("%s cannot be saved: %s.lock: %s", g_file, g_file, strerror(errno));
        return BV_ERR_WRITE_OPEN;
    }
    Contents present;
    if (!read_store(store, Access::Repair, present))
        return BV_ERR_WRITE_OPEN;
    const bool is_whole = strcmp(present.from, "file") == 0;
    if (is_whole && are_saved(present.tree, store))
        return BV_OK;

    if (write_all(store, present) && put_in_place(is_whole)) {
        g_state.saved = time(nullptr);
        return BV_OK;
    }
    const int error = errno;
    unlink(g_tmp);
    say("%s cannot be saved: %s", g_file,
        error != 0 ? strerror(error) : "what was written is not complete: is the disk full?");
    return BV_ERR_WRITE_OPEN;
}

// ---- loading ----

// Without memory some instances may be missing: the service must not go on.
bool fill(const bv_service_family &listed, json_object *tree)
{
    Plan plan(Meaning::Load);
    bv_db_data_free(Family(listed).record);
    return plan_saved(plan, tree, listed) == BV_OK && make(plan) == BV_OK;
}

int load_store(uint32_t store)
{
    choose_file(store);
    const Lock lock;
    Contents contents;
    if (!read_store(store, lock.held() ? Access::Repair : Access::Load, contents))
        return BV_SERVICE_DATA;
    for (const bv_service_family &family : families())
        if (family.store == store && !fill(family, contents.tree))
            return say("no memory for %s", family.name), BV_SERVICE_NO_MEMORY;
    if (strcmp(contents.from, "good") == 0 || strcmp(g_state.loaded, "defaults") == 0)
        g_state.loaded = contents.from;
    return BV_SERVICE_ENDED;
}

// ---- parsing ----

json_object *parse(const char *text, int flags)
{
    const bv::Owned<json_tokener *, nullptr, json_tokener_free> tokener(json_tokener_new());
    if (!tokener)
        return nullptr;
    json_tokener_set_flags(tokener.get(), flags);
    return json_tokener_parse_ex(tokener.get(), text, -1);
}

// False with errno ENOMEM without memory.
bool is_strict(const char *text)
{
    Text plain;
    put_plain(plain, text);
    if (plain.failed)
        errno = ENOMEM;
    return !plain.failed && bv::JsonTree(parse(plain.bytes, JSON_TOKENER_STRICT));
}

// ---- what the program calls ----

int32_t commit(uint32_t first, uint32_t last)
{
    if (g_service == nullptr)
        return BV_ERR_FAILED;
    int32_t result = BV_OK;
    for (uint32_t store = first; store <= last; ++store) {
        const int32_t status = is_used(store) ? save(store) : BV_OK;
        result = result != BV_OK ? result : status;
    }
    return g_state.saved_status = result;
}

int32_t take_back(const char *family, Files *files)
{
    Plan plan(Meaning::Saved);
    const bv_service_family *listed = find_listed(family, plan.words);
    if (listed == nullptr)
        return BV_ERR_NO_FAMILY;
    const int32_t status = plan_back(plan, *listed, files);
    return status == BV_OK ? make(plan) : status;
}

} // namespace

void bv::service::Contents::clear()
{
    bv_json_object_put(tree);
    tree = nullptr;
    text.length = 0;
}

bool bv::service::read_file(const char *path, Contents &out, bool strict)
{
    out.clear();
    const File file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return false;
    char buffer[4096];
    ssize_t got;
    while ((got = read(file.get(), buffer, sizeof buffer)) > 0)
        out.text.put(buffer, static_cast<size_t>(got));
    if (got < 0)
        return false;
    errno = out.text.failed ? ENOMEM : 0;
    if (errno != 0 || out.text.length == 0)
        return false;
    if (!strict || is_strict(out.text.bytes))
        out.tree = parse(out.text.bytes, 0);
    if (errno != ENOMEM) // a parser without memory may say that the text is wrong
        errno = 0;
    return bv_json_object_is_type(out.tree, json_type_object) != 0 &&
           (!strict || strlen(out.text.bytes) == out.text.length);
}

int bv::service::load()
{
    int status = BV_SERVICE_ENDED;
    g_state = {"defaults", 0, BV_OK};
    for (const bv_service_family &family : families())
        if (status == BV_SERVICE_ENDED)
            status = load_template(family);
    for (uint32_t store = 0; store < kStores; ++store)
        if (status == BV_SERVICE_ENDED && is_used(store))
            status = load_store(store);
    bv_db_ready();
    return status;
}

json_object *bv::service::Files::tree_of(uint32_t store)
{
    Contents &file = contents[store];
    if (file.from == nullptr && !read_store(store, Access::Look, file))
        file.clear();
    return file.tree;
}

int32_t bv::service::plan_back(Plan &plan, const bv_service_family &family, Files *files)
{
    json_object *tree = files != nullptr ? files->tree_of(family.store) : nullptr;
    if (files != nullptr && tree == nullptr)
        return plan.words.refuse(BV_ERR_NO_FILE, "%s cannot be read", kPaths[family.store]);
    return plan_saved(plan, tree, family);
}

const StoreState &bv::service::store_state()
{
    return g_state;
}

bool bv::service::is_unsaved(const bv_service_family &family, Files &files)
{
    json_object *tree = files.tree_of(family.store);
    return tree == nullptr || !is_saved(tree, family);
}

int32_t bv_service_commit()
{
    return commit(BV_SERVICE_USER, BV_SERVICE_PRIVATE);
}

int32_t bv_service_commit_factory()
{
    return commit(BV_SERVICE_FACTORY, BV_SERVICE_FACTORY);
}

int32_t bv_service_revert(const char *family)
{
    Files files;
    return take_back(family, &files);
}

int32_t bv_service_reset(const char *family)
{
    return take_back(family, nullptr);
}
