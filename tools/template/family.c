/*
 * Checks a template.
 *
 * The database takes what it can and says nothing: an element that lacks something is skipped, and
 * all that follow move up in the image. So everything that it would skip, cut or store as
 * something else is a fault here.
 */
#include "template/family.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "template/fault.h"
#include "template/fields.h"
#include "template/seen.h"

/* The command that finds a template has 255 characters at most, and its output is trimmed. */
enum { LABEL_SIZE = 96, FOUND_MAX = 204 };

/* The four members of an element, of which the library needs all. */
struct element {
    const struct json *name;
    const struct json *type;
    const struct json *len;
    const struct json *value;
};

/* ---- the file's name ---- */

/* The family is found by its name with a shell command, and the name is a key of the data file. */
static void check_family_name(const struct family *family)
{
    char why[WHY_SIZE];

    if (!text_survives(family->name, strlen(family->name), why))
        fault(family->path, 1, "the file's name: %s", why);
    else if (strpbrk(family->name, "$`*?[") != NULL)
        fault(family->path, 1, "the file's name: the library does not find names with $ ` * ? [");
    else if (strlen(family->name) > FOUND_MAX)
        fault(family->path, 1, "the file's name: the library does not find more than %d bytes",
              FOUND_MAX);
    else if (*family->name != '\0' && family->name[strlen(family->name) - 1] == ' ')
        fault(family->path, 1, "the file's name: the library does not find a blank at the end");
}

/* ---- one element ---- */

static const char *label(char text[LABEL_SIZE], const struct element *element, const char *what)
{
    const char *name =
        element->name != NULL && element->name->text != NULL ? element->name->text : "";

    snprintf(text, LABEL_SIZE, "%s of \"%.60s\"", what, name);
    return text;
}

/* Reports what is missing; false when the library would skip the element. */
static bool is_complete(const char *path, const struct json *object, const struct element *element)
{
    const struct {
        const char *name;
        const struct json *value;
    } members[] = {{"name", element->name},
                   {"type", element->type},
                   {"len", element->len},
                   {"value", element->value}};
    bool complete = true;
    char text[LABEL_SIZE];
    size_t i;

    for (i = 0; i < sizeof(members) / sizeof(members[0]); i++) {
        if (members[i].value != NULL)
            continue;
        fault(path, object->line, "%s is missing: the parameter is skipped",
              element->name == NULL ? members[i].name : label(text, element, members[i].name));
        complete = false;
    }
    return complete;
}

/* A len outside the limits, or that is not the size of the type. */
static void check_len(const char *path, const struct element *element,
                      const struct parameter *parameter)
{
    unsigned line = element->len->line;

    if (parameter->len > LEN_MAX)
        fault(path, line, "len %" PRId32 " is above %d: the parameter is skipped", parameter->len,
              LEN_MAX);
    else if (parameter->len < 0)
        fault(path, line, "len %" PRId32 " is negative: the image shrinks", parameter->len);
    else if (parameter->type != NULL && parameter->type->size != 0 &&
             parameter->len != parameter->type->size)
        fault(path, line, "len %" PRId32 " does not fit type %s, which takes %" PRId32,
              parameter->len, parameter->type->name, parameter->type->size);
    else if (parameter->len == 0)
        fault(path, line, "len 0 has no room for anything");
}

static void check_value(const char *path, const struct element *element,
                        const struct parameter *parameter)
{
    char text[LABEL_SIZE], why[WHY_SIZE];

    if (take_text(path, element->value, label(text, element, "value")) == NULL)
        return;
    check_survives(path, element->value, text);
    if (parameter->type != NULL && parameter->len > 0 && parameter->len <= LEN_MAX &&
        !value_fits(parameter->type, parameter->len, element->value->text, why))
        fault(path, element->value->line, "%s: %s", text, why);
}

static void check_name(const char *path, const struct element *element, struct seen *seen)
{
    const struct json *name = element->name;
    unsigned first;

    if (take_text(path, name, "name") == NULL)
        return;
    if (name->length == 0)
        fault(path, name->line, "name is empty");
    check_survives(path, name, "name");
    first = seen_add(seen, name->text, name->length, name->line);
    if (first != 0)
        fault(path, name->line, "duplicate parameter \"%.80s\", first in line %u", name->text,
              first);
}

