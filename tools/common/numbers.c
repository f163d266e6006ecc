/* Numbers and lists of them, from the command line. */
#include "common/numbers.h"

#include <stddef.h>

/* Reads digits; gives back where they end, or NULL when there are none or the number is too big. */
static const char *read_number(const char *text, unsigned highest, unsigned *number)
{
    const char *at = text;

    *number = 0;
    for (; *at >= '0' && *at <= '9'; at++) {
        *number = *number * 10 + (unsigned)(*at - '0');
        if (*number > highest)
            return NULL;
    }
    return at == text ? NULL : at;
}

bool number_parse(const char *text, unsigned highest, unsigned *number)
{
    const char *end = read_number(text, highest, number);

    return end != NULL && *end == '\0';
}

bool numbers_add(struct numbers *numbers, const char *text, unsigned highest)
{
    const char *at = text;
    unsigned first, last;

    for (;;) {
        at = read_number(at, highest, &first);
        last = first;
        if (at != NULL && *at == '-')
            at = read_number(at + 1, highest, &last);
        if (at == NULL || last < first || numbers->count == NUMBERS_MAX)
            return false;
        numbers->range[numbers->count].first = first;
        numbers->range[numbers->count].last = last;
        numbers->count++;
        if (*at == '\0')
            return true;
        if (*at++ != ',')
            return false;
    }
}

bool numbers_match(const struct numbers *numbers, unsigned number)
{
    unsigned i;

    for (i = 0; i < numbers->count; i++)
        if (number >= numbers->range[i].first && number <= numbers->range[i].last)
            return true;
    return numbers->count == 0;
}
