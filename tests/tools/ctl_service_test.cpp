// SPDX-License-Identifier: ISC
// bv-ctl with services on a real bus.

#include "service/sample.h"
#include "tools/tool.h"

namespace {

const char kUserData[] = "/config/work/userdata.json";

class CtlSession : public ::testing::Test {
protected:
    CtlSession() { sample_.start(); }

    BusDaemon bus_;
    Sample sample_;
};

std::string output(const std::string &line)
{
    const Outcome outcome = run_line(line);
    EXPECT_EQ(outcome.status, 0) << line;
    EXPECT_EQ(outcome.errors, "") << line;
    return outcome.output;
}

std::string refusal(const std::string &line)
{
    const Outcome outcome = run_line(line);
    EXPECT_EQ(outcome.status, 1) << line;
    EXPECT_EQ(outcome.output, "") << line;
    return outcome.errors;
}

TEST_F(CtlSession, ChangesSavesAndTakesBack)
{
    EXPECT_EQ(output("show lan.1.mtu"), "1500\n");
    EXPECT_EQ(output("set lan mtu=1400 hostname=router"), "");
    EXPECT_EQ(output("add lan.5 offset=7"), "lan.json.5\n");
    EXPECT_EQ(output("add lan"), "lan.json.6\n");
    EXPECT_EQ(output("show lan.5"), "lan.json.5\n"
                                    "  ipaddr    192.168.1.1\n"
                                    "  mtu       1500\n"
                                    "  hostname  gateway\n"
                                    "  mac       02:00:00:00:00:01\n"
                                    "  offset    7\n");
    EXPECT_EQ(output("diff lan"), "PARAMETER            RUNNING  SAVED    DEFAULT\n"
                                  "lan.json.1.mtu       1400     1500     1500\n"
                                  "lan.json.1.hostname  router   gateway  gateway\n"
                                  "lan.json.5           added    -\n"
                                  "lan.json.5.offset    7        -        -1\n"
                                  "lan.json.6           added    -\n");
    EXPECT_TRUE(contains(output("status"), "  not saved  lan.json\n"));
    EXPECT_EQ(output("commit"), "sample: saved lan.json\n");
    EXPECT_TRUE(contains(read_file(kUserData), "\"mtu\":\"1400\""));
    EXPECT_EQ(output("commit"), "sample: nothing to save\n");

    EXPECT_EQ(output("del lan.5 lan.6"), "");
    EXPECT_EQ(output("reset lan"), "");
    EXPECT_EQ(output("show lan.1.mtu"), "1500\n");
    EXPECT_TRUE(contains(output("diff lan"), "lan.json.5           -        deleted\n"));
    EXPECT_EQ(output("revert -s sample"), "");
    EXPECT_EQ(output("show lan.1.hostname"), "router\n");
    EXPECT_TRUE(contains(output("list"), "sample   lan.json     1 5-6      user\n"));
}

TEST_F(CtlSession, NamesSavedFamiliesAfterCommitOnly)
{
    static const bv_service_family kFamilies[] = {
        {"user.json", sizeof(Secret), BV_SERVICE_USER, 0, nullptr, nullptr},
        {"box.json", sizeof(Secret), BV_SERVICE_FACTORY, 0, nullptr, nullptr}};
    Sample second("second");
    for (const char *path : {"/etc/template/user.json", "/etc/template/box.json"})
        write_file(path, read_file("/etc/template/secret.json"));
    second.service.families = kFamilies;
    second.start();
    output("set user key=a");
    output("set box key=a");
    EXPECT_EQ(output("commit --factory second"),
              "second: not saved user.json\nsecond: saved box.json\n");
    EXPECT_FALSE(file_exists(kUserData));
    output("set box key=b");
    EXPECT_EQ(output("commit"), "sample: nothing to save\n"
                                "second: saved user.json\nsecond: not saved box.json\n");
    EXPECT_EQ(output("commit second"), "second: not saved box.json\n");
}

TEST_F(CtlSession, PassesRefusalsOn)
{
    const std::pair<const char *, const char *> rows[] = {
        {"set lan mtu=70000",
         "lan.json.mtu: '70000' is not a number from 0 to 65535, as type ushort needs "
         "(invalid argument)"},
        {"set lan mtu=9 hostname=refused", "lan.json.1: the service refuses this (status 0x77)"},
        {"set lan mtu=9 speed=1", "lan.json.speed: no such parameter (invalid argument)"},
        {"add lan.1", "lan.json.1: already exists"},
        {"del lan.1 lan.9", "lan.json.9: no such instance"}};
    for (const auto &[line, why] : rows)
        EXPECT_EQ(refusal(line), std::string("bv-ctl: sample: ") + why + "\n");
    EXPECT_EQ(output("show lan.1.mtu"), "1500\n");
}

TEST_F(CtlSession, ImportsWhatItExported)
{
    EXPECT_EQ(output("add lan hostname=second"), "lan.json.2\n");
    EXPECT_EQ(output("commit"), "sample: saved lan.json\n");
    const Outcome outcome = run_line("export /scratch/all");
    EXPECT_EQ(outcome.errors, "bv-ctl: secret.json of sample is left out: its values are hidden\n");
    EXPECT_EQ(read_file("/scratch/all"), read_file(kUserData));

    EXPECT_EQ(output("reset lan"), "");
    EXPECT_EQ(output("import /scratch/all"), "sample: imported lan.json\n");
    EXPECT_EQ(output("show lan.2.hostname"), "second\n");

    std::string refused = read_file("/scratch/all");
    refused.replace(refused.find("gateway"), 7, "changed");
    refused.replace(refused.find("second"), 6, "refused");
    write_file("/scratch/refused", refused);
    EXPECT_EQ(refusal("import /scratch/refused"),
              "bv-ctl: sample: lan.json.2: the service refuses this (status 0x77)\n"
              "bv-ctl: nothing was changed\n");
    EXPECT_EQ(output("show lan.1.hostname"), "gateway\n");
}

TEST_F(CtlSession, WatchesAcrossRestartAndWaits)
{
    const std::string begun = "watching sample: lan.json secret.json\n";
    Program watching({BV_TOOL, "--json", "watch"});
    ASSERT_TRUE(eventually([&] { return watching.errors() == begun; })) << watching.errors();
    output("set lan mtu=1400");
    output("set secret key=x");
    EXPECT_TRUE(eventually([&] {
        return watching.output() ==
               "{\"service\":\"sample\",\"family\":\"lan.json\",\"inst\":\"1\",\"name\":\"mtu\","
               "\"was\":\"1500\",\"is\":\"1400\"}\n"
               "{\"service\":\"sample\",\"family\":\"secret.json\",\"hidden\":true}\n";
    })) << watching.output();
    sample_.signal(SIGTERM);
    sample_.wait();
    EXPECT_TRUE(contains(refusal("wait sample 0"), "sample is not there after 0 s"));
    sample_.launch();
    EXPECT_EQ(output("wait sample"), "");
    output("set lan hostname=again");
    EXPECT_TRUE(eventually([&] {
        return contains(watching.output(), "\"name\":\"hostname\",\"was\":\"gateway\","
                                           "\"is\":\"again\"");
    }));
    EXPECT_EQ(watching.errors(), begun);
    watching.signal(SIGINT);
    EXPECT_EQ(watching.wait(), 128 + SIGINT);
}

// As when `head` has read enough. A closed stream is not the connection to the bus, either.
TEST_F(CtlSession, WatchEndsWhenNobodyReads)
{
    const std::pair<const char *, const char *> rows[] = {
        {"> /dev/full", "bv-ctl: standard output: No space left on device\n"},
        {">&-", "bv-ctl: standard output: Bad file descriptor\n"}};
    const std::string begun = "watching sample: lan.json\n";
    for (const auto &[where, why] : rows) {
        Program watching({"/bin/sh", "-c", std::string("exec '" BV_TOOL "' watch lan ") + where});
        ASSERT_TRUE(eventually([&] { return watching.errors() == begun; })) << watching.errors();
        output("set lan mtu=1400");
        const std::string said = begun + why;
        ASSERT_TRUE(eventually([&] { return watching.errors() == said; }))
            << where << ": " << watching.errors();
        EXPECT_EQ(watching.wait(), 1);
        output("set lan mtu=1500");
    }
}

TEST_F(CtlSession, ImportThatOneServiceRefusesChangesNone)
{
    static const bv_service_family kSecond[] = {
        {"second.json", sizeof(Secret), BV_SERVICE_USER, 0, nullptr, nullptr}};
    Sample second("second");
    write_file("/etc/template/second.json", R"({"para": [
        {"name": "key", "type": "string", "len": 8, "value": "none"}]})");
    second.service.families = kSecond;
    second.service.n_families = 1;
    second.start();
    const auto import = [](const char *host, const char *key) {
        write_file("/scratch/both",
                   std::string(R"({"lan.json":[{"inst":"1","para":{"hostname":")") + host +
                       R"("}}],"second.json":[{"inst":"1","para":{"key":")" + key + R"("}}]})");
        return run_line("import /scratch/both").errors;
    };
    const std::string refused = import("changed", "too long");
    EXPECT_TRUE(contains(refused, "bv-ctl: second: second.json.key: text of 8 bytes is too long"));
    EXPECT_TRUE(contains(refused, "bv-ctl: nothing was changed\n"));
    EXPECT_TRUE(contains(import("refused", "changed"), "the service refuses this"));
    EXPECT_EQ(output("show lan.1.hostname"), "gateway\n");
    EXPECT_EQ(output("show second.1.key"), "none\n");
    EXPECT_EQ(import("changed", "changed"), "");
    EXPECT_EQ(output("show second.1.key"), "changed\n");
}

