/* SPDX-License-Identifier: ISC */
/* use VERSION: a program that installs nothing but uses the whole interface's header, as C and as
 * C++. It asks for GNU's extensions itself, as many sources do. */
#ifndef __cplusplus
#define _GNU_SOURCE
#endif
#include <bv/bv.h>

#include <stdio.h>
#include <string.h>

#if BV_VERSION_NUMBER < 10000
#error "#if cannot compare BV_VERSION_NUMBER"
#endif

typedef char offsets_have_64_bits[sizeof(off_t) == 8 ? 1 : -1];
typedef char times_have_64_bits[sizeof(time_t) == 8 ? 1 : -1];

int main(int argc, char **argv)
{
    char text[65];
    struct blob_buf message;

    snprintf(text, sizeof(text), "%d.%d.%d", BV_VERSION_NUMBER / 10000,
             BV_VERSION_NUMBER / 100 % 100, BV_VERSION_NUMBER % 100);
    if (argc < 2 || strcmp(text, argv[1]) != 0 || strcmp(BV_VERSION_STRING, argv[1]) != 0)
        return 1;
    bv_os_sha256(text, "abc");
    if (strncmp(text, "ba7816bf", 8) != 0)
        return 2;
    memset(&message, 0, sizeof(message));
    if (bv_blobmsg_buf_init(&message) != 0 || bv_blobmsg_add_u32(&message, "x", 1) != 0)
        return 3;
    bv_blob_buf_free(&message);
    bv_uloop_init();
    uloop_end(); /* the bus libraries' own names are there too */
    bv_uloop_done();
    return bv_db_status();
}
