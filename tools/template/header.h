// SPDX-License-Identifier: ISC
// A C header with the packed structure of a family.
#ifndef TOOLS_TEMPLATE_HEADER_H
#define TOOLS_TEMPLATE_HEADER_H

#include "tools/template/family.h"

#include <cstdio>

namespace tools {

// Writes the header for a family without faults. `structure` names the structure; null makes a name
// from the family's. Returns false when memory is short.
bool write_header(FILE *to, const Family &family, const char *structure);

} // namespace tools

#endif
