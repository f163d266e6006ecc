// SPDX-License-Identifier: ISC
// The image of a parameter family within the bytes of a call. Each function returns false after it
// printed why.
#ifndef TOOLS_CALL_PARAMETERS_H
#define TOOLS_CALL_PARAMETERS_H

#include "tools/call/buffer.h"

namespace tools {

// Reads a template: a path, or a file's name in /etc/template.
bool open_template(const char *name);

// Puts the image at `offset` into the bytes: given bytes stay, missing ones get the template's
// defaults.
bool place_image(Buffer &bytes, uint32_t offset);

// Stores one NAME=VALUE in the image at `offset`.
bool set_parameter(Buffer &bytes, uint32_t offset, const char *assignment);

// Prints NAME=VALUE for each parameter.
bool print_parameters(const Buffer &bytes, uint32_t offset);

} // namespace tools

#endif
