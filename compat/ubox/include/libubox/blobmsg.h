/* SPDX-License-Identifier: ISC */
/**
 * Messages of named, typed fields, built from extended blob attributes.
 *
 * The payload of such an attribute starts with the length of the name (16 bits, big-endian),
 * the name and its NUL, padded to a multiple of 4; the data follow. The id is the type.
 * Numbers are big-endian, strings include their NUL, and the elements of an array have empty
 * names.
 */
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include <stdarg.h>

#include "blob.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BLOBMSG_ALIGN 2
#define BLOBMSG_PADDING(len) (((len) + 3) / 4 * 4)

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC,
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE,
    __BLOBMSG_TYPE_LAST,
    BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
    BLOBMSG_CAST_INT64 = __BLOBMSG_TYPE_LAST /**< in policies only: any of the integers */
};

#ifdef __clang__ /* C++: flexible array members draw a pedantic warning */
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wpedantic"
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif
struct blobmsg_hdr {
    uint16_t namelen; /**< big-endian, without the NUL */
    __extension__ uint8_t name[];
} __packed;
#ifdef __clang__
#pragma clang diagnostic pop
#endif

struct blobmsg_policy {
    const char *name;       /**< NULL takes nothing */
    enum blobmsg_type type; /**< BLOBMSG_TYPE_UNSPEC takes any */
};

/** Size of the name header for a name of this length. */
static inline int blobmsg_hdrlen(unsigned int namelen)
{
    return (int)BLOBMSG_PADDING((unsigned int)sizeof(struct blobmsg_hdr) + namelen + 1);
}

static inline const char *blobmsg_name(const struct blob_attr *attr)
{
    return attr->data + sizeof(struct blobmsg_hdr);
}

static inline int blobmsg_type(const struct blob_attr *attr)
{
    return (int)blob_id(attr);
}

static inline uint16_t blobmsg_namelen(const struct blobmsg_hdr *hdr)
{
    return be16_to_cpu(hdr->namelen);
}

/** Bytes between the attribute's header and its data. */
static inline size_t __blobmsg_data_offset(const struct blob_attr *attr)
{
    if (!blob_is_extended(attr))
        return 0;

    return (size_t)blobmsg_hdrlen(blobmsg_namelen((const struct blobmsg_hdr *)blob_data(attr)));
}

static inline void *blobmsg_data(const struct blob_attr *attr)
{
    return attr ? (char *)blob_data(attr) + __blobmsg_data_offset(attr) : NULL;
}

/** Wraps when the header is malformed. */
static inline size_t blobmsg_data_len(const struct blob_attr *attr)
{
    return attr ? blob_len(attr) - __blobmsg_data_offset(attr) : 0;
}

static inline size_t blobmsg_len(const struct blob_attr *attr)
{
    return blobmsg_data_len(attr);
}

/**
 * Whether an attribute is well-formed: its lengths, its name header (with `name` it must have
 * a name that is not empty) and, for strings and numbers, its data. The _len forms take the
 * number of bytes that can be read at attr; the others trust the attribute's own length.
 */
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);

/** Whether all elements of a table or array are well-formed and of one type (0: of any). */
bool blobmsg_check_attr_list(const struct blob_attr *attr, int type);
bool blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t len);

/** The same, with the number of elements as result, or -1. */
int blobmsg_check_array(const struct blob_attr *attr, int type);
int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t len);

/**
 * Finds the fields that policy names among the len bytes of fields at data, the first
 * suitable one for each slot of tb. 0, -1 when a field is malformed (the slots filled before
 * it stay), or -EINVAL when there are no bytes at all.
 */
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                  void *data, unsigned int len);

/** Fills the slots in order with elements of the types in policy; names do not matter. 0, or
 * -1 when an element to be taken is malformed. */
int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                        void *data, unsigned int len);

static inline int blobmsg_parse_attr(const struct blobmsg_policy *policy, int policy_len,
                                     struct blob_attr **tb, struct blob_attr *data)
{
    return blobmsg_parse(policy, policy_len, tb, blobmsg_data(data),
                         (unsigned int)blobmsg_len(data));
}

static inline int blobmsg_parse_array_attr(const struct blobmsg_policy *policy, int policy_len,
                                           struct blob_attr **tb, struct blob_attr *data)
{
    return blobmsg_parse_array(policy, policy_len, tb, blobmsg_data(data),
                               (unsigned int)blobmsg_len(data));
}

/**
 * Appends a field: 0, or -1 with the buffer unchanged. A null name is an empty one. Neither
 * the type nor whether the data suit it is checked here; the receiver does that.
 */
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data,
                      unsigned int len);

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t val)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &val, sizeof(val));
}

static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t val)
{
    val = cpu_to_be16(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &val, sizeof(val));
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t val)
{
    val = cpu_to_be32(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &val, sizeof(val));
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t val)
{
    val = cpu_to_be64(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &val, sizeof(val));
}

