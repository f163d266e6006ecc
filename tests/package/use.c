/* A program that installs nothing but uses the whole interface's header, as C and as C++. */
#include <bv/bv.h>

#include <stdio.h>
#include <string.h>

#if BV_VERSION_MAJOR != 1
#error "the header has another version than its package"
#endif

int main(void)
{
    char text[65];
    struct blob_buf message;

    bv_os_sha256(text, "abc");
    if (strncmp(text, "ba7816bf", 8) != 0)
        return 1;
    memset(&message, 0, sizeof(message));
    if (bv_blobmsg_buf_init(&message) != 0 || bv_blobmsg_add_u32(&message, "x", 1) != 0)
        return 2;
    bv_blob_buf_free(&message);
    bv_uloop_init();
    uloop_end(); /* the bus libraries' own names are there too */
    bv_uloop_done();
    return bv_db_status();
}
