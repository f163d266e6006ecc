/* SPDX-License-Identifier: ISC */
/* A program of the kit: an owner of nothing, whose structure is refused, and a client. */
#include <bv/service.h>

int main(void)
{
    static const struct bv_service nameless = {.size = sizeof(struct bv_service)};
    struct bv_service_client *client = bv_service_open("network", 0);
    int32_t result = bv_service_request(client, "status", NULL, NULL);

    bv_service_close(client);
    return bv_service_run(&nameless) == BV_SERVICE_BAD_USE && result == 10 ? 0 : 1;
}
