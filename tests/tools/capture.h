// Captures of bv-collect for tests: taken from real datagrams, and made by hand.
#ifndef BV_TESTS_TOOLS_CAPTURE_H
#define BV_TESTS_TOOLS_CAPTURE_H

#include "support/child.h"
#include "support/files.h"
#include "support/process.h"

#include <bv/debug.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string>

using Bytes = std::string;
using namespace std::string_literals;

inline const char kFile[] = "/scratch/capture.pcap";

// Lets bv-collect write a capture of what `send` has the library send; the port is in `port`.
template <typename Send>
Outcome capture(const std::vector<std::string> &options, uint16_t &port, Send send)
{
    std::vector<std::string> arguments = {BV_TOOL, "-a", "127.0.0.1", "-p", "0"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    Program program(arguments);
    eventually([&] { return program.errors().find('\n') != std::string::npos; });
    std::string ready = program.errors();
    port = static_cast<uint16_t>(atoi(ready.c_str() + ready.rfind(':') + 1));

    bv_debug_init();
    bv_debug_cfg destination = {htonl(INADDR_LOOPBACK), port, 0};
    bv_debug_set_cfg(&destination);
    for (uint32_t level = 0; level < 8; ++level)
        bv_debug_set_switch(0, level, 1);
    send();
    int status = program.wait();
    return {status, program.output(), program.errors()};
}

inline void send_three()
{
    bv_debug_remote(5, 0x1234, 2, 3, "abc");
    bv_debug_remote(5, 0x1234, 4, 6, "odd length!");
    bv_debug_remote(5, 0x1234, 2, 7, "%s", "");
}

inline Bytes le(uint32_t value)
{
    return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
            static_cast<char>(value >> 24)};
}

inline Bytes be(uint32_t value)
{
    Bytes bytes = le(value);
    return {bytes[3], bytes[2], bytes[1], bytes[0]};
}

inline Bytes file_head(uint32_t magic, uint32_t link, Bytes (*word)(uint32_t) = le)
{
    const Bytes version = word == le ? "\2\0\4\0"s : "\0\2\0\4"s;
    return word(magic) + version + word(0) + word(0) + word(65535) + word(link);
}

inline Bytes record(const Bytes &packet, uint32_t fraction = 5, Bytes (*word)(uint32_t) = le)
{
    auto length = static_cast<uint32_t>(packet.size());
    return word(1000000000) + word(fraction) + word(length) + word(length) + packet;
}

inline const Bytes kMessage = "\5\3\0\2\0\x0d\x12\x34\0\7abc"s; // module 2, level 3

// An IPv4 packet from 10.1.2.3:4000 to 10.1.2.4:5344, without checksums.
inline Bytes packet(const Bytes &data = kMessage)
{
    auto total = static_cast<char>(28 + data.size());
    return "\x45\0\0"s + total + "\0\0\0\0\x40\x11\0\0\x0a\1\2\3\x0a\1\2\4"s +
           "\x0f\xa0\x14\xe0\0"s + static_cast<char>(8 + data.size()) + "\0\0"s + data;
}

#endif
