#include "tools/collect/datagram.h"

#include "os/bytes.h"

namespace {

constexpr size_t kHeader = 10;
constexpr size_t kBeforeElement = 6; // bytes that the element length does not count
constexpr unsigned kCategoryBits = 5;

} // namespace

const char *tools::read_datagram(Datagram &datagram, const uint8_t *bytes, size_t length)
{
    if (length < kHeader)
        return "shorter than its header";
    if (bytes[0] >> kCategoryBits != 0)
        return "a category above 31";
    if (bv::get_be16(bytes + 4) != length)
        return "the total length does not match its size";
    if (bv::get_be16(bytes + 8) != length - kBeforeElement)
        return "the element length does not match its size";

    datagram.category = bytes[0];
    datagram.level = bytes[1];
    datagram.module = bv::get_be16(bytes + 2);
    datagram.tag = bv::get_be16(bytes + 6);
    datagram.text = bytes + kHeader;
    datagram.length = length - kHeader;
    return nullptr;
}
