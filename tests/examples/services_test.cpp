// SPDX-License-Identifier: ISC
// The example services side by side: two on the kit, whose families are in one data file, and one
// built by hand.

#include "support/bus.h"
#include "support/child.h"
#include "support/files.h"
#include "support/process.h"

#include <bv/service.h>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sstream>

namespace {

constexpr char kUserFile[] = "/config/work/userdata.json";
constexpr char kPrivateFile[] = "/config/work/privdata.json";
constexpr char kWanTemplate[] = "/etc/template/wan.json";
const std::string kExampleFiles = BV_TEST_SOURCE_DIR "/../examples/";

// A program of the build tree with arguments that have no blanks.
Outcome run_words(const std::string &program, const std::string &arguments)
{
    std::vector<std::string> words = {program};
    std::istringstream from(arguments);
    for (std::string word; from >> word;)
        words.push_back(word);
    return run(words);
}

std::string ctl(const std::string &arguments)
{
    const Outcome outcome = run_words(BV_CTL, arguments);
    EXPECT_EQ(outcome.status, 0) << "bv-ctl " << arguments << "\n" << outcome.errors;
    return outcome.output;
}

std::string call(const std::string &function)
{
    const Outcome outcome = run_words(BV_CALL, std::string("-T ") + kWanTemplate + " " + function);
    EXPECT_EQ(outcome.status, 0) << "bv-call " << function << "\n" << outcome.errors;
    return outcome.output;
}

bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// One text for all data files with the same members and values, in whatever order.
std::string sorted_members(const std::string &path)
{
    std::vector<std::string> members;
    json_object *tree = bv_json_object_from_file(path.c_str());
    EXPECT_NE(tree, nullptr) << path << " does not parse:\n" << read_file(path);
    if (tree == nullptr)
        return "";
    json_object_object_foreach(tree, key, value)
        members.push_back(std::string(key) + " " + json_object_to_json_string(value) + "\n");
    bv_json_object_put(tree);
    std::sort(members.begin(), members.end());
    std::string all;
    for (const std::string &member : members)
        all += member;
    return all;
}

class ExampleServices : public testing::Test {
protected:
    ExampleServices()
    {
        for (const std::string &name : list_folder(kExampleFiles + "template"))
            write_file("/etc/template/" + name, read_file(kExampleFiles + "template/" + name));
        write_file(kUserFile, read_file(kExampleFiles + "data/userdata.json"));
        start_owner();
        start_wireless();
    }

    void start_owner()
    {
        owner_ = std::make_unique<Program>(std::vector<std::string>{BV_OWNER});
        ctl("wait network");
    }
    void start_wireless()
    {
        wireless_ = std::make_unique<Program>(std::vector<std::string>{BV_WIRELESS});
        ctl("wait wireless");
    }

    static int end(std::unique_ptr<Program> &program)
    {
        program->signal(SIGTERM);
        return program->wait();
    }

