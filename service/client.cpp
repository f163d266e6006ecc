// SPDX-License-Identifier: ISC
// The caller's half: finds owners, and asks them for parts until the answer is whole. Structures
// are sent as they are: owner and caller run on the same machine.
//
// Nothing is remembered about an owner but its name, so a restart of the owner or of the bus shows
// in nothing but the time of the call.

#include "service/internal.h"

#include <poll.h>

using namespace bv::service;

struct bv_service_client {
    char service[kMaxServiceName + 1]; // empty: whoever owns the family
    uint32_t wait_ms;
    ubus_context *connection; // null while not connected
    bool was_sent;            // a change, by the call that runs: it may have been made
    bool is_watching;
    bool has_event;       // one came since the families were looked at last
    ubus_object listener; // gets the events
    Words words;
};

namespace {

constexpr int kCallTimeoutMs = 3000;
constexpr int kCommitTimeoutMs = 8000; // it waits for locks and for slow flash
constexpr int kRetryMs = 100;
constexpr int kAskAgainMs = 5000;
constexpr int kMaxStarts = 10; // of reading an answer that changes meanwhile

using Client = bv_service_client;

int64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // 32 bits hold the seconds since the boot, and are quick to multiply.
    return int64_t{static_cast<uint32_t>(now.tv_sec)} * 1000 + now.tv_nsec / 1000000;
}

// ---- the connection ----

void on_lost(ubus_context *connection)
{
    connection->sock.eof = true;
}

void disconnect(Client &client)
{
    bv_ubus_free(client.connection);
    client.connection = nullptr;
}

