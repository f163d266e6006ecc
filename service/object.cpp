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

constexpr char kNoMemory[] = "the service is out of memory";

// ---- pieces of answers ----

// {"a":..,"b":..} and [..]: a comma before each member but the first.
class List {
public:
    List(Text &out, char open, char close) : out_(out), close_(close) { out_.put(&open, 1); }
    ~List() { out_.put(&close_, 1); }
    List(const List &) = delete;
    List &operator=(const List &) = delete;

    void next()
    {
        out_.put(first_ ? "" : ",");
        first_ = false;
    }
    void key(const char *name)
    {
        next();
        out_.put_quoted(name);
        out_.put(":");
    }
    void text(const char *name, const char *value)
    {
        key(name);
        out_.put_quoted(value);
    }
    void number(const char *name, int64_t value)
    {
        char digits[24];
        snprintf(digits, sizeof(digits), "%" PRId64, value);
        text(name, digits);
    }
    void truth(const char *name, bool value)
    {
        key(name);
        out_.put(value ? "true" : "false");
    }

private:
    Text &out_;
    const char close_;
    bool first_ = true;
};

struct CountText {
    char text[24];

    explicit CountText(const bv_service_family &family)
    {
        const auto index = static_cast<size_t>(&family - g_service->families);
        snprintf(text, sizeof(text), "%" PRIu32 ".%" PRIu32, g_start_number, g_changes[index]);
    }
};

bool is_hidden(const bv_service_family &family)
{
    return (family.flags & BV_SERVICE_HIDDEN) != 0;
}

// ---- what requests name ----

struct Named {
    const bv_service_family *listed;
    bv_db_family *family;
};

int32_t find_family(const char *name, Named &named, Words &words)
{
    named.listed = name != nullptr ? find_listed(name) : nullptr;
    named.family = named.listed != nullptr ? bv_db_hash_find(name) : nullptr;
    return named.family != nullptr
               ? BV_OK
               : words.refuse(BV_ERR_NO_FAMILY, "%s: %s does not have this family",
                              name != nullptr ? name : "null", g_service->name);
}

int32_t find_instance(const bv_db_family &family, json_object *number, bv_db_inst *&instance,
                      Words &words)
{
    const char *text = bv_json_object_get_string(number);
    int64_t wanted;
    if (text == nullptr || !tools::parse_decimal(text, wanted) || wanted < INT32_MIN ||
        wanted > INT32_MAX)
        return words.refuse(BV_ERR_INVALID, "%s: \"%.40s\" is not the number of an instance",
                            family.name, text != nullptr ? text : "null");
    instance =
        bv_db_data_get_inst(const_cast<bv_db_family *>(&family), static_cast<int32_t>(wanted));
    return instance != nullptr
               ? BV_OK
               : words.refuse(BV_ERR_NO_INSTANCE, "%s.%s: no such instance", family.name, text);
}

// Calls `visit` for each family that `data` names as a member, with the member's array; for all
// families, with null, when there is no data. Ends with the first refusal.
template <typename Visit>
int32_t each_family(json_object *data, Words &words, Visit visit)
{
    Named named;
    int32_t status = BV_OK;
    if (data == nullptr) {
        for (uint32_t i = 0; i < g_service->n_families && status == BV_OK; ++i) {
            status = find_family(g_service->families[i].name, named, words);
            if (status == BV_OK)
                status = visit(named, nullptr);
        }
        return status;
    }
    if (!bv_json_object_is_type(data, json_type_object))
        return words.refuse(BV_ERR_INVALID, "data is not an object of families");
    json_object_object_foreach(data, name, numbers)
    {
        status = find_family(name, named, words);
        if (status == BV_OK && !bv_json_object_is_type(numbers, json_type_array))
            status =
                words.refuse(BV_ERR_INVALID, "%s: the numbers of instances are not an array", name);
        if (status == BV_OK)
            status = visit(named, numbers);
        if (status != BV_OK)
            return status;
    }
    return BV_OK;
}

// The same for ["lan.json", ...].
template <typename Visit>
int32_t each_name(json_object *data, Words &words, Visit visit)
{
    Named named;
    if (data == nullptr)
        return each_family(nullptr, words,
                           [&](const Named &all, json_object *) { return visit(all); });
    if (!bv_json_object_is_type(data, json_type_array))
        return words.refuse(BV_ERR_INVALID, "data is not an array of families");
    const size_t count = bv_json_object_array_length(data);
    for (size_t i = 0; i < count; ++i) {
        int32_t status = find_family(
            bv_json_object_get_string(bv_json_object_array_get_idx(data, i)), named, words);
        if (status == BV_OK)
            status = visit(named);
        if (status != BV_OK)
            return status;
    }
    return BV_OK;
}

