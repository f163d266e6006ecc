/* Faults in files, printed as FILE:LINE: MESSAGE and counted. */
#ifndef TOOLS_TEMPLATE_FAULT_H
#define TOOLS_TEMPLATE_FAULT_H

#include <stdbool.h>
#include <stddef.h>

#include "template/json.h"

/* Reports one fault on standard output. */
void fault(const char *path, unsigned line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* How many were reported. */
unsigned fault_count(void);

/* Says on standard error that a file cannot be used at all. */
void file_trouble(const char *path, const char *why);

/* Whether file_trouble() was called. */
bool had_file_trouble(void);

/* Reads and parses a file. NULL after having reported why; json_free() releases the tree. */
struct json *read_json(const char *path);

#endif
