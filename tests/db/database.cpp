/* SPDX-License-Identifier: ISC */
#include "db/database.h"

#include <bv/hash.h>

#include <cstddef>
#include <cstdio>

const std::vector<Parameter> kLan = {{"ipaddr", "ip", 4, "192.168.1.1"},
                                     {"mtu", "ushort", 2, "1500"},
                                     {"hostname", "string", 32, "gw"}};

static std::vector<std::string> g_inserted; // keys of a service's own records

std::string listed(const std::vector<std::string> &texts)
{
    std::string out;
    for (const std::string &text : texts)
        out += (out.empty() ? "" : ",") + text;
    return out;
}

std::string stored(int number, const std::string &members)
{
    return "{\"inst\":" + std::to_string(number) + ",\"para\":{" + members + "}}";
}

std::string template_text(const std::vector<Parameter> &parameters)
{
    std::vector<std::string> elements;
    for (const Parameter &p : parameters)
        elements.push_back("{\"name\":\"" + p.name + "\",\"type\":\"" + p.type + "\",\"len\":" +
                           std::to_string(p.len) + ",\"value\":\"" + p.value + "\"}");
    return "{\"getfunc\":\"get\",\"setfunc\":\"set\",\"para\":[" + listed(elements) + "]}";
}

std::string golden(const std::string &name)
{
    std::string text = read_file(std::string(BV_TEST_SOURCE_DIR) + "/db/golden/" + name);
    EXPECT_NE(text, "") << name;
    return text;
}

void install(const std::string &name, const std::string &text)
{
    write_file("/etc/template/" + name, text);
}

void install(const std::string &name, const std::vector<Parameter> &parameters)
{
    install(name, template_text(parameters));
}

bv_db_family *user_family(const std::string &name, const std::vector<Parameter> &parameters)
{
    install(name, parameters);
    EXPECT_EQ(bv_db_reg_user(name.c_str()), BV_OK);
    EXPECT_EQ(bv_db_template_read(&g_st_db_mng.user_list), BV_OK);
    bv_db_family *family = bv_db_hash_find(name.c_str());
    EXPECT_NE(family, nullptr) << name;
    return family;
}

void add_instance(bv_db_family *family, int number, const std::vector<std::string> &values)
{
    for (size_t i = 0; i < values.size(); ++i)
        snprintf(family->para[i].value, sizeof family->para[i].value, "%s", values[i].c_str());
    memset(family->working_image, 0, static_cast<size_t>(family->image_size));
    bv_db_user_fill_tomem(family, 0);
    ASSERT_EQ(bv_db_data_add_inst(family, family->working_image,
                                  static_cast<uint32_t>(family->image_size), number),
              BV_OK);
}

Bytes default_image(const bv_db_family *family)
{
    return Bytes(family->default_image, family->default_image + family->image_size);
}

Bytes image_of(const bv_db_family *family, int number)
{
    bv_db_inst *instance = bv_db_data_get_inst(const_cast<bv_db_family *>(family), number);
    if (instance == nullptr || instance->image == nullptr)
        return {};
    return Bytes(instance->image, instance->image + family->image_size);
}

namespace {

// The record that has this link.
template <typename Record>
const Record *record(const bv_list_head *link)
{
    return reinterpret_cast<const Record *>(reinterpret_cast<const char *>(link) -
                                            offsetof(Record, link));
}

template <typename Record>
Names names_of(const bv_list_head &list)
{
    Names out;
    for (const bv_list_head *link = list.next; link != &list; link = link->next)
        out.push_back(record<Record>(link)->name);
    return out;
}

} // namespace

Numbers numbers(const bv_db_family *family)
{
    const bv_list_head &list = family->inst_list;
    Numbers out;
    for (const bv_list_head *link = list.next; link != &list; link = link->next)
        out.push_back(record<bv_db_inst>(link)->number);
    return out;
}

Names names(const bv_list_head &list)
{
    return names_of<bv_db_reg>(list);
}

Names families()
{
    return names_of<bv_db_family>(g_st_db_mng.family_list);
}

void free_instances()
{
    const bv_list_head &list = g_st_db_mng.family_list;
    for (const bv_list_head *link = list.next; link != &list; link = link->next)
        bv_db_data_free(const_cast<bv_db_family *>(record<bv_db_family>(link)));
    for (const std::string &key : g_inserted) {
        bv_db_data_free(bv_db_hash_find(key.c_str()));
        bv_hash_remove(g_st_db_mng.table, reinterpret_cast<const uint8_t *>(key.data()));
    }
    g_inserted.clear();
}

void expect_no_parameters(const bv_db_family *family)
{
    EXPECT_EQ(family->image_size, 0);
    EXPECT_EQ(family->para_count, 0);
    EXPECT_EQ(family->para, nullptr);
    EXPECT_EQ(family->default_image, nullptr);
    EXPECT_EQ(family->working_image, nullptr);
}

bv_db_family *insert_record(const char *name, const bv_db_family &record)
{
    std::string key = name;
    key.resize(1024);
    EXPECT_EQ(
        bv_hash_insert(g_st_db_mng.table, reinterpret_cast<const uint8_t *>(key.data()), &record),
        0);
    g_inserted.push_back(key);
    return bv_db_hash_find(name);
}
