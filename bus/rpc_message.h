// SPDX-License-Identifier: ISC
// The two messages of a remote call: the arguments and the answer of the bus method "method". The
// library and bv-call compile this codec.
//
//   request   "func" string, "len" 32 bits, "data" raw bytes
//   reply     "return" 32 bits, "len" 32 bits, "data" raw bytes
//
// Both come from another process, so a parse function hands out two lengths: the declared one, and
// that of the bytes that were really sent. These are inside the message.
#ifndef BV_BUS_RPC_MESSAGE_H
#define BV_BUS_RPC_MESSAGE_H

#include <bv/ubus.h>

#include "os/span.h"

namespace bv {

constexpr char kDefaultObjectName[] = "brovan.gateway.server";
constexpr char kMethodName[] = "method";

// The longest body that the bus carries. It disconnects whoever sends a longer reply.
constexpr uint32_t kBusBodyLimit = 1024 * 1024;

constexpr int kRpcFields = 3;
extern const blobmsg_policy kRequestPolicy[kRpcFields];

struct RpcRequest {
    const char *func; // terminated
    uint32_t length;  // as declared; not yet compared with anything
    MutableBytes sent;
};

struct RpcReply {
    uint32_t result;
    uint32_t length; // as declared
    Bytes sent;
};

// False when a field is missing or has the wrong type.
bool rpc_parse_request(blob_attr *message, RpcRequest &request);
bool rpc_parse_reply(blob_attr *message, RpcReply &reply);

// Fills buf with a message. False when memory is short or the message is too long: a request for
// the bus, counting the account names that the daemon adds; a reply for buf.
bool rpc_build_request(blob_buf &buf, const char *func, Bytes data);
bool rpc_build_reply(blob_buf &buf, uint32_t result, Bytes data);

// Makes sure, before a handler runs, that its reply will fit both buf and the bus. What buf holds
// is lost.
bool rpc_reserve_reply(blob_buf &buf, uint32_t length);

} // namespace bv

#endif
