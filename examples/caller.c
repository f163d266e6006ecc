/* SPDX-License-Identifier: ISC */
/*
 * The caller: reads, changes and watches parameters that another service owns.
 *
 *   caller             shows the lan settings, and how long reading them took
 *   caller mtu NUMBER  changes the MTU
 *   caller watch       shows the settings again after each change, until it is interrupted
 *
 * Exit status: 0 done, 1 refused or not there (the reason is printed), 2 wrong usage.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <bv/bv.h>
#include <bv/service.h>

#include "families.h"

static struct bv_service_client *client;

static int32_t show(void)
{
    struct lan lan;
    char address[16];
    int32_t result = bv_service_get(client, LAN_FAMILY, &lan, LAN_SIZE, 1);

    if (result != BV_OK)
        return result;
    bv_os_inet_ntop(lan.ipaddr, address, sizeof(address));
    printf("%s has the address %s and MTU %u\n", lan.hostname, address, lan.mtu);
    fflush(stdout);
    return BV_OK;
}

/* The first read has found the owner; this is what each further one takes. */
static int32_t measure(void)
{
    struct lan lan;
    struct timespec before, after;
    int32_t result;

    clock_gettime(CLOCK_MONOTONIC, &before);
    result = bv_service_get(client, LAN_FAMILY, &lan, LAN_SIZE, 1);
    clock_gettime(CLOCK_MONOTONIC, &after);
    if (result == BV_OK)
        printf("reading them took %ld microseconds\n",
               (long)(after.tv_sec - before.tv_sec) * 1000000 +
                   (after.tv_nsec - before.tv_nsec) / 1000);
    return result;
}

/* Whether it fits the parameter's type. What else is allowed the owner knows. */
static int read_mtu(const char *text, uint16_t *mtu)
{
    char *end;
    unsigned long number = strtoul(text, &end, 10);

    *mtu = (uint16_t)number;
    return *text >= '0' && *text <= '9' && *end == '\0' && number <= UINT16_MAX;
}

static int32_t set_mtu(uint16_t mtu)
{
    struct lan lan;
    int32_t result = bv_service_get(client, LAN_FAMILY, &lan, LAN_SIZE, 1);

    if (result != BV_OK)
        return result;
    lan.mtu = mtu;
    return bv_service_set(client, LAN_FAMILY, &lan, LAN_SIZE, 1);
}

/* An event says that something has changed, not what: it is read again. */
static void changed(const char *service, const char *family, void *priv)
{
    (void)service;
    (void)family;
    (void)priv;
    show();
}

int main(int argc, char **argv)
{
    int32_t result;
    uint16_t mtu;

    client = bv_service_open(NULL, 5000); /* finds the owner, and waits for it */
    if (client == NULL)
        return 1;
    if (argc == 1) {
        result = show();
        if (result == BV_OK)
            result = measure();
    } else if (argc == 3 && strcmp(argv[1], "mtu") == 0 && read_mtu(argv[2], &mtu)) {
        result = set_mtu(mtu);
    } else if (argc == 2 && strcmp(argv[1], "watch") == 0) {
        result = bv_service_watch(client, LAN_FAMILY, changed, NULL, 0);
    } else {
        fputs("usage: caller [mtu NUMBER | watch]\n", stderr);
        bv_service_close(client);
        return 2;
    }
    if (result != BV_OK)
        fprintf(stderr, "caller: %s: %s\n", bv_service_text(result), bv_service_words(client));
    bv_service_close(client);
    return result == BV_OK ? 0 : 1;
}
