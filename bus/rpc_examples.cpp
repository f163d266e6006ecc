// SPDX-License-Identifier: ISC
// Two example handlers, which read and write a record of the library.

#include <bv/ubus.h>

#include <bv/os.h>

#include <algorithm>

namespace {

constexpr uint32_t kRecordSize = 56;
uint8_t g_record[kRecordSize];

} // namespace

uint32_t bv_example_get(void *data, uint32_t len)
{
    bv_os_memcpy(data, len, g_record, kRecordSize);
    return 0;
}

// The caller's length limits the copy, so that short data is refused and not read past its end. It
// must not raise the limit: a copy that is refused for another reason clears as many bytes.
uint32_t bv_example_set(void *data, uint32_t len)
{
    bv_os_memcpy(g_record, std::min(len, kRecordSize), data, kRecordSize);
    return 0;
}