static void check_type(const char *path, const struct element *element, struct parameter *parameter)
{
    if (take_text(path, element->type, "type") == NULL)
        return;
    parameter->type = value_type_find(element->type->text);
    if (parameter->type == NULL)
        fault(path, element->type->line,
              "unknown type '%.60s' (there are string, char, uchar, short, ushort, int, uint, mac "
              "and ip)",
              element->type->text);
}

/* Checks an element; false when the library would skip it. */
static bool read_element(const char *path, const struct json *object, struct parameter *parameter,
                         struct seen *seen)
{
    const struct element element = {json_member(object, "name"), json_member(object, "type"),
                                    json_member(object, "len"), json_member(object, "value")};
    char text[LABEL_SIZE];
    bool has_len = false;

    memset(parameter, 0, sizeof(*parameter));
    if (object->type != JSON_OBJECT) {
        fault(path, object->line, "an element of \"para\" is no object: it is skipped");
        return false;
    }
    check_names_once(path, object);
    if (!is_complete(path, object, &element))
        return false;

    check_name(path, &element, seen);
    check_type(path, &element, parameter);
    has_len = take_number(path, element.len, label(text, &element, "len"), &parameter->len);
    if (has_len)
        check_len(path, &element, parameter);
    check_value(path, &element, parameter);
    parameter->name = element.name->text;
    return has_len && parameter->len <= LEN_MAX && parameter->name != NULL;
}

/* ---- the whole ---- */

static void read_elements(struct family *family, const struct json *para, struct seen *seen)
{
    const struct json *object;
    struct parameter parameter;

    for (object = para->first; object != NULL; object = object->next) {
        if (!read_element(family->path, object, &parameter, seen) ||
            family->count == PARAMETERS_MAX)
            continue;
        family->parameters[family->count++] = parameter;
        family->size += parameter.len;
    }
}

static bool read_para(struct family *family, const struct json *para)
{
    size_t count = json_count(para);
    struct seen seen;

    if (count == 0)
        fault(family->path, para->line, "\"para\" is empty: the family holds nothing");
    if (count > PARAMETERS_MAX)
        fault(family->path, para->line,
              "%zu parameters are more than the %d that the library takes: it takes none", count,
              PARAMETERS_MAX);
    if (!seen_init(&seen, count)) {
        file_trouble(family->path, "out of memory");
        return false;
    }
    read_elements(family, para, &seen);
    seen_free(&seen);
    return family->count > 0 && count <= PARAMETERS_MAX;
}

/* The names of the two functions are optional. */
static void check_function(const struct family *family, const char *member)
{
    const struct json *value = json_member(family->tree, member);

    if (value != NULL && take_text(family->path, value, member) != NULL &&
        value->length > FIELD_MAX)
        fault(family->path, value->line, "%s: its %zu bytes are more than %d", member,
              value->length, FIELD_MAX);
}

bool family_read(struct family *family, const char *path)
{
    const char *slash = strrchr(path, '/');
    const struct json *para;

    memset(family, 0, sizeof(*family));
    family->path = path;
    family->name = slash == NULL ? path : slash + 1;
    check_family_name(family);
    family->tree = read_json(path);
    if (family->tree == NULL)
        return false;
    if (family->tree->type != JSON_OBJECT) {
        fault(path, family->tree->line, "a template is an object with \"para\"");
        return false;
    }
    check_names_once(path, family->tree);
    check_function(family, "getfunc");
    check_function(family, "setfunc");
    para = json_member(family->tree, "para");
    if (para == NULL || para->type != JSON_ARRAY) {
        fault(path, para == NULL ? family->tree->line : para->line, "\"para\" is %s",
              para == NULL ? "missing" : "no array");
        return false;
    }
    return read_para(family, para);
}

void family_free(struct family *family)
{
    json_free(family->tree);
    family->tree = NULL;
}

const struct parameter *family_find(const struct family *family, const char *name)
{
    size_t i;

    for (i = 0; i < family->count; i++)
        if (strcmp(family->parameters[i].name, name) == 0)
            return &family->parameters[i];
    return NULL;
}
