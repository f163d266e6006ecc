// SPDX-License-Identifier: ISC
// What the tests of the configuration database share: templates, files, images, an empty database.
#ifndef BV_TESTS_DB_DATABASE_H
#define BV_TESTS_DB_DATABASE_H

#include "support/files.h"

#include <bv/db.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

constexpr char kUserFile[] = "/config/work/userdata.json";
constexpr char kPrivateFile[] = "/config/work/privdata.json";
constexpr char kFactoryFile[] = "/config/factory/factory.json";

struct Parameter {
    std::string name;
    std::string type;
    int len;
    std::string value;
};

using Bytes = std::vector<uint8_t>;

using Numbers = std::vector<int>;
using Names = std::vector<std::string>;

// A template's text. Nothing is escaped: the texts are put between the quotes as they are.
std::string template_text(const std::vector<Parameter> &parameters);

// An element of a data file: {"inst":NUMBER,"para":{MEMBERS}}.
std::string stored(int number, const std::string &members = "");
// The texts with commas between them.
std::string listed(const std::vector<std::string> &texts);

std::string golden(const std::string &name);

// Writes a template under /etc/template.
void install(const std::string &name, const std::string &text);
void install(const std::string &name, const std::vector<Parameter> &parameters);

// The family of the user list, read from a template with these parameters.
bv_db_family *user_family(const std::string &name, const std::vector<Parameter> &parameters);

// Adds an instance holding these texts, in template order.
void add_instance(bv_db_family *family, int number, const std::vector<std::string> &values);

Bytes default_image(const bv_db_family *family);
Bytes image_of(const bv_db_family *family, int number);

// Frees the instances of every family and removes a service's own records. A test loses its tables
// at the next bv_db_init(), which is meant; a lost instance is a leak.
void free_instances();

// The numbers of a family's instances, in list order.
Numbers numbers(const bv_db_family *family);

// The names in a registration list, in order.
Names names(const bv_list_head &list);

// The names of the families, in the order of their creation.
Names families();

// A family without a template: no parameters, no images.
void expect_no_parameters(const bv_db_family *family);

// Puts a record of a service's own into the table. No list has it.
bv_db_family *insert_record(const char *name, const bv_db_family &record);

// The bytes of an object in the machine's order.
template <typename T>
Bytes bytes_of(T object)
{
    Bytes out(sizeof object);
    memcpy(out.data(), &object, sizeof object);
    return out;
}

// The example of the documentation: 38 bytes, address, mtu and host name.
extern const std::vector<Parameter> kLan;

class Db : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(bv_db_init(), BV_OK); }
    void TearDown() override { free_instances(); }
};

#endif