TEST_F(CtlSession, WatchesServicesThatStartLater)
{
    sample_.signal(SIGTERM);
    sample_.wait();
    Program watching({BV_TOOL, "--json", "watch"});
    ASSERT_TRUE(
        eventually([&] { return watching.errors() == "watching: no service is running yet\n"; }));
    sample_.launch();
    EXPECT_EQ(output("wait sample"), "");
    EXPECT_TRUE(eventually([&] {
        output("set lan mtu=1400");
        output("set lan mtu=1500");
        return contains(watching.output(), "\"was\":\"1500\",\"is\":\"1400\"");
    }));
    watching.signal(SIGINT);
    watching.wait();
}

TEST_F(CtlSession, TurnsDebugSwitches)
{
    EXPECT_EQ(output("debug dhcp error on"), "");
    EXPECT_EQ(output("debug"), "sample\n  dhcp  error  on\n  dns   error  off\n");
}

TEST_F(CtlSession, PointsToBvCallForOtherServices)
{
    Service bare([] { return bv_ubus_server_init("bare", [] { return 0; }); });
    ASSERT_TRUE(wait_for_object("bare"));
    const std::string listed = output("list");
    EXPECT_TRUE(contains(listed, "'bv-call -o OBJECT FUNCTION':\n  bare\n")) << listed;
    EXPECT_FALSE(contains(listed, "\n  sample\n")) << listed;
    for (const char *line : {"list bare", "wait bare", "show -s bare"})
        EXPECT_EQ(refusal(line),
                  "bv-ctl: bare is a service without settings for bv-ctl; call its functions with "
                  "'bv-call -o bare FUNCTION'\n");
    bus_.stop();
    for (const char *line : {"list", "watch"})
        EXPECT_EQ(refusal(line), "bv-ctl: cannot list the services: no connection to the bus: is "
                                 "ubusd running?\n");
}

} // namespace
