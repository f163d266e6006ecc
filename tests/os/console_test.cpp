/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/capture_stdout.h"
#include "support/faults.h"
#include "support/sanitized.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

std::string dump(const void *address, int32_t length)
{
    CaptureStdout output;
    int32_t result = bv_os_printb(address, length);
    std::string text = output.stop();
    EXPECT_EQ(result, 2);
    return text;
}

std::string head(const void *address)
{
    char text[32];
    snprintf(text, sizeof text,
             "\r\n[0x%08x] : ", static_cast<unsigned>(reinterpret_cast<uintptr_t>(address)));
    return text;
}

std::string padded(const char *text, int32_t width)
{
    CaptureStdout output;
    bv_os_printa(text, width);
    return output.stop();
}

// Where words are copied to for a dump. One that is planted gets other contents than it found.
uint8_t *g_copy;
bool g_plant;

int note_copy(uint8_t *dst, size_t count, int result)
{
    g_copy = dst;
    if (g_plant)
        memset(dst, 0x5a, count);
    g_plant = false;
    return result;
}

alignas(16) const uint8_t kBytes[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                                      0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f,
                                      0x10, 0x11, 0x12, 0x13, 0xfc, 0xfd, 0xfe, 0xff};

} // namespace

BV_INTERPOSE(memcpy_s, "memcpy_s", int, (void *dst, size_t size, const void *src, size_t count))
{
    return note_copy(static_cast<uint8_t *>(dst), count, BV_NEXT(memcpy_s)(dst, size, src, count));
}

BV_INTERPOSE(memmove_s, "memmove_s", int, (void *dst, size_t size, const void *src, size_t count))
{
    return note_copy(static_cast<uint8_t *>(dst), count, BV_NEXT(memmove_s)(dst, size, src, count));
}

TEST(Printb, DumpOfNothingIsAnEmptyLine)
{
    for (int32_t length : {0, -1, INT32_MIN})
        EXPECT_EQ(dump(kBytes, length), "\r\n") << length;
    for (int32_t length : {0, 16})
        EXPECT_EQ(dump(nullptr, length), "\r\n") << length;
}

TEST(Printb, ShowsFourWordsALineInMemoryOrder)
{
    EXPECT_EQ(dump(kBytes, 20), head(kBytes) + "00010203 04050607 08090a0b 0c0d0e0f " +
                                    head(kBytes + 16) + "10111213 \r\n");
    EXPECT_EQ(dump(kBytes, 16), head(kBytes) + "00010203 04050607 08090a0b 0c0d0e0f \r\n");
}

TEST(Printb, LastWordIsShownWhole)
{
    for (int32_t length = 21; length <= 24; ++length)
        EXPECT_EQ(dump(kBytes, length), head(kBytes) + "00010203 04050607 08090a0b 0c0d0e0f " +
                                            head(kBytes + 16) + "10111213 fcfdfeff \r\n");
    EXPECT_EQ(dump(kBytes, 1), head(kBytes) + "00010203 \r\n");
}

// Lines break every 16 bytes of the dump, wherever it starts; the bracket shows the address.
TEST(Printb, LinesGoByOffsetAndTheBracketShowsTheAddress)
{
    EXPECT_EQ(dump(kBytes + 4, 20), head(kBytes + 4) + "04050607 08090a0b 0c0d0e0f 10111213 " +
                                        head(kBytes + 20) + "fcfdfeff \r\n");
}

TEST(Printb, UnalignedAddressesPrint)
{
    EXPECT_EQ(dump(kBytes + 1, 8), head(kBytes + 1) + "01020304 05060708 \r\n");
}

// Someone who dumps a stack may meet the dump's own copy of the word before.
TEST(Printb, ShowsMemoryUnchangedEvenWhereItsOwnCopyIs)
{
    if (kSanitized)
        GTEST_SKIP() << "a sanitizer reports such reads";
    dump(kBytes, 4); // finds the copy; all dumps are made from the same place
    for (int before : {4, 3, 2, 1}) {
        SCOPED_TRACE(before);
        const uint8_t *address = g_copy - before;
        g_plant = true;
        const std::string text = dump(address, 8);
        EXPECT_EQ(g_copy, address + before) << "the copy has moved";
        const std::string planted = "5a5a5a5a " + std::string("5a5a5a5a", 2 * before);
        EXPECT_EQ(text.substr(head(address).size(), planted.size()), planted);
    }
}

TEST(Printb, AddressHasEightDigits)
{
    auto low = reinterpret_cast<void *>(uintptr_t{0x1000000});
    void *page = mmap(low, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    if (page == low) { // otherwise this machine has something else there
        EXPECT_EQ(dump(page, 4), "\r\n[0x01000000] : 00000000 \r\n");
    }
    munmap(page, 4096);
}

TEST(Printa, PadsToTheWidthAndPrintsALongerTextWhole)
{
    const struct {
        const char *text;
        int32_t width;
        const char *printed;
    } rows[] = {{"ab", 5, "ab   "},      {"ab", 2, "ab"},      {"", 3, "   "},
                {"ab", 1, "ab"},         {"ab", 0, "ab"},      {"ab", -5, "ab"},
                {"ab", INT32_MIN, "ab"}, {"%s%n", 5, "%s%n "}, {nullptr, 5, ""}};
    for (const auto &row : rows)
        EXPECT_EQ(padded(row.text, row.width), row.printed) << row.width;
}
