// bv-call with a template, against an owner whose functions read and write its database.

#include "support/bus.h"
#include "support/child.h"
#include "support/files.h"

#include <bv/bv.h>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

const std::string kTemplate = BV_TEST_SOURCE_DIR "/../examples/template/lan.json";

// The bytes are the image of lan.json.
uint32_t lan_get(void *data, uint32_t length)
{
    return static_cast<uint32_t>(bv_db_read("lan.json", data, length, 1));
}

uint32_t lan_set(void *data, uint32_t length)
{
    return static_cast<uint32_t>(bv_db_write("lan.json", data, length, 1));
}

// The bytes are a status and an instance in front of the image.
struct Head {
    int32_t status;
    uint32_t instance;
};

uint32_t lan_get_headed(void *data, uint32_t length)
{
    auto *bytes = static_cast<uint8_t *>(data);
    Head head;
    bv_os_memcpy(&head, sizeof head, bytes, sizeof head);
    head.status = bv_db_read("lan.json", bytes + sizeof head,
                             length - static_cast<uint32_t>(sizeof head), head.instance);
    bv_os_memcpy(bytes, length, &head, sizeof head);
    return BV_OK;
}

uint32_t echo(void *, uint32_t)
{
    return BV_OK;
}

int register_functions()
{
    bv_ubus_server_reg("lan_get", lan_get);
    bv_ubus_server_reg("lan_set", lan_set);
    bv_ubus_server_reg("lan_get_headed", lan_get_headed);
    bv_ubus_server_reg("echo", echo);
    return 0;
}

int own()
{
    bv_libraries_init();
    bv_db_reg_user("lan.json");
    bv_db_start();
    bv_db_ready();
    return bv_ubus_server_init(nullptr, register_functions);
}

class CallParameters : public ::testing::Test {
protected:
    CallParameters()
    {
        write_file("/etc/template/lan.json", read_file(kTemplate));
        write_file("/config/work/userdata.json",
                   read_file(BV_TEST_SOURCE_DIR "/../examples/data/userdata.json"));
        service_ = new Service(own);
        EXPECT_TRUE(wait_for_object("brovan.gateway.server"));
    }
    ~CallParameters() override { delete service_; }

    BusDaemon bus_;
    Service *service_;
};

