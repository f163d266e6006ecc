/* A parameter family as its template defines it. */
#ifndef TOOLS_TEMPLATE_FAMILY_H
#define TOOLS_TEMPLATE_FAMILY_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "template/json.h"
#include "template/values.h"

/* The library keeps all descriptors of a family in one allocation, which holds no more. */
enum { PARAMETERS_MAX = 425 };

struct parameter {
    const char *name;
    const struct value_type *type; /* NULL: unknown, its bytes are left alone */
    int32_t len;
};

struct family {
    const char *path; /* the caller's */
    const char *name; /* in path: the file's name, which is the family's */
    struct json *tree;
    struct parameter parameters[PARAMETERS_MAX]; /* those that the library takes */
    size_t count;
    int64_t size; /* of the image */
};

/* Reads a template and reports every fault. False when the library would not get parameters from
 * it. In both cases family_free() releases what was read. */
bool family_read(struct family *family, const char *path);
void family_free(struct family *family);

/* NULL when the family has no such parameter. */
const struct parameter *family_find(const struct family *family, const char *name);

#endif
