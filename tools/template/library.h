/* The templates of a folder, read when their family is first asked for. */
#ifndef TOOLS_TEMPLATE_LIBRARY_H
#define TOOLS_TEMPLATE_LIBRARY_H

#include "template/family.h"

/* Finds all files below a folder; false after having said why not. */
bool library_open(const char *folder);
void library_close(void);

enum library_result { LIBRARY_FOUND, LIBRARY_NONE, LIBRARY_SEVERAL, LIBRARY_UNUSABLE };

/* The family of a name: the one file of that name, in whatever folder, or the file of that path,
 * as the database looks for it. Its template is checked, and its faults reported, the first time.
 */
enum library_result library_find(const char *name, const struct family **family);

#endif
