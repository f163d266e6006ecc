// SPDX-License-Identifier: ISC
// Checks data files against the templates of their families.
#ifndef TOOLS_TEMPLATE_DATA_H
#define TOOLS_TEMPLATE_DATA_H

#include "tools/template/library.h"

namespace tools {

// Reads a data file and reports every fault.
void check_data(const char *path, Library &templates);

} // namespace tools

#endif
