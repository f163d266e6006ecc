// SPDX-License-Identifier: ISC
// A running bv-collect, and captures made by hand.
#ifndef BV_TESTS_TOOLS_COLLECTOR_H
#define BV_TESTS_TOOLS_COLLECTOR_H

#include "support/process.h"
#include "tools/tool.h"

#include <bv/debug.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

using Bytes = std::string;
using namespace std::string_literals;

inline const char kFile[] = "/scratch/capture.pcap";

// A collector on a port of its own, listening when the constructor returns. Debug messages of this
// process go there.
class Collector : public Program {
public:
    explicit Collector(Words options = {}) : Program(command(options))
    {
        EXPECT_TRUE(eventually([&] { return contains(errors(), "\n"); }));
        EXPECT_TRUE(contains(errors(), "bv-collect: listening on ")) << errors();
        port_ = static_cast<uint16_t>(atoi(errors().c_str() + errors().rfind(':') + 1));

        static const int32_t started = bv_debug_init(); // a second one would leak the first's table
        EXPECT_EQ(started, 0);
        bv_debug_cfg destination = {htonl(INADDR_LOOPBACK), port_, 0};
        bv_debug_set_cfg(&destination);
        for (uint32_t level = 0; level < 8; ++level)
            bv_debug_set_switch(0, level, 1);
    }

    uint16_t port() const { return port_; }

    // Sends bytes that the library would not.
    void send(const Bytes &bytes, const char *address = "127.0.0.1", uint16_t from_port = 0) const
    {
        sockaddr_in from = {}, to = {};
        from.sin_family = to.sin_family = AF_INET;
        from.sin_port = htons(from_port);
        to.sin_port = htons(port_);
        inet_pton(AF_INET, "127.0.0.1", &from.sin_addr);
        inet_pton(AF_INET, address, &to.sin_addr);
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof(from)), 0);
        sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
        close(fd);
    }

    int end(int number = SIGTERM)
    {
        signal(number);
        return wait();
    }

private:
    static Words command(const Words &options)
    {
        Words all = {BV_TOOL, "-a", "127.0.0.1", "-p", "0"};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }

    uint16_t port_ = 0;
};

// Lets bv-collect take three messages; its port is in `port`.
inline Outcome capture_three(const std::string &options, uint16_t &port)
{
    Collector collector(words("-c 3 " + options));
    port = collector.port();
    bv_debug_remote(5, 0x1234, 2, 3, "abc");
    bv_debug_remote(5, 0x1234, 4, 6, "odd length!");
    bv_debug_remote(5, 0x1234, 2, 7, "%s", "");
    const int status = collector.wait();
    return {status, collector.output(), collector.errors()};
}

inline Bytes be(uint32_t value)
{
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
            static_cast<char>(value >> 8), static_cast<char>(value)};
}

inline Bytes le(uint32_t value)
{
    return be(__builtin_bswap32(value));
}

inline Bytes file_head(uint32_t magic, uint32_t link, Bytes (*word)(uint32_t) = le)
{
    const Bytes version = word == le ? "\2\0\4\0"s : "\0\2\0\4"s;
    return word(magic) + version + word(0) + word(0) + word(65535) + word(link);
}

inline Bytes record(const Bytes &packet, uint32_t fraction = 5, Bytes (*word)(uint32_t) = le)
{
    const Bytes length = word(static_cast<uint32_t>(packet.size()));
    return word(1000000000) + word(fraction) + length + length + packet;
}

inline const Bytes kMessage = "\5\3\0\2\0\x0d\x12\x34\0\7abc"s; // module 2, level 3

// An IPv4 packet from 10.1.2.3:4000 to 10.1.2.4:5344, without checksums.
inline Bytes packet(const Bytes &data = kMessage)
{
    const auto total = static_cast<char>(28 + data.size());
    return "\x45\0\0"s + total + "\0\0\0\0\x40\x11\0\0\x0a\1\2\3\x0a\1\2\4"s +
           "\x0f\xa0\x14\xe0\0"s + static_cast<char>(8 + data.size()) + "\0\0"s + data;
}

#endif
