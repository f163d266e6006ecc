// Replies to a call. The bus library is played here and gives the input as the owner's answer.
//
// The caller's buffer holds what the message brought and not a byte more, as callers promise.
//
// Input: a byte for the length of the request, then the payload of the reply.

#include <bv/ubus.h>

#include "fuzz/input.h"

namespace {

ubus_context g_context;
std::string g_reply;

bool start()
{
    FUZZ_CHECK(bv_ubus_client_init("gateway") == 0);
    return true;
}

} // namespace

extern "C" {

ubus_context *ubus_connect(const char *)
{
    return &g_context;
}

void ubus_free(ubus_context *) {}

int ubus_lookup_id(ubus_context *, const char *, uint32_t *id)
{
    *id = 0x5ea6c73d;
    return 0;
}

int ubus_invoke_fd(ubus_context *, uint32_t, const char *, blob_attr *, ubus_data_handler_t answer,
                   void *priv, int, int)
{
    const uint32_t length = static_cast<uint32_t>(g_reply.size() + sizeof(blob_attr));
    fuzz::Block message(length);
    const uint8_t header[] = {7, static_cast<uint8_t>(length >> 16),
                              static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
    memcpy(message.bytes(), header, sizeof header);
    memcpy(message.bytes() + sizeof header, g_reply.data(), g_reply.size());

    ubus_request request = {};
    request.priv = priv;
    answer(&request, UBUS_MSG_DATA, message.as<blob_attr>());
    return 0;
}

} // extern "C"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool started = start();
    FUZZ_CHECK(started);
    fuzz::Input input(data, size);
    const uint32_t length = input.byte();
    g_reply = input.rest();

    fuzz::Block buffer(std::max<size_t>(length, g_reply.size()));
    bv_ubus_client_call("get", buffer.bytes(), length);
    return 0;
}
