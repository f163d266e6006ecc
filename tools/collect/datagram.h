/*
 * The debug datagram: ten bytes, big-endian, and a text without a terminating zero.
 *
 *   0  category (low 5 bits; the others are 0)     4-5  length of the whole datagram
 *   1  level                                       6-7  tag of whoever sent it
 *   2-3  module                                    8-9  length of tag, this length and the text
 */
#ifndef TOOLS_COLLECT_DATAGRAM_H
#define TOOLS_COLLECT_DATAGRAM_H

#include <stddef.h>
#include <stdint.h>

struct datagram {
    unsigned category;
    unsigned level;
    unsigned module;
    unsigned tag;
    const uint8_t *text; /* in the bytes that were read, not terminated */
    size_t length;       /* of the text */
};

/* Takes a datagram apart. Gives back what is wrong with it, or NULL when it is a debug message. */
const char *datagram_read(struct datagram *datagram, const uint8_t *bytes, size_t length);

#endif
