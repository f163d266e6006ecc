/* Checks data files against the templates of their families. */
#ifndef TOOLS_TEMPLATE_DATA_H
#define TOOLS_TEMPLATE_DATA_H

/* Reads a data file and reports every fault; the templates come from the opened library. */
void data_check(const char *path);

#endif
