// SPDX-License-Identifier: ISC
// Blobmsg wrappers: named, typed fields on top of blob attributes.

#include <bv/ubus.h>

#include "bus/attr.h"

#include <bv/os.h>

namespace {

constexpr size_t kNameOffset = 6; // attribute header and the name's length

// Bytes of the name with its length field, its terminator and the padding.
size_t name_header_length(const blob_attr *attr)
{
    const size_t name_length = bv::get_be16(bv::attr_payload(attr));
    return (name_length + 6) & ~size_t{3};
}

const uint8_t *field_data(const blob_attr *attr)
{
    const uint8_t *payload = bv::attr_payload(attr);
    return bv::attr_is_extended(attr) ? payload + name_header_length(attr) : payload;
}

} // namespace

int bv_blobmsg_buf_init(blob_buf *buf)
{
    return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

int bv_blobmsg_type(const blob_attr *attr)
{
    return static_cast<int>(bv::attr_id(attr));
}

const char *bv_blobmsg_name(const blob_attr *attr)
{
    return reinterpret_cast<const char *>(bv::attr_bytes(attr) + kNameOffset);
}

void *bv_blobmsg_data(const blob_attr *attr)
{
    if (attr == nullptr)
        return nullptr;
    return bv::writable(field_data(attr));
}

size_t bv_blobmsg_data_len(const blob_attr *attr)
{
    if (attr == nullptr)
        return 0;
    const size_t length = bv::attr_length(attr);
    return bv::attr_is_extended(attr) ? length - name_header_length(attr) : length;
}

bool bv_blobmsg_check_attr(const blob_attr *attr, bool name)
{
    return blobmsg_check_attr(attr, name);
}

int bv_blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data,
                     unsigned int len)
{
    return blobmsg_parse(policy, policy_len, tb, data, len);
}

int bv_blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data,
                         unsigned int len)
{
    return blobmsg_add_field(buf, type, name, data, len);
}

int bv_blobmsg_add_string(blob_buf *buf, const char *name, const char *string)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string, bv_os_strlen(string) + 1);
}

int bv_blobmsg_add_u8(blob_buf *buf, const char *name, uint8_t value)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &value, sizeof(value));
}

int bv_blobmsg_add_u16(blob_buf *buf, const char *name, uint16_t value)
{
    uint8_t bytes[sizeof(value)];
    bv::put_be16(bytes, value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, bytes, sizeof(bytes));
}

int bv_blobmsg_add_u32(blob_buf *buf, const char *name, uint32_t value)
{
    uint8_t bytes[sizeof(value)];
    bv::put_be32(bytes, value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, bytes, sizeof(bytes));
}

// The integer readers do not test for null, on purpose: no value could mean "none".
uint8_t bv_blobmsg_get_u8(blob_attr *attr)
{
    return field_data(attr)[0];
}

uint16_t bv_blobmsg_get_u16(blob_attr *attr)
{
    return bv::get_be16(field_data(attr));
}

uint32_t bv_blobmsg_get_u32(blob_attr *attr)
{
    return bv::get_be32(field_data(attr));
}

char *bv_blobmsg_get_string(blob_attr *attr)
{
    return static_cast<char *>(bv_blobmsg_data(attr));
}
