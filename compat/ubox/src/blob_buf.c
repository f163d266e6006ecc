// SPDX-License-Identifier: ISC
// Building buffers of attributes.
//
// A buffer is one outermost attribute. New ones go to the end of `head`, which is that outermost
// one or the innermost open nest. Positions are kept as offsets while the buffer may move.

#include <libubox/blob.h>

enum {
    kMaxBuffer = 0xfffffc, // the largest multiple of 4 that the outermost length's 24 bits can hold
    kGrowStep = 256,
};

static uint64_t padded(uint64_t len)
{
    return (len + BLOB_ATTR_ALIGN - 1) / BLOB_ATTR_ALIGN * BLOB_ATTR_ALIGN;
}

static uint64_t offset_of(const struct blob_buf *buf, const struct blob_attr *attr)
{
    return (uint64_t)((const char *)attr - (const char *)buf->buf);
}

static struct blob_attr *attr_at(const struct blob_buf *buf, uint64_t offset)
{
    return (struct blob_attr *)((char *)buf->buf + offset);
}

// Where the next attribute goes.
static uint64_t end_of_head(const struct blob_buf *buf)
{
    return offset_of(buf, buf->head) + blob_pad_len(buf->head);
}

static bool grow_in_steps(struct blob_buf *buf, int missing)
{
    size_t old_size = (size_t)buf->buflen;
    size_t added = ((size_t)missing / kGrowStep + 1) * kGrowStep;
    char *mem = realloc(buf->buf, old_size + added);

    if (mem == NULL)
        return false;

    memset(mem + old_size, 0, added);
    buf->buf = mem;
    buf->buflen = (int)(old_size + added);
    return true;
}

// Makes room for the bytes up to `end` and their padding.
static bool reserve(struct blob_buf *buf, uint64_t end)
{
    uint64_t size = padded(end);
    if (size > kMaxBuffer)
        return false;

    // The caller's own grow may hand out exactly what is asked for, or less.
    while (size > (uint64_t)buf->buflen) {
        uint64_t old_size = (uint64_t)buf->buflen;
        uint64_t wanted = end > old_size ? end : size;
        if (!blob_buf_grow(buf, (int)(wanted - old_size)))
            return false;
        if ((uint64_t)buf->buflen <= old_size)
            return false;
    }
    return true;
}

static struct blob_attr *write_header(struct blob_buf *buf, uint64_t offset, int id,
                                      uint64_t payload)
{
    uint64_t raw_len = sizeof(struct blob_attr) + payload;
    if (!reserve(buf, offset + raw_len))
        return NULL;

    struct blob_attr *attr = attr_at(buf, offset);
    uint32_t id_bits = (uint32_t)id << BLOB_ATTR_ID_SHIFT & BLOB_ATTR_ID_MASK;
    attr->id_len = cpu_to_be32(id_bits | (uint32_t)raw_len);
    blob_fill_pad(attr);
    return attr;
}

static struct blob_attr *append(struct blob_buf *buf, int id, uint64_t payload)
{
    if (buf->head == NULL)
        return NULL;

    struct blob_attr *attr = write_header(buf, end_of_head(buf), id, payload);
    if (attr == NULL)
        return NULL;

    blob_set_raw_len(buf->head, (unsigned int)(blob_pad_len(buf->head) + blob_pad_len(attr)));
    return attr;
}

int blob_buf_init(struct blob_buf *buf, int id)
{
    if (buf->grow == NULL)
        buf->grow = grow_in_steps;

    buf->head = NULL;
    buf->head = write_header(buf, 0, id, 0);
    return buf->head != NULL ? 0 : -ENOMEM;
}

void blob_buf_free(struct blob_buf *buf)
{
    free(buf->buf);
    buf->buf = NULL;
    buf->head = NULL;
    buf->buflen = 0;
}

bool blob_buf_grow(struct blob_buf *buf, int required)
{
    uint64_t head = buf->head != NULL ? offset_of(buf, buf->head) : 0;
    if (required < 0 || (int64_t)buf->buflen + required > BLOB_ATTR_LEN_MASK)
        return false;
    if (buf->grow == NULL || !buf->grow(buf, required))
        return false;

    if (buf->head != NULL)
        buf->head = attr_at(buf, head);
    return true;
}

struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload)
{
    return payload < 0 ? NULL : append(buf, id, (uint64_t)payload);
}

struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len)
{
    struct blob_attr *attr = append(buf, id, len);
    if (attr != NULL && ptr != NULL && len > 0)
        memcpy(blob_data(attr), ptr, len);
    return attr;
}

struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len)
{
    if (buf->head == NULL || ptr == NULL || len < sizeof(struct blob_attr))
        return NULL;

    uint64_t offset = end_of_head(buf);
    if (!reserve(buf, offset + len))
        return NULL;

    // The bytes may end in the middle of a word: the gap is zeroed now and counted by the next
    // attribute.
    char *copy = (char *)attr_at(buf, offset);
    memcpy(copy, ptr, len);
    memset(copy + len, 0, (size_t)(padded(len) - len));
    blob_set_raw_len(buf->head, (unsigned int)(blob_pad_len(buf->head) + len));
    return (struct blob_attr *)copy;
}

// A cookie is the parent's offset, which stays true when the buffer moves, on top of a constant
// that keeps it from being NULL.
void *blob_nest_start(struct blob_buf *buf, int id)
{
    if (buf->head == NULL)
        return NULL;

    uintptr_t parent = (uintptr_t)offset_of(buf, buf->head);
    struct blob_attr *child = append(buf, id, 0);
    if (child == NULL)
        return NULL;

    buf->head = child;
    return (void *)(parent + BLOB_COOKIE);
}

void blob_nest_end(struct blob_buf *buf, void *cookie)
{
    if (cookie == NULL)
        return;

    struct blob_attr *parent = attr_at(buf, (uintptr_t)cookie - BLOB_COOKIE);
    blob_set_raw_len(parent, (unsigned int)(blob_pad_len(parent) + blob_len(buf->head)));
    buf->head = parent;
}
