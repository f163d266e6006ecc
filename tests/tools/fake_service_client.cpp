// SPDX-License-Identifier: ISC
// The caller's half of the kit without services: it answers from /scratch/services.json, and
// appends each request to /scratch/requests.
//
//   {"network": {"families": ANSWER, "get": ANSWER, ..., "refuse": {"set": [STATUS, "words"]}}}
//
// After "commit" the answer "committed", if there is one, takes the place of "status".
//
// Watching reports each family twice; before the second time /scratch/later.json takes the place of
// the answers.

#include <bv/service.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

json_object *answers()
{
    static json_object *all = json_object_from_file("/scratch/services.json");
    return all;
}

json_object *at(json_object *object, const std::string &name)
{
    return json_object_object_get(object, name.c_str());
}

bool wants(json_object *numbers, json_object *instance)
{
    bool found = json_object_array_length(numbers) == 0;
    for (size_t i = 0; i < json_object_array_length(numbers); ++i)
        found |=
            json_object_equal(json_object_array_get_idx(numbers, i), at(instance, "inst")) != 0;
    return found;
}

// What is asked for of a whole answer: {"lan.json":["1"]}.
json_object *part(json_object *answer, json_object *wanted)
{
    json_object *some = json_object_new_object();
    json_object_object_foreach(wanted, family, numbers)
    {
        json_object *instances = json_object_new_array();
        json_object *all = at(answer, family);
        for (size_t i = 0; i < json_object_array_length(all); ++i)
            if (wants(numbers, json_object_array_get_idx(all, i)))
                json_object_array_add(instances,
                                      json_object_get(json_object_array_get_idx(all, i)));
        json_object_object_add(some, family, instances);
    }
    return some;
}

} // namespace

struct bv_service_client {
    std::string service;
    std::string words;
};

bv_service_client *bv_service_open(const char *service, uint32_t)
{
    return new bv_service_client{service != nullptr ? service : "", ""};
}

void bv_service_close(bv_service_client *client)
{
    delete client;
}

int32_t bv_service_list(bv_service_client *, void (*found)(const char *, void *), void *priv)
{
    if (answers() == nullptr)
        return UBUS_STATUS_CONNECTION_FAILED;
    json_object_object_foreach(answers(), name, service)
    {
        (void)service;
        found(name, priv);
    }
    return BV_OK;
}

int32_t bv_service_request(bv_service_client *client, const char *op, const char *data,
                           char **answer)
{
    std::ofstream("/scratch/requests", std::ios::app)
        << client->service << ' ' << op << (data != nullptr ? std::string(" ") + data : "") << '\n';
    json_object *service = at(answers(), client->service);
    json_object *refusal = at(at(service, "refuse"), op);
    if (service == nullptr)
        return UBUS_STATUS_NOT_FOUND;
    if (refusal != nullptr) {
        client->words = json_object_get_string(json_object_array_get_idx(refusal, 1));
        return json_object_get_int(json_object_array_get_idx(refusal, 0));
    }
    if (strcmp(op, "commit") == 0 && at(service, "committed") != nullptr)
        json_object_object_add(service, "status", json_object_get(at(service, "committed")));
    json_object *whole = at(service, op);
    if (answer != nullptr)
        *answer = nullptr;
    if (whole == nullptr || answer == nullptr)
        return BV_OK;
    const bool some = data != nullptr && (strcmp(op, "get") == 0 || strcmp(op, "saved") == 0);
    json_object *wanted = some ? json_tokener_parse(data) : nullptr;
    json_object *reply = some ? part(whole, wanted) : json_object_get(whole);
    *answer = strdup(json_object_to_json_string(reply));
    json_object_put(reply);
    json_object_put(wanted);
    return BV_OK;
}

int32_t bv_service_watch(bv_service_client *client, const char *family,
                         bv_service_changed_cb changed, void *priv, uint32_t)
{
    for (int time = 0; time < 2; ++time) {
        json_object_object_foreach(at(at(answers(), client->service), "families"), name, details)
        {
            (void)details;
            if (family == nullptr || strcmp(family, name) == 0)
                changed(client->service.c_str(), name, priv);
        }
        json_object *later = json_object_from_file("/scratch/later.json");
        json_object_object_add(at(answers(), client->service), "get", later);
    }
    return BV_OK;
}

void bv_service_unwatch(bv_service_client *) {}

const char *bv_service_words(const bv_service_client *client)
{
    return client->words.c_str();
}
