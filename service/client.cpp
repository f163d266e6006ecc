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
constexpr int kRetryMs = 100;
constexpr int kAskAgainMs = 5000;
constexpr uint32_t kMaxAnswer = 16 * 1024 * 1024;
constexpr int kMaxStarts = 10; // of reading an answer that changes meanwhile

using Client = bv_service_client;

int64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
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

// Connecting takes over SIGINT and SIGTERM for the event loop, which a client does not run: they
// would no longer end the program.
bool connect(Client &client)
{
    if (client.connection != nullptr && !client.connection->sock.eof)
        return true;
    disconnect(client);
    struct sigaction interrupted, terminated;
    sigaction(SIGINT, nullptr, &interrupted);
    sigaction(SIGTERM, nullptr, &terminated);
    client.connection = is_bus_alive(-1) ? bv_ubus_connect(nullptr) : nullptr;
    sigaction(SIGINT, &interrupted, nullptr);
    sigaction(SIGTERM, &terminated, nullptr);
    client.listener = {};
    if (client.connection != nullptr)
        client.connection->connection_lost = on_lost;
    return client.connection != nullptr;
}

// Finds an object. A connection that turns out to be dead is made again, once.
int32_t find_object(Client &client, const char *service, uint32_t &id)
{
    char path[kMaxServiceName + sizeof(kObjectSuffix)];
    snprintf(path, sizeof(path), "%s%s", service, kObjectSuffix);
    for (int attempt = 0; attempt < 2 && connect(client); ++attempt) {
        id = 0;
        const int status = bv_ubus_lookup_id(client.connection, path, &id);
        if (status == UBUS_STATUS_OK && id != 0)
            return BV_OK;
        if (status == UBUS_STATUS_OK || status == UBUS_STATUS_NOT_FOUND)
            return UBUS_STATUS_NOT_FOUND;
        disconnect(client);
    }
    return UBUS_STATUS_CONNECTION_FAILED;
}

// ---- one request ----

struct Request {
    const char *op;
    const char *data; // or null
};

bool is_read(const Request &request)
{
    return bv::service::is_read(request.op, request.data != nullptr);
}

struct Reply {
    Text &answer; // the part is appended
    Words &words;
    bool is_complete;
    int32_t status;
    uint32_t generation;
    uint32_t total;
};

void take_reply(ubus_request *request, int, blob_attr *message)
{
    enum { kStatus, kWords, kGeneration, kTotal, kData, kCount };
    static constexpr blobmsg_policy kFields[] = {{"status", BLOBMSG_TYPE_INT32},
                                                 {"words", BLOBMSG_TYPE_STRING},
                                                 {"generation", BLOBMSG_TYPE_INT32},
                                                 {"total", BLOBMSG_TYPE_INT32},
                                                 {"data", BLOBMSG_TYPE_STRING}};
    Reply &reply = *static_cast<Reply *>(request->priv);
    blob_attr *fields[kCount];
    if (reply.is_complete || // a second one
        bv_blobmsg_parse(kFields, kCount, fields, bv_blob_data(message),
                         static_cast<unsigned>(bv_blob_len(message))) != 0 ||
        fields[kStatus] == nullptr || fields[kGeneration] == nullptr || fields[kTotal] == nullptr)
        return;
    reply.is_complete = true;
    reply.status = static_cast<int32_t>(bv_blobmsg_get_u32(fields[kStatus]));
    reply.generation = bv_blobmsg_get_u32(fields[kGeneration]);
    reply.total = bv_blobmsg_get_u32(fields[kTotal]);
    if (fields[kWords] != nullptr)
        snprintf(reply.words.text, sizeof(reply.words.text), "%s",
                 bv_blobmsg_get_string(fields[kWords]));
    if (fields[kData] != nullptr)
        reply.answer.put(bv_blobmsg_get_string(fields[kData]));
}

int32_t ask_for_part(Client &client, uint32_t id, const Request &request, uint32_t generation,
                     Reply &reply)
{
    blob_buf message = {};
    int failed = bv_blobmsg_buf_init(&message);
    failed |= bv_blobmsg_add_u32(&message, "version", kMessageVersion);
    failed |= bv_blobmsg_add_string(&message, "op", request.op);
    if (request.data != nullptr)
        failed |= bv_blobmsg_add_string(&message, "data", request.data);
    if (reply.answer.length != 0) {
        failed |= bv_blobmsg_add_u32(&message, "offset", reply.answer.length);
        failed |= bv_blobmsg_add_u32(&message, "generation", generation);
    }
    int32_t status = UBUS_STATUS_NO_MEMORY;
    if (failed == 0)
        status = bv_ubus_invoke(client.connection, id, is_read(request) ? "read" : "write",
                                message.head, take_reply, &reply, kCallTimeoutMs);
    bv_blob_buf_free(&message);
    if (status != UBUS_STATUS_OK)
        return status;
    return reply.is_complete ? reply.status : UBUS_STATUS_PARSE_ERROR;
}

