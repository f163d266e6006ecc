// SPDX-License-Identifier: ISC
// What an owner answers to a client. The bus library is played here.
//
// Input: a byte that selects the call, then the answers to its requests: a byte with the form, two
// bytes with the length, and either the payload of a message or the answer's data.

#include "fuzz/bus_stub.h"

#include <bv/service.h>

namespace {

fuzz::Input *g_input;

struct __attribute__((packed)) Lan {
    uint16_t mtu;
    char host[8];
};

} // namespace

extern "C" {

int ubus_lookup(ubus_context *bus, const char *, ubus_lookup_handler_t found, void *priv)
{
    ubus_object_data object = {};
    object.id = 0x5ea6c73d;
    found(bus, &object, priv);
    return 0;
}

// No events: the counters are read all the same.
int ubus_add_object(ubus_context *bus, ubus_object *)
{
    bus->sock.cb = [](uloop_fd *, unsigned) {};
    return UBUS_STATUS_NO_MEMORY;
}

// A commit may take longer than a hanging owner is waited for.
int ubus_invoke_fd(ubus_context *, uint32_t, const char *method, blob_attr *,
                   ubus_data_handler_t answer, void *priv, int timeout, int)
{
    FUZZ_CHECK(timeout == 3000 || (timeout == 8000 && strcmp(method, "write") == 0));
    if (g_input->empty())
        return UBUS_STATUS_NOT_FOUND;
    const uint8_t form = g_input->byte();
    std::string payload = g_input->take(g_input->byte() * 256u + g_input->byte());
    if ((form & 1) != 0) {
        blob_buf buffer = {};
        bv_blobmsg_buf_init(&buffer);
        bv_blobmsg_add_u32(&buffer, "status", form >> 4);
        bv_blobmsg_add_u32(&buffer, "generation", form >> 3 & 1);
        bv_blobmsg_add_u32(&buffer, "total",
                           static_cast<uint32_t>(strlen(payload.c_str())) + (form >> 1 & 3));
        bv_blobmsg_add_string(&buffer, "data", payload.c_str());
        payload.assign(static_cast<const char *>(blob_data(buffer.head)), blob_len(buffer.head));
        bv_blob_buf_free(&buffer);
    }
    Message message(payload);
    ubus_request request = {};
    request.priv = priv;
    answer(&request, UBUS_MSG_DATA, message.as<blob_attr>());
    return 0;
}

} // extern "C"

int LLVMFuzzerInitialize(int *, char ***)
{
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    g_input = &input;
    bv_service_client *client = bv_service_open("sample", 0);
    FUZZ_CHECK(client != nullptr);
    Lan lan = {7, "seven"};
    char *answer = nullptr;
    switch (input.byte() % 4) {
    case 0:
        if (bv_service_get(client, "lan.json", &lan, sizeof(lan), 1) != 0)
            FUZZ_CHECK(lan.mtu == 7 && strcmp(lan.host, "seven") == 0);
        break;
    case 1:
        bv_service_set(client, "lan.json", &lan, sizeof(lan), 1);
        break;
    case 3: // until the first change, or an answer that makes no sense
        bv_service_watch(
            client, "lan.json",
            [](const char *, const char *, void *priv) {
                bv_service_unwatch(static_cast<bv_service_client *>(priv));
            },
            client, 1);
        break;
    default:
        if (bv_service_request(client, "status", nullptr, &answer) == 0 && answer != nullptr)
            fuzz::touch(answer, strlen(answer) + 1);
        free(answer);
    }
    fuzz::touch(bv_service_words(client), strlen(bv_service_words(client)) + 1);
    bv_service_close(client);
    return 0;
}
