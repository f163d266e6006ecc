// The messages are those of bv_ubus_client_call(), which cannot tell the bus's answers from the
// function's: a result of 2 may be either, and a missing object shows late. Here they stay apart.

#include "tools/call/remote.h"

#include <bv/status.h>

#include "bus/rpc_message.h"
#include "os/owned.h"

#include <sys/time.h>

namespace {

using tools::Buffer;
using tools::Remote;

using Connection = bv::Owned<ubus_context *, nullptr, bv_ubus_free>;

// What the reply brought; filled while the call waits for it.
struct Reply {
    Buffer &bytes;
    uint32_t result;
    const char *fault;
};

const char *read_reply(blob_attr *message, Reply &reply)
{
    bv::RpcReply fields;
    if (!bv::rpc_parse_reply(message, fields))
        return "the reply lacks \"return\", \"len\" or \"data\"";
    if (fields.length > fields.sent.length)
        return "the reply has less data than it says";
    reply.bytes.length = 0;
    if (!reply.bytes.add(fields.sent.data, fields.length))
        return "the reply is too long";
    reply.result = fields.result;
    return nullptr;
}

void take_reply(ubus_request *request, int, blob_attr *message)
{
    auto &reply = *static_cast<Reply *>(request->priv);
    reply.fault = read_reply(message, reply);
}

// SIGALRM comes after the timeout; with 0 it does not come.
void set_alarm(int timeout_ms)
{
    const itimerval timer = {{0, 0}, {timeout_ms / 1000, timeout_ms % 1000 * 1000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

// Calls over an open connection.
const char *call(ubus_context *bus, const Remote &remote, Reply &reply)
{
    uint32_t object;
    int status = bv_ubus_lookup_id(bus, remote.object, &object);
    set_alarm(0); // the call itself has a limit
    if (status != UBUS_STATUS_OK)
        return bv_bus_status_text(status);

    static blob_buf request;
    if (!bv::rpc_build_request(request, remote.function, {reply.bytes.data, reply.bytes.length}))
        return "out of memory";
    reply.fault = "the function was run, but did not answer";
    status = bv_ubus_invoke(bus, object, bv::kMethodName, request.head, take_reply, &reply,
                            remote.timeout_ms);
    bv_blob_buf_free(&request);
    return status != UBUS_STATUS_OK ? bv_bus_status_text(status) : reply.fault;
}

} // namespace

const char *tools::call_remote(const Remote &remote, Buffer &bytes, uint32_t &result)
{
    set_alarm(remote.timeout_ms);
    const Connection bus(bv_ubus_connect(remote.socket));
    if (!bus)
        return "cannot connect to the bus";
    Reply reply = {bytes, 0, nullptr};
    const char *fault = call(bus.get(), remote, reply);
    result = reply.result;
    return fault;
}
