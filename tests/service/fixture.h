// SPDX-License-Identifier: ISC
// A service for tests of the kit's parts: templates, data files and families, without a bus.
#ifndef BV_TESTS_SERVICE_FIXTURE_H
#define BV_TESTS_SERVICE_FIXTURE_H

#include "service/internal.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <map>
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
using Parameters = std::vector<Parameter>;

using Lines = std::vector<std::string>;

// lan.json: address, mtu and host name, 38 bytes.
extern const Parameters kLan;
struct __attribute__((packed)) Lan {
    uint8_t ipaddr[4];
    uint16_t mtu;
    char hostname[32];
};

void install_template(const std::string &name, const Parameters &parameters);

// A family of these parameters: installs its template, and has its size.
bv_service_family family_of(const char *name, const Parameters &parameters,
                            uint32_t store = BV_SERVICE_USER);

// A service starts with these families: a new process, as far as the kit can tell. The exit status
// of load(), 0 for success.
int start_service(const std::vector<bv_service_family> &families);

// An instance's values, as JSON: {"ipaddr":"192.168.1.1", ...}. Empty when there is none.
std::string values(const char *family, int number);
std::string values_of_file(const std::string &path, const char *family, int number);

// Changes, as a request would.
int32_t request(const std::string &json, bv::service::Meaning meaning = bv::service::Meaning::Set);
// What the last refusal said.
std::string words();

// One of them; it must be there.
const bv_service_family *listed(const char *family);

// What was announced since the last call, by name.
std::vector<std::string> announced();

// The folders of data files are empty again.
class Parts : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

#endif
