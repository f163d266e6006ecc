// SPDX-License-Identifier: ISC
// Arguments of the bus method by which an owner's functions are called.
//
// The bus library is played here. The owner connects, publishes its object and leaves its loop at
// once. Then its method gets the input as the payload of a message.

#include "fuzz/bus_stub.h"

namespace {

constexpr uint32_t kHandlerResult = 0x01020304;

ubus_object *g_object;
unsigned g_statuses;
uint32_t g_called_length;
unsigned g_calls;

// Reads and writes everything it was given, as real ones do.
uint32_t handler(void *data, uint32_t length)
{
    ++g_calls;
    g_called_length = length;
    auto *bytes = static_cast<uint8_t *>(data);
    for (uint32_t i = 0; i < length; ++i)
        bytes[i] = static_cast<uint8_t>(bytes[i] + 1);
    return kHandlerResult;
}

int register_functions()
{
    for (const char *name : {"get", "set", ""})
        FUZZ_CHECK(bv_ubus_server_reg(name, handler) == 0);
    return 0;
}

} // namespace

extern "C" {

int ubus_add_object(ubus_context *, ubus_object *object)
{
    g_object = object;
    return 0;
}

// clang-format off
int uloop_init(void) { return 0; }
int uloop_fd_add(uloop_fd *, unsigned int) { return 0; }
int uloop_run_timeout(int) { return 0; }
void uloop_done(void) {}
// clang-format on

int ubus_send_reply(ubus_context *, ubus_request_data *, blob_attr *message)
{
    FUZZ_CHECK(g_calls == 1 && g_statuses == 0);
    const blobmsg_policy policy[] = {
        {"return", BLOBMSG_TYPE_INT32}, {"len", BLOBMSG_TYPE_INT32}, {"data", BLOBMSG_TYPE_UNSPEC}};
    blob_attr *fields[3];
    blobmsg_parse(policy, 3, fields, blob_data(message), static_cast<unsigned>(blob_len(message)));
    FUZZ_CHECK(fields[0] != nullptr && blobmsg_get_u32(fields[0]) == kHandlerResult);
    FUZZ_CHECK(fields[1] != nullptr && blobmsg_get_u32(fields[1]) == g_called_length);
    FUZZ_CHECK(fields[2] != nullptr && blobmsg_data_len(fields[2]) == g_called_length);
    fuzz::touch(blobmsg_data(fields[2]), g_called_length);
    return 0;
}

void ubus_complete_deferred_request(ubus_context *, ubus_request_data *request, int status)
{
    FUZZ_CHECK(request->deferred); // or the bus library would add a status
    FUZZ_CHECK(status == (g_calls == 1 ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_ARGUMENT));
    ++g_statuses;
}

} // extern "C"

int LLVMFuzzerInitialize(int *, char ***)
{
    FUZZ_CHECK(bv_ubus_server_init("gateway", register_functions) == 0);
    FUZZ_CHECK(g_object != nullptr && g_object->n_methods == 1);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Message message(fuzz::Input(data, size).rest());
    g_calls = 0;
    g_statuses = 0;
    ubus_request_data request = {};
    const ubus_method &method = g_object->methods[0];
    method.handler(&g_context, g_object, &request, method.name, message.as<blob_attr>());
    FUZZ_CHECK(g_statuses == 1 && g_calls <= 1);
    return 0;
}