// ---- read ----

// An object made by json-c, given back at the end of the scope.
struct Json {
    json_object *object;
    explicit Json(const char *text)
        : object(text != nullptr ? bv_json_tokener_parse(text) : nullptr)
    {
    }
    ~Json() { bv_json_object_put(object); }
    Json(const Json &) = delete;
    Json &operator=(const Json &) = delete;
};

void put_parameters(Text &out, const Named &named)
{
    const bv_db_family &family = *named.family;
    Text defaults;
    if (!is_hidden(*named.listed))
        put_instance(defaults, family, family.default_image, 1, false);
    const Json parsed(defaults.bytes);
    json_object *values = bv_json_object_object_get(parsed.object, "para");
    List list(out, '[', ']');
    for (const bv_db_para &para : parameters(family)) {
        list.next();
        List members(out, '{', '}');
        members.text("name", para.name);
        members.text("type", para.type);
        members.key("len");
        char digits[16];
        snprintf(digits, sizeof(digits), "%" PRId32, para.len);
        out.put(digits);
        json_object *value = bv_json_object_object_get(values, para.name);
        if (value != nullptr)
            members.text("value", bv_json_object_get_string(value));
    }
}

void put_family(Text &out, const Named &named)
{
    static constexpr const char *kStores[] = {"user", "private", "factory"};
    List members(out, '{', '}');
    members.key("size");
    char digits[16];
    snprintf(digits, sizeof(digits), "%" PRId32, named.family->image_size);
    out.put(digits);
    members.text("store", kStores[named.listed->store]);
    members.truth("hidden", is_hidden(*named.listed));
    members.text("count", CountText(*named.listed).text);
    members.key("instances");
    {
        List numbers(out, '[', ']');
        for (const bv_db_inst &instance : instances(*named.family)) {
            numbers.next();
            snprintf(digits, sizeof(digits), "\"%" PRId32 "\"", instance.number);
            out.put(digits);
        }
    }
    members.key("para");
    put_parameters(out, named);
}

int32_t read_families(json_object *data, Text &out, Words &words)
{
    List list(out, '{', '}');
    const auto put = [&](const Named &named) {
        list.key(named.listed->name);
        put_family(out, named);
        return BV_OK;
    };
    if (data == nullptr)
        return each_name(nullptr, words, put);
    Named named;
    const int32_t status = find_family(bv_json_object_get_string(data), named, words);
    return status == BV_OK ? put(named) : status;
}

int32_t read_instances(json_object *data, Text &out, Words &words)
{
    List list(out, '{', '}');
    return each_family(data, words, [&](const Named &named, json_object *numbers) {
        const bool hidden = is_hidden(*named.listed);
        const size_t count = numbers != nullptr ? bv_json_object_array_length(numbers) : 0;
        list.key(named.listed->name);
        List elements(out, '[', ']');
        for (size_t i = 0; i < count; ++i) {
            bv_db_inst *instance;
            const int32_t status = find_instance(
                *named.family, bv_json_object_array_get_idx(numbers, i), instance, words);
            if (status != BV_OK)
                return status;
            elements.next();
            put_instance(out, *named.family, instance->image, instance->number, hidden);
        }
        if (count == 0) {
            for (const bv_db_inst &instance : instances(*named.family)) {
                elements.next();
                put_instance(out, *named.family, instance.image, instance.number, hidden);
            }
        }
        return static_cast<int32_t>(BV_OK);
    });
}

int32_t read_saved(json_object *data, Text &out, Words &words)
{
    List list(out, '{', '}');
    return each_family(data, words, [&](const Named &named, json_object *) {
        list.key(named.listed->name);
        return put_saved(out, *named.listed, words);
    });
}

int32_t read_functions(json_object *, Text &out, Words &)
{
    List list(out, '[', ']');
    for (uint32_t i = 0; i < g_service->n_functions; ++i) {
        list.next();
        out.put_quoted(g_service->functions[i].name);
    }
    return BV_OK;
}

int32_t read_counters(json_object *, Text &out, Words &)
{
    List list(out, '{', '}');
    for (uint32_t i = 0; i < g_service->n_families; ++i)
        list.text(g_service->families[i].name, CountText(g_service->families[i]).text);
    return BV_OK;
}