// Asks for one part after the other. kStartAgain when the answer has changed meanwhile.
int32_t ask_for_all(Client &client, uint32_t id, const Request &request, Text &answer)
{
    answer.length = 0;
    uint32_t generation = 0;
    uint32_t total = 0;
    do {
        const uint32_t before = answer.length;
        Reply reply = {answer, client.words, false, 0, 0, 0};
        const int32_t status = ask_for_part(client, id, request, generation, reply);
        if (status != BV_OK)
            return status;
        if (answer.failed)
            return BV_ERR_MEMORY;
        if (before != 0 && (reply.generation != generation || reply.total != total))
            return kStartAgain;
        generation = reply.generation;
        total = reply.total;
        if (total > kMaxAnswer || answer.length > total ||
            (answer.length == before && answer.length < total))
            return UBUS_STATUS_PARSE_ERROR;
    } while (answer.length < total);
    return BV_OK;
}

// Sends a request to a service. What only reads is sent again when the owner or the bus was
// restarted in the middle; a change might be made twice.
int32_t ask(Client &client, const char *service, const Request &request, Text &answer)
{
    int32_t status = BV_OK;
    for (int start = 0; start < kMaxStarts; ++start) {
        uint32_t id;
        client.words.text[0] = '\0';
        status = find_object(client, service, id);
        if (status == BV_OK) {
            client.was_sent = client.was_sent || !is_read(request);
            status = ask_for_all(client, id, request, answer);
        }
        const bool again = status == kStartAgain || (start == 0 && is_read(request) &&
                                                     status == UBUS_STATUS_CONNECTION_FAILED);
        if (!again)
            return status;
    }
    return client.words.refuse(UBUS_STATUS_TIMEOUT, "the answer of %s changed again and again",
                               service);
}

// ---- owners ----

// The names of the services, each with its terminator, in alphabetical order.
struct Names {
    Text text;
    const char *end() const { return text.bytes + text.length; }
};

template <typename Visit>
void each(const Names &names, Visit visit)
{
    for (const char *at = names.text.bytes; at != nullptr && at < names.end(); at += strlen(at) + 1)
        visit(at);
}

// Whether an object that is called like ours has our methods.
bool has_methods(blob_attr *signature)
{
    static constexpr blobmsg_policy kMethods[] = {{"read", BLOBMSG_TYPE_TABLE},
                                                  {"write", BLOBMSG_TYPE_TABLE}};
    blob_attr *methods[2];
    return signature != nullptr &&
           bv_blobmsg_parse(kMethods, 2, methods, bv_blob_data(signature),
                            static_cast<unsigned>(bv_blob_len(signature))) == 0 &&
           methods[0] != nullptr && methods[1] != nullptr;
}

void insert_sorted(Names &names, const char *name)
{
    const auto length = static_cast<uint32_t>(strlen(name) + 1);
    uint32_t at = 0;
    while (at < names.text.length && strcmp(names.text.bytes + at, name) < 0)
        at += static_cast<uint32_t>(strlen(names.text.bytes + at) + 1);
    const uint32_t behind = names.text.length - at;
    names.text.put(name, length); // for the room
    if (names.text.failed)
        return;
    memmove(names.text.bytes + at + length, names.text.bytes + at, behind);
    memcpy(names.text.bytes + at, name, length);
}

void take_object(ubus_context *, ubus_object_data *object, void *priv)
{
    const char *path = object->path != nullptr ? object->path : "";
    const size_t length = strlen(path);
    constexpr size_t kSuffixLength = sizeof(kObjectSuffix) - 1;
    char name[kMaxServiceName + 1];
    if (length <= kSuffixLength || length - kSuffixLength >= sizeof(name) ||
        strcmp(path + length - kSuffixLength, kObjectSuffix) != 0 ||
        !has_methods(object->signature))
        return;
    snprintf(name, sizeof(name), "%.*s", static_cast<int>(length - kSuffixLength), path);
    if (is_service_name(name))
        insert_sorted(*static_cast<Names *>(priv), name);
}

