/* The database finds a template by its file name alone, anywhere below the template folder, unless
 * the name is the path of something that exists. */
#include "template/library.h"

#include <errno.h>
#include <ftw.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "template/fault.h"

enum { DESCRIPTORS = 8 };

struct entry {
    char *path;
    struct family family;
    bool read;
    bool usable;
};

static struct entry **entries;
static size_t count;
static size_t room;

static bool add_entry(const char *path)
{
    struct entry *entry = calloc(1, sizeof(*entry));

    if (count == room) {
        struct entry **more = realloc(entries, (room + 64) * sizeof(struct entry *));

        if (more != NULL) {
            entries = more;
            room += 64;
        }
    }
    if (entry != NULL)
        entry->path = strdup(path);
    if (entry == NULL || entry->path == NULL || count == room) {
        free(entry);
        return false;
    }
    entries[count++] = entry;
    return true;
}

static int visit(const char *path, const struct stat *status, int kind, struct FTW *place)
{
    (void)status;
    (void)kind;
    (void)place;
    /* Folders and links count, as for find; what they are is seen when they are read. */
    return add_entry(path) ? 0 : -1;
}

bool library_open(const char *folder)
{
    if (nftw(folder, visit, DESCRIPTORS, FTW_PHYS) == 0)
        return true;
    file_trouble(folder, strerror(errno));
    return false;
}

void library_close(void)
{
    size_t i;

    for (i = 0; i < count; i++) {
        family_free(&entries[i]->family);
        free(entries[i]->path);
        free(entries[i]);
    }
    free(entries);
    entries = NULL;
    count = room = 0;
}

static const char *base_name(const char *path)
{
    const char *slash = strrchr(path, '/');

    return slash == NULL ? path : slash + 1;
}

/* The entry of a name, or of a path that exists; `several` tells that there are more. */
static struct entry *find(const char *name, bool *several)
{
    bool is_path = strchr(name, '/') != NULL;
    struct entry *found = NULL;
    size_t i;

    *several = false;
    for (i = 0; i < count; i++) {
        const char *path = entries[i]->path;

        if (strcmp(is_path ? path : base_name(path), name) != 0)
            continue;
        *several = found != NULL;
        found = entries[i];
    }
    if (found == NULL && is_path && access(name, F_OK) == 0 && add_entry(name))
        found = entries[count - 1];
    return found;
}

/* A pipe or a terminal would keep its reader waiting, and a data file may name any. */
static bool read_entry(struct entry *entry)
{
    struct stat status;

    if (stat(entry->path, &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        file_trouble(entry->path, "is no file");
        return false;
    }
    return family_read(&entry->family, entry->path);
}

enum library_result library_find(const char *name, const struct family **family)
{
    bool several;
    struct entry *found = find(name, &several);

    if (several)
        return LIBRARY_SEVERAL;
    if (found == NULL)
        return LIBRARY_NONE;
    if (!found->read)
        found->usable = read_entry(found);
    found->read = true;
    *family = &found->family;
    return found->usable ? LIBRARY_FOUND : LIBRARY_UNUSABLE;
}
