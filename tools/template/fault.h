// Faults in files, printed as FILE:LINE: MESSAGE and counted.
#ifndef TOOLS_TEMPLATE_FAULT_H
#define TOOLS_TEMPLATE_FAULT_H

#include "tools/template/json.h"

namespace tools {

// Reports one fault on standard output.
void fault(const char *path, unsigned line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// How many were reported.
unsigned fault_count();

// Says on standard error that a file cannot be used at all. False, so that callers can return it.
bool file_trouble(const char *path, const char *why);

// Whether file_trouble() was called.
bool had_file_trouble();

// Reads and parses a file. False after it reported why.
bool read_json(const char *path, JsonDocument &document);

} // namespace tools

#endif
