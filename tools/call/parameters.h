/* The image of a parameter family within the bytes of a call. */
#ifndef TOOLS_CALL_PARAMETERS_H
#define TOOLS_CALL_PARAMETERS_H

#include "call/bytes.h"

/* Reads a template: a path, or a file's name in /etc/template. False after having said why not. */
bool parameters_open(const char *name);

/* Puts the image at `offset` into the bytes: those that were given stay, where there are none the
 * template's defaults are put. False after having said why not. */
bool parameters_place(struct bytes *bytes, size_t offset);

/* Stores one NAME=VALUE in the image at `offset`. False after having said why not. */
bool parameters_set(struct bytes *bytes, size_t offset, const char *assignment);

/* Prints NAME=VALUE for each parameter. False after having said that the bytes end before the
 * image. */
bool parameters_print(const struct bytes *bytes, size_t offset);

#endif
