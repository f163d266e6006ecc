/* A C header with the packed structure of a family. */
#ifndef TOOLS_TEMPLATE_HEADER_H
#define TOOLS_TEMPLATE_HEADER_H

#include <stdio.h>

#include "template/family.h"

/* Writes the header for a family without faults. `structure` names the structure; NULL makes a
 * name from the family's. False when memory is short. */
bool header_write(FILE *to, const struct family *family, const char *structure);

#endif
