// SPDX-License-Identifier: ISC
// The database finds a template by its file name alone, anywhere below the template folder, unless
// the name is the path of something that exists.

#include "tools/template/library.h"

#include "tools/template/checked_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kDescriptors = 8;

tools::Library *g_opening; // nftw() passes nothing on

const char *base_name(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

} // namespace

// Made of zeros by calloc(), with the path after it.
struct tools::Library::Entry {
    Entry *next;
    Family family;
    bool was_read;
    bool usable;
    char path[1];
};

bool tools::Library::add(const char *path)
{
    const size_t length = strlen(path);
    auto *entry = static_cast<Entry *>(calloc(1, sizeof(Entry) + length));
    if (entry == nullptr)
        return false;
    memcpy(entry->path, path, length + 1);
    entry->next = entries_;
    entries_ = entry;
    return true;
}

bool tools::Library::open(const char *folder)
{
    g_opening = this;
    // Folders and links count, as for find; what they are shows when they are read.
    const auto visit = [](const char *path, const struct stat *, int, FTW *) {
        return g_opening->add(path) ? 0 : -1;
    };
    return nftw(folder, visit, kDescriptors, FTW_PHYS) == 0 ||
           file_trouble(folder, strerror(errno));
}

tools::Library::~Library()
{
    while (entries_ != nullptr) {
        Entry *entry = entries_;
        entries_ = entry->next;
        entry->family.document.clear();
        free(entry);
    }
}

// The entry of a name, or of a path that exists.
tools::Library::Entry *tools::Library::look_up(const char *name, bool &several)
{
    const bool is_path = strchr(name, '/') != nullptr;
    Entry *found = nullptr;
    several = false;
    for (Entry *entry = entries_; entry != nullptr; entry = entry->next) {
        if (strcmp(is_path ? entry->path : base_name(entry->path), name) != 0)
            continue;
        several = found != nullptr;
        found = entry;
    }
    if (found == nullptr && is_path && access(name, F_OK) == 0 && add(name))
        found = entries_;
    return found;
}

// A pipe or a terminal would keep its reader waiting, and a data file may name any.
bool tools::Library::read(Entry &entry)
{
    struct stat status;
    if (stat(entry.path, &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
        return file_trouble(entry.path, "is not a file");
    return read_family(entry.path, entry.family);
}

tools::Library::Result tools::Library::find(const char *name, const Family *&family)
{
    bool several;
    Entry *found = look_up(name, several);
    if (several)
        return Result::Several;
    if (found == nullptr)
        return Result::None;
    if (!found->was_read)
        found->usable = read(*found);
    found->was_read = true;
    family = &found->family;
    return found->usable ? Result::Found : Result::Unusable;
}
