// SPDX-License-Identifier: ISC
// NAME.config: reads and changes families for other programs, by name and as text.
//
// An answer is made anew for each request, also for the second part of a long one: its checksum
// tells whether the parts belong together. So nothing is kept between requests, and a caller that
// goes away leaves nothing behind.

#include "service/internal.h"

#include <poll.h>

namespace bv::service {

namespace {

ubus_context *g_connection;

uint32_t g_start_number; // of this start of the service, by chance
uint32_t *g_changes;     // of each family since the start
int64_t g_started;       // seconds since 1970
uint32_t g_calls;
uint32_t g_refused;
uint32_t g_dropped; // events that could not be sent

struct Operation;

// A request that is answered.
struct Call {
    const Operation *operation;
    json_object *data; // or null
    int32_t number;    // of the instance, where an operation has one
    Text out;
    Plan plan{Meaning::None};
    Files files;

    int32_t invalid(const char *what) { return plan.words.refuse(BV_ERR_INVALID, "%s", what); }
};

// What is done with one family of a request. `numbers`: the array of instances that the request
// names with it, or null.
using Visit = int32_t (*)(Call &call, const Family &family, json_object *numbers);

struct Operation {
    char name[10];
    bool is_read;
    Meaning meaning; // of the plan that is made, or shown by a read operation
    int32_t (*run)(Call &call);
    Visit visit; // for those that run each_family() or such
};

// How often a family changed, and since which start.
struct Count {
    char text[24];
    explicit Count(const bv_service_family &family)
    {
        snprintf(text, sizeof text, "%" PRIu32 ".%" PRIu32, g_start_number,
                 g_changes[&family - g_service->families]);
    }
};

// Visits the families that the data names, as in {"lan.json":["1"], ...}, all without data. Nothing
// is visited when a name is wrong.
int32_t each_family(Call &call)
{
    if (call.data != nullptr && !bv_json_object_is_type(call.data, json_type_object))
        return call.invalid("data is not an object of families");
    for (const Members::Member &member : Members(call.data)) {
        if (find_listed(member.name(), call.plan.words) == nullptr)
            return BV_ERR_NO_FAMILY;
        if (!bv_json_object_is_type(member.value(), json_type_array))
            return call.invalid("the numbers of instances are not an array");
    }
    int32_t status = BV_OK;
    for (const bv_service_family &listed : families()) {
        json_object *numbers = bv_json_object_object_get(call.data, listed.name);
        if (status == BV_OK && (call.data == nullptr || numbers != nullptr))
            status = call.operation->visit(call, Family(listed), numbers);
    }
    return status;
}

int32_t find_instance(Call &call, const Family &family, int32_t number, const bv_db_inst *&instance)
{
    instance = bv_db_data_get_inst(family.record, number);
    return instance != nullptr
               ? BV_OK
               : call.plan.words.refuse(BV_ERR_NO_INSTANCE, "%s.%" PRId32 ": no such instance",
                                        family.name(), number);
}

// ---- read ----

int32_t put_family(Call &call, const Family &family, json_object *)
{
    static constexpr char kStores[][8] = {"user", "private", "factory"};
    Text &out = call.out;
    out.item("\"%s\":{\"size\":%" PRIu32
             ",\"store\":\"%s\",\"hidden\":%s,\"count\":\"%s\",\"instances\":[",
             family.name(), family.size(), kStores[family.listed->store],
             family.is_hidden() ? "true" : "false", Count(*family.listed).text);
    for (const bv_db_inst &instance : instances(family))
        out.item("\"%" PRId32 "\"", instance.number);
    out.put("],\"para\":[");
    const uint8_t *value = family.record->default_image;
    for (const bv_db_para &para : parameters(family)) {
        out.item("{\"name\":\"%s\",\"type\":\"%s\",\"len\":%" PRId32, para.name, para.type,
                 para.len);
        if (!family.is_hidden()) {
            out.put(",\"value\":");
            out.quote(value_text(para, value));
        }
        out.put("}");
        value += para.len;
    }
    out.put("]}");
    return BV_OK;
}

int32_t put_instances(Call &call, const Family &family, json_object *numbers)
{
    const size_t count = count_of(numbers);
    call.out.item("\"%s\":[", family.name());
    for (size_t i = 0; i < count; ++i) {
        int32_t number;
        const bv_db_inst *instance;
        if (!number_of(bv_json_object_array_get_idx(numbers, i), number))
            return call.invalid("the number of an instance is not one");
        const int32_t status = find_instance(call, family, number, instance);
        if (status != BV_OK)
            return status;
        if (i >= static_cast<uint32_t>(family.record->inst_count))
            return call.invalid("an instance is named twice");
        put_instance(call.out, family, number, instance->image);
    }
    if (count == 0)
        for (const bv_db_inst &instance : instances(family))
            put_instance(call.out, family, instance.number, instance.image);
    call.out.put("]");
    return BV_OK;
}

int32_t put_counter(Call &call, const Family &family, json_object *)
{
    call.out.item("\"%s\":\"%s\"", family.name(), Count(*family.listed).text);
    return BV_OK;
}

int32_t put_unsaved(Call &call, const Family &family, json_object *)
{
    if (is_unsaved(*family.listed, call.files))
        call.out.item("\"%s\"", family.name());
    return BV_OK;
}

// An object with a member for each family.
int32_t read_each(Call &call)
{
    call.out.item("{");
    const int32_t status = each_family(call);
    call.out.put("}");
    return status;
}

int32_t read_functions(Call &call)
{
    call.out.item("[");
    for (uint32_t i = 0; i < g_service->n_functions; ++i)
        call.out.item("\"%s\"", g_service->functions[i].name);
    call.out.put("]");
    return BV_OK;
}

int32_t read_debug(Call &call)
{
    call.out.item("[");
    for (uint32_t m = 0; m < g_service->n_modules; ++m)
        for (uint32_t l = 0; l < g_service->n_levels; ++l) {
            const bv_service_name &module = g_service->modules[m];
            const bv_service_name &level = g_service->levels[l];
            const bool on = bv_debug_get_switch(module.number, level.number) != 0;
            call.out.item("{\"module\":\"%s\",\"level\":\"%s\",\"on\":%s}", module.name, level.name,
                          on ? "true" : "false");
        }
    call.out.put("]");
    return BV_OK;
}

int32_t read_status(Call &call)
{
    const StoreState &store = store_state();
    char saved[24] = "";
    if (store.saved != 0)
        snprintf(saved, sizeof(saved), "%" PRId64, store.saved);
    call.out.item("{\"version\":\"" BV_VERSION_STRING "\",\"object\":\"%s\",\"pid\":\"%d\","
                  "\"started\":\"%" PRId64 "\",\"loaded\":\"%s\",\"saved\":\"%s\","
                  "\"saved_status\":\"%" PRId32 "\",\"calls\":\"%" PRIu32
                  "\",\"refused\":\"%" PRIu32 "\",\"dropped\":\"%" PRIu32 "\",\"unsaved\":[",
                  object_name(), getpid(), g_started, store.loaded, saved, store.saved_status,
                  g_calls, g_refused, g_dropped);
    call.data = nullptr; // of all families
    each_family(call);
    call.out.put("]}");
    return BV_OK;
}

// ---- one image, for programs that know its structure ----

// Visits the family that the data names, with the number of the instance. The caller must know the
// family's size.
int32_t one_instance(Call &call)
{
    const char *name = bv_json_object_get_string(bv_json_object_object_get(call.data, "family"));
    int32_t size = 0;
    number_of(bv_json_object_object_get(call.data, "size"), size);
    const bv_service_family *listed = find_listed(name, call.plan.words);
    if (listed == nullptr)
        return BV_ERR_NO_FAMILY;
    if (static_cast<uint32_t>(size) != listed->size)
        return call.plan.words.refuse(BV_ERR_INVALID,
                                      "%s has %" PRIu32 " bytes in %s, and %" PRId32
                                      " here: one of the two programs is older",
                                      name, listed->size, g_service->name, size);
    return number_of(bv_json_object_object_get(call.data, "inst"), call.number) &&
                   call.number != INT32_MAX
               ? call.operation->visit(call, Family(*listed), nullptr)
               : call.invalid("\"inst\" is not a number, or too high");
}

int32_t put_image(Call &call, const Family &family, json_object *)
{
    const bv_db_inst *instance;
    if (family.is_hidden())
        return call.plan.words.refuse(UBUS_STATUS_PERMISSION_DENIED, "%s hides the values of %s",
                                      g_service->name, family.name());
    const int32_t status = find_instance(call, family, call.number, instance);
    if (status == BV_OK)
        call.out.hex(instance->image, family.size());
    return status;
}

int32_t plan_image(Call &call, const Family &family, json_object *)
{
    size_t length = 0;
    const char *text = text_of(bv_json_object_object_get(call.data, "image"), length);
    const Owned<void *, nullptr, free> image(malloc(family.size()));
    if (!image)
        return call.plan.words.no_memory();
    if (text == nullptr || length != size_t{2} * family.size() ||
        !read_hex(text, static_cast<uint8_t *>(image.get()), family.size()))
        return call.invalid("\"image\" does not have two hexadecimal digits for each byte");
    return plan_instance(call.plan, *family.listed, call.number, image.get());
}

// ---- write ----

int32_t plan_named(Call &call)
{
    return plan_request(call.plan, call.data);
}

int32_t plan_saved(Call &call, const Family &family, json_object *)
{
    return plan_back(call.plan, *family.listed, &call.files);
}

int32_t plan_defaults(Call &call, const Family &family, json_object *)
{
    return plan_back(call.plan, *family.listed, nullptr);
}

int32_t write_commit(Call &call)
{
    const char *store = bv_json_object_get_string(call.data);
    if (store != nullptr && strcmp(store, "factory") != 0)
        return call.invalid("commit takes no data, or \"factory\"");
    const int32_t status = store != nullptr ? bv_service_commit_factory() : bv_service_commit();
    return status == BV_OK ? status
                           : call.plan.words.refuse(
                                 status, "not saved: the system log of the service has the cause");
}

const bv_service_name *find_named(const bv_service_name *table, uint32_t count, json_object *data,
                                  const char *member)
{
    const char *text = bv_json_object_get_string(bv_json_object_object_get(data, member));
    for (uint32_t i = 0; i < count && text != nullptr; ++i)
        if (strcmp(table[i].name, text) == 0)
            return &table[i];
    return nullptr;
}

int32_t write_debug(Call &call)
{
    const bv_service_name *module =
        find_named(g_service->modules, g_service->n_modules, call.data, "module");
    const bv_service_name *level =
        find_named(g_service->levels, g_service->n_levels, call.data, "level");
    json_object *on = bv_json_object_object_get(call.data, "on");
    if (module == nullptr || level == nullptr)
        return call.plan.words.refuse(BV_ERR_INVALID, "%s has no such debug %s", g_service->name,
                                      module == nullptr ? "module" : "level");
    if (!bv_json_object_is_type(on, json_type_boolean))
        return call.invalid("\"on\" is neither true nor false");
    bv_debug_set_switch(module->number, level->number, bv_json_object_get_int(on) != 0);
    return BV_OK;
}

// ---- requests ----

constexpr Operation kOperations[] = {{"families", true, Meaning::None, read_each, put_family},
                                     {"get", true, Meaning::None, read_each, put_instances},
                                     {"image", true, Meaning::None, one_instance, put_image},
                                     {"saved", true, Meaning::Saved, each_family, plan_saved},
                                     {"counters", true, Meaning::None, read_each, put_counter},
                                     {"functions", true, Meaning::None, read_functions, nullptr},
                                     {"debug", true, Meaning::None, read_debug, nullptr},
                                     {"status", true, Meaning::None, read_status, put_unsaved},
                                     {"set", false, Meaning::Set, plan_named, nullptr},
                                     {"put", false, Meaning::Set, one_instance, plan_image},
                                     {"add", false, Meaning::Add, plan_named, nullptr},
                                     {"del", false, Meaning::Delete, plan_named, nullptr},
                                     {"import", false, Meaning::Import, plan_named, nullptr},
                                     {"check", false, Meaning::Check, plan_named, nullptr},
                                     {"commit", false, Meaning::None, write_commit, nullptr},
                                     {"revert", false, Meaning::Saved, each_family, plan_saved},
                                     {"reset", false, Meaning::Saved, each_family, plan_defaults},
                                     {"debug", false, Meaning::None, write_debug, nullptr}};

enum Field { kVersion, kOp, kData, kOffset, kGeneration, kFieldCount };
constexpr blobmsg_policy kFields[] = {{"version", BLOBMSG_TYPE_INT32},
                                      {"op", BLOBMSG_TYPE_STRING},
                                      {"data", BLOBMSG_TYPE_STRING},
                                      {"offset", BLOBMSG_TYPE_INT32},
                                      {"generation", BLOBMSG_TYPE_INT32}};
static_assert(sizeof(kFields) / sizeof(kFields[0]) == kFieldCount, "a policy for each field");

uint32_t number_in(blob_attr *field)
{
    return field != nullptr ? bv_blobmsg_get_u32(field) : 0;
}

// Runs an operation, and makes or shows what it planned.
int32_t run_operation(Call &call, const Operation &operation)
{
    const bool plans = operation.meaning != Meaning::None;
    call.operation = &operation;
    call.plan.meaning = operation.meaning;
    int32_t status = operation.run(call);
    if (status == BV_OK && plans && !operation.is_read)
        status = make(call.plan);
    if (status == BV_OK && plans && (operation.is_read || operation.meaning == Meaning::Add))
        put_planned(call.out, call.plan);
    return status == BV_OK && operation.is_read && call.out.failed
               ? call.plan.words.refuse(BV_ERR_MEMORY, "the answer is too long, or memory is short")
               : status;
}

int32_t find_and_run(Call &call, bool is_read, blob_attr *const *fields)
{
    const char *op = bv_blobmsg_get_string(fields[kOp]);
    const char *text = bv_blobmsg_get_string(fields[kData]);
    const JsonTree data(text != nullptr ? bv_json_tokener_parse(text) : nullptr);
    if (text != nullptr && !data)
        return call.invalid("data is not JSON");
    call.data = data.get();
    for (const Operation &operation : kOperations)
        if (operation.is_read == is_read && strcmp(operation.name, op) == 0)
            return run_operation(call, operation);
    return call.plan.words.refuse(BV_ERR_INVALID, "unknown operation \"%.40s\"", op);
}

// Sends the part of the answer that the request asks for.
int reply(ubus_context *ctx, ubus_request_data *request, blob_attr *const *fields, int32_t status,
          Call &call)
{
    Text &answer = call.out;
    const uint32_t generation =
        bv_os_crc32(0, reinterpret_cast<uint8_t *>(answer.bytes), answer.length);
    const uint32_t offset = number_in(fields[kOffset]);
    if (status == BV_OK && offset != 0 &&
        (offset > answer.length || number_in(fields[kGeneration]) != generation))
        status = kStartAgain;
    if (status != BV_OK)
        ++g_refused;

    BusMessage message;
    message.put("status", static_cast<uint32_t>(status));
    if (status != BV_OK && call.plan.words.text[0] != '\0')
        message.put("words", call.plan.words.text);
    message.put("generation", generation);
    message.put("total", status == BV_OK ? answer.length : 0);
    if (status == BV_OK && answer.length != 0) {
        uint32_t length = answer.length - offset;
        if (length > kMaxPart)
            length = kMaxPart;
        answer.bytes[offset + length] = '\0';
        message.put("data", answer.bytes + offset);
    }
    if (message.failed)
        return UBUS_STATUS_NO_MEMORY;
    bv_ubus_send_reply(ctx, request, message.buffer.head);
    return UBUS_STATUS_OK;
}

bool may_write(const char *user)
{
    if (user == nullptr)
        return false;
    if (strcmp(user, "root") == 0)
        return true;
    for (uint32_t i = 0; i < g_service->n_writers; ++i)
        if (strcmp(user, g_service->writers[i]) == 0)
            return true;
    return false;
}

int on_request(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *method,
               blob_attr *message)
{
    const bool is_read = strcmp(method, "read") == 0;
    ++g_calls;
    if (!is_read && !may_write(request->acl.user)) {
        ++g_refused;
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    blob_attr *fields[kFieldCount];
    if (!parse_message(message, kFields, kFieldCount, fields) ||
        number_in(fields[kVersion]) != kMessageVersion || fields[kOp] == nullptr)
        return UBUS_STATUS_INVALID_ARGUMENT;
    Call call = {};
    const int32_t status = find_and_run(call, is_read, fields);
    if (!is_read) { // to ask for a second part would be to change again
        fields[kOffset] = nullptr;
        call.out.length = call.out.failed || call.out.length > kMaxPart ? 0 : call.out.length;
    }
    return reply(ctx, request, fields, status, call);
}

constexpr ubus_method kMethods[] = {{"read", on_request, 0, 0, kFields, kFieldCount},
                                    {"write", on_request, 0, 0, kFields, kData + 1}};
constexpr int kMethodCount = 2;

char g_object_name[kMaxServiceName + sizeof(kObjectSuffix)];
ubus_object_type g_object_type;
ubus_object g_object;

void end_loop(ubus_context *)
{
    uloop_end();
}

} // namespace

BusMessage::BusMessage() : failed(bv_blobmsg_buf_init(&buffer) != 0) {}

BusMessage::~BusMessage()
{
    bv_blob_buf_free(&buffer);
}

void BusMessage::put(const char *name, uint32_t number)
{
    failed = failed || bv_blobmsg_add_u32(&buffer, name, number) != 0;
}

void BusMessage::put(const char *name, const char *text)
{
    failed = failed || bv_blobmsg_add_string(&buffer, name, text) != 0;
}

bool parse_message(blob_attr *message, const blobmsg_policy *policy, int count, blob_attr **fields)
{
    return bv_blobmsg_parse(policy, count, fields, bv_blob_data(message),
                            static_cast<unsigned>(bv_blob_len(message))) == 0;
}

bool is_read(const char *op, bool has_data)
{
    for (const Operation &operation : kOperations)
        if (strcmp(operation.name, op) == 0)
            return operation.is_read && (operation.run != read_debug || !has_data);
    return false;
}

bool open_object()
{
    uint8_t digits[9] = ""; // hexadecimal
    g_started = time(nullptr);
    g_start_number = static_cast<uint32_t>(g_started << 15) + static_cast<uint32_t>(getpid());
    if (bv_os_random(digits, sizeof(digits) - 1) == 1)
        read_hex(reinterpret_cast<char *>(digits), reinterpret_cast<uint8_t *>(&g_start_number), 4);
    g_calls = g_refused = g_dropped = 0;
    g_changes = static_cast<uint32_t *>(calloc(g_service->n_families + 1, sizeof(uint32_t)));
    return g_changes != nullptr;
}

void close_object()
{
    free(g_changes);
    g_changes = nullptr;
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

// The bus's own object passes the event on. The owner does not wait for an answer, and when the
// socket is full the event is lost: those who watch read the counters too.
void announce(const struct bv_service_family &family)
{
    ++g_changes[&family - g_service->families];
    if (g_connection == nullptr)
        return;
    pollfd socket = {g_connection->sock.fd, POLLOUT, 0};
    char id[kMaxServiceName + sizeof(kEventSuffix)];
    snprintf(id, sizeof(id), "%s%s", g_service->name, kEventSuffix);
    BusMessage data;
    data.put("family", family.name);
    data.put("count", Count(family).text);
    BusMessage event;
    event.put("id", id);
    const bool failed =
        data.failed || event.failed || // then a buffer may have no head
        bv_blobmsg_add_field(&event.buffer, BLOBMSG_TYPE_TABLE, "data",
                             bv_blob_data(data.buffer.head),
                             static_cast<unsigned>(bv_blob_len(data.buffer.head))) != 0;
    constexpr int kNoWait = -1; // the result is then that of a timeout
    if (failed || poll(&socket, 1, 0) != 1 || (socket.revents & POLLOUT) == 0 ||
        bv_ubus_invoke(g_connection, UBUS_SYSTEM_OBJECT_EVENT, "send", event.buffer.head, nullptr,
                       nullptr, kNoWait) != UBUS_STATUS_TIMEOUT)
        ++g_dropped;
}

} // namespace bv::service
