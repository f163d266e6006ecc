// SPDX-License-Identifier: ISC
// Requests of NAME.config, to a service with two families.
//
// The bus library is played here, and the kit's sources are compiled in, so that its methods can be
// called without a loop.
//
// Input: a byte that selects the method (bit 0) and the form (bit 1), then either the payload of a
// message, or the operation, a NUL and the operation's data.

#include "fuzz/bus_stub.h"
#include "service/internal.h"

using namespace bv::service;

namespace bv::service {
const struct bv_service *g_service; // run.cpp's, which is left out
} // namespace bv::service

namespace {

ubus_object *g_object;
unsigned g_replies;

const bv_service_family kFamilies[] = {
    {"lan.json", 15, BV_SERVICE_USER, 0, nullptr, nullptr},
    {"secret.json", 8, BV_SERVICE_PRIVATE, BV_SERVICE_HIDDEN, nullptr, nullptr}};
const bv_service_name kNames[] = {{"dhcp", 1}};
bv_service g_sample;

void check_values()
{
    for (const bv_service_family &family : kFamilies) {
        const Family known(family);
        for (const bv_db_inst &instance : instances(known)) {
            Words words;
            FUZZ_CHECK(check_image(known, instance.image, words) == BV_OK);
        }
    }
}

} // namespace

extern "C" {

int ubus_add_object(ubus_context *, ubus_object *object)
{
    g_object = object;
    return 0;
}

// clang-format off
int uloop_fd_add(uloop_fd *, unsigned int) { return 0; }
int ubus_invoke_fd(ubus_context *, uint32_t, const char *, blob_attr *, ubus_data_handler_t, void *, int, int)
{
    return UBUS_STATUS_TIMEOUT;
}
// clang-format on

int ubus_send_reply(ubus_context *, ubus_request_data *, blob_attr *message)
{
    const blobmsg_policy policy[] = {{"status", BLOBMSG_TYPE_INT32},
                                     {"total", BLOBMSG_TYPE_INT32},
                                     {"data", BLOBMSG_TYPE_STRING},
                                     {"words", BLOBMSG_TYPE_STRING}};
    blob_attr *fields[4];
    blobmsg_parse(policy, 4, fields, blob_data(message), static_cast<unsigned>(blob_len(message)));
    FUZZ_CHECK(fields[0] != nullptr && fields[1] != nullptr);
    const uint32_t status = blobmsg_get_u32(fields[0]);
    const size_t length = fields[2] != nullptr ? strlen(blobmsg_get_string(fields[2])) : 0;
    FUZZ_CHECK(length <= kMaxPart && length <= blobmsg_get_u32(fields[1]));
    FUZZ_CHECK(status == 0 || status == uint32_t(kStartAgain) || fields[3] != nullptr);
    FUZZ_CHECK(status == 0 || length == 0);
    // A first part that is the whole answer is JSON.
    if (length != 0 && length == blobmsg_get_u32(fields[1])) {
        Text plain;
        put_plain(plain, blobmsg_get_string(fields[2]));
        json_tokener *tokener = json_tokener_new();
        json_tokener_set_flags(tokener, JSON_TOKENER_STRICT);
        json_object *answer = json_tokener_parse_ex(tokener, plain.bytes, -1);
        FUZZ_CHECK(answer != nullptr);
        json_object_put(answer);
        json_tokener_free(tokener);
    }
    ++g_replies;
    return 0;
}

} // extern "C"

int LLVMFuzzerInitialize(int *, char ***)
{
    write_file("/etc/template/lan.json", R"({"para": [
        {"name": "mtu", "type": "ushort", "len": 2, "value": "1500"},
        {"name": "host", "type": "string", "len": 8, "value": "gw"},
        {"name": "offset", "type": "char", "len": 1, "value": "-1"},
        {"name": "ip", "type": "ip", "len": 4, "value": "10.0.0.1"}]})");
    write_file("/etc/template/secret.json", R"({"para": [
        {"name": "key", "type": "string", "len": 8, "value": "none"}]})");
    g_sample = {};
    g_sample.name = "sample";
    g_sample.families = kFamilies;
    g_sample.n_families = 2;
    g_sample.modules = g_sample.levels = kNames;
    g_sample.n_modules = g_sample.n_levels = 1;
    g_service = &g_sample;
    FUZZ_CHECK(bv_libraries_init() == BV_OK && open_object() && load() == 0);
    FUZZ_CHECK(publish() == Published::Yes && g_object != nullptr);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    const uint8_t form = input.byte();
    std::string rest = input.rest();
    if ((form & 2) != 0) {
        const size_t end = std::min(rest.find('\0'), rest.size());
        blob_buf buffer = {};
        bv_blobmsg_buf_init(&buffer);
        bv_blobmsg_add_u32(&buffer, "version", 1);
        bv_blobmsg_add_string(&buffer, "op", rest.substr(0, end).c_str());
        if (end < rest.size())
            bv_blobmsg_add_string(&buffer, "data", rest.c_str() + end + 1);
        rest.assign(static_cast<const char *>(blob_data(buffer.head)), blob_len(buffer.head));
        bv_blob_buf_free(&buffer);
    }
    Message message(rest);
    ubus_request_data request = {};
    request.acl.user = "root";
    g_replies = 0;
    const ubus_method &method = g_object->methods[form & 1];
    const int status =
        method.handler(&g_context, g_object, &request, method.name, message.as<blob_attr>());
    FUZZ_CHECK(status == 0 ? g_replies == 1 : g_replies == 0);
    check_values();
    for (const bv_service_family &family : kFamilies)
        if (bv_db_inst_getnum(family.name) > 40)
            bv_service_reset(family.name);
    return 0;
}