int32_t read_debug(json_object *, Text &out, Words &)
{
    List list(out, '[', ']');
    for (uint32_t m = 0; m < g_service->n_modules; ++m) {
        for (uint32_t l = 0; l < g_service->n_levels; ++l) {
            const bv_service_name &module = g_service->modules[m];
            const bv_service_name &level = g_service->levels[l];
            list.next();
            List members(out, '{', '}');
            members.text("module", module.name);
            members.text("level", level.name);
            members.truth("on", bv_debug_get_switch(module.number, level.number) != 0);
        }
    }
    return BV_OK;
}

int32_t read_status(json_object *, Text &out, Words &)
{
    const StoreState &store = store_state();
    List members(out, '{', '}');
    members.text("version", BV_VERSION_STRING);
    members.text("object", g_service->object != nullptr ? g_service->object : g_service->name);
    members.number("pid", getpid());
    members.number("started", g_started);
    members.text("loaded", store.loaded);
    if (store.saved != 0)
        members.number("saved", store.saved);
    else
        members.text("saved", "");
    members.number("saved_status", store.saved_status);
    members.number("calls", g_calls);
    members.number("refused", g_refused);
    members.number("dropped", g_dropped);
    members.key("unsaved");
    List unsaved(out, '[', ']');
    for (uint32_t i = 0; i < g_service->n_families; ++i) {
        if (!is_unsaved(g_service->families[i]))
            continue;
        unsaved.next();
        out.put_quoted(g_service->families[i].name);
    }
    return BV_OK;
}

// ---- write ----

int32_t change(json_object *data, Meaning meaning, Plan &plan, Words &words)
{
    const int32_t status = plan_from_json(plan, data, meaning, words);
    return status == BV_OK ? make(plan, words) : status;
}

int32_t write_set(json_object *data, Text &, Words &words)
{
    Plan plan;
    return change(data, Meaning::Set, plan, words);
}

int32_t write_import(json_object *data, Text &, Words &words)
{
    Plan plan;
    return change(data, Meaning::Import, plan, words);
}

int32_t write_add(json_object *data, Text &out, Words &words)
{
    Plan plan;
    const int32_t status = change(data, Meaning::Add, plan, words);
    if (status != BV_OK)
        return status;
    // The changes of a family follow each other.
    List list(out, '{', '}');
    for (uint32_t i = 0; i < plan.count;) {
        const Change &first = plan.changes[i];
        list.key(first.listed->name);
        List elements(out, '[', ']');
        for (; i < plan.count && plan.changes[i].listed == first.listed; ++i) {
            const bv_db_inst *added = bv_db_data_get_inst(first.family, plan.changes[i].instance);
            if (added == nullptr)
                continue; // `changed` has deleted it
            elements.next();
            put_instance(out, *first.family, added->image, added->number, is_hidden(*first.listed));
        }
    }
    return BV_OK;
}

int32_t write_del(json_object *data, Text &, Words &words)
{
    if (data == nullptr)
        return words.refuse(BV_ERR_INVALID, "data must name the instances");
    Plan plan;
    const int32_t status = each_family(data, words, [&](const Named &named, json_object *numbers) {
        const size_t count = bv_json_object_array_length(numbers);
        for (size_t i = 0; i < count; ++i) {
            bv_db_inst *instance;
            int32_t result = find_instance(*named.family, bv_json_object_array_get_idx(numbers, i),
                                           instance, words);
            if (result == BV_OK && find_change(plan, *named.family, instance->number) == nullptr)
                result = plan_one(plan, named.listed->name, nullptr, instance->number, words);
            if (result != BV_OK)
                return result;
        }
        return static_cast<int32_t>(BV_OK);
    });
    return status == BV_OK ? make(plan, words) : status;
}

int32_t write_commit(json_object *data, Text &, Words &words)
{
    const char *store = bv_json_object_get_string(data);
    if (store != nullptr && bv_os_strcmp(store, "factory") != 0)
        return words.refuse(BV_ERR_INVALID, "commit takes no data, or \"factory\"");
    const int32_t status = store != nullptr ? bv_service_commit_factory() : bv_service_commit();
    return status == BV_OK
               ? BV_OK
               : words.refuse(status, "not saved: the system log of the service has the cause");
}

// All names are looked at before the first family changes.
int32_t for_named(json_object *data, Words &words, int32_t (*step)(const bv_service_family &))
{
    const int32_t status = each_name(data, words, [](const Named &) { return BV_OK; });
    if (status != BV_OK)
        return status;
    return each_name(data, words, [&](const Named &named) {
        const int32_t result = step(*named.listed);
        return result == BV_OK
                   ? BV_OK
                   : words.refuse(result, "%s: the data file cannot be used, or no memory",
                                  named.listed->name);
    });
}

int32_t write_revert(json_object *data, Text &, Words &words)
{
    return for_named(data, words, revert);
}

