// SPDX-License-Identifier: ISC
// A file that is checked. Its faults are printed as FILE:LINE: MESSAGE and counted; its warnings
// are printed alike. Checks that templates and data files share are here too.
#ifndef TOOLS_TEMPLATE_CHECKED_FILE_H
#define TOOLS_TEMPLATE_CHECKED_FILE_H

#include "tools/template/json.h"

#include <cstdint>
#include <cstdlib>

namespace tools {

struct CheckedFile {
    const char *path;

    // Reports one fault on standard output.
    void fault(unsigned line, const char *format, ...) const __attribute__((format(printf, 3, 4)));

    // Prints a warning, which is not counted.
    void warn(unsigned line, const char *format, ...) const __attribute__((format(printf, 3, 4)));

    // Reads and parses the file. Returns false after it reported why not.
    bool read(JsonDocument &document) const;

    // Reports names that occur more than once in an object, at each but the first.
    void check_names_once(const Json &object) const;

    // Returns the text of a value: a string, or a number as it was written, which the library takes
    // as well. Reports anything else, and a number that the library changes, and returns null.
    const char *take_text(const Json &value, const char *what) const;

    // Reads a whole number of 32 bits, in quotes or not. Reports anything else and returns false.
    bool take_number(const Json &value, const char *what, int32_t &number) const;

    // Reports a text that would not survive being written into a data file.
    void check_survives(const char *text, size_t length, unsigned line, const char *what) const;
};

// Prints on standard error that a file cannot be used at all. Returns false, so that callers can
// return that.
bool file_trouble(const char *path, const char *why);

// From now on warnings go to standard error: standard output is for a header.
void warn_on_standard_error();

// What was reported, of all files together.
unsigned fault_count();
bool had_file_trouble();

// What was seen before, and in which line: finds duplicates without comparing all with all.
class Seen {
public:
    // Makes room for `count` entries. Without memory, which is reported, nothing is ever a
    // duplicate.
    Seen(const CheckedFile &file, size_t count);
    ~Seen() { free(entries_); }
    Seen(const Seen &) = delete;
    Seen &operator=(const Seen &) = delete;

    // Notes an entry, whose bytes must stay, or a number; one object takes only one of the two.
    // Returns the line of the first one like it, 0 if it is new.
    unsigned add(const char *bytes, size_t length, unsigned line);
    unsigned add(int32_t number, unsigned line);

private:
    struct Entry {
        const char *bytes; // null: free place
        size_t length;     // or the number
        unsigned line;
    };
    unsigned note(uint32_t hash, const Entry &entry);

    size_t size_ = 8; // a power of two, at least twice the number of entries
    Entry *entries_;
};

} // namespace tools

#endif
