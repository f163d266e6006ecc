// SPDX-License-Identifier: ISC
// The debug channel: each message whose switch is on is sent as one UDP datagram, in the format of
// datagram.h. The socket is not bound or connected and never read, so a missing collector costs a
// service nothing.

#include <bv/debug.h>

#include "debug/datagram.h"
#include "debug/switches.h"
#include "os/alloc.h"
#include "os/bytes.h"
#include "os/descriptor.h"
#include "os/inline.h"

#include <bv/os.h>

#include <securec.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdarg>
#include <netinet/in.h>

static_assert(sizeof(bv_debug_cfg) == 8 && offsetof(bv_debug_cfg, port) == 4 &&
                  offsetof(bv_debug_cfg, second_port) == 6,
              "callers copy the destination record as 8 bytes");
static_assert(sizeof(bv_debug_switch) == 4 && offsetof(bv_debug_switch, level) == 1 &&
                  offsetof(bv_debug_switch, module) == 2,
              "callers copy the switch record as 4 bytes");
static_assert(sizeof(bv_debug_header) == 10 && offsetof(bv_debug_header, level) == 1 &&
                  offsetof(bv_debug_header, module) == 2 &&
                  offsetof(bv_debug_header, category) == 4 && offsetof(bv_debug_header, tag) == 6,
              "callers fill the header record themselves");

namespace {

// Stored and used without conversion: on the little-endian gateway this is 10.10.168.192, and
// collectors in the field listen there.
constexpr uint32_t kDefaultAddress = 0xC0A80A0A;
constexpr uint16_t kDefaultPort = 5344;
constexpr uint16_t kDefaultSecondPort = 7364;

constexpr uint32_t kTextSize = 256; // with the NUL, which is not sent

// Blocks are never smaller than this, which is more than any message of bv_debug_remote() needs. So
// a service's messages take and return blocks of one size and do not fragment its heap.
constexpr uint32_t kSmallestBlock = 2048;

bv_debug_cfg g_destination;
sockaddr_in g_address;
int g_socket; // -1 for none; 0, not -1, until bv_debug_init() has run

void reopen_socket()
{
    if (g_socket != -1)
        bv_os_close(g_socket);

    g_address = {};
    g_address.sin_family = AF_INET;
    g_address.sin_addr.s_addr = g_destination.address;
    g_address.sin_port = htons(g_destination.port);
    g_socket = bv::keep_descriptor(bv_os_socket(AF_INET, SOCK_DGRAM, 0));
}

// Writes the header of a datagram and sends it. Both lengths in it wrap at 65536.
int32_t send_block(uint8_t *block, const bv_debug_header &header, uint32_t text_length)
{
    const auto total = static_cast<uint16_t>(bv::kDebugTextAt + text_length);
    const auto element = static_cast<uint16_t>(bv::kDebugTextAt - bv::kDebugTagAt + text_length);
    block[bv::kDebugCategoryAt] = header.category & bv::kDebugCategoryMask;
    block[bv::kDebugLevelAt] = header.level;
    bv::put_be16(block + bv::kDebugModuleAt, header.module);
    bv::put_be16(block + bv::kDebugTotalLengthAt, total);
    bv::put_be16(block + bv::kDebugTagAt, header.tag);
    bv::put_be16(block + bv::kDebugElementLengthAt, element);
    return static_cast<int32_t>(bv_os_sendto(g_socket, block, total, 0,
                                             reinterpret_cast<const sockaddr *>(&g_address),
                                             sizeof(g_address)));
}

// Prints straight into the datagram. A text that does not fit becomes empty. Not inline, so that a
// message that is off does not pay for the registers.
__attribute__((noinline)) void send_formatted(const bv_debug_header &header, const char *format,
                                              va_list args)
{
    const bv::Block<uint8_t> block(bv::allocate_zeroed<uint8_t>(kSmallestBlock));
    if (!block)
        return;
    char *text = reinterpret_cast<char *>(block.get()) + bv::kDebugTextAt;
    vsprintf_s(text, kTextSize, format, args);
    send_block(block.get(), header, bv_os_strlen(text));
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
    bv_os_memcpy(&g_destination, sizeof(g_destination), record, sizeof(g_destination));
    reopen_socket();
    return BV_OK;
}

int32_t bv_debug_get_cfg(void *out, uint32_t outsize)
{
    bv_os_memcpy(out, outsize, &g_destination, sizeof(g_destination));
    return BV_OK;
}

void bv_debug_remote(uint32_t category, uint32_t tag, uint32_t module, uint32_t level,
                     const char *format, ...)
{
    const auto sent_module = static_cast<uint16_t>(module);
    const auto sent_level = static_cast<uint8_t>(level);
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

    // A wrapped total is shorter than the text, so the block limits what is copied.
    const auto total = static_cast<uint16_t>(bv::kDebugTextAt + length);
    const uint32_t size = std::max<uint32_t>(total, kSmallestBlock);
    const bv::Block<uint8_t> block(bv::allocate_zeroed<uint8_t>(size));
    if (!block)
        return BV_ERR_FAILED;

    const uint32_t copied = std::min<uint32_t>(length, size - bv::kDebugTextAt);
    bv_os_memcpy(block.get() + bv::kDebugTextAt, copied, text, copied);
    return send_block(block.get(), *header, length);
}
