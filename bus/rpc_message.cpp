/* SPDX-License-Identifier: ISC */
#include "bus/rpc_message.h"

#include "bus/attr.h"

#include <bv/os.h>

namespace {

// Order of the fields in both messages and both policies; the first field has two names.
enum Field { kFuncOrReturn, kLen, kData };

constexpr blobmsg_policy kReplyPolicy[bv::kRpcFields] = {
    {"return", BLOBMSG_TYPE_INT32}, {"len", BLOBMSG_TYPE_INT32}, {"data", BLOBMSG_TYPE_UNSPEC}};

constexpr uint32_t kWord = 4;      // an attribute's header, an integer
constexpr uint32_t kObjectId = 8;  // as an attribute
constexpr uint32_t kArguments = 4; // header of the attribute that holds the fields

constexpr uint64_t padded(uint64_t length)
{
    return (length + 3) & ~uint64_t{3};
}

// Bytes of a field ahead of its data: its own word, the name's length (16 bits), the name with its
// terminator, padding.
template <size_t Size>
constexpr uint32_t header_of(const char (&)[Size])
{
    return static_cast<uint32_t>(kWord + padded(sizeof(uint16_t) + Size));
}

constexpr uint32_t kLenField = header_of("len") + kWord;

// Fields of a reply without its data, and the body without it.
constexpr uint32_t kReplyFields = header_of("return") + kWord + kLenField + header_of("data");
constexpr uint32_t kReplyBody = kWord + kObjectId + kArguments + kReplyFields;

// The body of a request without its data and the function's name. The method's name comes before
// the arguments.
constexpr uint64_t kRequestBody = kWord + kObjectId + kWord + padded(sizeof(bv::kMethodName)) +
                                  kArguments + header_of("func") + kLenField + header_of("data");

// The daemon adds up to two account names to a call that it passes on, and does not look at the
// limit again. An owner that receives a message above the limit loses its place in the stream for
// good.
constexpr uint64_t kAccountNames = 128;

// A buffer also holds the header of its table, and padding.
constexpr uint32_t kReserveMargin = kWord + 3;

constexpr uint32_t kLongestReply = bv::kBusBodyLimit - kReplyBody;
static_assert(kLongestReply % 4 == 0, "padding cannot lift a reply over the limit");

// The slots decide, not the parser's result: it stops at a malformed field, but those before it are
// good, and it calls a message without fields an error.
bool parse_fields(const blobmsg_policy *policy, blob_attr *message,
                  blob_attr *(&fields)[bv::kRpcFields])
{
    if (message == nullptr || bv::attr_raw_length(message) < sizeof(blob_attr))
        return false;
    bv_blobmsg_parse(policy, bv::kRpcFields, fields, bv::writable(bv::attr_payload(message)),
                     static_cast<unsigned int>(bv::attr_length(message)));
    return fields[kFuncOrReturn] != nullptr && fields[kLen] != nullptr && fields[kData] != nullptr;
}

// The data of a field that was found by its whole name, so the length of its header is known. The
// parser has checked that it is as long as its type needs.
template <size_t Size>
const uint8_t *data_of(const blob_attr *field, const char (&name)[Size])
{
    return bv::attr_bytes(field) + header_of(name);
}

// What the field "data" really holds.
bv::Bytes sent_bytes(const blob_attr *field)
{
    return {data_of(field, "data"),
            static_cast<uint32_t>(bv::attr_raw_length(field) - header_of("data"))};
}

// Like bv_blobmsg_add_u32(), but inline: a reply has two of these.
inline bool add_word(blob_buf &buf, const char *name, uint32_t value)
{
    uint8_t bytes[sizeof(value)];
    bv::put_be32(bytes, value);
    return bv_blobmsg_add_field(&buf, BLOBMSG_TYPE_INT32, name, bytes, sizeof(bytes)) == 0;
}

bool add_data(blob_buf &buf, bv::Bytes data)
{
    return bv_blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "data", data.data, data.length) == 0;
}

} // namespace

const blobmsg_policy bv::kRequestPolicy[kRpcFields] = {
    {"func", BLOBMSG_TYPE_STRING}, {"len", BLOBMSG_TYPE_INT32}, {"data", BLOBMSG_TYPE_UNSPEC}};

bool bv::rpc_parse_request(blob_attr *message, RpcRequest &request)
{
    blob_attr *fields[kRpcFields];
    if (!parse_fields(kRequestPolicy, message, fields))
        return false;
    request.func = reinterpret_cast<const char *>(data_of(fields[kFuncOrReturn], "func"));
    request.length = get_be32(data_of(fields[kLen], "len"));
    const Bytes sent = sent_bytes(fields[kData]);
    request.sent = bytes_of(writable(sent.data), sent.length);
    return true;
}

bool bv::rpc_parse_reply(blob_attr *message, RpcReply &reply)
{
    blob_attr *fields[kRpcFields];
    if (!parse_fields(kReplyPolicy, message, fields))
        return false;
    reply.result = get_be32(data_of(fields[kFuncOrReturn], "return"));
    reply.length = get_be32(data_of(fields[kLen], "len"));
    reply.sent = sent_bytes(fields[kData]);
    return true;
}

bool bv::rpc_build_request(blob_buf &buf, const char *func, Bytes data)
{
    const uint64_t func_size = uint64_t{bv_os_strlen(func)} + 1;
    const uint64_t body = kRequestBody + padded(func_size) + padded(data.length);
    // Checked before anything is built: the buffer would keep the size for ever.
    return body + kAccountNames <= kBusBodyLimit && bv_blobmsg_buf_init(&buf) == 0 &&
           bv_blobmsg_add_field(&buf, BLOBMSG_TYPE_STRING, "func", func,
                                static_cast<unsigned int>(func_size)) == 0 &&
           bv_blobmsg_add_u32(&buf, "len", data.length) == 0 && add_data(buf, data);
}

bool bv::rpc_build_reply(blob_buf &buf, uint32_t result, Bytes data)
{
    return bv_blobmsg_buf_init(&buf) == 0 && add_word(buf, "return", result) &&
           add_word(buf, "len", data.length) && add_data(buf, data);
}

bool bv::rpc_reserve_reply(blob_buf &buf, uint32_t length)
{
    if (length > kLongestReply)
        return false;
    const uint32_t needed = kReplyFields + length;
    if (buf.head != nullptr && static_cast<uint32_t>(buf.buflen) >= needed + kReserveMargin)
        return true;
    // One unwritten attribute as long as all fields together. The buffer keeps its size when it is
    // initialised again.
    return bv_blobmsg_buf_init(&buf) == 0 && bv_blob_put(&buf, 0, nullptr, needed) != nullptr;
}
