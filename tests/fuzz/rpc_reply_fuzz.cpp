// SPDX-License-Identifier: ISC
// Replies to a call. The bus library is played here and gives the input as the owner's answer.
//
// The caller's buffer holds what the message brought and not a byte more, as callers promise.
//
// Input: a byte for the length of the request, then the payload of the reply.

#include "fuzz/bus_stub.h"

static std::string g_reply;

extern "C" int ubus_lookup_id(ubus_context *, const char *, uint32_t *id)
{
    *id = 0x5ea6c73d;
    return 0;
}

extern "C" int ubus_invoke_fd(ubus_context *, uint32_t, const char *, blob_attr *,
                              ubus_data_handler_t answer, void *priv, int, int)
{
    Message message(g_reply);
    ubus_request request = {};
    request.priv = priv;
    answer(&request, UBUS_MSG_DATA, message.as<blob_attr>());
    return 0;
}

int LLVMFuzzerInitialize(int *, char ***)
{
    FUZZ_CHECK(bv_ubus_client_init("gateway") == 0);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    const uint32_t length = input.byte();
    g_reply = input.rest();

    fuzz::Block buffer(std::max<size_t>(length, g_reply.size()));
    bv_ubus_client_call("get", buffer.bytes(), length);
    return 0;
}