// Connecting takes over signals for the event loop, which a client does not run: SIGINT and SIGTERM
// would no longer end the program. Blocked meanwhile, none is lost. An owner's loop needs SIGCHLD.
ubus_context *connect_and_keep_signals()
{
    static constexpr int kTaken[] = {SIGINT, SIGTERM, SIGCHLD};
    const int count = g_service == nullptr ? 3 : 2;
    struct sigaction old[3];
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    sigset_t blocked = before;
    for (int i = 0; i < count; ++i) {
        sigaction(kTaken[i], nullptr, &old[i]);
        sigaddset(&blocked, kTaken[i]);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
    ubus_context *connection = bv_ubus_connect(nullptr);
    for (int i = 0; i < count; ++i)
        sigaction(kTaken[i], &old[i], nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return connection;
}

bool connect(Client &client)
{
    if (client.connection != nullptr && !client.connection->sock.eof)
        return true;
    disconnect(client);
    client.connection = is_bus_alive(-1) ? connect_and_keep_signals() : nullptr;
    client.listener = {};
    if (client.connection != nullptr)
        client.connection->connection_lost = on_lost;
    return client.connection != nullptr;
}

// What a look-up found: an object, or the names of the services, each with its terminator.
struct Found {
    struct Iterator {
        const char *at;
        const char *operator*() const { return at; }
        void operator++() { at += strlen(at) + 1; }
        bool operator!=(const Iterator &other) const { return at != other.at; }
    };
    uint32_t id = 0;
    Text names;
    Iterator begin() const { return {names.bytes}; }
    Iterator end() const { return {names.bytes + names.length}; }
};

// Looks up an object, or all. A connection that turns out to be dead is made again, once.
int32_t look_up(Client &client, const char *path, ubus_lookup_handler_t take, Found &found)
{
    for (int attempt = 0; attempt < 2 && connect(client); ++attempt) {
        found.names.length = 0;
        const int status = ubus_lookup(client.connection, path, take, &found);
        if (status == UBUS_STATUS_OK || status == UBUS_STATUS_NOT_FOUND)
            return status;
        disconnect(client);
    }
    return UBUS_STATUS_CONNECTION_FAILED;
}

// ---- one request ----

struct Request {
    Client &client;
    const char *op;
    const char *data; // or null
    Text answer = {}; // as far as it came
    // Of the last reply:
    int32_t status = 0;
    uint32_t generation = 0;
    uint32_t total = 0;
};

void take_reply(ubus_request *bus_request, int, blob_attr *message)
{
    enum { kStatus, kWords, kGeneration, kTotal, kData, kCount };
    static constexpr blobmsg_policy kFields[] = {{"status", BLOBMSG_TYPE_INT32},
                                                 {"words", BLOBMSG_TYPE_STRING},
                                                 {"generation", BLOBMSG_TYPE_INT32},
                                                 {"total", BLOBMSG_TYPE_INT32},
                                                 {"data", BLOBMSG_TYPE_STRING}};
    Request &request = *static_cast<Request *>(bus_request->priv);
    blob_attr *fields[kCount];
    if (request.status != UBUS_STATUS_PARSE_ERROR || // a second one
        !parse_message(message, kFields, kCount, fields) || fields[kStatus] == nullptr ||
        fields[kGeneration] == nullptr || fields[kTotal] == nullptr)
        return;
    request.status = static_cast<int32_t>(bv_blobmsg_get_u32(fields[kStatus]));
    request.generation = bv_blobmsg_get_u32(fields[kGeneration]);
    request.total = bv_blobmsg_get_u32(fields[kTotal]);
    if (fields[kWords] != nullptr)
        request.client.words.refuse(0, "%s", bv_blobmsg_get_string(fields[kWords]));
    if (fields[kData] != nullptr)
        request.answer.put(bv_blobmsg_get_string(fields[kData]));
}

// What the bus says of a request that no object of the kit got. Once owners have connected again,
// the number that was looked up may be unknown, or belong to another object.
bool is_elsewhere(int32_t status)
{
    return status == UBUS_STATUS_NOT_FOUND || status == UBUS_STATUS_INVALID_ARGUMENT ||
           status == UBUS_STATUS_METHOD_NOT_FOUND;
}

// Asks for the part of the answer that is missing.
int32_t ask_for_part(Request &request, uint32_t id)
{
    const bool reads = is_read(request.op, request.data != nullptr);
    BusMessage message;
    message.put("version", kMessageVersion);
    message.put("op", request.op);
    if (request.data != nullptr)
        message.put("data", request.data);
    message.put("offset", request.answer.length);
    message.put("generation", request.generation);
    int32_t status = UBUS_STATUS_NO_MEMORY;
    const int limit = strcmp(request.op, "commit") == 0 ? kCommitTimeoutMs : kCallTimeoutMs;
    request.status = UBUS_STATUS_PARSE_ERROR; // until there is one
    if (!message.failed)
        status = bv_ubus_invoke(request.client.connection, id, reads ? "read" : "write",
                                message.buffer.head, take_reply, &request, limit);
    request.client.was_sent = !reads && !is_elsewhere(status);
    return status != UBUS_STATUS_OK ? status : request.status;
}

// Asks for one part after the other. kStartAgain when the answer has changed meanwhile.
int32_t ask_for_all(Request &request, uint32_t id)
{
    const Text &answer = request.answer;
    request.answer.length = 0;
    request.generation = 0;
    do {
        const uint32_t length = answer.length;
        const uint32_t generation = request.generation;
        const uint32_t total = request.total;
        const int32_t status = ask_for_part(request, id);
        if (status != BV_OK)
            return status;
        if (answer.failed)
            return BV_ERR_MEMORY;
        if (length != 0 && (request.generation != generation || request.total != total))
            return kStartAgain;
        if (request.total > kMaxText || answer.length > request.total ||
            (answer.length == length && length < request.total))
            return UBUS_STATUS_PARSE_ERROR;
    } while (answer.length < request.total);
    return BV_OK;
}

// Sends a request to a service, and once again when the owner or the bus was restarted in the
// middle, but a change only if it was not made.
int32_t ask(Request &request, const char *service)
{
    Client &client = request.client;
    char path[kMaxServiceName + sizeof(kObjectSuffix)];
    snprintf(path, sizeof(path), "%s%s", service, kObjectSuffix);
    const auto take_id = [](ubus_context *, ubus_object_data *object, void *found) {
        static_cast<Found *>(found)->id = object->id;
    };
    for (int start = 0; start < kMaxStarts; ++start) {
        Found object;
        client.words.text[0] = '\0';
        int32_t status = look_up(client, path, take_id, object);
        if (status == UBUS_STATUS_OK && object.id == 0) // a bus that ended meanwhile says so
            status = UBUS_STATUS_NOT_FOUND;
        if (status != UBUS_STATUS_OK)
            return status;
        status = ask_for_all(request, object.id);
        const bool is_lost = is_elsewhere(status) || status == UBUS_STATUS_CONNECTION_FAILED;
        const bool again = status == kStartAgain || (is_lost && start == 0);
        if (client.was_sent || !again) // a check may refuse with any code
            return status;
    }
    return client.words.refuse(UBUS_STATUS_TIMEOUT, "the answer of %s changed again and again",
                               service);
}

// ---- owners ----

// Whether an object that is called like ours has our methods.
bool has_methods(blob_attr *signature)
{
    static constexpr blobmsg_policy kMethods[] = {{"read", BLOBMSG_TYPE_TABLE},
                                                  {"write", BLOBMSG_TYPE_TABLE}};
    blob_attr *methods[2];
    return signature != nullptr && parse_message(signature, kMethods, 2, methods) &&
           methods[0] != nullptr && methods[1] != nullptr;
}

void take_object(ubus_context *, ubus_object_data *object, void *priv)
{
    char name[kMaxServiceName + sizeof(kObjectSuffix)];
    const char *path = object->path != nullptr ? object->path : "";
    constexpr size_t kSuffix = sizeof(kObjectSuffix) - 1;
    const size_t length = strlen(path);
    if (length < kSuffix || length >= sizeof(name) ||
        strcmp(path + length - kSuffix, kObjectSuffix) != 0 || !has_methods(object->signature))
        return;
    snprintf(name, sizeof(name), "%.*s", static_cast<int>(length - kSuffix), path);
    if (is_service_name(name))
        static_cast<Found *>(priv)->names.put(name, strlen(name) + 1);
}

int32_t list_services(Client &client, Found &services)
{
    const int32_t status = look_up(client, nullptr, take_object, services);
    return services.names.failed             ? static_cast<int32_t>(BV_ERR_MEMORY)
           : status == UBUS_STATUS_NOT_FOUND ? BV_OK
                                             : status;
}

// Asks every service for the family. A service that does not answer is not waited for again.
int32_t find_owner(Client &client, const char *family, char *owner)
{
    Found services;
    Text data;
    int32_t status = list_services(client, services);
    data.put("{");
    data.quote(family);
    data.put(":[]}");
    if (status != BV_OK || data.failed)
        return status != BV_OK ? status : static_cast<int32_t>(BV_ERR_MEMORY);
    for (const char *name : services) {
        Request request = {client, "counters", data.bytes};
        status = ask(request, name);
        if (status == BV_OK)
            snprintf(owner, kMaxServiceName + 1, "%s", name);
        if (status == BV_OK || status == UBUS_STATUS_CONNECTION_FAILED)
            return status;
    }
    return client.words.refuse(BV_ERR_NO_FAMILY, "%s: no running service owns this family", family);
}

// ---- whole calls ----

// Whether waiting can help because the bus or the owner is missing. If the owner ends before it
// answers, the call times out: the bus does not report the loss.
bool is_away(const Client &client, int32_t status)
{
    return status == UBUS_STATUS_CONNECTION_FAILED || status == UBUS_STATUS_NOT_FOUND ||
           status == UBUS_STATUS_TIMEOUT ||
           (client.service[0] == '\0' && status == BV_ERR_NO_FAMILY);
}

// Asks the family's owner, and again as long as it is away and the client waits. A change is not
// sent twice.
int32_t ask_owner(Request &request, const char *family)
{
    Client &client = request.client;
    const int64_t deadline = now_ms() + client.wait_ms;
    for (;;) {
        char owner[kMaxServiceName + 1];
        snprintf(owner, sizeof(owner), "%s", client.service);
        client.words.text[0] = '\0';
        client.was_sent = false;
        int32_t status = BV_OK;
        if (owner[0] == '\0')
            status = family != nullptr ? find_owner(client, family, owner)
                                       : static_cast<int32_t>(UBUS_STATUS_NOT_FOUND);
        if (status == BV_OK)
            status = ask(request, owner);
        if (!is_away(client, status) || client.was_sent || now_ms() >= deadline)
            return status;
        bv_os_usleep(kRetryMs * 1000);
    }
}

// Asks about one image: {"family":"lan.json","inst":"1", and how many bytes or which.
int32_t ask_image(Request &request, const char *family, uint32_t instance, uint32_t size,
                  const void *image)
{
    Text data;
    data.put("{\"family\":");
    data.quote(family);
    data.item("\"inst\":\"%" PRId32 "\",\"size\":%" PRIu32, static_cast<int32_t>(instance), size);
    if (image != nullptr) {
        data.put(",\"image\":");
        data.hex(static_cast<const uint8_t *>(image), size);
    }
    data.put("}");
    request.data = data.bytes;
    return data.failed ? BV_ERR_MEMORY : ask_owner(request, family);
}

// The family that the data of a request names first. Null if it names none.
const char *family_in(json_object *data)
{
    size_t length;
    const char *family = text_of(bv_json_object_object_get(data, "family"), length);
    for (const Members::Member &member : Members(data))
        if (family == nullptr && bv_json_object_is_type(member.value(), json_type_array) != 0)
            family = member.name();
    return family;
}

// ---- watching ----

int on_event(ubus_context *, ubus_object *listener, ubus_request_data *, const char *, blob_attr *)
{
    auto *client =
        reinterpret_cast<Client *>(reinterpret_cast<char *>(listener) - offsetof(Client, listener));
    client->has_event = true;
    return UBUS_STATUS_OK;
}

void register_pattern(Client &client, const char *pattern)
{
    BusMessage message;
    message.put("object", client.listener.id);
    message.put("pattern", pattern);
    if (!message.failed)
        bv_ubus_invoke(client.connection, UBUS_SYSTEM_OBJECT_EVENT, "register", message.buffer.head,
                       nullptr, nullptr, kCallTimeoutMs);
}

// Asks the bus for the events of the service and of new objects, as a restarted service has. What
// came does not matter: all counters are compared. Should this fail, they are compared anyway.
void listen(Client &client)
{
    static constexpr ubus_method kAny = {nullptr, on_event, 0, 0, nullptr, 0};
    if (!connect(client) || client.listener.id != 0)
        return;
    client.listener.methods = &kAny;
    client.listener.n_methods = 1;
    if (bv_ubus_add_object(client.connection, &client.listener) != UBUS_STATUS_OK)
        return;
    char pattern[kMaxServiceName + sizeof(kEventSuffix)];
    snprintf(pattern, sizeof(pattern), "%s%s", client.service,
             client.service[0] != '\0' ? kEventSuffix : "*");
    register_pattern(client, pattern);
    register_pattern(client, "ubus.object.add");
}

struct Watch {
    Client &client;
    const char *family; // or null
    bv_service_changed_cb changed;
    void *priv;
    json_object *known; // the counters that each service had
};

// Calls back for the families of a service whose counters are not known.
int32_t look_at(const Watch &watch, const char *service)
{
    Request request = {watch.client, "counters", nullptr};
    const int32_t status = ask(request, service);
    const bool has_answer = status == BV_OK && request.answer.length != 0;
    bv::JsonTree counters(has_answer ? bv_json_tokener_parse(request.answer.bytes) : nullptr);
    json_object *before = bv_json_object_object_get(watch.known, service);
    bool found = watch.family == nullptr;
    for (const Members::Member &member : Members(counters.get())) {
        if (watch.family != nullptr && strcmp(member.name(), watch.family) != 0)
            continue;
        found = true;
        json_object *counter = bv_json_object_object_get(before, member.name());
        if (watch.client.is_watching && json_object_equal(counter, member.value()) == 0)
            watch.changed(service, member.name(), watch.priv);
    }
    if (counters)
        json_object_object_add(watch.known, service, counters.release());
    return status != BV_OK || found ? status : static_cast<int32_t>(BV_ERR_NO_FAMILY);
}

// Looks at the client's service, or at all. One of all that is not there has not changed.
int32_t look(const Watch &watch)
{
    Client &client = watch.client;
    client.has_event = false;
    if (client.service[0] != '\0')
        return look_at(watch, client.service);
    Found services;
    int32_t status = list_services(client, services);
    bool found = watch.family == nullptr;
    for (const char *name : services) {
        const int32_t result = status == BV_OK ? look_at(watch, name) : status;
        found = found || result == BV_OK;
        if (result == UBUS_STATUS_CONNECTION_FAILED)
            status = result;
    }
    return status != BV_OK || found ? status : static_cast<int32_t>(BV_ERR_NO_FAMILY);
}

int32_t run_watch(const Watch &watch, int64_t end)
{
    Client &client = watch.client;
    int64_t away_since = -1;
    int64_t next_look = 0;
    while (client.is_watching) {
        listen(client);
        // Events that came during a call are handed on here, too.
        if (client.connection != nullptr)
            ubus_handle_event(client.connection);
        int64_t now = now_ms();
        if (now >= end)
            break;
        if (!client.has_event && now < next_look) {
            const int64_t until = next_look < end ? next_look : end;
            const int fd = client.connection != nullptr ? client.connection->sock.fd : -1;
            pollfd socket = {fd, POLLIN, 0};
            poll(&socket, 1, static_cast<int>(until - now));
            continue;
        }
        const int32_t status = look(watch);
        const bool away = is_away(client, status);
        now = now_ms();
        if (!away || away_since < 0)
            away_since = away ? now : -1;
        if (status != BV_OK && (!away || now - away_since >= client.wait_ms))
            return status;
        next_look = now + (away ? kRetryMs : kAskAgainMs);
    }
    return BV_OK;
}

} // namespace

// ---- the interface ----

struct bv_service_client *bv_service_open(const char *service, uint32_t wait_ms)
{
    if (service != nullptr && !is_service_name(service))
        return nullptr;
    auto *client = static_cast<Client *>(calloc(1, sizeof(Client)));
    if (client == nullptr)
        return nullptr;
    if (service != nullptr)
        snprintf(client->service, sizeof(client->service), "%s", service);
    client->wait_ms = wait_ms;
    return client;
}

void bv_service_close(struct bv_service_client *client)
{
    if (client == nullptr)
        return;
    disconnect(*client);
    free(client);
}

int32_t bv_service_get(struct bv_service_client *client, const char *family, void *image,
                       uint32_t size, uint32_t instance)
{
    if (client == nullptr || family == nullptr || image == nullptr)
        return BV_ERR_NULL;
    Request request = {*client, "image", nullptr};
    const int32_t status = ask_image(request, family, instance, size, nullptr);
    if (status != BV_OK)
        return status;
    const char *digits = request.answer.length != 0 ? request.answer.bytes + 1 : "";
    return read_hex(digits, static_cast<uint8_t *>(image), size)
               ? BV_OK
               : client->words.refuse(UBUS_STATUS_PARSE_ERROR, "the answer makes no sense");
}

int32_t bv_service_set(struct bv_service_client *client, const char *family, const void *image,
                       uint32_t size, uint32_t instance)
{
    if (client == nullptr || family == nullptr || image == nullptr)
        return BV_ERR_NULL;
    Request request = {*client, "put", nullptr};
    return ask_image(request, family, instance, size, image);
}

int32_t bv_service_request(struct bv_service_client *client, const char *op, const char *data,
                           char **answer)
{
    if (answer != nullptr)
        *answer = nullptr;
    if (client == nullptr || op == nullptr)
        return BV_ERR_NULL;
    const bv::JsonTree tree(data != nullptr ? bv_json_tokener_parse(data) : nullptr);
    Request request = {*client, op, data};
    const int32_t status = ask_owner(request, family_in(tree.get()));
    if (status == BV_OK && answer != nullptr && request.answer.length != 0) {
        *answer = request.answer.bytes;
        request.answer.bytes = nullptr;
    }
    return status;
}

int32_t bv_service_list(struct bv_service_client *client,
                        void (*found)(const char *service, void *priv), void *priv)
{
    if (client == nullptr || found == nullptr)
        return BV_ERR_NULL;
    Found services;
    const int64_t deadline = now_ms() + client->wait_ms;
    int32_t status;
    while ((status = list_services(*client, services)) == UBUS_STATUS_CONNECTION_FAILED &&
           now_ms() < deadline)
        bv_os_usleep(kRetryMs * 1000);
    for (const char *name : services)
        if (status == BV_OK)
            found(name, priv);
    return status;
}

int32_t bv_service_watch(struct bv_service_client *client, const char *family,
                         bv_service_changed_cb changed, void *priv, uint32_t ms)
{
    if (client == nullptr || changed == nullptr)
        return BV_ERR_NULL;
    const bv::JsonTree known(bv_json_tokener_parse("{}"));
    if (!known)
        return BV_ERR_MEMORY;
    client->is_watching = true;
    const int32_t status = run_watch({*client, family, changed, priv, known.get()},
                                     ms != 0 ? now_ms() + ms : INT64_MAX);
    client->is_watching = false;
    if (client->listener.id != 0)
        disconnect(*client); // and so the listener ends, too
    return status;
}

void bv_service_unwatch(struct bv_service_client *client)
{
    if (client != nullptr)
        client->is_watching = false;
}

const char *bv_service_words(const struct bv_service_client *client)
{
    return client != nullptr ? client->words.text : "";
}
