// SPDX-License-Identifier: ISC
// A parameter family as its template defines it.
#ifndef TOOLS_TEMPLATE_FAMILY_H
#define TOOLS_TEMPLATE_FAMILY_H

#include "db/types.h"
#include "tools/template/json.h"

namespace tools {

struct Parameter {
    const char *name;
    const bv::ParameterType *type; // null: unknown, its bytes are left alone
    int32_t len;
};

struct Family {
    const char *name; // the file's name, in the caller's path
    JsonDocument document;
    Parameter parameters[bv::kMaxParameters]; // those that the library takes
    size_t count;
    int64_t size; // of the image

    // Null when the family has no such parameter.
    const Parameter *find(const char *wanted) const;
};

// Reads a template into a new family and reports every fault. Returns false when the library would
// not get parameters from it.
bool read_family(const char *path, Family &family);

} // namespace tools

#endif
