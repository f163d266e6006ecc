// SPDX-License-Identifier: ISC
// CRC-32 and CRC-16. The compiler makes the tables. They are read-only data, which all processes
// that load the library share.

#include <bv/os.h>

#include "crypto/crc_table.h"

namespace {

constexpr auto kCrc32Tables = bv::make_crc_tables<uint32_t, 0xedb88320, bv::kCrcSlices>();
constexpr auto kCrc16Tables = bv::make_crc_tables<uint16_t, 0xa001, bv::kCrcSlices>();

} // namespace

uint32_t bv_os_crc32(uint32_t crc, const uint8_t *buf, uint32_t len)
{
    if (buf == nullptr)
        return crc;
    return ~bv::crc_update(kCrc32Tables, ~crc, buf, len);
}

uint16_t bv_os_crc16(uint16_t crc, const uint8_t *buf, uint32_t len)
{
    // As an integer: a pointer beyond the end of its object may not even be formed.
    const auto address = reinterpret_cast<uintptr_t>(buf);
    if (buf == nullptr || address + len < address)
        return crc;
    return bv::crc_update(kCrc16Tables, crc, buf, len);
}