TEST_F(CallParameters, AreReadByName)
{
    Outcome outcome = run_tool({"-T", "lan.json", "lan_get"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, "ipaddr=192.168.8.1\nnetmask=255.255.255.0\nmtu=1500\n"
                              "hostname=office\ndhcp=1\n");
    EXPECT_EQ(outcome.errors, "bv-call: result 0x00000000, 43 bytes\n");
}

TEST_F(CallParameters, AreWrittenByName)
{
    Outcome set = run_tool({"--template", kTemplate, "lan_set", "ipaddr=10.9.8.7", "mtu=1280",
                            "hostname=a=b", "dhcp=0"});
    EXPECT_EQ(set.status, 0) << set.errors;
    EXPECT_EQ(run_tool({"-T", "lan.json", "lan_get"}).output,
              "ipaddr=10.9.8.7\nnetmask=255.255.255.0\nmtu=1280\nhostname=a=b\ndhcp=0\n");
}

TEST_F(CallParameters, HaveTheTemplatesDefaultsUnlessBytesAreGiven)
{
    EXPECT_EQ(run_tool({"-T", "lan.json", "echo"}).output,
              "ipaddr=192.168.1.1\nnetmask=255.255.255.0\nmtu=1500\nhostname=gateway\ndhcp=1\n");
    EXPECT_EQ(run_tool({"-T", "lan.json", "-x", "0a000001 ffff", "echo", "mtu=9000"}).output,
              "ipaddr=10.0.0.1\nnetmask=255.255.255.0\nmtu=9000\nhostname=gateway\ndhcp=1\n");
}

// What one call gives back is the next one's start: changing one parameter leaves the others.
TEST_F(CallParameters, CanBeChangedOneByOne)
{
    ASSERT_EQ(run_tool({"-T", "lan.json", "-w", "/scratch/image", "lan_get"}).status, 0);
    ASSERT_EQ(run_tool({"-T", "lan.json", "-f", "/scratch/image", "lan_set", "mtu=1400"}).status,
              0);
    EXPECT_EQ(run_tool({"-T", "lan.json", "lan_get"}).output,
              "ipaddr=192.168.8.1\nnetmask=255.255.255.0\nmtu=1400\nhostname=office\ndhcp=1\n");
}

TEST_F(CallParameters, MayStandBehindOtherBytes)
{
    Outcome outcome =
        run_tool({"-T", "lan.json", "-O", "8", "-x", "ffffffff 01000000", "lan_get_headed"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output,
              "00000000  00 00 00 00 01 00 00 00                           |........|\n"
              "ipaddr=192.168.8.1\nnetmask=255.255.255.0\nmtu=1500\n"
              "hostname=office\ndhcp=1\n");
    EXPECT_EQ(outcome.errors, "bv-call: result 0x00000000, 51 bytes\n");

    Outcome sized =
        run_tool({"-T", "lan.json", "-O", "8", "-n", "100", "-w", "-", "echo", "dhcp=9"});
    EXPECT_EQ(sized.output.size(), 100u);
    EXPECT_EQ(sized.output.substr(0, 12), "\0\0\0\0\0\0\0\0\xc0\xa8\1\1"s);
    EXPECT_EQ(sized.output[8 + 42], 9);
}

TEST_F(CallParameters, ArePrintedAsBytesOnRequest)
{
    Outcome outcome = run_tool({"-T", "lan.json", "-p", "hex", "lan_get"});
    EXPECT_EQ(outcome.output.substr(0, 35), "00000000  c0 a8 08 01 ff ff ff 00  ");
}

TEST_F(CallParameters, AreRefusedWhenTheyWouldBeStoredAsSomethingElse)
{
    const std::pair<const char *, const char *> rows[] = {
        {"mtu=70000", "70000 does not fit type ushort (0 to 65535)"},
        {"mtu=", "'' is not a number"},
        {"ipaddr=10.0.0", "'10.0.0' is no IPv4 address"},
        {"hostname=abcdefghijklmnopqrstuvwxyz012345",
         "text of 32 bytes is too long for len 32, which counts the zero byte at its end"},
        {"speed=1", "the template has no such parameter"},
        {"=1", "the template has no such parameter"},
        {"mtu", "is not of the form NAME=VALUE"}};
    for (const auto &[assignment, why] : rows) {
        Outcome outcome = run_tool({"-T", "lan.json", "lan_set", "mtu=1", assignment});
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.errors, std::string("bv-call: ") + assignment + ": " + why + "\n");
    }
    EXPECT_NE(run_tool({"-T", "lan.json", "lan_get"}).output.find("mtu=1500\n"), std::string::npos);
}

TEST_F(CallParameters, MayComeFromATemplateDeepInATree)
{
    std::string folder = "/scratch";
    for (int depth = 0; depth < 8; depth++) {
        folder += "/" + std::string(200, 'x');
        ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    }
    write_file(folder + "/lan.json", read_file(kTemplate));
    Outcome outcome = run_tool({"-T", folder + "/lan.json", "-p", "nothing", "echo"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
}

TEST_F(CallParameters, NeedATemplateThatHasSome)
{
    Outcome outcome = run_tool({"-T", "wan.json", "lan_get"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors,
              "bv-call: wan.json: there is no such template, nor one in /etc/template\n");
    write_file("/scratch/bad.json", "{");
    EXPECT_EQ(run_tool({"-T", "/scratch/bad.json", "lan_get"}).errors,
              "bv-call: /scratch/bad.json: cannot be read as a template\n");
    write_file("/scratch/bad.json", "{\"para\":[]}");
    EXPECT_EQ(run_tool({"-T", "/scratch/bad.json", "lan_get"}).errors,
              "bv-call: /scratch/bad.json: has no parameters\n");
    write_file("/scratch/bad.json", R"({"para":[
        {"name":"a","type":"int","len":-2147483648,"value":"1"},
        {"name":"b","type":"int","len":-2147483648,"value":"1"}]})");
    outcome = run_tool({"-T", "/scratch/bad.json", "lan_get"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "bv-call: /scratch/bad.json: cannot be read as a template\n");
    EXPECT_EQ(run_tool({"-T", "lan.json", "-O", "999990", "lan_get"}).errors,
              "bv-call: --offset: the image does not fit into a call\n");
}

TEST_F(CallParameters, TextThatFillsItsBytesEndsWithTheImage)
{
    write_file("/scratch/text.json",
               R"({"para":[{"name":"s","type":"string","len":4,"value":""}]})");
    EXPECT_EQ(run_tool({"-T", "/scratch/text.json", "-x", "61626364 65656565", "echo"}).output,
              "s=abcd\n");
}

// Lengths of a template that disagree with its types reach no byte outside the call's.
TEST_F(CallParameters, OfAFaultyTemplateDoNoHarm)
{
    write_file("/scratch/odd.json", R"({"para":[{"name":"a","type":"int","len":1,"value":"1"},
        {"name":"b","type":"string","len":-1,"value":"x"},
        {"name":"c","type":"mac","len":2,"value":"1:2:3:4:5:6"},
        {"name":"d","type":"uint64","len":1,"value":"7"}]})");
    Outcome outcome = run_tool({"-T", "/scratch/odd.json", "echo", "a=5", "c=1:2:3:4:5:6"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.errors, "bv-call: result 0x00000000, 3 bytes\n");
    EXPECT_EQ(run_tool({"-T", "/scratch/odd.json", "echo", "d=5"}).errors,
              "bv-call: d=5: the template gives it a type that nothing converts to\n");
}

} // namespace
