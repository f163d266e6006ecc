/* The database finds a template by its file name alone, anywhere below the template folder. */
#include "template/library.h"

#include <errno.h>
#include <ftw.h>
#include <stdlib.h>
#include <string.h>

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
    (void)place;
    /* Links count, as for find; where they lead is seen when they are read. */
    return (kind != FTW_F && kind != FTW_SL) || add_entry(path) ? 0 : -1;
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

enum library_result library_find(const char *name, const struct family **family)
{
    struct entry *found = NULL;
    size_t i;

    for (i = 0; i < count; i++) {
        if (strcmp(base_name(entries[i]->path), name) != 0)
            continue;
        if (found != NULL)
            return LIBRARY_SEVERAL;
        found = entries[i];
    }
    if (found == NULL)
        return LIBRARY_NONE;
    if (!found->read)
        found->usable = family_read(&found->family, found->path);
    found->read = true;
    *family = &found->family;
    return found->usable ? LIBRARY_FOUND : LIBRARY_UNUSABLE;
}
