/* The members of objects in templates and data files, with the faults they have alike. */
#ifndef TOOLS_TEMPLATE_FIELDS_H
#define TOOLS_TEMPLATE_FIELDS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "template/json.h"

/* How many members or elements there are. */
size_t json_count(const struct json *value);

/* Reports names that occur more than once in an object, at each but the first. */
void check_names_once(const char *path, const struct json *object);

/* The text of a value: a text, or a number as it stands, which the library takes as well. NULL
 * for anything else, and for a number that the library changes, after having reported it. */
const char *take_text(const char *path, const struct json *value, const char *what);

/* Reads a whole number of 32 bits, in quotes or not. False after having reported what else it is.
 */
bool take_number(const char *path, const struct json *value, const char *what, int32_t *number);

/* Reports a text that would not survive being written into a data file. */
void check_survives(const char *path, const struct json *value, const char *what);
void check_name_survives(const char *path, const struct json *member, const char *what);

#endif
