// SPDX-License-Identifier: ISC
// The templates of a folder, read when their family is first asked for.
#ifndef TOOLS_TEMPLATE_LIBRARY_H
#define TOOLS_TEMPLATE_LIBRARY_H

#include "tools/template/family.h"

namespace tools {

class Library {
public:
    Library() = default;
    ~Library();
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    // Finds all files below a folder. Returns false after it printed why not.
    bool open(const char *folder);

    enum class Result { Found, None, Several, Unusable };

    // Finds the family of a name as the database does: the one file of that name, in any folder, or
    // the file of that path. The first time its template is checked and its faults are reported.
    Result find(const char *name, const Family *&family);

private:
    struct Entry;
    static bool read(Entry &entry);
    bool add(const char *path);
    Entry *look_up(const char *name, bool &several);

    Entry *entries_ = nullptr; // newest first
};

} // namespace tools

#endif
