// SPDX-License-Identifier: ISC
// Random text.

#include <bv/os.h>

#include "os/bytes.h"

#include <openssl/rand.h>

namespace {

constexpr int32_t kMaxDigits = 256;

// Turns the bytes at the front of buf into count digits, the high one of each byte first. In place
// and from the end, so that no copy of a possible password stays anywhere: each byte is read for
// the last time just before it is overwritten.
void expand_to_digits(uint8_t *buf, int32_t count)
{
    for (int32_t i = count - 1; i >= 0; --i) {
        const uint8_t byte = buf[i / 2];
        buf[i] = static_cast<uint8_t>(bv::kHexDigits[i % 2 == 0 ? byte >> 4 : byte & 15]);
    }
}

} // namespace

uint32_t bv_os_random(uint8_t *buf, int32_t num)
{
    if (num > kMaxDigits)
        return BV_ERR_TOO_LONG;
    // A negative number is refused here: the generator of OpenSSL 1.1 crashes on it.
    if (num < 0 || (buf == nullptr && num != 0))
        return 0;

    const int result = RAND_bytes(buf, num);
    expand_to_digits(buf, num);
    return static_cast<uint32_t>(result);
}
