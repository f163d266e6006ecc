// MAC and IPv4 addresses between text and bytes.

#include <bv/os.h>

#include <arpa/inet.h>

// Scanned and not parsed by hand: configurations in the field hold what this scan accepts,
// one-digit groups among them.
void bv_os_mac_pton(const char *text, void *out)
{
    unsigned groups[6] = {0, 0, 0, 0, 0, 0};
    bv_os_sscanf(text, "%02x:%02x:%02x:%02x:%02x:%02x", &groups[0], &groups[1], &groups[2],
                 &groups[3], &groups[4], &groups[5]);

    uint8_t mac[6];
    for (int i = 0; i < 6; ++i)
        mac[i] = static_cast<uint8_t>(groups[i]);
    bv_os_memcpy(out, sizeof mac, mac, sizeof mac);
}

void bv_os_mac_ntop(const void *mac, char *out, uint32_t outsize)
{
    if (mac == nullptr) {
        bv_os_strcpy(out, outsize, "");
        return;
    }

    const uint8_t *bytes = static_cast<const uint8_t *>(mac);
    bv_os_sprintf(out, outsize, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2],
                  bytes[3], bytes[4], bytes[5]);
}

int bv_os_inet_pton(const char *text, void *out)
{
    return inet_pton(AF_INET, text, out);
}

const char *bv_os_inet_ntop(const void *address, char *out, uint32_t outsize)
{
    return inet_ntop(AF_INET, address, out, outsize);
}

uint32_t bv_os_inet_addr(const char *text)
{
    return inet_addr(text);
}