    BusDaemon bus_;
    std::unique_ptr<Program> owner_;
    std::unique_ptr<Program> wireless_;
};

TEST_F(ExampleServices, TwoSaveInOneFileAndNothingOfEitherIsLost)
{
    const std::string shown = ctl("show");
    for (const char *family : {"lan.json.1\n", "dhcp-host.json.2\n", "wireless.json.2\n"})
        EXPECT_TRUE(has(shown, family)) << shown;

    ctl("set lan mtu=1400");
    ctl("set wireless.2 channel=36");
    EXPECT_EQ(ctl("commit"), "network: saved lan.json\n"
                             "wireless: saved wireless.json\n");
    std::string wanted = read_file(kExampleFiles + "data/userdata.json");
    wanted.replace(wanted.find("1500"), 4, "1400");
    wanted.replace(wanted.find("\"149\""), 5, "\"36\"");
    write_file("/scratch/wanted", wanted);
    EXPECT_EQ(sorted_members(kUserFile), sorted_members("/scratch/wanted"));

    EXPECT_EQ(end(owner_), 0);
    EXPECT_EQ(end(wireless_), 0);
    start_owner();
    start_wireless();
    EXPECT_EQ(ctl("show lan.1.mtu"), "1400\n");
    EXPECT_EQ(ctl("show wireless.2.channel"), "36\n");
}

// Changes a parameter again and again, and finds each value in the file after its commit. The exit
// status is how many are missing.
int save_often(const char *service, const std::string &family, const std::string &name)
{
    bv_service_client *client = bv_service_open(service, 0);
    int missing = 0;
    for (int round = 1; round <= 200; round++) {
        const std::string value = std::to_string(600 + round);
        const std::string change =
            "{\"" + family + "\":[{\"inst\":\"1\",\"para\":{\"" + name + "\":\"" + value + "\"}}]}";
        if (bv_service_request(client, "set", change.c_str(), nullptr) != 0 ||
            bv_service_request(client, "commit", nullptr, nullptr) != 0 ||
            !has(sorted_members(kUserFile), "\"" + name + "\": \"" + value + "\""))
            missing++;
    }
    bv_service_close(client);
    return missing;
}

// Neither writes the other's old part back, or both into one temporary file.
TEST_F(ExampleServices, TwoSaveAtOnce)
{
    Child lan([] { return save_often("network", "lan.json", "mtu"); });
    Child radio([] { return save_often("wireless", "wireless.json", "noise"); });
    EXPECT_EQ(lan.wait(), 0);
    EXPECT_EQ(radio.wait(), 0);
}

TEST_F(ExampleServices, BareOwnerRunsBesideThemWithAFileOfItsOwn)
{
    auto bare = std::make_unique<Program>(std::vector<std::string>{BV_BARE_OWNER});
    ASSERT_TRUE(wait_for_object("brovan.gateway.server")) << bare->errors();
    EXPECT_TRUE(has(ctl("list"), "'bv-call -o OBJECT FUNCTION':\n  brovan.gateway.server\n"));
    const Outcome refused = run_words(BV_CTL, "-s brovan.gateway.server show");
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(has(refused.errors, "'bv-call -o brovan.gateway.server FUNCTION'"))
        << refused.errors;

    const std::string before = read_file(kUserFile);
    EXPECT_TRUE(has(call("wan_get"), "protocol=dhcp\n"));
    call("wan_set protocol=static mtu=1492");
    EXPECT_EQ(read_file(kUserFile), before);
    const std::string own = read_file(kPrivateFile);
    EXPECT_TRUE(has(own, "\"protocol\":\"static\"")) << own;
    ctl("set lan mtu=1400");
    ctl("commit");
    EXPECT_EQ(read_file(kPrivateFile), own);

    EXPECT_EQ(end(bare), 0);
    bare = std::make_unique<Program>(std::vector<std::string>{BV_BARE_OWNER});
    ASSERT_TRUE(wait_for_object("brovan.gateway.server")) << bare->errors();
    EXPECT_TRUE(has(call("wan_get"), "mtu=1492\n"));
}

TEST_F(ExampleServices, BareOwnerRefusesWhatItsFileWouldNotKeep)
{
    Program bare({BV_BARE_OWNER});
    ASSERT_TRUE(wait_for_object("brovan.gateway.server")) << bare.errors();
    write_file("/scratch/image", std::string("a\"quote\0", 8) + std::string(28, '\0'));
    const Outcome quote = run_words(BV_CALL, "-f /scratch/image wan_set");
    EXPECT_TRUE(has(quote.errors, "(invalid argument)")) << quote.errors;
    const Outcome too_short = run_words(BV_CALL, "-x 00 wan_set");
    EXPECT_TRUE(has(too_short.errors, "(invalid argument)")) << too_short.errors;
    EXPECT_FALSE(file_exists(kPrivateFile));
}

TEST_F(ExampleServices, CallerReadsChangesAndWatches)
{
    Outcome outcome = run_words(BV_CALLER, "");
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_TRUE(has(outcome.output, "office has the address 192.168.8.1 and MTU 1500\n"));

    Program watcher({BV_CALLER, "watch"});
    const auto prints = [&](const char *mtu) {
        return eventually([&] { return has(watcher.output(), mtu); });
    };
    EXPECT_TRUE(prints("MTU 1500\n")) << watcher.errors();
    EXPECT_EQ(run_words(BV_CALLER, "mtu 1400").status, 0);
    EXPECT_TRUE(prints("MTU 1400\n")) << watcher.errors();

    outcome = run_words(BV_CALLER, "mtu 100");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(has(outcome.errors, "invalid argument")) << outcome.errors;
    EXPECT_EQ(run_words(BV_CALLER, "mtu 65536").status, 2);
    EXPECT_EQ(ctl("show lan.1.mtu"), "1400\n");
}

TEST_F(ExampleServices, CallerTakesOnlyNumbersThatAnMtuCanHave)
{
    for (const char *mtu : {"65536", "4294968696", "99999999999999999999999", "-1", "9k", ""})
        EXPECT_EQ(run({BV_CALLER, "mtu", mtu}).status, 2) << mtu;
    EXPECT_EQ(ctl("show lan.1.mtu"), "1500\n");
}

TEST_F(ExampleServices, ServicesDoNotStartWithTheTemplateOfAnotherProgram)
{
    const std::string saved = read_file(kUserFile);
    for (const char *family : {"lan", "wireless", "wan"})
        write_file(std::string("/etc/template/") + family + ".json",
                   R"({"para": [{"name": "mtu", "type": "ushort", "len": 2, "value": "1"}]})");
    EXPECT_EQ(end(owner_), 0);
    EXPECT_EQ(run({BV_OWNER}).status, 5);
    EXPECT_EQ(end(wireless_), 0);
    EXPECT_EQ(run({BV_WIRELESS}).status, 5);
    EXPECT_EQ(run({BV_BARE_OWNER}).status, 1);
    EXPECT_EQ(read_file(kUserFile), saved);
}

} // namespace
