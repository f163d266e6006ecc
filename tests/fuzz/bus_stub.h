// SPDX-License-Identifier: ISC
// The bus library, as far as it is the same for both ends of a call: connections and messages.
#ifndef BV_TESTS_FUZZ_BUS_STUB_H
#define BV_TESTS_FUZZ_BUS_STUB_H

#include <bv/ubus.h>

#include "fuzz/input.h"

static ubus_context g_context;

// A message as the bus library hands it on: a header that it has checked, then any payload.
class Message : public fuzz::Block {
public:
    explicit Message(const std::string &payload) : Block(with_header(payload)) {}

private:
    static std::string with_header(const std::string &payload)
    {
        const size_t length = payload.size() + sizeof(blob_attr);
        return std::string{7, static_cast<char>(length >> 16), static_cast<char>(length >> 8),
                           static_cast<char>(length)} +
               payload;
    }
};

extern "C" ubus_context *ubus_connect(const char *)
{
    g_context.sock.fd = STDIN_FILENO;
    return &g_context;
}

extern "C" void ubus_free(ubus_context *) {}

#endif
