// SPDX-License-Identifier: ISC
// MAC and IPv4 addresses between text and bytes.

#include <bv/os.h>

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>

// Scanned, not parsed by hand: configurations in the field hold whatever this scan accepts, such
// as groups of one digit.
void bv_os_mac_pton(const char *text, void *out)
{
    unsigned groups[6] = {0, 0, 0, 0, 0, 0};
    bv_os_sscanf(text, "%02x:%02x:%02x:%02x:%02x:%02x", &groups[0], &groups[1], &groups[2],
                 &groups[3], &groups[4], &groups[5]);

    uint8_t mac[6];
    for (int i = 0; i < 6; ++i)
        mac[i] = static_cast<uint8_t>(groups[i]);
    bv_os_memcpy(out, sizeof(mac), mac, sizeof(mac));
}

void bv_os_mac_ntop(const void *mac, char *out, uint32_t outsize)
{
    if (mac == nullptr) {
        bv_os_strcpy(out, outsize, "");
        return;
    }

    const auto *bytes = static_cast<const uint8_t *>(mac);
    bv_os_sprintf(out, outsize, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2],
                  bytes[3], bytes[4], bytes[5]);
}

// The gateway's C library writes while it reads: a text that turns out not to be an address, or not
// to fit, would leave its beginning in the caller's memory. So both functions convert into a copy.
int bv_os_inet_pton(const char *text, void *out)
{
    uint8_t address[4];
    const int converted = inet_pton(AF_INET, text, address);
    if (converted == 1)
        bv_os_memcpy(out, sizeof(address), address, sizeof(address));
    return converted;
}

const char *bv_os_inet_ntop(const void *address, char *out, uint32_t outsize)
{
    char text[INET_ADDRSTRLEN];
    const uint32_t size = std::min<uint32_t>(outsize, sizeof(text));
    if (inet_ntop(AF_INET, address, text, size) == nullptr)
        return nullptr;
    bv_os_strcpy(out, size, text);
    return out;
}

uint32_t bv_os_inet_addr(const char *text)
{
    return inet_addr(text);
}