static inline int blobmsg_add_double(struct blob_buf *buf, const char *name, double val)
{
    uint64_t image;
    memcpy(&image, &val, sizeof(image));
    image = cpu_to_be64(image);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &image, sizeof(image));
}

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string)
{
    size_t size = strlen(string) + 1;
    if (size > BLOB_ATTR_LEN_MASK)
        return -1;

    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string, (unsigned int)size);
}

/** Copies type, name and data of an existing field. */
static inline int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr)
{
    return blobmsg_add_field(buf, blobmsg_type(attr), blobmsg_name(attr), blobmsg_data(attr),
                             (unsigned int)blobmsg_data_len(attr));
}

/** Opens a table or array that the fields added from now on go into; returns what the close
 * needs, or NULL with the buffer unchanged. */
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name)
{
    return blobmsg_open_nested(buf, name, true);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name)
{
    return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie)
{
    blob_nest_end(buf, cookie);
}

static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie)
{
    blob_nest_end(buf, cookie);
}

static inline int blobmsg_buf_init(struct blob_buf *buf)
{
    return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

static inline uint8_t blobmsg_get_u8(struct blob_attr *attr)
{
    return *(uint8_t *)blobmsg_data(attr);
}

static inline bool blobmsg_get_bool(struct blob_attr *attr)
{
    return blobmsg_get_u8(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(struct blob_attr *attr)
{
    return __blob_load_be16(blobmsg_data(attr));
}

static inline uint32_t blobmsg_get_u32(struct blob_attr *attr)
{
    return __blob_load_be32(blobmsg_data(attr));
}

static inline uint64_t blobmsg_get_u64(struct blob_attr *attr)
{
    return __blob_load_be64(blobmsg_data(attr));
}

static inline double blobmsg_get_double(struct blob_attr *attr)
{
    uint64_t image = blobmsg_get_u64(attr);
    double val;

    memcpy(&val, &image, sizeof(val));
    return val;
}

/** Any of the integers, widened; 0 for other types. */
static inline uint64_t blobmsg_cast_u64(struct blob_attr *attr)
{
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT64:
        return blobmsg_get_u64(attr);
    case BLOBMSG_TYPE_INT32:
        return blobmsg_get_u32(attr);
    case BLOBMSG_TYPE_INT16:
        return blobmsg_get_u16(attr);
    case BLOBMSG_TYPE_INT8:
        return blobmsg_get_u8(attr);
    default:
        return 0;
    }
}

static inline int64_t blobmsg_cast_s64(struct blob_attr *attr)
{
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT64:
        return (int64_t)blobmsg_get_u64(attr);
    case BLOBMSG_TYPE_INT32:
        return (int32_t)blobmsg_get_u32(attr);
    case BLOBMSG_TYPE_INT16:
        return (int16_t)blobmsg_get_u16(attr);
    case BLOBMSG_TYPE_INT8:
        return (int8_t)blobmsg_get_u8(attr);
    default:
        return 0;
    }
}

static inline char *blobmsg_get_string(struct blob_attr *attr)
{
    return (char *)blobmsg_data(attr);
}

/** Data bytes to walk through; none for NULL and for a malformed field. */
static inline size_t __blobmsg_walk_len(const struct blob_attr *attr)
{
    size_t len = __blob_walk_len(attr);
    size_t offset;
    if (len == 0)
        return 0;
    if (blob_is_extended(attr) && len < sizeof(struct blobmsg_hdr))
        return 0;

    offset = __blobmsg_data_offset(attr);
    return len > offset ? len - offset : 0;
}

static inline struct blob_attr *__blobmsg_walk_start(const struct blob_attr *attr)
{
    return __blobmsg_walk_len(attr) ? (struct blob_attr *)blobmsg_data(attr) : NULL;
}

/** Walks through the fields of a table or array, as blob_for_each_attr() does. */
#define blobmsg_for_each_attr(pos, attr, rem)                                                      \
    for (rem = (__typeof__(rem))__blobmsg_walk_len(attr), pos = __blobmsg_walk_start(attr);        \
         (rem) >= 4 && __blob_walk_fits(pos, (size_t)(rem));                                       \
         rem -= (__typeof__(rem))blob_pad_len(pos), pos = blob_next(pos))

/** The same with a rem set by the caller. */
#define __blobmsg_for_each_attr(pos, attr, rem)                                                    \
    for (pos = (struct blob_attr *)blobmsg_data(attr);                                             \
         (rem) >= 4 && __blob_walk_fits(pos, (size_t)(rem));                                       \
         rem -= (__typeof__(rem))blob_pad_len(pos), pos = blob_next(pos))

#ifdef __cplusplus
}
#endif

#endif