int32_t list_services(Client &client, Names &names)
{
    int32_t status = UBUS_STATUS_CONNECTION_FAILED;
    for (int attempt = 0; attempt < 2 && connect(client); ++attempt) {
        names.text.length = 0;
        status = ubus_lookup(client.connection, nullptr, take_object, &names);
        if (status == UBUS_STATUS_OK || status == UBUS_STATUS_NOT_FOUND)
            return names.text.failed ? BV_ERR_MEMORY : BV_OK;
        disconnect(client);
    }
    return UBUS_STATUS_CONNECTION_FAILED;
}

// Asks every service for the family. A service that does not answer is not waited for again.
int32_t find_owner(Client &client, const char *family, char *owner)
{
    Names names;
    Text quoted;
    int32_t status = list_services(client, names);
    quoted.quote(family);
    if (status != BV_OK || quoted.failed)
        return status != BV_OK ? status : BV_ERR_MEMORY;
    status = BV_ERR_NO_FAMILY;
    each(names, [&](const char *service) {
        Text answer;
        if (status == BV_OK)
            return;
        const int32_t result = ask(client, service, {"counters", quoted.bytes}, answer);
        if (result == BV_OK)
            snprintf(owner, kMaxServiceName + 1, "%s", service);
        if (result == BV_OK || result == UBUS_STATUS_CONNECTION_FAILED)
            status = result;
    });
    if (status == BV_ERR_NO_FAMILY)
        client.words.refuse(status, "%s: no running service owns this family", family);
    return status;
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
int32_t ask_owner(Client &client, const char *family, const Request &request, Text &answer)
{
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
            status = ask(client, owner, request, answer);
        const int64_t left = deadline - now_ms();
        if (!is_away(client, status) || client.was_sent || left <= 0)
            return status;
        bv_os_msleep(static_cast<uint32_t>(left < kRetryMs ? left : kRetryMs));
    }
}

// Asks about one image: {"family":"lan.json","inst":"1", and how many bytes or which.
int32_t ask_image(Client &client, const char *family, uint32_t instance, uint32_t size,
                  const void *image, Text &answer)
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
    return data.failed ? BV_ERR_MEMORY
                       : ask_owner(client, family, {image != nullptr ? "put" : "image", data.bytes},
                                   answer);
}

