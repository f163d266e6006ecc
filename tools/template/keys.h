// Keys that the library does not read: most are misspelt.
#ifndef TOOLS_TEMPLATE_KEYS_H
#define TOOLS_TEMPLATE_KEYS_H

#include "tools/template/checked_file.h"

namespace tools {

// Warns of every key of an object that is not one of those that the library reads in it.
void check_keys(const CheckedFile &file, const Json &object, const char *const *known,
                size_t count);

template <size_t Count>
void check_keys(const CheckedFile &file, const Json &object, const char *const (&known)[Count])
{
    check_keys(file, object, known, Count);
}

} // namespace tools

#endif
