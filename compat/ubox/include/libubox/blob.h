/* SPDX-License-Identifier: ISC */
/**
 * Tagged binary attributes and the buffers they are built in.
 *
 * An attribute is one big-endian word (extended flag, 7 bits of id, 24 bits of length that
 * count the word itself), its payload, and zero bytes up to the next multiple of 4. A buffer
 * as a whole is one such attribute with all others inside.
 *
 * The accessors trust the attribute; what came from another process goes through
 * blob_parse_untrusted() or the checks of blobmsg.h first.
 */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include <errno.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "utils.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BLOB_COOKIE 0x01234567

enum {
    BLOB_ATTR_UNSPEC,
    BLOB_ATTR_NESTED,
    BLOB_ATTR_BINARY,
    BLOB_ATTR_STRING,
    BLOB_ATTR_INT8,
    BLOB_ATTR_INT16,
    BLOB_ATTR_INT32,
    BLOB_ATTR_INT64,
    BLOB_ATTR_DOUBLE,
    BLOB_ATTR_LAST
};

#define BLOB_ATTR_ID_MASK 0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN 4
#define BLOB_ATTR_EXTENDED 0x80000000

#ifdef __clang__ /* C++: flexible array members draw a pedantic warning */
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wpedantic"
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif
struct blob_attr {
    uint32_t id_len; /**< big-endian */
    __extension__ char data[];
} __packed;
#ifdef __clang__
#pragma clang diagnostic pop
#endif

/** What blob_parse() accepts under one id; a zeroed entry accepts everything. */
struct blob_attr_info {
    unsigned int type;   /**< BLOB_ATTR_...; BLOB_ATTR_LAST and above mean no check */
    unsigned int minlen; /**< bounds of the raw length, header included; 0 means none */
    unsigned int maxlen;
    bool (*validate)(const struct blob_attr_info *, struct blob_attr *);
};

/** Must be zeroed before its first blob_buf_init(). */
struct blob_buf {
    struct blob_attr *head; /**< what new attributes go into: the whole, or the innermost nest */
    bool (*grow)(struct blob_buf *buf, int minlen); /**< extends buf and buflen by minlen or more */
    int buflen;
    void *buf;
};

static inline void *blob_data(const struct blob_attr *attr)
{
    return (void *)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr)
{
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr)
{
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

/** Header and payload, without the padding. */
static inline size_t blob_raw_len(const struct blob_attr *attr)
{
    return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

/** Payload. Wraps when the attribute is malformed and claims less than its own header. */
static inline size_t blob_len(const struct blob_attr *attr)
{
    return blob_raw_len(attr) - sizeof(struct blob_attr);
}

/** Header, payload and padding. */
static inline size_t blob_pad_len(const struct blob_attr *attr)
{
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) / BLOB_ATTR_ALIGN * BLOB_ATTR_ALIGN;
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr)
{
    return (struct blob_attr *)(void *)((char *)attr + blob_pad_len(attr));
}

/** Big-endian numbers at any address. */
static inline uint16_t __blob_load_be16(const void *at)
{
    uint16_t value;
    memcpy(&value, at, sizeof(value));
    return be16_to_cpu(value);
}

static inline uint32_t __blob_load_be32(const void *at)
{
    uint32_t value;
    memcpy(&value, at, sizeof(value));
    return be32_to_cpu(value);
}

static inline uint64_t __blob_load_be64(const void *at)
{
    uint64_t value;
    memcpy(&value, at, sizeof(value));
    return be64_to_cpu(value);
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr)
{
    return *(const uint8_t *)blob_data(attr);
}

static inline uint16_t blob_get_u16(const struct blob_attr *attr)
{
    return __blob_load_be16(blob_data(attr));
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr)
{
    return __blob_load_be32(blob_data(attr));
}

static inline uint64_t blob_get_u64(const struct blob_attr *attr)
{
    return __blob_load_be64(blob_data(attr));
}

static inline int8_t blob_get_int8(const struct blob_attr *attr)
{
    return (int8_t)blob_get_u8(attr);
}

static inline int16_t blob_get_int16(const struct blob_attr *attr)
{
    return (int16_t)blob_get_u16(attr);
}

static inline int32_t blob_get_int32(const struct blob_attr *attr)
{
    return (int32_t)blob_get_u32(attr);
}

static inline int64_t blob_get_int64(const struct blob_attr *attr)
{
    return (int64_t)blob_get_u64(attr);
}

static inline const char *blob_get_string(const struct blob_attr *attr)
{
    return attr->data;
}

/** Zeroes the padding after the payload. */
void blob_fill_pad(struct blob_attr *attr);

/** Sets the length (24 bits of it) and keeps id and flag. */
void blob_set_raw_len(struct blob_attr *attr, unsigned int len);

/** Same padded length and same bytes, padding included; two NULLs are equal. */
bool blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2);

