/* The bytes of a call: put together from the command line, and shown. */
#ifndef TOOLS_CALL_BYTES_H
#define TOOLS_CALL_BYTES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/* The bus carries messages of up to 1 MiB, with what goes around the bytes. */
enum { BYTES_MAX = 1000000 };

struct bytes {
    uint8_t data[BYTES_MAX]; /* zero behind `length` */
    size_t length;
};

/* Each appends; false, with nothing appended, when it does not fit or is not what it should be. */
bool bytes_add(struct bytes *bytes, const void *data, size_t length);
bool bytes_add_hex(struct bytes *bytes, const char *text); /* blanks and colons between bytes */
bool bytes_add_file(struct bytes *bytes, FILE *file);

/* Prints 16 bytes a line: offset, hexadecimal, and as text. */
void print_hex(FILE *to, const uint8_t *data, size_t length);

#endif
