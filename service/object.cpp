// SPDX-License-Identifier: ISC
// NAME.config: reads and changes families for other programs, by name and as text.
//
// An answer is made anew for each request, also for the second part of a long one: its checksum
// tells whether the parts belong together. So nothing is kept between requests, and a caller that
// goes away leaves nothing behind.

#include "service/internal.h"

#include "tools/template/values.h"

#include <poll.h>

namespace bv::service {

namespace {

ubus_context *g_connection;
blob_buf g_reply;
blob_buf g_event;
blob_buf g_event_data;

uint32_t g_start_number; // of this start of the service, by chance
uint32_t *g_changes;     // of each family since the start
int64_t g_started;       // seconds since 1970
uint32_t g_calls;
uint32_t g_refused;
uint32_t g_dropped; // events that could not be sent

// A request's working state.
struct Call {
    Text &out;
    Words &words;
    Plan plan;
};

// ---- pieces of answers ----
//
// Each value and each member ends with a comma, which the closing bracket replaces.

void close(Text &out, char bracket)
{
    if (out.length != 0 && out.bytes[out.length - 1] == ',')
        --out.length;
    out.put(&bracket, 1);
    out.put(",", 1);
}

void put_text(Text &out, const char *text)
{
    out.put_quoted(text);
    out.put(",", 1);
}

void put_member(Text &out, const char *name, const char *text)
{
    out.print("\"%s\":", name);
    put_text(out, text);
}

void put_count(Text &out, const bv_service_family &family)
{
    out.print("\"%" PRIu32 ".%" PRIu32 "\",", g_start_number,
              g_changes[&family - g_service->families]);
}

bool is_hidden(const bv_service_family &family)
{
    return (family.flags & BV_SERVICE_HIDDEN) != 0;
}

void put_image(Text &out, const bv_service_family &listed, const bv_db_inst &instance)
{
    put_instance(out, *bv_db_hash_find(listed.name), instance.image, instance.number,
                 is_hidden(listed));
    out.put(",", 1);
}

// ---- what requests name ----

int32_t invalid(Call &call, const char *what)
{
    return call.words.refuse(BV_ERR_INVALID, "%s", what);
}

// `numbers`: the array of instances that the request names with the family, or null.
using Visit = int32_t (*)(Call &call, const bv_service_family &listed, bv_db_family &family,
                          json_object *numbers);

int32_t visit_named(Call &call, const char *name, json_object *numbers, Visit visit)
{
    const bv_service_family *listed = name != nullptr ? find_listed(name) : nullptr;
    if (listed == nullptr)
        return call.words.refuse(BV_ERR_NO_FAMILY, "%.80s: %s does not have this family",
                                 name != nullptr ? name : "null", g_service->name);
    if (numbers != nullptr && !bv_json_object_is_type(numbers, json_type_array))
        return invalid(call, "the numbers of instances are not an array");
    return visit(call, *listed, *bv_db_hash_find(name), numbers);
}

// Visits the families that the data names, all without data: "lan.json", ["lan.json", ...] or
// {"lan.json":["1"], ...}. Ends with the first refusal.
int32_t each_family(Call &call, json_object *data, Visit visit)
{
    int32_t status = BV_OK;
    if (data == nullptr) {
        for (uint32_t i = 0; i < g_service->n_families && status == BV_OK; ++i)
            status = visit_named(call, g_service->families[i].name, nullptr, visit);
    } else if (bv_json_object_is_type(data, json_type_object)) {
        json_object_object_foreach(data, name, numbers)
        {
            if (status == BV_OK)
                status = visit_named(call, name, numbers, visit);
        }
    } else if (bv_json_object_is_type(data, json_type_array)) {
        const size_t count = bv_json_object_array_length(data);
        for (size_t i = 0; i < count && status == BV_OK; ++i)
            status =
                visit_named(call, bv_json_object_get_string(bv_json_object_array_get_idx(data, i)),
                            nullptr, visit);
    } else {
        status = visit_named(call, bv_json_object_get_string(data), nullptr, visit);
    }
    return status;
}

// Calls `visit` for the instances of the array, all for an empty one or none.
int32_t each_instance(Call &call, const bv_service_family &listed, bv_db_family &family,
                      json_object *numbers,
                      int32_t (*visit)(Call &, const bv_service_family &, const bv_db_inst &))
{
    const size_t count = numbers != nullptr ? bv_json_object_array_length(numbers) : 0;
    int32_t status = BV_OK;
    for (size_t i = 0; i < count && status == BV_OK; ++i) {
        const char *text = bv_json_object_get_string(bv_json_object_array_get_idx(numbers, i));
        int64_t number;
        if (text == nullptr || !tools::parse_decimal(text, number) || number < INT32_MIN ||
            number > INT32_MAX)
            return invalid(call, "the number of an instance is not one");
        const bv_db_inst *found = bv_db_data_get_inst(&family, static_cast<int32_t>(number));
        if (found == nullptr)
            return call.words.refuse(BV_ERR_NO_INSTANCE, "%s.%s: no such instance", family.name,
                                     text);
        status = visit(call, listed, *found);
    }
    if (count == 0)
        for (const bv_db_inst &instance : instances(family))
            visit(call, listed, instance);
    return status;
}

// ---- read ----

void put_parameters(Text &out, const bv_service_family &listed, const bv_db_family &family)
{
    const uint8_t *value = family.default_image;
    for (const bv_db_para &para : parameters(family)) {
        out.put("{");
        put_member(out, "name", para.name);
        put_member(out, "type", para.type);
        out.print("\"len\":%" PRId32 ",", para.len);
        if (!is_hidden(listed))
            put_member(out, "value", value_text(para, value));
        value += para.len;
        close(out, '}');
    }
}

int32_t put_family(Call &call, const bv_service_family &listed, bv_db_family &family, json_object *)
{
    static constexpr const char *kStores[] = {"user", "private", "factory"};
    Text &out = call.out;
    out.put_quoted(listed.name);
    out.print(":{\"size\":%" PRId32 ",\"store\":\"%s\",\"hidden\":%s,\"count\":", family.image_size,
              kStores[listed.store], is_hidden(listed) ? "true" : "false");
    put_count(out, listed);
    out.put("\"instances\":[");
    for (const bv_db_inst &instance : instances(family))
        out.print("\"%" PRId32 "\",", instance.number);
    close(out, ']');
    out.put("\"para\":[");
    put_parameters(out, listed, family);
    close(out, ']');
    close(out, '}');
    return BV_OK;
}

int32_t put_instance_of(Call &call, const bv_service_family &listed, const bv_db_inst &instance)
{
    put_image(call.out, listed, instance);
    return BV_OK;
}

int32_t put_instances(Call &call, const bv_service_family &listed, bv_db_family &family,
                      json_object *numbers)
{
    call.out.put_quoted(listed.name);
    call.out.put(":[");
    const int32_t status = each_instance(call, listed, family, numbers, put_instance_of);
    close(call.out, ']');
    return status;
}

int32_t put_saved_instances(Call &call, const bv_service_family &listed, bv_db_family &,
                            json_object *)
{
    call.out.put_quoted(listed.name);
    call.out.put(":");
    const int32_t status = put_saved(call.out, listed, call.words);
    call.out.put(",", 1);
    return status;
}

int32_t put_counter(Call &call, const bv_service_family &listed, bv_db_family &, json_object *)
{
    call.out.put_quoted(listed.name);
    call.out.put(":");
    put_count(call.out, listed);
    return BV_OK;
}

// An object with a member for each family.
template <Visit visit>
int32_t read_each(Call &call, json_object *data)
{
    call.out.put("{");
    const int32_t status = each_family(call, data, visit);
    close(call.out, '}');
    return status;
}

int32_t read_functions(Call &call, json_object *)
{
    call.out.put("[");
    for (uint32_t i = 0; i < g_service->n_functions; ++i)
        put_text(call.out, g_service->functions[i].name);
    close(call.out, ']');
    return BV_OK;
}

int32_t read_debug(Call &call, json_object *)
{
    call.out.put("[");
    for (uint32_t m = 0; m < g_service->n_modules; ++m) {
        for (uint32_t l = 0; l < g_service->n_levels; ++l) {
            const bv_service_name &module = g_service->modules[m];
            const bv_service_name &level = g_service->levels[l];
            call.out.put("{");
            put_member(call.out, "module", module.name);
            put_member(call.out, "level", level.name);
            call.out.print("\"on\":%s},", bv_debug_get_switch(module.number, level.number) != 0
                                              ? "true"
                                              : "false");
        }
    }
    close(call.out, ']');
    return BV_OK;
}

int32_t put_unsaved(Call &call, const bv_service_family &listed, bv_db_family &, json_object *)
{
    if (is_unsaved(listed))
        put_text(call.out, listed.name);
    return BV_OK;
}

int32_t read_status(Call &call, json_object *)
{
    const StoreState &store = store_state();
    char saved[24] = "";
    if (store.saved != 0)
        snprintf(saved, sizeof(saved), "%" PRId64, store.saved);
    call.out.print("{\"version\":\"" BV_VERSION_STRING "\",\"object\":");
    call.out.put_quoted(g_service->object != nullptr ? g_service->object : g_service->name);
    call.out.print(",\"pid\":\"%d\",\"started\":\"%" PRId64
                   "\",\"loaded\":\"%s\",\"saved\":\"%s\",\"saved_status\":\"%" PRId32 "\",",
                   getpid(), g_started, store.loaded, saved, store.saved_status);
    call.out.print("\"calls\":\"%" PRIu32 "\",\"refused\":\"%" PRIu32 "\",\"dropped\":\"%" PRIu32
                   "\",\"unsaved\":[",
                   g_calls, g_refused, g_dropped);
    each_family(call, nullptr, put_unsaved);
    close(call.out, ']');
    close(call.out, '}');
    return BV_OK;
}

// ---- write ----

int32_t change(Call &call, json_object *data, Meaning meaning)
{
    const int32_t status = plan_from_json(call.plan, data, meaning, call.words);
    return status == BV_OK ? make(call.plan, call.words) : status;
}

int32_t write_set(Call &call, json_object *data)
{
    return change(call, data, Meaning::Set);
}

int32_t write_import(Call &call, json_object *data)
{
    return change(call, data, Meaning::Import);
}

int32_t write_add(Call &call, json_object *data)
{
    const int32_t status = change(call, data, Meaning::Add);
    // The changes of a family follow each other.
    const Plan &plan = call.plan;
    call.out.put("{");
    for (uint32_t i = 0; status == BV_OK && i < plan.count; ++i) {
        const Change &added = plan.changes[i];
        if (i == 0 || added.listed != plan.changes[i - 1].listed) {
            call.out.put_quoted(added.listed->name);
            call.out.put(":[");
        }
        const bv_db_inst *instance = bv_db_data_get_inst(added.family, added.instance);
        if (instance != nullptr) // `changed` has not deleted it
            put_image(call.out, *added.listed, *instance);
        if (i + 1 == plan.count || added.listed != plan.changes[i + 1].listed)
            close(call.out, ']');
    }
    close(call.out, '}');
    return status;
}

int32_t plan_to_delete(Call &call, const bv_service_family &listed, const bv_db_inst &instance)
{
    const bv_db_family *family = bv_db_hash_find(listed.name);
    return find_change(call.plan, *family, instance.number) != nullptr
               ? BV_OK
               : plan_one(call.plan, listed.name, nullptr, instance.number, call.words);
}

int32_t delete_instances(Call &call, const bv_service_family &listed, bv_db_family &family,
                         json_object *numbers)
{
    if (numbers == nullptr || bv_json_object_array_length(numbers) == 0)
        return invalid(call, "del needs the numbers of the instances");
    return each_instance(call, listed, family, numbers, plan_to_delete);
}

int32_t write_del(Call &call, json_object *data)
{
    const int32_t status = each_family(call, data, delete_instances);
    return status == BV_OK ? make(call.plan, call.words) : status;
}

int32_t write_commit(Call &call, json_object *data)
{
    const char *store = bv_json_object_get_string(data);
    if (store != nullptr && bv_os_strcmp(store, "factory") != 0)
        return invalid(call, "commit takes no data, or \"factory\"");
    const int32_t status = store != nullptr ? bv_service_commit_factory() : bv_service_commit();
    return status == BV_OK ? status
                           : call.words.refuse(
                                 status, "not saved: the system log of the service has the cause");
}

int32_t undo(Call &call, const bv_service_family &listed,
             int32_t (*step)(const bv_service_family &))
{
    const int32_t status = step(listed);
    return status == BV_OK
               ? status
               : call.words.refuse(status, "%s: no memory, or the data file cannot be used",
                                   listed.name);
}

int32_t revert_family(Call &call, const bv_service_family &listed, bv_db_family &, json_object *)
{
    return undo(call, listed, revert);
}

int32_t reset_family(Call &call, const bv_service_family &listed, bv_db_family &, json_object *)
{
    return undo(call, listed, reset);
}

int32_t accept(Call &, const bv_service_family &, bv_db_family &, json_object *)
{
    return BV_OK;
}

// All names are looked at before the first family changes.
template <Visit visit>
int32_t write_each(Call &call, json_object *data)
{
    const int32_t status = each_family(call, data, accept);
    return status == BV_OK ? each_family(call, data, visit) : status;
}

const bv_service_name *find_named(const bv_service_name *table, uint32_t count, json_object *data,
                                  const char *member)
{
    const char *text = bv_json_object_get_string(bv_json_object_object_get(data, member));
    for (uint32_t i = 0; i < count && text != nullptr; ++i)
        if (bv_os_strcmp(table[i].name, text) == 0)
            return &table[i];
    return nullptr;
}

int32_t write_debug(Call &call, json_object *data)
{
    const bv_service_name *module =
        find_named(g_service->modules, g_service->n_modules, data, "module");
    const bv_service_name *level =
        find_named(g_service->levels, g_service->n_levels, data, "level");
    json_object *on = bv_json_object_object_get(data, "on");
    if (module == nullptr || level == nullptr)
        return call.words.refuse(BV_ERR_INVALID, "%s has no such debug %s", g_service->name,
                                 module == nullptr ? "module" : "level");
    if (!bv_json_object_is_type(on, json_type_boolean))
        return invalid(call, "\"on\" is neither true nor false");
    bv_debug_set_switch(module->number, level->number, json_object_get_boolean(on) != 0);
    return BV_OK;
}

// ---- requests ----

struct Operation {
    const char *name;
    int32_t (*run)(Call &call, json_object *data);
};

constexpr Operation kReads[] = {{"families", read_each<put_family>},
                                {"get", read_each<put_instances>},
                                {"saved", read_each<put_saved_instances>},
                                {"counters", read_each<put_counter>},
                                {"functions", read_functions},
                                {"debug", read_debug},
                                {"status", read_status},
                                {nullptr, nullptr}};
constexpr Operation kWrites[] = {{"set", write_set},
                                 {"add", write_add},
                                 {"del", write_del},
                                 {"import", write_import},
                                 {"commit", write_commit},
                                 {"revert", write_each<revert_family>},
                                 {"reset", write_each<reset_family>},
                                 {"debug", write_debug},
                                 {nullptr, nullptr}};

enum Field { kVersion, kOp, kData, kOffset, kGeneration, kFieldCount };
constexpr blobmsg_policy kFields[] = {{"version", BLOBMSG_TYPE_INT32},
                                      {"op", BLOBMSG_TYPE_STRING},
                                      {"data", BLOBMSG_TYPE_STRING},
                                      {"offset", BLOBMSG_TYPE_INT32},
                                      {"generation", BLOBMSG_TYPE_INT32}};
static_assert(sizeof(kFields) / sizeof(kFields[0]) == kFieldCount, "a policy for each field");

uint32_t number_of(blob_attr *field)
{
    return field != nullptr ? bv_blobmsg_get_u32(field) : 0;
}

int32_t run_operation(const Operation *row, blob_attr *const *fields, Call &call)
{
    const char *op = bv_blobmsg_get_string(fields[kOp]);
    while (row->name != nullptr && bv_os_strcmp(row->name, op) != 0)
        ++row;
    if (row->name == nullptr)
        return call.words.refuse(BV_ERR_INVALID, "unknown operation \"%.40s\"", op);
    const char *text = bv_blobmsg_get_string(fields[kData]);
    const Owned<json_object *, nullptr, bv_json_object_put> data(
        text != nullptr ? bv_json_tokener_parse(text) : nullptr);
    if (text != nullptr && !data)
        return invalid(call, "data is not JSON");
    const int32_t status = row->run(call, data.get());
    if (status == BV_OK && call.out.failed)
        return call.words.refuse(BV_ERR_MEMORY, "the service is out of memory");
    // The outermost value's comma.
    if (call.out.length != 0)
        call.out.bytes[--call.out.length] = '\0';
    return status;
}

// Sends the part of the answer that the request asks for.
int reply(ubus_context *ctx, ubus_request_data *request, blob_attr *const *fields, int32_t status,
          Text &answer, const Words &words)
{
    const uint32_t generation =
        bv_os_crc32(0, reinterpret_cast<uint8_t *>(answer.bytes), answer.length);
    const uint32_t offset = number_of(fields[kOffset]);
    if (status == BV_OK && offset != 0 &&
        (offset > answer.length || number_of(fields[kGeneration]) != generation))
        status = kStartAgain;
    if (status != BV_OK)
        ++g_refused;

    int failed = bv_blobmsg_buf_init(&g_reply);
    failed |= bv_blobmsg_add_u32(&g_reply, "status", static_cast<uint32_t>(status));
    if (status != BV_OK && words.text[0] != '\0')
        failed |= bv_blobmsg_add_string(&g_reply, "words", words.text);
    failed |= bv_blobmsg_add_u32(&g_reply, "generation", generation);
    failed |= bv_blobmsg_add_u32(&g_reply, "total", status == BV_OK ? answer.length : 0);
    if (status == BV_OK && answer.length != 0) {
        uint32_t length = answer.length - offset;
        if (length > kMaxPart)
            length = kMaxPart;
        answer.bytes[offset + length] = '\0';
        failed |= bv_blobmsg_add_string(&g_reply, "data", answer.bytes + offset);
    }
    if (failed != 0)
        return UBUS_STATUS_NO_MEMORY;
    bv_ubus_send_reply(ctx, request, g_reply.head);
    return UBUS_STATUS_OK;
}

int serve(const Operation *table, ubus_context *ctx, ubus_request_data *request, blob_attr *message)
{
    blob_attr *fields[kFieldCount];
    if (bv_blobmsg_parse(kFields, kFieldCount, fields, bv_blob_data(message),
                         static_cast<unsigned>(bv_blob_len(message))) != 0 ||
        number_of(fields[kVersion]) != kMessageVersion || fields[kOp] == nullptr)
        return UBUS_STATUS_INVALID_ARGUMENT;
    Text answer;
    Words words;
    Call call = {answer, words, {}};
    const int32_t status = run_operation(table, fields, call);
    if (table == kWrites) { // to ask for a second part would be to change again
        fields[kOffset] = nullptr;
        answer.length = answer.length <= kMaxPart ? answer.length : 0;
    }
    return reply(ctx, request, fields, status, answer, words);
}

bool may_write(const ubus_request_data &request)
{
    const char *user = request.acl.user;
    if (user == nullptr)
        return false;
    if (bv_os_strcmp(user, "root") == 0)
        return true;
    for (uint32_t i = 0; i < g_service->n_writers; ++i)
        if (bv_os_strcmp(user, g_service->writers[i]) == 0)
            return true;
    return false;
}

int on_read(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *,
            blob_attr *message)
{
    ++g_calls;
    return serve(kReads, ctx, request, message);
}

int on_write(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *,
             blob_attr *message)
{
    ++g_calls;
    if (!may_write(*request)) {
        ++g_refused;
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    return serve(kWrites, ctx, request, message);
}

constexpr ubus_method kMethods[] = {{"read", on_read, 0, 0, kFields, kFieldCount},
                                    {"write", on_write, 0, 0, kFields, kData + 1}};
constexpr int kMethodCount = 2;

char g_object_name[kMaxServiceName + sizeof(kObjectSuffix)];
ubus_object_type g_object_type;
ubus_object g_object;

void end_loop(ubus_context *)
{
    uloop_end();
}

} // namespace

bool open_object()
{
    char digits[9] = ""; // hexadecimal
    bv_os_random(reinterpret_cast<uint8_t *>(digits), sizeof(digits) - 1);
    g_start_number = static_cast<uint32_t>(strtoul(digits, nullptr, 16));
    g_started = bv_os_time(nullptr);
    g_calls = g_refused = g_dropped = 0;
    g_changes = static_cast<uint32_t *>(calloc(g_service->n_families + 1, sizeof(uint32_t)));
    return g_changes != nullptr;
}

void close_object()
{
    free(g_changes);
    g_changes = nullptr;
    bv_blob_buf_free(&g_reply);
    bv_blob_buf_free(&g_event);
    bv_blob_buf_free(&g_event_data);
}

Published publish()
{
    unpublish();
    g_connection = bv_ubus_connect(nullptr);
    if (g_connection == nullptr)
        return Published::NoBus;
    g_connection->connection_lost = end_loop;
    snprintf(g_object_name, sizeof(g_object_name), "%s%s", g_service->name, kObjectSuffix);
    // New records: those of an earlier connection have its ids.
    g_object_type = {"config", 0, kMethods, kMethodCount};
    g_object = {};
    g_object.name = g_object_name;
    g_object.type = &g_object_type;
    g_object.methods = kMethods;
    g_object.n_methods = kMethodCount;
    const int status = bv_ubus_add_object(g_connection, &g_object);
    if (status == UBUS_STATUS_OK &&
        bv_uloop_fd_add(&g_connection->sock, ULOOP_READ | ULOOP_BLOCKING) == 0)
        return Published::Yes;
    unpublish();
    return status == UBUS_STATUS_INVALID_ARGUMENT ? Published::NameTaken : Published::NoBus;
}

void unpublish()
{
    bv_ubus_free(g_connection);
    g_connection = nullptr;
}

// The bus's own object passes the event on. The owner does not wait for an answer, and when the socket is
// full the event is lost: those who watch read the counters too.
void announce(const struct bv_service_family &family)
{
    ++g_changes[&family - g_service->families];
    if (g_connection == nullptr)
        return;
    pollfd socket = {g_connection->sock.fd, POLLOUT, 0};
    char id[kMaxServiceName + sizeof(kEventSuffix)];
    snprintf(id, sizeof(id), "%s%s", g_service->name, kEventSuffix);
    Text count;
    count.print("%" PRIu32 ".%" PRIu32, g_start_number, g_changes[&family - g_service->families]);
    int failed = count.failed | bv_blobmsg_buf_init(&g_event_data) | bv_blobmsg_buf_init(&g_event);
    failed |= bv_blobmsg_add_string(&g_event_data, "family", family.name);
    failed |= bv_blobmsg_add_string(&g_event_data, "count", count.bytes);
    failed |= bv_blobmsg_add_string(&g_event, "id", id);
    if (failed == 0)
        failed = bv_blobmsg_add_field(&g_event, BLOBMSG_TYPE_TABLE, "data",
                                      bv_blob_data(g_event_data.head),
                                      static_cast<unsigned>(bv_blob_len(g_event_data.head)));
    constexpr int kNoWait = -1; // the result is then that of a timeout
    if (failed != 0 || poll(&socket, 1, 0) != 1 || (socket.revents & POLLOUT) == 0 ||
        bv_ubus_invoke(g_connection, UBUS_SYSTEM_OBJECT_EVENT, "send", g_event.head, nullptr,
                       nullptr, kNoWait) != UBUS_STATUS_TIMEOUT)
        ++g_dropped;
}

} // namespace bv::service
