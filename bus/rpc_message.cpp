#include "bus/rpc_message.h"

#include <bv/os.h>

namespace {

// Order of the fields in both messages and both policies; the first field has two names.
enum Field { kFuncOrReturn, kLen, kData };

constexpr blobmsg_policy kReplyPolicy[bv::kRpcFields] = {
    {"return", BLOBMSG_TYPE_INT32}, {"len", BLOBMSG_TYPE_INT32}, {"data", BLOBMSG_TYPE_UNSPEC}};

// Fields of a reply around its bytes, each with its header: "return" 20, "len" 16, "data" 12.
constexpr uint32_t kReplyFieldsLength = 20 + 16 + 12;
// The body around them: its own word, the object's id, the header of the arguments.
constexpr uint32_t kReplyBodyOverhead = 4 + 8 + 4 + kReplyFieldsLength;

// The same of a request, without the function's name: the body's own word, the object's id, the
// method's name, the header of the arguments; "func" 12, "len" 16, "data" 12.
constexpr uint64_t kRequestBodyOverhead = 4 + 8 + 12 + 4 + 12 + 16 + 12;
static_assert(sizeof(bv::kMethodName) <= 8, "the method's name with its header");

// The daemon adds up to two account names to a call that it passes on, and does not look at the
// limit again. An owner that gets a longer message than the limit understands nothing any more.
constexpr uint64_t kAccountNames = 128;

constexpr uint64_t padded(uint64_t length)
{
    return (length + 3) & ~uint64_t{3};
}

// Beyond the fields in a buffer: the table's header and the padding.
constexpr uint32_t kReserveMargin = 4 + 3;

constexpr uint32_t kLongestReply = bv::kBusBodyLimit - kReplyBodyOverhead;
static_assert(kLongestReply % 4 == 0, "padding cannot lift a reply over the limit");

// The slots decide and not the parser's result: it stops at a malformed field, but those before
// it are good, and it takes a message without any for an error.
bool parse_fields(const blobmsg_policy *policy, blob_attr *message,
                  blob_attr *(&fields)[bv::kRpcFields])
{
    if (message == nullptr || bv_blob_raw_len(message) < sizeof(blob_attr))
        return false;
    bv_blobmsg_parse(policy, bv::kRpcFields, fields, bv_blob_data(message),
                     static_cast<unsigned int>(bv_blob_len(message)));
    return fields[kFuncOrReturn] != nullptr && fields[kLen] != nullptr && fields[kData] != nullptr;
}

} // namespace

namespace bv {

const blobmsg_policy kRequestPolicy[kRpcFields] = {
    {"func", BLOBMSG_TYPE_STRING}, {"len", BLOBMSG_TYPE_INT32}, {"data", BLOBMSG_TYPE_UNSPEC}};

bool rpc_parse_request(blob_attr *message, RpcRequest &request)
{
    blob_attr *fields[kRpcFields];
    if (!parse_fields(kRequestPolicy, message, fields))
        return false;
    request.func = bv_blobmsg_get_string(fields[kFuncOrReturn]);
    request.length = bv_blobmsg_get_u32(fields[kLen]);
    request.data = static_cast<uint8_t *>(bv_blobmsg_data(fields[kData]));
    request.available = static_cast<uint32_t>(bv_blobmsg_data_len(fields[kData]));
    return true;
}

bool rpc_parse_reply(blob_attr *message, RpcReply &reply)
{
    blob_attr *fields[kRpcFields];
    if (!parse_fields(kReplyPolicy, message, fields))
        return false;
    reply.result = bv_blobmsg_get_u32(fields[kFuncOrReturn]);
    reply.length = bv_blobmsg_get_u32(fields[kLen]);
    reply.data = static_cast<const uint8_t *>(bv_blobmsg_data(fields[kData]));
    reply.available = static_cast<uint32_t>(bv_blobmsg_data_len(fields[kData]));
    return true;
}

bool rpc_request_fits(const char *func, uint32_t length)
{
    const uint64_t body =
        kRequestBodyOverhead + padded(uint64_t{bv_os_strlen(func)} + 1) + padded(length);
    return body + kAccountNames <= kBusBodyLimit;
}

bool rpc_build_request(blob_buf &buf, const char *func, const void *data, uint32_t length)
{
    return bv_blobmsg_buf_init(&buf) == 0 && bv_blobmsg_add_string(&buf, "func", func) == 0 &&
           bv_blobmsg_add_u32(&buf, "len", length) == 0 &&
           bv_blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "data", data, length) == 0;
}

bool rpc_build_reply(blob_buf &buf, uint32_t result, const void *data, uint32_t length)
{
    return bv_blobmsg_buf_init(&buf) == 0 && bv_blobmsg_add_u32(&buf, "return", result) == 0 &&
           bv_blobmsg_add_u32(&buf, "len", length) == 0 &&
           bv_blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "data", data, length) == 0;
}

bool rpc_reserve_reply(blob_buf &buf, uint32_t length)
{
    if (length > kLongestReply)
        return false;
    const uint32_t needed = kReplyFieldsLength + length;
    if (buf.head != nullptr && static_cast<uint32_t>(buf.buflen) >= needed + kReserveMargin)
        return true;
    // One unwritten attribute as long as all fields together: the buffer keeps its size when it is
    // initialised again.
    return bv_blobmsg_buf_init(&buf) == 0 && bv_blob_put(&buf, 0, nullptr, needed) != nullptr;
}

} // namespace bv
