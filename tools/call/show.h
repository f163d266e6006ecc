/* What comes back from a call, for whoever made it. */
#ifndef TOOLS_CALL_SHOW_H
#define TOOLS_CALL_SHOW_H

#include "call/bytes.h"

enum form { FORM_DEFAULT, FORM_HEX, FORM_TEXT, FORM_PARAMETERS, FORM_NOTHING };

struct showing {
    enum form form;
    const char *write; /* file that takes the bytes as they are, or NULL */
};

/* Says on the standard error output what the function returned, with the name of the library's
 * code of that number. */
void show_result(uint32_t result, const struct bytes *bytes);

/* Prints and writes the bytes; a family's image in them begins at `offset`. False after having said
 * what could not be. */
bool show_bytes(const struct showing *showing, const struct bytes *bytes, size_t offset);

#endif
