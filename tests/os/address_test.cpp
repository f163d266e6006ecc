/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/faults.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <string>

namespace {

std::string bytes(const char *text)
{
    char out[7] = "??????";
    bv_os_mac_pton(text, out);
    EXPECT_EQ(out[6], '\0');
    return std::string(out, 6);
}

} // namespace

// Small C libraries write while they read, so a failure leaves something. Here it always does.
extern "C" int inet_pton(int family, const char *text, void *address) noexcept
{
    int converted =
        next_function<int(int, const char *, void *)>("inet_pton")(family, text, address);
    if (converted != 1)
        memset(address, 0xee, 4);
    return converted;
}

extern "C" const char *inet_ntop(int family, const void *address, char *text,
                                 socklen_t size) noexcept
{
    auto *next = next_function<const char *(int, const void *, char *, socklen_t)>("inet_ntop");
    const char *printed = next(family, address, text, size);
    if (printed == nullptr)
        memset(text, '#', size);
    return printed;
}

TEST(MacPton, BytesAreZeroFromTheFirstBadGroupOn)
{
    const struct {
        const char *text;
        std::string mac;
    } rows[] = {
        {"00:1A:2b:3c:4d:5e", std::string("\x00\x1a\x2b\x3c\x4d\x5e", 6)}, // either case
        {"FF:eE:09:90:aF:Fa and more", std::string("\xff\xee\x09\x90\xaf\xfa", 6)},
        {"00:11:22:33:44:5g", std::string("\x00\x11\x22\x33\x44\x05", 6)},
        {"00:11:22:33:44.55", std::string("\x00\x11\x22\x33\x44\0", 6)},
        {"00:11:22:33:44:@`", std::string("\x00\x11\x22\x33\x44\0", 6)}, // next to the digits
        {"00:11:22:33:44:/:", std::string("\x00\x11\x22\x33\x44\0", 6)},
        {"", std::string(6, '\0')},
        {"aa", std::string("\xaa\0\0\0\0\0", 6)},
        {"aa:bb:zz:dd:ee:ff", std::string("\xaa\xbb\0\0\0\0", 6)},
        {"aa-bb-cc-dd-ee-ff", std::string("\xaa\0\0\0\0\0", 6)},
        {"aab:bb:cc:dd:ee:ff", std::string("\xaa\0\0\0\0\0", 6)}, // two digits at most
        {"a:b:c:d:e:f", std::string("\x0a\x0b\x0c\x0d\x0e\x0f", 6)},
        {"1:2:3:4:5:6 and more", std::string("\x01\x02\x03\x04\x05\x06", 6)},
        {"+1: 2:3:4:5:6", std::string("\x01\x02\x03\x04\x05\x06", 6)},
        {"-1:02:03:04:05:06", std::string("\xff\x02\x03\x04\x05\x06", 6)},
    };
    for (const auto &row : rows)
        EXPECT_EQ(bytes(row.text), row.mac) << row.text;
}

TEST(MacPton, NullTextIsAllZeroAndNullOutIsLeftAlone)
{
    EXPECT_EQ(bytes(nullptr), std::string(6, '\0'));
    bv_os_mac_pton("aa:bb:cc:dd:ee:ff", nullptr);
}

TEST(MacNtop, PrintsLowerCaseOrNothing)
{
    char out[] = "..................";
    bv_os_mac_ntop("\x00\x1a\x80\x3c\x4d\xff", out, sizeof out);
    EXPECT_STREQ(out, "00:1a:80:3c:4d:ff");
    memset(out, '.', 18);
    bv_os_mac_ntop("\1\2\3\4\5\6", out, 17);
    EXPECT_STREQ(out, "") << "it does not fit";
    EXPECT_EQ(out[17], '.');
    memset(out, '.', 18);
    bv_os_mac_ntop(nullptr, out, 18);
    EXPECT_STREQ(out, "") << "no address";
}

TEST(MacNtop, CapacityOutOfRangeLeavesTheBufferAlone)
{
    char out[] = "..................";
    for (uint32_t size : {0u, 0x80000000u, 0xffffffffu}) {
        bv_os_mac_ntop("\1\2\3\4\5\6", out, size);
        EXPECT_STREQ(out, "..................") << size;
    }
    bv_os_mac_ntop("\1\2\3\4\5\6", out, 0x7fffffff);
    EXPECT_STREQ(out, "01:02:03:04:05:06");
}

TEST(InetPton, TextThatIsNotADottedAddressLeavesTheOldOneWhole)
{
    unsigned char out[4];
    EXPECT_EQ(bv_os_inet_pton("192.168.1.254", out), 1);
    for (const char *text :
         {"", "::1", "10", "10.", "10.1.2", "10.1.2.", "10.1.2.256", "10.1.2.3x", "10.1.2.3."}) {
        EXPECT_EQ(bv_os_inet_pton(text, out), 0) << text;
        EXPECT_EQ(memcmp(out, "\xc0\xa8\x01\xfe", 4), 0) << text;
    }
}

TEST(InetNtop, PrintsIntoTheCallersBuffer)
{
    char out[16];
    EXPECT_EQ(bv_os_inet_ntop("\xc0\xa8\x01\xfe", out, sizeof out), out);
    EXPECT_STREQ(out, "192.168.1.254");
    EXPECT_EQ(bv_os_inet_ntop("\xff\xff\xff\xff", out, 0xffffffff), out);
    EXPECT_STREQ(out, "255.255.255.255");
}

TEST(InetNtop, TextThatDoesNotFitLeavesTheBufferAlone)
{
    char out[] = "..............";
    for (uint32_t size : {0u, 1u, 13u}) {
        errno = 0;
        EXPECT_EQ(bv_os_inet_ntop("\xc0\xa8\x01\xfe", out, size), nullptr) << size;
        EXPECT_EQ(errno, ENOSPC) << size;
        EXPECT_STREQ(out, "..............") << size;
    }
    EXPECT_EQ(bv_os_inet_ntop("\xc0\xa8\x01\xfe", out, 14), out);
    EXPECT_STREQ(out, "192.168.1.254");
}

TEST(InetAddr, IsInNetworkOrderOrAllOnes)
{
    uint32_t address = bv_os_inet_addr("10.1.2.3");
    EXPECT_EQ(memcmp(&address, "\x0a\x01\x02\x03", 4), 0);
    EXPECT_EQ(bv_os_inet_addr("nonsense"), 0xffffffffu);
    EXPECT_EQ(bv_os_inet_addr("127.1"), htonl(0x7f000001)); // as inet_addr() has always read it
}
