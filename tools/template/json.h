/*
 * JSON with line numbers.
 *
 * A tree of what a file says and where. Names that occur twice in an object stay in it twice, and
 * control characters in texts are let through, so that both can be reported; everything else is
 * as strict as JSON is.
 */
#ifndef TOOLS_TEMPLATE_JSON_H
#define TOOLS_TEMPLATE_JSON_H

#include <stddef.h>

enum json_kind { JSON_NULL, JSON_TRUTH, JSON_NUMBER, JSON_TEXT, JSON_ARRAY, JSON_OBJECT };

struct json {
    enum json_kind type;
    unsigned line;
    char *text;    /* a text, decoded, or a number as it stands; terminated; else NULL */
    size_t length; /* of the text, which may hold zero bytes */
    char *name;    /* of an object's member, terminated; else NULL */
    size_t name_length;
    unsigned name_line;
    struct json *first; /* member or element */
    struct json *next;  /* one of the same object or array */
};

struct json_fault {
    unsigned line;
    const char *what;
};

/* Reads one value and white space around it. NULL with the first fault when it is no JSON, when
 * something stands inside more than 31 arrays and objects, where the library stops reading too, or
 * when memory is short. */
struct json *json_parse(const char *bytes, size_t length, struct json_fault *fault);

void json_free(struct json *value);

/* The member of that name, the last one if there are more, as the library takes it. NULL when
 * there is none, when it is null, or when `object` is no object. */
struct json *json_member(const struct json *object, const char *name);

#endif
