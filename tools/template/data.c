/*
 * Checks a data file.
 *
 *   {"FAMILY": [{"inst": "1", "para": {"NAME": "VALUE", ...}}, ...], ...}
 *
 * What the database skips when it loads the file, and what it fills in from elsewhere, is a fault.
 */
#include "template/data.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "template/fault.h"
#include "template/fields.h"
#include "template/library.h"
#include "template/seen.h"

enum { LABEL_SIZE = 96 };

/* What is being checked. */
struct place {
    const char *path;
    const struct family *family;
};

/* ---- one instance ---- */

static void check_value(const struct place *place, const struct json *member)
{
    const struct parameter *parameter = family_find(place->family, member->name);
    char label[LABEL_SIZE], why[WHY_SIZE];

    if (parameter == NULL) {
        fault(place->path, member->name_line, "%.60s has no parameter \"%.60s\"",
              place->family->name, member->name);
        return;
    }
    snprintf(label, sizeof(label), "\"%.60s\"", member->name);
    if (take_text(place->path, member, label) == NULL)
        return;
    check_survives(place->path, member, label);
    if (parameter->type != NULL && parameter->len > 0 &&
        !value_fits(parameter->type, parameter->len, member->text, why))
        fault(place->path, member->line, "%s: %s", label, why);
}

/* What is not there is not the default: the database goes on with the text it had last. */
static void check_missing(const struct place *place, const struct json *para, bool first)
{
    size_t i;

    for (i = 0; i < place->family->count; i++) {
        const char *name = place->family->parameters[i].name;

        if (json_member(para, name) == NULL)
            fault(place->path, para->line, "\"%.60s\" is missing: it takes %s", name,
                  first ? "the template's default" : "the value of the element before");
    }
}

static void check_para(const struct place *place, const struct json *para, bool first)
{
    const struct json *member;

    if (para->type != JSON_OBJECT) {
        fault(place->path, para->line, "\"para\" is no object");
        return;
    }
    check_names_once(place->path, para);
    for (member = para->first; member != NULL; member = member->next)
        check_value(place, member);
    check_missing(place, para, first);
}

/* Reads the number of an element; false when the database would skip the element. */
static bool read_number(const struct place *place, const struct json *element, int32_t *number)
{
    const struct json *inst = json_member(element, "inst");
    const struct json *para = json_member(element, "para");

    if (element->type != JSON_OBJECT) {
        fault(place->path, element->line, "an element is no object: it is skipped");
        return false;
    }
    check_names_once(place->path, element);
    if (inst == NULL || para == NULL) {
        fault(place->path, element->line, "\"%s\" is missing: the element is skipped",
              inst == NULL ? "inst" : "para");
        return false;
    }
    return take_number(place->path, inst, "\"inst\"", number);
}

/* ---- a family ---- */

/* `numbers` has a place for every element: what was seen refers to it. */
static void check_elements(const struct place *place, const struct json *array, int32_t *numbers,
                           struct seen *seen)
{
    const struct json *element;
    bool first = true;
    unsigned line;

    for (element = array->first; element != NULL; element = element->next, numbers++) {
        if (!read_number(place, element, numbers))
            continue;
        line = seen_add(seen, numbers, sizeof(*numbers), element->line);
        if (line != 0)
            fault(place->path, element->line,
                  "duplicate instance %d, first in line %u, which it replaces", (int)*numbers,
                  line);
        check_para(place, json_member(element, "para"), first);
        first = false;
    }
}

static void check_array(const struct place *place, const struct json *array)
{
    size_t count = json_count(array);
    int32_t *numbers = calloc(count + 1, sizeof(*numbers));
    struct seen seen = {NULL, 0};

    if (numbers == NULL || !seen_init(&seen, count))
        file_trouble(place->path, "out of memory");
    else
        check_elements(place, array, numbers, &seen);
    seen_free(&seen);
    free(numbers);
}

static void check_family(const char *path, const struct json *member)
{
    struct place place = {path, NULL};

    check_name_survives(path, member, "name of a family");
    switch (library_find(member->name, &place.family)) {
    case LIBRARY_NONE:
        fault(path, member->name_line, "unknown family \"%.80s\": there is no such template",
              member->name);
        return;
    case LIBRARY_SEVERAL:
        fault(path, member->name_line, "several templates are called \"%.80s\": none is taken",
              member->name);
        return;
    case LIBRARY_UNUSABLE:
        fault(path, member->name_line, "the template of \"%.80s\" has no usable parameters",
              member->name);
        return;
    case LIBRARY_FOUND:
        break;
    }
    if (member->type != JSON_ARRAY)
        fault(path, member->line, "\"%.80s\" is no array: no instance is taken", member->name);
    else
        check_array(&place, member);
}

void data_check(const char *path)
{
    struct json *tree = read_json(path);
    const struct json *member;

    if (tree == NULL)
        return;
    if (tree->type == JSON_OBJECT) {
        check_names_once(path, tree);
        for (member = tree->first; member != NULL; member = member->next)
            check_family(path, member);
    } else {
        fault(path, tree->line, "a data file is an object of families");
    }
    json_free(tree);
}