int32_t write_reset(json_object *data, Text &, Words &words)
{
    return for_named(data, words, reset);
}

const bv_service_name *find_named(const bv_service_name *table, uint32_t count, json_object *name)
{
    const char *text = bv_json_object_get_string(name);
    for (uint32_t i = 0; i < count && text != nullptr; ++i)
        if (bv_os_strcmp(table[i].name, text) == 0)
            return &table[i];
    return nullptr;
}

int32_t write_debug(json_object *data, Text &, Words &words)
{
    const bv_service_name *module = find_named(g_service->modules, g_service->n_modules,
                                               bv_json_object_object_get(data, "module"));
    const bv_service_name *level = find_named(g_service->levels, g_service->n_levels,
                                              bv_json_object_object_get(data, "level"));
    json_object *on = bv_json_object_object_get(data, "on");
    if (module == nullptr || level == nullptr)
        return words.refuse(BV_ERR_INVALID, "%s has no such debug %s", g_service->name,
                            module == nullptr ? "module" : "level");
    if (!bv_json_object_is_type(on, json_type_boolean))
        return words.refuse(BV_ERR_INVALID, "\"on\" is neither true nor false");
    bv_debug_set_switch(module->number, level->number, json_object_get_boolean(on) != 0);
    return BV_OK;
}

// ---- requests ----

using Operation = int32_t (*)(json_object *data, Text &out, Words &words);

struct NamedOperation {
    const char *name;
    Operation run;
};

constexpr NamedOperation kReads[] = {{"families", read_families}, {"get", read_instances},
                                     {"saved", read_saved},       {"functions", read_functions},
                                     {"counters", read_counters}, {"debug", read_debug},
                                     {"status", read_status}};
constexpr NamedOperation kWrites[] = {{"set", write_set},       {"add", write_add},
                                      {"del", write_del},       {"import", write_import},
                                      {"commit", write_commit}, {"revert", write_revert},
                                      {"reset", write_reset},   {"debug", write_debug}};

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

template <size_t Count>
int32_t run_operation(const NamedOperation (&table)[Count], blob_attr *const *fields, Text &out,
                      Words &words)
{
    const char *op = bv_blobmsg_get_string(fields[kOp]);
    for (const NamedOperation &row : table) {
        if (bv_os_strcmp(row.name, op) != 0)
            continue;
        const Json data(bv_blobmsg_get_string(fields[kData]));
        if (fields[kData] != nullptr && data.object == nullptr)
            return words.refuse(BV_ERR_INVALID, "data is not JSON");
        const int32_t status = row.run(data.object, out, words);
        return status == BV_OK && out.failed ? words.refuse(BV_ERR_MEMORY, kNoMemory) : status;
    }
    return words.refuse(BV_ERR_INVALID, "there is no operation \"%.40s\"", op);
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
    if (status == BV_OK && answer.bytes != nullptr) {
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

template <size_t Count>
int serve(const NamedOperation (&table)[Count], ubus_context *ctx, ubus_request_data *request,
          blob_attr *message, bool only_one_part)
{
    blob_attr *fields[kFieldCount];
    if (bv_blobmsg_parse(kFields, kFieldCount, fields, bv_blob_data(message),
                         static_cast<unsigned>(bv_blob_len(message))) != 0 ||
        number_of(fields[kVersion]) != kMessageVersion || fields[kOp] == nullptr)
        return UBUS_STATUS_INVALID_ARGUMENT;
    Text answer;
    Words words;
    const int32_t status = run_operation(table, fields, answer, words);
    if (only_one_part) { // to ask for a second part would be to change again
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
    return serve(kReads, ctx, request, message, false);
}

int on_write(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *,
             blob_attr *message)
{
    ++g_calls;
    if (!may_write(*request)) {
        ++g_refused;
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    return serve(kWrites, ctx, request, message, true);
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

// The bus's own object passes the event on. Nobody waits for its answer, and when the socket is
// full the event is lost: those who watch read the counters too.
void announce(const struct bv_service_family &family)
{
    ++g_changes[&family - g_service->families];
    if (g_connection == nullptr)
        return;
    pollfd socket = {g_connection->sock.fd, POLLOUT, 0};
    char id[kMaxServiceName + sizeof(kEventSuffix)];
    snprintf(id, sizeof(id), "%s%s", g_service->name, kEventSuffix);
    int failed = bv_blobmsg_buf_init(&g_event_data) | bv_blobmsg_buf_init(&g_event);
    failed |= bv_blobmsg_add_string(&g_event_data, "family", family.name);
    failed |= bv_blobmsg_add_string(&g_event_data, "count", CountText(family).text);
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
