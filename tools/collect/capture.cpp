// Capture files: a header of 24 bytes, then 16 bytes and the packet for each packet.

#include "tools/collect/capture.h"

#include "os/bytes.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr size_t kFileHeader = 24;
constexpr size_t kRecordHeader = 16;
constexpr uint32_t kLinkIpv4 = 228;
constexpr uint32_t kLongestPacket = 65535;

constexpr uint32_t kMicroseconds = 0xa1b2c3d4;
constexpr uint32_t kNanoseconds = 0xa1b23c4d;
constexpr uint32_t kNextGeneration = 0x0a0d0d0a;

// Bytes before the IP header, by link type.
constexpr struct {
    uint32_t type;
    uint32_t header;
} kLinks[] = {
    {1, 14},        // Ethernet
    {101, 0},       // IP, either version
    {113, 16},      // all interfaces of a Linux machine
    {kLinkIpv4, 0}, // IPv4
    {276, 20},      // all interfaces, newer form
};

void put_le32(uint8_t *to, uint32_t value)
{
    bv::put_be32(to, __builtin_bswap32(value));
}

} // namespace

bool tools::begin_capture(FILE *file)
{
    uint8_t header[kFileHeader] = {};
    put_le32(header, kMicroseconds);
    header[4] = 2; // format 2.4
    header[6] = 4;
    put_le32(header + 16, kLongestPacket);
    put_le32(header + 20, kLinkIpv4);
    return fwrite(header, sizeof(header), 1, file) == 1 && fflush(file) == 0;
}

bool tools::append_packet(FILE *file, const Packet &packet)
{
    static uint16_t id;
    uint8_t record[kRecordHeader];
    const uint32_t length = kPacketHeader + packet.payload.length;
    put_le32(record, static_cast<uint32_t>(packet.time.tv_sec));
    put_le32(record + 4, static_cast<uint32_t>(packet.time.tv_nsec / 1000));
    put_le32(record + 8, length);
    put_le32(record + 12, length);

    uint8_t header[kPacketHeader];
    build_packet_header(header, packet, ++id);
    return fwrite(record, sizeof(record), 1, file) == 1 &&
           fwrite(header, sizeof(header), 1, file) == 1 &&
           fwrite(packet.payload.data, 1, packet.payload.length, file) == packet.payload.length &&
           fflush(file) == 0;
}

// The files that we write are little-endian; swapped ones are not.
uint32_t tools::Capture::number_at(const uint8_t *at) const
{
    const uint32_t big = bv::get_be32(at);
    return swapped_ ? big : __builtin_bswap32(big);
}

// Byte order and unit of time, from the first word.
const char *tools::Capture::read_magic(uint32_t magic)
{
    if (magic == kNextGeneration)
        return "a pcapng file; save it as pcap";
    const uint32_t swapped = __builtin_bswap32(magic);
    swapped_ = swapped == kMicroseconds || swapped == kNanoseconds;
    if (swapped_)
        magic = swapped;
    nanoseconds_ = magic == kNanoseconds;
    return nanoseconds_ || magic == kMicroseconds ? nullptr : "not a capture file";
}

const char *tools::Capture::open(FILE *file)
{
    file_ = file;
    skipped = 0;
    swapped_ = false;
    uint8_t header[kFileHeader];
    if (fread(header, sizeof(header), 1, file) != 1)
        return ferror(file) != 0 ? strerror(errno) : "not a capture file";
    const char *fault = read_magic(number_at(header));
    if (fault != nullptr)
        return fault;
    const uint32_t type = number_at(header + 20) & 0xffff; // the rest: notes on checksums
    for (const auto &link : kLinks) {
        if (link.type == type) {
            link_header_ = link.header;
            return nullptr;
        }
    }
    return "captured on an unknown kind of network";
}

// Reads one packet whole.
tools::Capture::Result tools::Capture::read_packet(Packet &packet, uint32_t &length)
{
    uint8_t record[kRecordHeader];
    const size_t got = fread(record, 1, sizeof(record), file_);
    if (got == 0 && feof(file_) != 0)
        return Result::End;
    length = number_at(record + 8);
    if (got != sizeof(record) || length > sizeof(bytes_) ||
        fread(bytes_, 1, length, file_) != length)
        return Result::Damaged;

    packet.time.tv_sec = static_cast<time_t>(number_at(record));
    const uint32_t fraction = number_at(record + 4);
    packet.time.tv_nsec =
        static_cast<long>(nanoseconds_ ? fraction % 1000000000 : fraction % 1000000 * 1000);
    return Result::Packet;
}

tools::Capture::Result tools::Capture::next(Packet &packet)
{
    Result result;
    uint32_t length;
    while ((result = read_packet(packet, length)) == Result::Packet) {
        if (length >= link_header_ &&
            parse_packet(packet, {bytes_ + link_header_, length - link_header_}))
            break;
        ++skipped;
    }
    return result;
}
