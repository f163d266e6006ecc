// SPDX-License-Identifier: ISC
// Included ahead of the replays of the recorded buffers, which then go through this library's
// functions instead of the ones underneath.
#ifndef BV_TESTS_BUS_THROUGH_WRAPPERS_H
#define BV_TESTS_BUS_THROUGH_WRAPPERS_H

#include <bv/ubus.h>

#define ReadVectors WrappersReadVectors
#define BuildVectors WrappersBuildVectors

#define blob_buf_init bv_blob_buf_init
#define blob_buf_free bv_blob_buf_free
#define blob_parse bv_blob_parse
#define blob_data bv_blob_data
#define blob_id bv_blob_id
#define blob_len bv_blob_len
#define blob_raw_len bv_blob_raw_len
#define blob_get_u8 bv_blob_get_u8
#define blob_get_u16 bv_blob_get_u16
#define blob_get_u32 bv_blob_get_u32
#define blob_get_string bv_blob_get_string
#define blob_put_u8 bv_blob_put_u8
#define blob_put_u16 bv_blob_put_u16
#define blob_put_u32 bv_blob_put_u32
#define blob_put_string bv_blob_put_string
#define blob_put bv_blob_put
#define blob_put_raw bv_blob_put_raw
#define blobmsg_buf_init bv_blobmsg_buf_init
#define blobmsg_name bv_blobmsg_name
#define blobmsg_type(attr) bv_blobmsg_type(attr) // not the enumeration of that name
#define blobmsg_data bv_blobmsg_data
#define blobmsg_data_len bv_blobmsg_data_len
#define blobmsg_check_attr bv_blobmsg_check_attr
#define blobmsg_parse bv_blobmsg_parse
#define blobmsg_add_field bv_blobmsg_add_field
#define blobmsg_add_u8 bv_blobmsg_add_u8
#define blobmsg_add_u16 bv_blobmsg_add_u16
#define blobmsg_add_u32 bv_blobmsg_add_u32
#define blobmsg_add_string bv_blobmsg_add_string
#define blobmsg_get_u8 bv_blobmsg_get_u8
#define blobmsg_get_u16 bv_blobmsg_get_u16
#define blobmsg_get_u32 bv_blobmsg_get_u32
#define blobmsg_get_string bv_blobmsg_get_string

#endif
