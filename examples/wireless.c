/* SPDX-License-Identifier: ISC */
/*
 * A second service, "wireless". Its family is saved in the same file as the owner's: each of the
 * two saves its own part and leaves the other's as it is.
 */
#include <bv/service.h>

#include "families.h"

static const struct bv_service_family families[] = {
    {.name = WIRELESS_FAMILY, .size = WIRELESS_SIZE},
};

static const struct bv_service wireless = {
    .size = sizeof(struct bv_service),
    .name = "wireless",
    .families = families,
    .n_families = 1,
};

int main(void)
{
    return bv_service_run(&wireless);
}
