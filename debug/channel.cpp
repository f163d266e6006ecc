// The debug channel: messages whose switch is on leave as UDP datagrams, one each. The socket is
// neither bound nor connected and nothing is ever read from it, so a collector that is not there
// costs a service nothing.

#include <bv/debug.h>

#include "debug/switches.h"
#include "os/bytes.h"
#include "os/descriptor.h"

#include <bv/os.h>

#include <securec.h>

#include <arpa/inet.h>
#include <cstdarg>
#include <cstring>
#include <netinet/in.h>

static_assert(sizeof(bv_debug_cfg) == 8 && offsetof(bv_debug_cfg, port) == 4 &&
                  offsetof(bv_debug_cfg, second_port) == 6,
              "the destination record is exchanged as 8 bytes");
static_assert(sizeof(bv_debug_switch) == 4 && offsetof(bv_debug_switch, level) == 1 &&
                  offsetof(bv_debug_switch, module) == 2,
              "the switch record is exchanged as 4 bytes");
static_assert(sizeof(bv_debug_header) == 10 && offsetof(bv_debug_header, level) == 1 &&
                  offsetof(bv_debug_header, module) == 2 &&
                  offsetof(bv_debug_header, category) == 4 && offsetof(bv_debug_header, tag) == 6,
              "callers fill the header record themselves");

namespace {

// Stored and used as it is, without conversion: on the little-endian gateway the collector is at
// 10.10.168.192, and collectors in the field listen there.
constexpr uint32_t kDefaultAddress = 0xC0A80A0A;
constexpr uint16_t kDefaultPort = 5344;
constexpr uint16_t kDefaultSecondPort = 7364;

constexpr uint32_t kTextSize = 256;
constexpr uint32_t kHeadLength = 10;       // in front of the text in every datagram
constexpr uint32_t kElementHeadLength = 4; // tag and length of the element around the text
constexpr uint32_t kSmallestBlock = 2048;

bv_debug_cfg g_destination;
sockaddr_in g_address;
int g_socket; // -1 for none; 0, not -1, until bv_debug_init() has run

void reopen_socket()
{
    if (g_socket != -1)
        bv_os_close(g_socket);

    memset(&g_address, 0, sizeof g_address);
    g_address.sin_family = AF_INET;
    g_address.sin_addr.s_addr = g_destination.address;
    g_address.sin_port = htons(g_destination.port);
    g_socket = bv::keep_descriptor(bv_os_socket(AF_INET, SOCK_DGRAM, 0));
}

// Out of line, so that a message that is off pays for none of these buffers.
__attribute__((noinline)) void send_formatted(bv_debug_header header, const char *format,
                                              va_list args)
{
    char text[kTextSize];
    memset(text, 0, sizeof text);
    vsprintf_s(text, sizeof text, format, args);
    bv_debug_sendmsg(&header, text, static_cast<uint16_t>(bv_os_strlen(text)));
}

} // namespace

int32_t bv_debug_init(void)
{
    g_destination = {kDefaultAddress, kDefaultPort, kDefaultSecondPort};
    g_socket = -1;
    reopen_socket();
    bv::debug_switches_init();
    return BV_OK;
}

int32_t bv_debug_set_cfg(const void *record)
{
    bv_os_memcpy(&g_destination, sizeof g_destination, record, sizeof g_destination);
    reopen_socket();
    return BV_OK;
}

int32_t bv_debug_get_cfg(void *out, uint32_t outsize)
{
    bv_os_memcpy(out, outsize, &g_destination, sizeof g_destination);
    return BV_OK;
}

void bv_debug_remote(uint32_t category, uint32_t tag, uint32_t module, uint32_t level,
                     const char *format, ...)
{
    auto sent_module = static_cast<uint16_t>(module);
    auto sent_level = static_cast<uint8_t>(level);
    if (bv::debug_switch(0, sent_level) == 0 && bv::debug_switch(sent_module, sent_level) == 0)
        return;

    bv_debug_header header = {};
    header.level = sent_level;
    header.module = sent_module;
    header.category = static_cast<uint8_t>(category);
    header.tag = static_cast<uint16_t>(tag);

    va_list args;
    va_start(args, format);
    send_formatted(header, format, args);
    va_end(args);
}

int32_t bv_debug_sendmsg(const bv_debug_header *header, const void *text, uint16_t length)
{
    if (header == nullptr)
        return BV_ERR_FAILED;

    // Both lengths wrap at 65536. A total that has wrapped is shorter than the text, of which the
    // block then takes only what it has room for.
    auto total = static_cast<uint16_t>(kHeadLength + length);
    uint32_t size = total > kSmallestBlock ? total : kSmallestBlock;
    uint8_t *block = static_cast<uint8_t *>(bv_os_malloc(size));
    if (block == nullptr)
        return BV_ERR_FAILED;
    bv_os_memset(block, size, 0, size);

    uint32_t room = size - kHeadLength;
    uint32_t copied = length < room ? length : room;
    bv_os_memcpy(block + kHeadLength, copied, text, copied);
    bv::put_be16(block + 8, static_cast<uint16_t>(kElementHeadLength + length));
    bv::put_be16(block + 6, header->tag);
    bv::put_be16(block + 4, total);
    bv::put_be16(block + 2, header->module);
    block[1] = header->level;
    block[0] = header->category & 0x1F;

    ssize_t sent = bv_os_sendto(g_socket, block, total, 0,
                                reinterpret_cast<const sockaddr *>(&g_address), sizeof g_address);
    bv_os_free(block);
    return static_cast<int32_t>(sent);
}
