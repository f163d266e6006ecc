// SPDX-License-Identifier: ISC
// Single attributes, and sorting the children of one by id. Whatever the bytes are, nothing is
// read beyond the length the caller gives.

#include <libubox/blob.h>

void blob_fill_pad(struct blob_attr *attr)
{
    size_t raw_len = blob_raw_len(attr);
    memset((char *)attr + raw_len, 0, blob_pad_len(attr) - raw_len);
}

void blob_set_raw_len(struct blob_attr *attr, unsigned int len)
{
    uint32_t id_bits = be32_to_cpu(attr->id_len) & ~(uint32_t)BLOB_ATTR_LEN_MASK;
    attr->id_len = cpu_to_be32(id_bits | (len & BLOB_ATTR_LEN_MASK));
}

bool blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2)
{
    if (a1 == NULL || a2 == NULL)
        return a1 == a2;
    if (blob_pad_len(a1) != blob_pad_len(a2))
        return false;
    return memcmp(a1, a2, blob_pad_len(a1)) == 0;
}

struct blob_attr *blob_memdup(const struct blob_attr *attr)
{
    size_t size = blob_pad_len(attr);
    struct blob_attr *copy = malloc(size);
    return copy != NULL ? memcpy(copy, attr, size) : NULL;
}

bool blob_check_type(const void *ptr, unsigned int len, int type)
{
    switch (type) {
    case BLOB_ATTR_UNSPEC:
    case BLOB_ATTR_NESTED:
    case BLOB_ATTR_BINARY:
        return true;
    case BLOB_ATTR_STRING:
        return len > 0 && ((const char *)ptr)[len - 1] == '\0';
    case BLOB_ATTR_INT8:
        return len == 1;
    case BLOB_ATTR_INT16:
        return len == 2;
    case BLOB_ATTR_INT32:
        return len == 4;
    case BLOB_ATTR_INT64:
        return len == 8;
    case BLOB_ATTR_DOUBLE:
        return len >= 8;
    default:
        return false;
    }
}

static bool acceptable(const struct blob_attr_info *info, struct blob_attr *attr)
{
    size_t raw_len = blob_raw_len(attr);
    if (info->type < BLOB_ATTR_LAST &&
        !blob_check_type(blob_data(attr), (unsigned int)blob_len(attr), (int)info->type))
        return false;
    if (info->minlen != 0 && raw_len < info->minlen)
        return false;
    if (info->maxlen != 0 && raw_len > info->maxlen)
        return false;
    return info->validate == NULL || info->validate(info, attr);
}

int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info,
               int max)
{
    struct blob_attr *pos;
    size_t rem;
    int found = 0;

    for (int i = 0; i < max; i++)
        data[i] = NULL;

    blob_for_each_attr(pos, attr, rem)
    {
        int id = (int)blob_id(pos);
        if (id >= max || blob_raw_len(pos) < sizeof(struct blob_attr))
            continue;
        if (info != NULL && !acceptable(&info[id], pos))
            continue;

        if (data[id] == NULL)
            found++;
        data[id] = pos;
    }
    return found;
}

int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max)
{
    if (attr == NULL || attr_len < sizeof(struct blob_attr) || attr_len < blob_raw_len(attr))
        return 0;
    return blob_parse(attr, data, info, max);
}
