// Random text.

#include <bv/os.h>

#include "crypto/wipe.h"

#include <openssl/rand.h>

namespace {

constexpr int32_t kMaxDigits = 256;

} // namespace

uint32_t bv_os_random(uint8_t *buf, int32_t num)
{
    if (num > kMaxDigits)
        return BV_ERR_TOO_LONG;
    if (num == 0)
        return 1;
    // A negative number is refused here because the generator of OpenSSL 1.1 crashes on it.
    if (num < 0 || buf == nullptr)
        return 0;

    const int result = RAND_bytes(buf, num);

    // Half of the bytes are enough for all digits. Converting the others too would spoil the
    // longest text: bv_os_tohexstr() starts afresh at its 256th byte.
    char text[2 * kMaxDigits] = {};
    const auto count = static_cast<uint32_t>(num);
    bv_os_tohexstr(buf, (count + 1) / 2, text, sizeof(text));
    bv_os_memcpy(buf, count, text, count);
    bv::wipe(text);
    return static_cast<uint32_t>(result);
}
