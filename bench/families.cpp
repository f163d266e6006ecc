/* SPDX-License-Identifier: ISC */
#include "bench/families.h"

#include "tests/support/files.h"

#include <bv/db.h>
#include <bv/status.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr struct {
    const char *name;
    const char *type;
    int len;
    const char *value;
} kParameters[] = {
    {"enabled", "uchar", 1, "1"},           {"channel", "char", 1, "-1"},
    {"host_name", "string", 64, "gateway"}, {"domain", "string", 104, "home.example"},
    {"address", "ip", 4, "192.168.1.1"},    {"hardware_address", "mac", 6, "00:11:22:33:44:55"},
    {"mtu", "ushort", 2, "1500"},           {"offset", "short", 2, "-120"},
    {"priority", "int", 4, "-32768"},       {"lease_time", "uint", 4, "4294967295"}};

[[noreturn]] void fail(const char *what)
{
    fprintf(stderr, "families: %s\n", what);
    abort();
}

std::string template_text()
{
    std::string text = "{\n  \"getfunc\": \"\",\n  \"setfunc\": \"\",\n  \"para\": [\n";
    const char *before = "";
    for (const auto &parameter : kParameters) {
        text += before;
        before = ",\n";
        text += std::string("    {\"name\": \"") + parameter.name + "\", \"type\": \"" +
                parameter.type + "\", \"len\": " + std::to_string(parameter.len) +
                ", \"value\": \"" + parameter.value + "\"}";
    }
    return text + "\n  ]\n}\n";
}

// As the default instance, but with numbers that differ from instance to instance.
void add_instances(const std::string &family)
{
    bv_db_family *record = bv_db_hash_find(family.c_str());
    if (record == nullptr || record->image_size != kImageSize)
        fail("a family is missing");
    std::vector<unsigned char> image(kImageSize);
    if (bv_db_read(family.c_str(), image.data(), kImageSize, 1) != BV_OK)
        fail("no default values");
    for (unsigned number = 1; number <= kInstances; number++) {
        image[0] = static_cast<unsigned char>(number);
        image[image.size() - 1] = static_cast<unsigned char>(number * 50);
        if (bv_db_inst_add(family.c_str(), image.data(), static_cast<unsigned>(image.size()),
                           number) != BV_OK)
            fail("an instance cannot be added");
    }
}

} // namespace

std::vector<std::string> make_families(int count, bool named)
{
    std::vector<std::string> names;
    const std::string text = template_text();
    if (bv_db_init() != BV_OK)
        fail("no database");
    for (int i = 0; i < count; i++) {
        const std::string file = "family-" + std::to_string(i) + ".json";
        const std::string path = "/etc/template/" + file;
        write_file(path, text);
        names.push_back(named ? file : path);
        bv_db_reg_user(names.back().c_str());
    }
    bv_db_start();
    for (const std::string &name : names)
        add_instances(name);
    bv_db_ready();
    if (bv_db_commit() != BV_OK)
        fail("the commit failed");

    // What was written must be what is read again: a benchmark of a database that lost its
    // instances would look very fast.
    bv_db_start();
    for (const std::string &name : names)
        if (bv_db_inst_getnum(name.c_str()) != kInstances)
            fail("instances are missing after a start");
    return names;
}