// The family that the data of a request names first: its first text. Null if it has none.
const char *family_in(const char *data, char (&family)[1024])
{
    const char *start = data != nullptr ? strchr(data, '"') : nullptr;
    const char *end = start != nullptr ? strchr(start + 1, '"') : nullptr;
    if (end == nullptr)
        return nullptr;
    snprintf(family, sizeof(family), "%.*s", static_cast<int>(end - start - 1), start + 1);
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
    blob_buf message = {};
    if (bv_blobmsg_buf_init(&message) == 0 &&
        bv_blobmsg_add_u32(&message, "object", client.listener.id) == 0 &&
        bv_blobmsg_add_string(&message, "pattern", pattern) == 0)
        bv_ubus_invoke(client.connection, UBUS_SYSTEM_OBJECT_EVENT, "register", message.head,
                       nullptr, nullptr, kCallTimeoutMs);
    bv_blob_buf_free(&message);
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

class Watch {
public:
    Watch(Client &client, const char *family, bv_service_changed_cb changed, void *priv)
        : client_(client), family_(family), changed_(changed), priv_(priv),
          known_(json_object_new_object())
    {
    }
    ~Watch() { bv_json_object_put(known_); }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    bool is_ready() const { return known_ != nullptr; }

    // Reads the counters and calls back for those that differ. A service that is not there is one
    // that has not changed, unless it is the one that is watched.
    int32_t look()
    {
        client_.has_event = false;
        if (client_.service[0] != '\0')
            return look_at(client_.service);
        Names names;
        int32_t status = list_services(client_, names);
        if (status != BV_OK)
            return status;
        found_ = family_ == nullptr;
        each(names, [&](const char *service) {
            if (client_.is_watching && look_at(service) == UBUS_STATUS_CONNECTION_FAILED)
                status = UBUS_STATUS_CONNECTION_FAILED;
        });
        return status != BV_OK || found_ ? status : BV_ERR_NO_FAMILY;
    }

private:
    int32_t look_at(const char *service)
    {
        Text answer;
        const int32_t status = ask(client_, service, {"counters", nullptr}, answer);
        if (status != BV_OK)
            return status;
        const bv::JsonTree counters(bv_json_tokener_parse(answer.bytes));
        bool found = family_ == nullptr;
        for (const Members::Member member : Members{counters.get()}) {
            if (family_ != nullptr && strcmp(member.name, family_) != 0)
                continue;
            found = true;
            if (client_.is_watching &&
                is_new(service, member.name, bv_json_object_get_string(member.value)))
                changed_(service, member.name, priv_);
        }
        found_ = found_ || found;
        return found ? BV_OK : BV_ERR_NO_FAMILY;
    }

    bool is_new(const char *service, const char *family, const char *count)
    {
        char key[1200];
        snprintf(key, sizeof(key), "%s/%s", service, family);
        const char *was = bv_json_object_get_string(bv_json_object_object_get(known_, key));
        if (count == nullptr || (was != nullptr && strcmp(was, count) == 0))
            return false;
        json_object_object_add(known_, key, json_object_new_string(count));
        return true;
    }

    Client &client_;
    const char *family_;
    bv_service_changed_cb changed_;
    void *priv_;
    json_object *known_; // "service/family" to its counter
    bool found_ = false;
};

int32_t run_watch(Client &client, Watch &watch, int64_t end)
{
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
        if (client.has_event || now >= next_look) {
            const int32_t status = watch.look();
            now = now_ms();
            const bool away = is_away(client, status);
            if (!away)
                away_since = -1;
            else if (away_since < 0)
                away_since = now;
            if ((status != BV_OK && !away) || (away && now - away_since >= client.wait_ms))
                return status;
            next_look = now + (away ? kRetryMs : kAskAgainMs);
            continue;
        }
        const int64_t until = next_look < end ? next_look : end;
        pollfd socket = {client.connection != nullptr ? client.connection->sock.fd : -1, POLLIN, 0};
        poll(&socket, 1, static_cast<int>(until - now));
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
    Text answer;
    const int32_t status = ask_image(*client, family, instance, size, nullptr, answer);
    if (status != BV_OK)
        return status;
    const char *digits = answer.bytes != nullptr ? answer.bytes + 1 : "";
    if (strspn(digits, "0123456789abcdef") != size_t{2} * size)
        return client->words.refuse(UBUS_STATUS_PARSE_ERROR, "the answer makes no sense");
    read_hex(digits, static_cast<uint8_t *>(image), size);
    return BV_OK;
}

int32_t bv_service_set(struct bv_service_client *client, const char *family, const void *image,
                       uint32_t size, uint32_t instance)
{
    if (client == nullptr || family == nullptr || image == nullptr)
        return BV_ERR_NULL;
    Text answer;
    return ask_image(*client, family, instance, size, image, answer);
}

int32_t bv_service_request(struct bv_service_client *client, const char *op, const char *data,
                           char **answer)
{
    if (answer != nullptr)
        *answer = nullptr;
    if (client == nullptr || op == nullptr)
        return BV_ERR_NULL;
    char family[1024];
    Text text;
    const int32_t status = ask_owner(*client, family_in(data, family), {op, data}, text);
    if (status == BV_OK && answer != nullptr && text.length != 0) {
        *answer = text.bytes;
        text.bytes = nullptr;
    }
    return status;
}

int32_t bv_service_list(struct bv_service_client *client,
                        void (*found)(const char *service, void *priv), void *priv)
{
    if (client == nullptr || found == nullptr)
        return BV_ERR_NULL;
    Names names;
    const int64_t deadline = now_ms() + client->wait_ms;
    int32_t status;
    while ((status = list_services(*client, names)) == UBUS_STATUS_CONNECTION_FAILED &&
           now_ms() < deadline)
        bv_os_msleep(kRetryMs);
    if (status == BV_OK)
        each(names, [&](const char *service) { found(service, priv); });
    return status;
}

int32_t bv_service_watch(struct bv_service_client *client, const char *family,
                         bv_service_changed_cb changed, void *priv, uint32_t ms)
{
    if (client == nullptr || changed == nullptr)
        return BV_ERR_NULL;
    Watch watch(*client, family, changed, priv);
    if (!watch.is_ready())
        return BV_ERR_MEMORY;
    client->is_watching = true;
    const int32_t status = run_watch(*client, watch, ms != 0 ? now_ms() + ms : INT64_MAX);
    client->is_watching = false;
    if (client->connection != nullptr && client->listener.id != 0)
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

const char *bv_service_text(int32_t result)
{
    return result >= 0 && result < 0x1000 ? bv_bus_status_text(result) : bv_status_text(result);
}
