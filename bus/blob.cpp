// SPDX-License-Identifier: ISC
// Blob wrappers. The library underneath has inline functions for reading attributes and for putting
// integers. So attributes are read here, and integers are laid out here and put as bytes.

#include <bv/ubus.h>

#include "bus/attr.h"

#include <bv/os.h>

int bv_blob_buf_init(blob_buf *buf, int id)
{
    return blob_buf_init(buf, id);
}

void bv_blob_buf_free(blob_buf *buf)
{
    blob_buf_free(buf);
}

int bv_blob_parse(blob_attr *attr, blob_attr **data, const blob_attr_info *info, int max)
{
    return blob_parse(attr, data, info, max);
}

void *bv_blob_data(const blob_attr *attr)
{
    return bv::writable(bv::attr_payload(attr));
}

unsigned int bv_blob_id(const blob_attr *attr)
{
    return bv::attr_id(attr);
}

size_t bv_blob_len(const blob_attr *attr)
{
    return bv::attr_length(attr);
}

size_t bv_blob_raw_len(const blob_attr *attr)
{
    return bv::attr_raw_length(attr);
}

uint8_t bv_blob_get_u8(const blob_attr *attr)
{
    return bv::attr_payload(attr)[0];
}

uint16_t bv_blob_get_u16(const blob_attr *attr)
{
    return bv::get_be16(bv::attr_payload(attr));
}

uint32_t bv_blob_get_u32(const blob_attr *attr)
{
    return bv::get_be32(bv::attr_payload(attr));
}

const char *bv_blob_get_string(const blob_attr *attr)
{
    return reinterpret_cast<const char *>(bv::attr_payload(attr));
}

blob_attr *bv_blob_put_u8(blob_buf *buf, int id, uint8_t value)
{
    return blob_put(buf, id, &value, sizeof(value));
}

blob_attr *bv_blob_put_u16(blob_buf *buf, int id, uint16_t value)
{
    uint8_t bytes[sizeof(value)];
    bv::put_be16(bytes, value);
    return blob_put(buf, id, bytes, sizeof(bytes));
}

blob_attr *bv_blob_put_u32(blob_buf *buf, int id, uint32_t value)
{
    uint8_t bytes[sizeof(value)];
    bv::put_be32(bytes, value);
    return blob_put(buf, id, bytes, sizeof(bytes));
}

blob_attr *bv_blob_put_string(blob_buf *buf, int id, const char *str)
{
    return blob_put(buf, id, str, bv_os_strlen(str) + 1);
}

blob_attr *bv_blob_put(blob_buf *buf, int id, const void *ptr, unsigned int len)
{
    return blob_put(buf, id, ptr, len);
}

blob_attr *bv_blob_put_raw(blob_buf *buf, const void *ptr, unsigned int len)
{
    return blob_put_raw(buf, ptr, len);
}
