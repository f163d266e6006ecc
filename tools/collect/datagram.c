/* The debug datagram, read strictly: whatever the library would not have sent is malformed. */
#include "collect/datagram.h"

enum { HEAD = 10, ELEMENT = 6, CATEGORY_BITS = 5 };

static unsigned get_be16(const uint8_t *at)
{
    return (unsigned)at[0] << 8 | at[1];
}

const char *datagram_read(struct datagram *datagram, const uint8_t *bytes, size_t length)
{
    if (length < HEAD)
        return "shorter than its head";
    if (bytes[0] >> CATEGORY_BITS != 0)
        return "a category above 31";
    if (get_be16(bytes + 4) != length)
        return "a total length other than its size";
    if (get_be16(bytes + 8) != length - ELEMENT)
        return "an element length that does not fit its size";

    datagram->category = bytes[0];
    datagram->level = bytes[1];
    datagram->module = get_be16(bytes + 2);
    datagram->tag = get_be16(bytes + 6);
    datagram->text = bytes + HEAD;
    datagram->length = length - HEAD;
    return NULL;
}
