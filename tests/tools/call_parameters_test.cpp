// SPDX-License-Identifier: ISC
// bv-call with a template, against an owner whose functions read and write its database.

#include "support/bus.h"
#include "tools/tool.h"

#include <bv/bv.h>

namespace {

using namespace std::string_literals;

const std::string kTemplate = kExamples + "template/lan.json";

// The bytes are the image of lan.json.
uint32_t lan_get(void *data, uint32_t length)
{
    return static_cast<uint32_t>(bv_db_read("lan.json", data, length, 1));
}

uint32_t lan_set(void *data, uint32_t length)
{
    return static_cast<uint32_t>(bv_db_write("lan.json", data, length, 1));
}

// The bytes are a status and an instance, then the image.
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

uint32_t fail(void *, uint32_t)
{
    return BV_ERR_INVALID;
}

int register_lan()
{
    bv_ubus_server_reg("fail", fail);
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
    return bv_ubus_server_init(nullptr, register_lan);
}

class CallParameters : public ::testing::Test {
protected:
    CallParameters()
    {
        write_file("/etc/template/lan.json", read_file(kTemplate));
        write_file("/config/work/userdata.json", read_file(kExamples + "data/userdata.json"));
        service_ = new Service(own);
        EXPECT_TRUE(wait_for_object("brovan.gateway.server"));
    }
    ~CallParameters() override { delete service_; }

