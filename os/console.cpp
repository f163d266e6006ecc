// SPDX-License-Identifier: ISC
// Dumps for a developer at the device, on standard output.

#include <bv/os.h>

int32_t bv_os_printb(const void *address, int32_t length)
{
    if (address == nullptr || length < 1)
        return bv_os_printf("\r\n");

    // A dump of the stack may run over this word. So it is not cleared, which would show zeros that
    // are not there, and it is filled by a move: a copy would be refused as overlapping.
    uint32_t word;
    const auto *bytes = static_cast<const uint8_t *>(address);
    for (int64_t offset = 0; offset < length; offset += 4) {
        const uint8_t *at = bytes + offset;
        if (offset % 16 == 0)
            bv_os_printf("\r\n[0x%08x] : ", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(at)));

        // Whole words, the last one too: callers know that up to three more bytes are read.
        bv_os_memmove(&word, sizeof(word), at, sizeof(word));
        bv_os_printf("%08x ", __builtin_bswap32(word));
    }
    return bv_os_printf("\r\n");
}

void bv_os_printa(const char *text, int32_t width)
{
    if (text == nullptr)
        return;

    bv_os_printf("%s", text);
    for (int64_t column = bv_os_strlen(text); column < width; ++column)
        bv_os_printf(" ");
}