/** 0, or -ENOMEM with buf->head NULL. A used buffer keeps its memory and loses its content. */
int blob_buf_init(struct blob_buf *buf, int id);

/** Safe on a zeroed buffer and twice. */
void blob_buf_free(struct blob_buf *buf);

/** Makes room for so many bytes more. */
bool blob_buf_grow(struct blob_buf *buf, int required);

/**
 * These append to buf->head and return the new attribute, or NULL with the buffer unchanged.
 * Growth moves the buffer: attributes obtained before are then gone, cookies are not.
 * blob_new() leaves the payload to the caller, as blob_put() does with a null ptr.
 */
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);

/** Appends complete attributes as they are. */
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

/** Opens an attribute that those put from now on go into; returns what blob_nest_end() needs,
 * or NULL with the buffer unchanged. Nests close in reverse order. */
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

/** Whether so many bytes are a payload of this blob type. */
bool blob_check_type(const void *ptr, unsigned int len, int type);

/**
 * Sorts the children of attr into data by id, the last acceptable one of each. info is
 * indexed by id and may be NULL. Returns the number of slots filled.
 */
int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info,
               int max);

/** The same for received bytes: attr_len of them can be read at attr. When attr does not fit,
 * the result is 0 and the slots are not touched. */
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max);

/** A copy, padding included, that the caller frees; NULL when memory is short. */
struct blob_attr *blob_memdup(const struct blob_attr *attr);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str)
{
    size_t size = strlen(str) + 1;
    return size <= BLOB_ATTR_LEN_MASK ? blob_put(buf, id, str, (unsigned int)size) : NULL;
}

static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t val)
{
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t val)
{
    val = cpu_to_be16(val);
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val)
{
    val = cpu_to_be32(val);
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t val)
{
    val = cpu_to_be64(val);
    return blob_put(buf, id, &val, sizeof(val));
}

#define blob_put_int8 blob_put_u8
#define blob_put_int16 blob_put_u16
#define blob_put_int32 blob_put_u32
#define blob_put_int64 blob_put_u64

/** Payload bytes to walk through; none for NULL and for a malformed attribute. */
static inline size_t __blob_walk_len(const struct blob_attr *attr)
{
    return attr && blob_raw_len(attr) >= sizeof(struct blob_attr) ? blob_len(attr) : 0;
}

static inline struct blob_attr *__blob_walk_start(const struct blob_attr *attr)
{
    return attr ? (struct blob_attr *)blob_data(attr) : NULL;
}

/** Whether a complete attribute, its padding included, starts at pos. */
static inline bool __blob_walk_fits(const struct blob_attr *pos, size_t rem)
{
    size_t size = blob_pad_len(pos);
    return size <= rem && size >= sizeof(struct blob_attr);
}

/**
 * Walks. pos is a struct blob_attr pointer and rem an integer, signed or not, that counts
 * the bytes left. The walk ends before anything that is cut off or claims no length.
 * The __ form takes the first attribute and a rem set by the caller.
 */
#define __blob_for_each_attr(pos, attr, rem)                                                       \
    for (pos = (struct blob_attr *)(attr); (rem) >= 4 && __blob_walk_fits(pos, (size_t)(rem));     \
         rem -= (__typeof__(rem))blob_pad_len(pos), pos = blob_next(pos))

#define blob_for_each_attr(pos, attr, rem)                                                         \
    for (rem = (__typeof__(rem))__blob_walk_len(attr), pos = __blob_walk_start(attr);              \
         (rem) >= 4 && __blob_walk_fits(pos, (size_t)(rem));                                       \
         rem -= (__typeof__(rem))blob_pad_len(pos), pos = blob_next(pos))

#define blob_for_each_attr_len(pos, attr, attr_len, rem)                                           \
    for (rem = (__typeof__(rem))__blob_walk_len(attr), pos = __blob_walk_start(attr);              \
         (rem) >= 4 && (size_t)(rem) < (size_t)(attr_len) && __blob_walk_fits(pos, (size_t)(rem)); \
         rem -= (__typeof__(rem))blob_pad_len(pos), pos = blob_next(pos))

#ifdef __cplusplus
}
#endif

#endif
