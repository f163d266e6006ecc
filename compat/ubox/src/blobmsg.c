// SPDX-License-Identifier: ISC
// Building named fields: extended attributes whose payload starts with the name.

#include <libubox/blobmsg.h>

// Appends a field with its name header filled in and its data left to the caller.
static struct blob_attr *new_field(struct blob_buf *buf, int type, const char *name,
                                   unsigned int len)
{
    size_t namelen = name != NULL ? strlen(name) : 0;
    if (namelen > UINT16_MAX)
        return NULL;

    size_t hdrlen = (size_t)blobmsg_hdrlen((unsigned int)namelen);
    if (len > BLOB_ATTR_LEN_MASK)
        return NULL;

    struct blob_attr *attr = blob_new(buf, type, (int)(hdrlen + len));
    if (attr == NULL)
        return NULL;

    attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
    struct blobmsg_hdr *hdr = blob_data(attr);
    memset(hdr, 0, hdrlen);
    hdr->namelen = cpu_to_be16(namelen);
    if (namelen > 0)
        memcpy(hdr->name, name, namelen);
    return attr;
}

int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data,
                      unsigned int len)
{
    if (data == NULL && len > 0)
        return -1;

    struct blob_attr *attr = new_field(buf, type, name, len);
    if (attr == NULL)
        return -1;

    if (len > 0)
        memcpy(blobmsg_data(attr), data, len);
    return 0;
}

void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array)
{
    if (buf->head == NULL)
        return NULL;

    uintptr_t parent = (uintptr_t)((char *)buf->head - (char *)buf->buf);
    struct blob_attr *child =
        new_field(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0);
    if (child == NULL)
        return NULL;

    // Closing adds the child's whole payload, its name header included, to the parent.
    blob_set_raw_len(buf->head, (unsigned int)(blob_raw_len(buf->head) - blob_len(child)));
    buf->head = child;
    return (void *)(parent + BLOB_COOKIE);
}
