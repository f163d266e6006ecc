/* SPDX-License-Identifier: ISC */
#include "service/fixture.h"

#include <filesystem>

using namespace bv::service;

const bv_service *bv::service::g_service;

static std::vector<bv_service_family> g_families;
static std::vector<std::string> g_announced;
static Words g_words;
static bv_service g_running;

const ::Parameters kLan = {{"ipaddr", "ip", 4, "192.168.1.1"},
                           {"mtu", "ushort", 2, "1500"},
                           {"hostname", "string", 32, "gw"}};

void bv::service::announce(const bv_service_family &family)
{
    g_announced.push_back(family.name);
}

void install_template(const std::string &name, const ::Parameters &parameters)
{
    std::string para;
    for (const Parameter &p : parameters)
        para += std::string(para.empty() ? "" : ",") + "{\"name\":\"" + p.name + "\",\"type\":\"" +
                p.type + "\",\"len\":" + std::to_string(p.len) + ",\"value\":\"" + p.value + "\"}";
    write_file("/etc/template/" + name, "{\"para\":[" + para + "]}");
}

bv_service_family family_of(const char *name, const ::Parameters &parameters, uint32_t store)
{
    install_template(name, parameters);
    bv_service_family family = {};
    family.name = name;
    family.store = store;
    for (const Parameter &p : parameters)
        family.size += static_cast<uint32_t>(p.len);
    return family;
}

static void stop_service()
{
    for (const bv_service_family &family : g_families)
        bv_db_data_free(bv_db_hash_find(family.name));
    bv_db_hash_free();
    g_families.clear();
    g_service = nullptr;
}

int start_service(const std::vector<bv_service_family> &families)
{
    stop_service();
    EXPECT_EQ(bv_db_init(), BV_OK);
    g_families = families;
    g_running = {};
    g_running.size = sizeof g_running;
    g_running.name = "test";
    g_running.families = g_families.data();
    g_running.n_families = static_cast<uint32_t>(g_families.size());
    g_service = &g_running;
    return load();
}

static std::string para_of(const std::string &json, int number)
{
    json_object *list = bv_json_tokener_parse(json.c_str());
    std::string found;
    for (size_t i = 0; i < bv_json_object_array_length(list); ++i) {
        json_object *element = bv_json_object_array_get_idx(list, i);
        if (bv_json_object_get_int(bv_json_object_object_get(element, "inst")) == number)
            found = json_object_to_json_string_ext(bv_json_object_object_get(element, "para"),
                                                   JSON_C_TO_STRING_PLAIN);
    }
    bv_json_object_put(list);
    return found;
}

const bv_service_family *listed(const char *family)
{
    Words why;
    const bv_service_family *found = find_listed(family, why);
    EXPECT_NE(found, nullptr) << why.text;
    return found;
}

std::string values(const char *family, int number)
{
    const Family known(*listed(family));
    const bv_db_inst *instance = bv_db_data_get_inst(known.record, number);
    if (instance == nullptr)
        return "";
    Text text;
    text.put("[");
    put_instance(text, known, number, instance->image);
    text.put("]");
    return para_of(text.bytes, number);
}

std::string values_of_file(const std::string &path, const char *family, int number)
{
    json_object *tree = bv_json_object_from_file(path.c_str());
    json_object *list = bv_json_object_object_get(tree, family);
    const std::string found =
        list == nullptr ? "" : para_of(bv_json_object_get_string(list), number);
    bv_json_object_put(tree);
    return found;
}

int32_t request(const std::string &json, Meaning meaning)
{
    Plan plan(meaning);
    json_object *data = bv_json_tokener_parse(json.c_str());
    int32_t status = plan_request(plan, data);
    if (status == BV_OK)
        status = make(plan);
    bv_json_object_put(data);
    g_words = plan.words;
    return status;
}

std::string words()
{
    return g_words.text;
}

std::vector<std::string> announced()
{
    std::vector<std::string> names;
    names.swap(g_announced);
    g_announced.reserve(16); // some tests are out of memory
    return names;
}

static void clear_folder(const char *path)
{
    std::filesystem::create_directories(path);
    for (const std::string &name : list_folder(path))
        std::filesystem::remove_all(std::string(path) + "/" + name);
}

void Parts::SetUp()
{
    clear_folder("/config/work");
    clear_folder("/config/factory");
    clear_folder("/etc/template");
    announced();
}

void Parts::TearDown()
{
    stop_service();
}
