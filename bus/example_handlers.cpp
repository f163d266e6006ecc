// Two handlers that show the shape of one, over a record that the library holds.

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

// The caller's length bounds the record, so that a short one is refused instead of read past. A
// long one must not unbound it: the copy clears that much when it refuses for another reason.
uint32_t bv_example_set(void *data, uint32_t len)
{
    bv_os_memcpy(g_record, std::min(len, kRecordSize), data, kRecordSize);
    return 0;
}
