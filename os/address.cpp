// SPDX-License-Identifier: ISC
// MAC and IPv4 addresses between text and bytes.

#include <bv/os.h>

#include "os/bytes.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

constexpr size_t kMacSize = 6;
constexpr size_t kMacTextSize = 3 * kMacSize; // two digits and a colon, or the NUL, each

// The value of a hexadecimal digit; -1 for any other character.
int digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const int letter = c | 0x20; // in lower case
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

// An address as bv_os_mac_ntop() writes it, in digits of either case. False for any other text.
bool read_full_mac(const char *text, uint8_t (&mac)[kMacSize])
{
    for (size_t i = 0; i < kMacSize; ++i, text += 3) {
        const int high = digit_value(text[0]);
        const int low = high < 0 ? -1 : digit_value(text[1]);
        if (low < 0 || (text[2] != ':' && i + 1 < kMacSize))
            return false;
        mac[i] = static_cast<uint8_t>(16 * high + low);
    }
    return true;
}

// Scanned, not parsed by hand: configurations in the field hold whatever this scan accepts, such
// as groups of one digit.
void scan_mac(const char *text, uint8_t (&mac)[kMacSize])
{
    unsigned groups[kMacSize] = {0, 0, 0, 0, 0, 0};
    bv_os_sscanf(text, "%02x:%02x:%02x:%02x:%02x:%02x", &groups[0], &groups[1], &groups[2],
                 &groups[3], &groups[4], &groups[5]);
    for (size_t i = 0; i < kMacSize; ++i)
        mac[i] = static_cast<uint8_t>(groups[i]);
}

} // namespace

// Nearly every text is a full address, and the scanner takes thirty times as long for it: the
// addresses were a twentieth of a database's start.
void bv_os_mac_pton(const char *text, void *out)
{
    uint8_t mac[kMacSize];
    if (text == nullptr || !read_full_mac(text, mac))
        scan_mac(text, mac);
    bv_os_memcpy(out, sizeof(mac), mac, sizeof(mac));
}

// The digits are put in place: printing them took a quarter of a commit.
void bv_os_mac_ntop(const void *mac, char *out, uint32_t outsize)
{
    char text[kMacTextSize] = "";
    const auto *bytes = static_cast<const uint8_t *>(mac);
    for (size_t i = 0; mac != nullptr && i < kMacSize; ++i) {
        bv::put_hex(text + 3 * i, bytes[i]);
        text[3 * i + 2] = i + 1 < kMacSize ? ':' : '\0';
    }
    bv_os_strcpy(out, outsize, text);
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