    BusDaemon bus_;
    Service *service_;
};

const char kStored[] =
    "ipaddr=192.168.8.1\nnetmask=255.255.255.0\nmtu=1500\nhostname=office\ndhcp=1\n";

TEST_F(CallParameters, AreReadByName)
{
    EXPECT_EQ(run_line("-T lan.json lan_get"),
              (Outcome{0, kStored, "bv-call: result 0x00000000, 43 bytes\n"}));
}

TEST_F(CallParameters, AreWrittenByName)
{
    const Outcome set = run_line("--template " + kTemplate +
                                 " lan_set ipaddr=10.9.8.7 mtu=1280 hostname=a=b dhcp=0");
    EXPECT_EQ(set.status, 0) << set.errors;
    EXPECT_EQ(run_line("-T lan.json lan_get").output,
              "ipaddr=10.9.8.7\nnetmask=255.255.255.0\nmtu=1280\nhostname=a=b\ndhcp=0\n");
}

TEST_F(CallParameters, HaveTheTemplatesDefaultsUnlessBytesAreGiven)
{
    EXPECT_EQ(run_line("-T lan.json echo").output,
              "ipaddr=192.168.1.1\nnetmask=255.255.255.0\nmtu=1500\nhostname=gateway\ndhcp=1\n");
    EXPECT_EQ(run_line("-T lan.json -x 0a000001ffff echo mtu=9000").output,
              "ipaddr=10.0.0.1\nnetmask=255.255.255.0\nmtu=9000\nhostname=gateway\ndhcp=1\n");
}

// What one call gives back is the start of the next: changing one parameter leaves the others.
TEST_F(CallParameters, CanBeChangedOneByOne)
{
    ASSERT_EQ(run_line("-T lan.json -w /scratch/image lan_get").status, 0);
    ASSERT_EQ(run_line("-T lan.json -f /scratch/image lan_set mtu=1400").status, 0);
    EXPECT_EQ(run_line("-T lan.json lan_get").output,
              "ipaddr=192.168.8.1\nnetmask=255.255.255.0\nmtu=1400\nhostname=office\ndhcp=1\n");
}

TEST_F(CallParameters, MayComeAfterOtherBytes)
{
    EXPECT_EQ(run_line("-T lan.json -O 8 -x ffffffff01000000 lan_get_headed"),
              (Outcome{0,
                       "00000000  00 00 00 00 01 00 00 00                           |........|\n"s +
                           kStored,
                       "bv-call: result 0x00000000, 51 bytes\n"}));

    const std::string sized = run_line("-T lan.json -O 8 -n 100 -w - echo dhcp=9").output;
    ASSERT_EQ(sized.size(), 100u);
    EXPECT_EQ(sized.substr(0, 12), "\0\0\0\0\0\0\0\0\xc0\xa8\1\1"s);
    EXPECT_EQ(sized[8 + 42], 9);
}

TEST_F(CallParameters, ArePrintedAsBytesOnRequest)
{
    EXPECT_EQ(run_line("-T lan.json -p hex lan_get").output.substr(0, 35),
              "00000000  c0 a8 08 01 ff ff ff 00  ");
}

TEST_F(CallParameters, AreRefusedWhenTheyWouldBeStoredDifferently)
{
    const std::pair<std::string, const char *> rows[] = {
        {"mtu=70000", "mtu: '70000' is not a number from 0 to 65535, as type ushort needs"},
        {"mtu=", "mtu: '' is not a number from 0 to 65535, as type ushort needs"},
        {"ipaddr=10.0.0", "ipaddr: '10.0.0' is not an IPv4 address, as in 192.168.1.1"},
        {"hostname=abcdefghijklmnopqrstuvwxyz012345",
         "hostname: text of 32 bytes is too long: len 32 holds 31 and the zero byte at its end"},
        {"hostname=a\"b", "hostname: a double quote does not survive a rewrite of the data file"},
        {"hostname=a\\b", "hostname: a backslash does not survive a rewrite of the data file"},
        {"hostname=\n",
         "hostname: a control character does not survive a rewrite of the data file"},
        {"speed=1", "speed=1: the template has no such parameter"},
        {"=1", "=1: the template has no such parameter"},
        {"mtu", "mtu: is not of the form NAME=VALUE"}};
    for (const auto &[assignment, why] : rows)
        EXPECT_EQ(run_tool({"-T", "lan.json", "lan_set", "mtu=1", assignment}),
                  (Outcome{2, "", "bv-call: "s + why + "\n"}));
    EXPECT_EQ(run_line("-T lan.json lan_get").output, kStored);
}

// What came back may be what was sent, which would look like the function's answer.
TEST_F(CallParameters, AreNotPrintedWhenTheFunctionFailed)
{
    EXPECT_EQ(run_line("-T lan.json fail mtu=1400"),
              (Outcome{3, "", "bv-call: result 0x10000010 (invalid argument), 43 bytes\n"}));
}

TEST_F(CallParameters, MayComeFromTemplateDeepInTree)
{
    std::string folder = "/scratch";
    for (int depth = 0; depth < 8; ++depth) {
        folder += "/" + std::string(200, 'x');
        ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    }
    write_file(folder + "/lan.json", read_file(kTemplate));
    EXPECT_EQ(run_line("-T " + folder + "/lan.json -p nothing echo").status, 0);
}

TEST_F(CallParameters, NeedTemplateThatDefinesSome)
{
    const auto refused = [](const std::string &what, const std::string &why) {
        return Outcome{2, "", "bv-call: " + what + ": " + why + "\n"};
    };
    EXPECT_EQ(run_line("-T wan.json lan_get"),
              refused("wan.json", "no such template, neither here nor in /etc/template"));
    EXPECT_EQ(run_line("-T /scratch lan_get"), refused("/scratch", strerror(EISDIR)));
    EXPECT_EQ(run_line("-T lan.json -O 999990 lan_get"),
              refused("--offset", "the image does not fit into a call"));

    const std::string bad = "/scratch/bad.json";
    const char *const rows[][2] = {
        {"{", "not a template; bv-template check says why"},
        {"{\"para\":[]}", "has no parameters"},
        {R"({"para":[{"name":"a","type":"int","len":-2147483648,"value":"1"},
                     {"name":"b","type":"int","len":-2147483648,"value":"1"}]})",
         "not a template; bv-template check says why"}};
    for (const auto &[content, why] : rows) {
        write_file(bad, content);
        EXPECT_EQ(run_line("-T " + bad + " lan_get"), refused(bad, why));
    }
}

TEST_F(CallParameters, EndWithTheImageWhenTextFillsIt)
{
    write_file("/scratch/text.json",
               R"({"para":[{"name":"s","type":"string","len":4,"value":""}]})");
    EXPECT_EQ(run_line("-T /scratch/text.json -x 6162636465656565 echo").output, "s=abcd\n");
}

// Lengths of a template that disagree with its types reach no byte outside the call's.
TEST_F(CallParameters, OfFaultyTemplateDoNoHarm)
{
    write_file("/scratch/odd.json", R"({"para":[{"name":"a","type":"int","len":1,"value":"1"},
        {"name":"b","type":"string","len":-1,"value":"x"},
        {"name":"c","type":"mac","len":2,"value":"1:2:3:4:5:6"},
        {"name":"d","type":"uint64","len":1,"value":"7"}]})");
    const Outcome outcome = run_line("-T /scratch/odd.json echo a=5 c=1:2:3:4:5:6");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "bv-call: result 0x00000000, 3 bytes\n");
    EXPECT_EQ(run_line("-T /scratch/odd.json echo d=5").errors,
              "bv-call: d: its type in the template is unknown\n");
}

} // namespace
