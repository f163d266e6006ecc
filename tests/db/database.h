// What the tests of the configuration database share: templates, files, images, a fresh database.
#ifndef BV_TESTS_DB_DATABASE_H
#define BV_TESTS_DB_DATABASE_H

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

// A template's text. Nothing is escaped: the texts are put between the quotes as they are.
std::string template_text(const std::vector<Parameter> &parameters);

void put_file(const std::string &path, const std::string &text);
std::string file_text(const std::string &path);
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

// Takes the instances of every family away. A test's tables are lost at the next bv_db_init(), on
// purpose; its instances are not among what may be.
void give_back_instances();

// The numbers of a family's instances, in list order.
std::vector<int> numbers(const bv_db_family *family);

// The names in a registration list, in order.
std::vector<std::string> names(const bv_list_head &list);

// The names of the families, in the order of their creation.
std::vector<std::string> families();

// That a family is as one whose template cannot be read, apart from function names and instances.
void expect_no_parameters(const bv_db_family *family);

// The bytes of an object, as the machine has them.
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
    void TearDown() override { give_back_instances(); }
};

#endif
