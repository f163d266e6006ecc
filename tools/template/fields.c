/* Taking values out of a parsed file. */
#include "template/fields.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "template/fault.h"
#include "template/seen.h"
#include "template/values.h"

size_t json_count(const struct json *value)
{
    const struct json *child;
    size_t count = 0;

    for (child = value->first; child != NULL; child = child->next)
        count++;
    return count;
}

void check_names_once(const char *path, const struct json *object)
{
    const struct json *member;
    struct seen seen;
    unsigned first;

    if (!seen_init(&seen, json_count(object))) {
        file_trouble(path, "out of memory");
        return;
    }
    for (member = object->first; member != NULL; member = member->next) {
        /* For the library a name ends at its first zero byte. */
        first = seen_add(&seen, member->name, strlen(member->name), member->name_line);
        if (first != 0)
            fault(path, member->name_line, "duplicate name \"%.80s\", first in line %u",
                  member->name, first);
    }
    seen_free(&seen);
}

/* Whether a number without quotes is the text that the library makes of it: whole ones go through
 * 64 bits there, others stay as they stand. */
static bool number_stays(const char *text)
{
    if (strpbrk(text, ".eE") != NULL)
        return true;
    errno = 0;
    if (*text == '-')
        return strtoll(text, NULL, 10) != 0 && errno == 0;
    return strtoull(text, NULL, 10) != ULLONG_MAX || errno == 0;
}

const char *take_text(const char *path, const struct json *value, const char *what)
{
    if (value->text == NULL) {
        fault(path, value->line, "%.100s is no text", what);
        return NULL;
    }
    if (value->type == JSON_NUMBER && !number_stays(value->text)) {
        fault(path, value->line, "%.100s: the library changes %.40s, which needs quotes", what,
              value->text);
        return NULL;
    }
    return value->text;
}

bool take_number(const char *path, const struct json *value, const char *what, int32_t *number)
{
    int64_t wide;

    if (value->text == NULL || !value_number(value->text, &wide)) {
        fault(path, value->line, "%.100s is no whole number", what);
        return false;
    }
    if (wide < INT32_MIN || wide > INT32_MAX) {
        fault(path, value->line, "%.100s is beyond 32 bits", what);
        return false;
    }
    *number = (int32_t)wide;
    return true;
}

void check_survives(const char *path, const struct json *value, const char *what)
{
    char why[WHY_SIZE];

    if (value->text != NULL && !text_survives(value->text, value->length, why))
        fault(path, value->line, "%.100s: %s", what, why);
}

void check_name_survives(const char *path, const struct json *member, const char *what)
{
    char why[WHY_SIZE];

    if (!text_survives(member->name, member->name_length, why))
        fault(path, member->name_line, "%.100s: %s", what, why);
}
