/* Lists of numbers as people write them: 0,2-4,7 */
#ifndef TOOLS_COMMON_NUMBERS_H
#define TOOLS_COMMON_NUMBERS_H

#include <stdbool.h>

enum { NUMBERS_MAX = 32 };

/* Ranges, both ends included. A zeroed list has none. */
struct numbers {
    unsigned count;
    struct {
        unsigned first;
        unsigned last;
    } range[NUMBERS_MAX];
};

/* Reads a whole decimal number up to `highest`; false when `text` is anything else. */
bool number_parse(const char *text, unsigned highest, unsigned *number);

/* Adds what a text lists; false when it is no list of numbers up to `highest`, or too long. */
bool numbers_add(struct numbers *numbers, const char *text, unsigned highest);

/* Whether a number is in the list. The empty list is no restriction: everything is in it. */
bool numbers_match(const struct numbers *numbers, unsigned number);

#endif
