/* The types of parameters and the texts that fit them. */
#ifndef TOOLS_TEMPLATE_VALUES_H
#define TOOLS_TEMPLATE_VALUES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

enum value_kind { VALUE_STRING, VALUE_NUMBER, VALUE_MAC, VALUE_IP };

struct value_type {
    const char *name;
    enum value_kind kind;
    int32_t size; /* bytes; 0: any */
    int64_t lowest;
    int64_t highest;
    const char *c_type;
};

enum {
    FIELD_MAX = 1023, /* characters that a name, type or value may have */
    LEN_MAX = 1023,   /* bytes that a parameter may have */
    WHY_SIZE = 160
};

/* NULL when there is no such type. */
const struct value_type *value_type_find(const char *name);

/* Reads a whole decimal number. False when the text is anything else, or beyond 64 bits. */
bool value_number(const char *text, int64_t *number);

/* Whether a text is stored in `len` bytes of a type as it stands; if not, `why` says so. */
bool value_fits(const struct value_type *type, int32_t len, const char *text, char why[WHY_SIZE]);

/* Whether a text can be written into a data file, where nothing is escaped, and read again; if
 * not, `why` says so. `length` is there because the text may hold zero bytes. */
bool text_survives(const char *text, size_t length, char why[WHY_SIZE]);

#endif
