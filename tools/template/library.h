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

    // Finds all files below a folder. False after it said why not.
    bool open(const char *folder);

    enum class Result { Found, None, Several, Unusable };

    // The family of a name: the one file of that name, in whatever folder, or the file of that
    // path, as the database looks for it. Its template is checked, and its faults reported, the
    // first time.
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
