// SPDX-License-Identifier: ISC
// bv-ctl's arguments, requests and output, with answers from a file instead of services.

#include "tools/tool.h"

#include <algorithm>

namespace {

const char kServices[] = R"({
  "network": {
    "families": {
      "lan.json": {"size": 11, "store": "user", "hidden": false, "instances": ["1", "2", "3", "7"],
        "para": [{"name": "mtu", "type": "ushort", "len": 2, "value": "1500"},
                 {"name": "hostname", "type": "string", "len": 9, "value": "gateway"}]},
      "wan.json": {"size": 4, "store": "private", "hidden": true, "instances": ["1"],
        "para": [{"name": "key", "type": "string", "len": 4, "value": ""}]},
      "lan.json.v2": {"size": 1, "store": "factory", "hidden": false, "instances": ["1"],
        "para": [{"name": "on", "type": "uchar", "len": 1, "value": "1"}]}
    },
    "get": {
      "lan.json": [{"inst": "1", "para": {"mtu": "1400", "hostname": "a\u001b[1m"}},
                   {"inst": "2", "para": {"mtu": "1500", "hostname": "gateway"}},
                   {"inst": "3", "para": {"mtu": "1500", "hostname": "gateway"}},
                   {"inst": "7", "para": {"mtu": "1500", "hostname": "gateway"}}],
      "wan.json": [{"inst": "1", "para": {}}],
      "lan.json.v2": [{"inst": "1", "para": {"on": "0"}}]
    },
    "saved": {
      "lan.json": [{"inst": "1", "para": {"mtu": "1500", "hostname": "a\u001b[1m"}},
                   {"inst": "2", "para": {"mtu": "1500", "hostname": "gateway"}},
                   {"inst": "3", "para": {"mtu": "1500", "hostname": "gateway"}},
                   {"inst": "9", "para": {"mtu": "1500", "hostname": "gateway"}}],
      "wan.json": [], "lan.json.v2": []
    },
    "functions": ["lan_get", "lan_set"],
    "debug": [{"module": "dhcp", "level": "error", "on": true},
              {"module": "dhcp", "level": "info", "on": false},
              {"module": "dns", "level": "error", "on": false}],
    "status": {"version": "1.0.0", "pid": "812", "started": "1700000000", "loaded": "good",
               "saved": "1700000060", "saved_status": "268435465", "calls": "12", "refused": "1",
               "dropped": "0", "unsaved": ["lan.json"]},
    "committed": {"unsaved": []},
    "add": {"lan.json": [{"inst": "4", "para": {"mtu": "1500", "hostname": "x"}}]}
  },
  "wifi": {
    "families": {
      "radio.json": {"size": 1, "store": "user", "hidden": false, "instances": ["1"],
        "para": [{"name": "channel", "type": "uchar", "len": 1, "value": "6"}]}
    },
    "get": {"radio.json": [{"inst": "1", "para": {"channel": "11"}}]},
    "saved": {"radio.json": []},
    "functions": [], "debug": [],
    "status": {"version": "1.0.0", "pid": "813", "started": "1700000000", "loaded": "defaults",
               "saved": "", "saved_status": "0", "calls": "0", "refused": "0", "dropped": "0",
               "unsaved": []},
    "refuse": {"set": [268435472, "radio.json.channel: 15 is not in use here"], "del": [6, ""]}
  }
})";

class Ctl : public ::testing::Test {
protected:
    Ctl()
    {
        setenv("TZ", "UTC", 1);
        write_file("/scratch/services.json", kServices);
    }

    // The answers with another text in place of one.
    static void replace(const std::string &from, const std::string &to)
    {
        std::string services = read_file("/scratch/services.json");
        services.replace(services.find(from), from.size(), to);
        write_file("/scratch/services.json", services);
    }
};

// What services were asked by the last command, without questions about families.
std::string requests()
{
    std::istringstream lines(read_file("/scratch/requests"));
    std::string all;
    for (std::string line; std::getline(lines, line);)
        if (!contains(line, " families"))
            all += line + "\n";
    unlink("/scratch/requests");
    return all;
}

// What a command prints, without line ends and tabs: versions of json-c differ in those of what is
// empty.
std::string compact(const std::string &line)
{
    std::string text = run_line(line).output;
    text.erase(
        std::remove_if(text.begin(), text.end(), [](char c) { return c == '\n' || c == '\t'; }),
        text.end());
    return text;
}

// A command that succeeds without a word.
void expect_request(const std::string &line, const std::string &request)
{
    SCOPED_TRACE(line);
    EXPECT_EQ(run_line(line), (Outcome{0, "", ""}));
    EXPECT_EQ(requests(), request);
}

TEST_F(Ctl, ListsServicesAndOneInFull)
{
    EXPECT_EQ(run_line("list"), (Outcome{0,
                                         "SERVICE  FAMILY       INSTANCES  SAVED IN\n"
                                         "network  lan.json     1-3 7      user\n"
                                         "         wan.json     1          private\n"
                                         "         lan.json.v2  1          factory\n"
                                         "wifi     radio.json   1          user\n",
                                         ""}));
    const Outcome one = run_line("list network");
    EXPECT_EQ(one.output.substr(0, one.output.find("wan.json")),
              "lan.json  size 11, store user, instances 1-3 7\n"
              "  PARAMETER  TYPE    BYTES  DEFAULT\n"
              "  mtu        ushort  2      1500\n"
              "  hostname   string  9      gateway\n");
    EXPECT_TRUE(contains(one.output, "functions\n  lan_get\n  lan_set\n")) << one.output;
}

TEST_F(Ctl, ShowsFamilyInstanceAndValueVisibly)
{
    EXPECT_EQ(run_line("show lan.json.1 wan lan.json.v2"), (Outcome{0,
                                                                    "lan.json.1\n"
                                                                    "  mtu       1400\n"
                                                                    "  hostname  a\\x1b[1m\n"
                                                                    "\n"
                                                                    "wan.json.1\n"
                                                                    "  key  (hidden)\n"
                                                                    "\n"
                                                                    "lan.json.v2.1\n"
                                                                    "  on  0\n",
                                                                    ""}));
    EXPECT_EQ(run_line("show lan.1.hostname"), (Outcome{0, "a\\x1b[1m\n", ""}));
    const Outcome json = run_line("show --json lan.2.mtu radio");
    EXPECT_EQ(json.output,
              "{\n\t\"lan.json\":[\n\t\t{\n\t\t\t\"inst\":\"2\",\n"
              "\t\t\t\"para\":{\n\t\t\t\t\"mtu\":\"1500\"\n\t\t\t}\n\t\t}\n\t],\n"
              "\t\"radio.json\":[\n\t\t{\n\t\t\t\"inst\":\"1\",\n"
              "\t\t\t\"para\":{\n\t\t\t\t\"channel\":\"11\"\n\t\t\t}\n\t\t}\n\t]\n}\n");
    EXPECT_TRUE(contains(run_line("show").output, "radio.json.1\n  channel  11\n"));
}

TEST_F(Ctl, ComparesRunningSavedAndDefaultValues)
{
    const char lan[] = "PARAMETER            RUNNING   SAVED     DEFAULT\n"
                       "lan.json.1.mtu       1400      1500      1500\n"
                       "lan.json.1.hostname  a\\x1b[1m  a\\x1b[1m  gateway\n"
                       "lan.json.7           added     -\n"
                       "lan.json.9           -         deleted\n";
    EXPECT_EQ(run_line("diff lan"), (Outcome{0, lan, ""}));
    EXPECT_EQ(run_line("diff radio").output, "PARAMETER             RUNNING  SAVED  DEFAULT\n"
                                             "radio.json.1.channel  11       -      6\n");
    EXPECT_TRUE(contains(run_line("diff").output, "lan.json.v2.1.on"));
    EXPECT_TRUE(contains(run_line("diff --json radio").output, "\"saved\":null"));
}

TEST_F(Ctl, SendsWhatTheArgumentsName)
{
    expect_request("set lan.2 mtu=9 hostname=a=b",
                   "network set {\"lan.json\":[{\"inst\":\"2\",\"para\":{\"mtu\":\"9\","
                   "\"hostname\":\"a=b\"}}]}\n");
    expect_request("set lan.json.v2 on=",
                   "network set {\"lan.json.v2\":[{\"inst\":\"1\",\"para\":{\"on\":\"\"}}]}\n");
    expect_request("del lan.1 lan.json.2", "network del {\"lan.json\":[\"1\",\"2\"]}\n");
    expect_request("revert lan wan radio", "network revert {\"lan.json\":[],\"wan.json\":[]}\n"
                                           "wifi revert {\"radio.json\":[]}\n");
    expect_request("reset -s wifi", "wifi reset\n");
    EXPECT_EQ(run_line("add lan hostname=x"), (Outcome{0, "lan.json.4\n", ""}));
    EXPECT_EQ(requests(),
              "network add {\"lan.json\":[{\"inst\":\"\",\"para\":{\"hostname\":\"x\"}}]}\n");
    EXPECT_EQ(run_line("commit"),
              (Outcome{0, "network: saved lan.json\nwifi: nothing to save\n", ""}));
    EXPECT_EQ(requests(), "network status\nwifi status\nnetwork commit\nnetwork status\n"
                          "wifi commit\nwifi status\n");
    EXPECT_EQ(run_line("commit --factory wifi").status, 0);
    EXPECT_EQ(requests(), "wifi status\nwifi commit \"factory\"\nwifi status\n");
    write_file("/scratch/services.json", "{}");
    EXPECT_EQ(run_line("commit"),
              (Outcome{1, "", "bv-ctl: no service with families is running\n"}));
}

TEST_F(Ctl, ShowsAndTurnsDebugSwitches)
{
    EXPECT_EQ(run_line("debug").output, "network\n"
                                        "  dhcp  error  on   info  off\n"
                                        "  dns   error  off\n"
                                        "wifi: names no debug switches\n");
    requests();
    expect_request("debug dhcp info on",
                   "network debug\nwifi debug\n"
                   "network debug {\"module\":\"dhcp\",\"level\":\"info\",\"on\":true}\n");
    EXPECT_EQ(run_line("-s network debug dns error off").status, 0);
    EXPECT_TRUE(contains(requests(), "\"on\":false}"));
    EXPECT_EQ(run_line("debug dns info on"),
              (Outcome{1, "", "bv-ctl: no debug switch dns info; 'bv-ctl debug' shows all\n"}));
}

TEST_F(Ctl, ShowsStatus)
{
    EXPECT_EQ(
        run_line("status"),
        (Outcome{0,
                 "network\n"
                 "  running    since 2023-11-14 22:13:20, process 812, version 1.0.0\n"
                 "  settings   from the .good file: the data file was missing or broken\n"
                 "  saved      2023-11-14 22:14:20, failed: cannot open the file for writing\n"
                 "  not saved  lan.json\n"
                 "  calls      12, 1 refused, 0 messages dropped\n"
                 "wifi\n"
                 "  running    since 2023-11-14 22:13:20, process 813, version 1.0.0\n"
                 "  settings   defaults: there was no data file\n"
                 "  saved      not since the start\n"
                 "  calls      0, 0 refused, 0 messages dropped\n",
                 ""}));
}

TEST_F(Ctl, PrintsChangesWhileItWatches)
{
    write_file("/scratch/later.json",
               R"({"lan.json": [{"inst": "1", "para": {"mtu": "1300", "hostname": "a\u001b[1m"}},
                                {"inst": "2", "para": {"mtu": "1500", "hostname": "gateway"}},
                                {"inst": "3", "para": {"mtu": "1500", "hostname": "gateway"}}]})");
    EXPECT_EQ(run_line("watch lan --json").output,
              "{\"service\":\"network\",\"family\":\"lan.json\",\"inst\":\"1\",\"name\":\"mtu\","
              "\"was\":\"1400\",\"is\":\"1300\"}\n"
              "{\"service\":\"network\",\"family\":\"lan.json\",\"inst\":\"7\",\"name\":\"mtu\","
              "\"was\":\"1500\",\"is\":null}\n"
              "{\"service\":\"network\",\"family\":\"lan.json\",\"inst\":\"7\","
              "\"name\":\"hostname\",\"was\":\"gateway\",\"is\":null}\n");
    const Outcome text = run_line("watch lan");
    EXPECT_EQ(text.errors, "watching network: lan.json\n");
    EXPECT_EQ(text.output.substr(8, text.output.find('\n') - 8),
              " network lan.json.1.mtu 1400 -> 1300");
}

TEST_F(Ctl, SaysThatHiddenFamilyChanged)
{
    write_file("/scratch/later.json", R"({"wan.json": [{"inst": "1", "para": {}}]})");
    EXPECT_EQ(run_line("watch wan --json").output,
              "{\"service\":\"network\",\"family\":\"wan.json\",\"hidden\":true}\n");
    EXPECT_EQ(run_line("watch wan").output.substr(8), " network wan.json changed (hidden)\n");
}

TEST_F(Ctl, ExportsWhatItImports)
{
    const Outcome outcome = run_line("-s wifi export -");
    EXPECT_EQ(outcome, (Outcome{0,
                                "{\n\t\"radio.json\":[\n\t\t{\n\t\t\t\"inst\":\"1\",\n"
                                "\t\t\t\"para\":{\n\t\t\t\t\"channel\":\"11\"\n\t\t\t}\n\t\t}\n"
                                "\t]\n}\n",
                                ""}));
    EXPECT_EQ(run_line("export /scratch/all"),
              (Outcome{0, "", "bv-ctl: wan.json of network is left out: its values are hidden\n"}));
    EXPECT_FALSE(contains(read_file("/scratch/all"), "wan.json"));
    struct stat made;
    ASSERT_EQ(stat("/scratch/all", &made), 0);
    EXPECT_EQ(made.st_mode & 0777, 0600u); // as data files: it may have passwords
    EXPECT_EQ(run_line("-s wifi export /dev/full"),
              (Outcome{1, "", "bv-ctl: /dev/full: No space left on device\n"}));
    EXPECT_EQ(run_line("-s wifi --json export /scratch/all"), (Outcome{0, "{}\n", ""}));

    write_file("/scratch/radio", outcome.output);
    requests();
    EXPECT_EQ(run_line("import /scratch/radio"), (Outcome{0, "wifi: imported radio.json\n", ""}));
    const std::string radio =
        " {\"radio.json\":[{\"inst\":\"1\",\"para\":{\"channel\":\"11\"}}]}\n";
    EXPECT_EQ(requests(), "wifi check" + radio + "wifi import" + radio);
    EXPECT_EQ(run_tool({"import", "-"}, outcome.output).status, 0);
}

TEST_F(Ctl, ImportOfFamiliesWithoutOneOwnerAsksNobody)
{
    write_file("/scratch/bad", R"({"radio.json": [], "printer.json": [], "scanner.json": []})");
    EXPECT_EQ(run_line("import /scratch/bad"),
              (Outcome{1, "",
                       "bv-ctl: /scratch/bad: no running service owns printer.json\n"
                       "bv-ctl: /scratch/bad: no running service owns scanner.json\n"
                       "bv-ctl: nothing was changed\n"}));
    write_file("/scratch/bad", "[]");
    EXPECT_EQ(run_line("import /scratch/bad").errors,
              "bv-ctl: /scratch/bad: it should be an object of families, as 'bv-ctl export' writes "
              "it\nbv-ctl: nothing was changed\n");
    for (const char *text : {"{\n\"radio.json\": [}", "{}\n,", "{\n\"radio.json\":"}) {
        write_file("/scratch/bad", text);
        EXPECT_EQ(run_line("import /scratch/bad").errors,
                  "bv-ctl: /scratch/bad: line 2: this is not JSON\nbv-ctl: nothing was changed\n");
    }
    EXPECT_EQ(requests(), "");
}

// The second service refuses; the first one has not changed anything by then.
TEST_F(Ctl, ImportAsksAllServicesBeforeOneChanges)
{
    replace("\"refuse\": {",
            "\"refuse\": {\"check\": [268435472, \"radio.json.channel: not 300\"], ");
    write_file("/scratch/both", R"({"lan.json": [], "radio.json": []})");
    EXPECT_EQ(run_line("import /scratch/both"),
              (Outcome{1, "",
                       "bv-ctl: wifi: radio.json.channel: not 300 (invalid argument)\n"
                       "bv-ctl: nothing was changed\n"}));
    EXPECT_EQ(requests(), "network check {\"lan.json\":[]}\nwifi check {\"radio.json\":[]}\n");
}

TEST_F(Ctl, SaysWhatWasRefusedAndWhatToDo)
{
    const std::pair<const char *, std::string> rows[] = {
        {"set radio channel=15",
         "wifi: radio.json.channel: 15 is not in use here (invalid argument)"},
        {"del radio.1", "wifi: permission denied: the bus's access rules, or the service, do not "
                        "let your user do this"},
        {"show printer", "no running service owns a family printer; 'bv-ctl list' shows all"},
        {"show -s wifi lan", "wifi has no family lan; 'bv-ctl list wifi' shows what it has"},
        {"show lan.4", "lan.json has no instance 4; it has 1-3 7"},
        {"show lan.1.speed", "lan.json has no parameter speed; 'bv-ctl show lan.json' shows those "
                             "it has"},
        {"list nobody", "no service nobody is running; 'bv-ctl list' shows those that are"}};
    for (const auto &[line, why] : rows)
        EXPECT_EQ(run_line(line), (Outcome{1, "", "bv-ctl: " + why + "\n"})) << line;
    unlink("/scratch/services.json");
    EXPECT_EQ(run_line("list"),
              (Outcome{1, "",
                       "bv-ctl: cannot list the services: no connection to the bus: is "
                       "ubusd running?\n"}));
}

TEST_F(Ctl, RefusesWrongUseAndAsksNobody)
{
    const std::pair<const char *, std::string> rows[] = {
        {"", "which verb?"},
        {"shout", "'shout' is not a verb"},
        {"set lan mtu=9", "lan.json has 4 instances: say which one, as in 'bv-ctl set lan.json.1'"},
        {"set radio channel", "'channel' should be NAME=VALUE"},
        {"set lan.1.mtu mtu=9", "lan.1.mtu names a parameter; write 'bv-ctl set lan.json.1 "
                                "mtu=VALUE'"},
        {"show lan.x", "lan.x: 'x' should be the number of an instance, as in lan.json.1"},
        {"del lan", "lan: del takes instances, as in 'bv-ctl del lan.json.2'"},
        {"reset", "which family? 'bv-ctl reset -s SERVICE' takes all of a service"},
        {"show --factory lan", "--factory belongs to commit"},
        {"wait network soon", "'soon' should be seconds, from 0 to 86400"},
        {"list wifi -s network", "-s network or wifi?"},
        {"commit wifi -s network", "-s network or wifi?"},
        {"debug dhcp info yes", "debug takes MODULE LEVEL on|off"}};
    for (const auto &[line, why] : rows) {
        expect_refused(words(line), "bv-ctl: " + why);
        EXPECT_EQ(requests(), "") << line;
    }
    for (const char *line : {"set lan", "export", "debug a b c d"})
        EXPECT_EQ(run_line(line).status, 2) << line;
}

TEST_F(Ctl, NeedsTheServiceWhereSeveralOwnFamily)
{
    replace("\"wifi\"", "\"wlan\": {\"families\": {\"lan.json\": {}}}, \"wifi\"");
    expect_refused({"show", "lan.1"},
                   "network and wlan both own lan.json: say -s network or -s wlan");
    EXPECT_EQ(run_line("-s network show lan.1.mtu").output, "1400\n");
}

TEST_F(Ctl, DoesNotMixFamiliesThatSeveralServicesOwn)
{
    replace("\"wifi\"", R"("wlan": {
        "families": {"lan.json": {"instances": ["1"], "para": [{"name": "mtu", "value": "1"}]}},
        "get": {"lan.json": [{"inst": "1", "para": {"mtu": "2"}}]},
        "saved": {"lan.json": []}}, "wifi")");
    const char why[] = "bv-ctl: lan.json of wlan is left out: network owns one too; say -s wlan\n";
    for (const char *line : {"show", "show --json", "diff", "diff --json"}) {
        const Outcome outcome = run_line(line);
        EXPECT_EQ(outcome.status, 1) << line;
        EXPECT_EQ(outcome.errors, why) << line;
        EXPECT_TRUE(contains(outcome.output, "radio")) << outcome.output;
        EXPECT_FALSE(contains(outcome.output, "wlan")) << outcome.output;
    }
    EXPECT_FALSE(contains(run_line("show").output, "mtu  2"));
    EXPECT_EQ(run_line("show -s wlan").output, "lan.json.1\n  mtu  2\n");
}

TEST_F(Ctl, DiffPromisesNothingAboutHiddenFamilies)
{
    write_file("/scratch/services.json", R"({"network": {"families": {
        "wan.json": {"hidden": true, "instances": ["1"], "para": [{"name": "key"}]}}}})");
    EXPECT_EQ(run_line("diff"),
              (Outcome{0, "Everything that is not hidden is saved and has its default.\n", ""}));
}

TEST_F(Ctl, SaysThatNoServiceRuns)
{
    write_file("/scratch/services.json", "{}");
    for (const char *line : {"list", "show", "diff", "status", "debug"})
        EXPECT_EQ(run_line(line), (Outcome{0, "No service with families is running.\n", ""}))
            << line;
    EXPECT_EQ(compact("list --json"), "{\"services\":{},\"other_objects\":[]}");
}

TEST_F(Ctl, AsksServiceThatDoesNotAnswerOnce)
{
    replace("\"refuse\": {", R"("refuse": {"families": [7, ""], "status": [7, ""],)");
    const std::string why = "bv-ctl: wifi: no answer in time: it is busy or hangs\n";
    const Outcome outcome = run_line("list");
    EXPECT_EQ(outcome.errors, why);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(run_line("list --json").errors, why);
}

TEST_F(Ctl, ComparesNothingWithoutSavedValues)
{
    replace("\"refuse\": {", R"("refuse": {"saved": [268435460, "the file cannot be read"],)");
    const Outcome outcome = run_line("diff radio");
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.errors, "wifi: the file cannot be read")) << outcome.errors;
}

TEST_F(Ctl, AnswersOfAnotherFormEndNothing)
{
    replace(R"("add": {"lan.json": [{"inst": "4", "para": {"mtu": "1500", "hostname": "x"}}]})",
            R"("add": {"lan.json": {"inst": "4"}})");
    EXPECT_EQ(run_line("add lan"), (Outcome{0, "lan.json\n", ""}));
    EXPECT_EQ(run_line("add lan.4"), (Outcome{0, "lan.json.4\n", ""}));
}

TEST_F(Ctl, NamesInstancesShortly)
{
    std::string odd = "\"1\"";
    for (int i = 3; i < 80; i += 2)
        odd += ", \"" + std::to_string(i) + "\"";
    replace(R"("instances": ["1", "2", "3", "7"])", "\"instances\": [" + odd + "]");
    const char some[] = "1 3 5 7 9 11 13 15 17 19 21 23 ... 79";
    EXPECT_TRUE(contains(run_line("list network").output, std::string("instances ") + some + "\n"));
    EXPECT_TRUE(contains(run_line("show lan.2").errors, std::string("it has ") + some + "\n"));
}

TEST_F(Ctl, SaysThatFamilyHasNoInstances)
{
    replace(R"("store": "user", "hidden": false, "instances": ["1"])",
            R"("store": "user", "hidden": false, "instances": [])");
    replace(R"("radio.json": [{"inst": "1", "para": {"channel": "11"}}])", R"("radio.json": [])");
    EXPECT_EQ(run_line("show radio"), (Outcome{0, "radio.json: no instances\n", ""}));
    EXPECT_EQ(compact("show radio --json"), "{\"radio.json\":[]}");
    EXPECT_EQ(run_line("set radio channel=1"),
              (Outcome{1, "",
                       "bv-ctl: radio.json has no instances; 'bv-ctl add radio.json' adds "
                       "one\n"}));
    replace(R"("families": {
      "radio.json")",
            R"("families": {}, "no": {
      "radio.json")");
    EXPECT_EQ(run_line("list wifi"), (Outcome{0, "no families\n", ""}));
}

TEST_F(Ctl, LongValueMovesOnlyItsOwnRow)
{
    const std::string longer(70, 'x');
    replace(R"("mtu": "1400", "hostname": "a\u001b[1m")",
            R"("mtu": "1400", "hostname": ")" + longer + "\"");
    EXPECT_TRUE(
        contains(run_line("diff lan").output, "lan.json.1.mtu       1400     1500      1500\n"
                                              "lan.json.1.hostname  " +
                                                  longer + "  a\\x1b[1m  gateway\n"));
}

// Values come from anywhere. JSON is UTF-8, and nothing in it may control the terminal.
TEST_F(Ctl, JsonIsValidAndVisible)
{
    const std::string value = "\x7f\u009b2J\u202e\u00e4\xff";
    replace(R"("channel": "11")", "\"channel\": \"" + value + "\"");
    const std::string begin = "{\n\t\"radio.json\":[\n\t\t{\n\t\t\t\"inst\":\"1\",\n"
                              "\t\t\t\"para\":{\n\t\t\t\t\"channel\":\"";
    const std::string end = "\"\n\t\t\t}\n\t\t}\n\t]\n}\n";
    EXPECT_EQ(run_line("show radio --json").output,
              begin + "\\u007f\\u009b2J\\u202e\u00e4\\ufffd" + end);
    write_file("/scratch/later.json",
               R"({"radio.json": [{"inst": "1", "para": {"channel": "\u009b"}}]})");
    EXPECT_TRUE(contains(run_line("watch radio --json").output, "\"is\":\"\\u009b\""));
    EXPECT_EQ(run_line("-s wifi export -").output, begin + value + end); // a data file, as it is
}

TEST_F(Ctl, HiddenParameterIsNoMissingOne)
{
    EXPECT_EQ(run_line("show wan.1.key"), (Outcome{0, "(hidden)\n", ""}));
    EXPECT_EQ(compact("show wan.1.key --json"), "{\"wan.json\":[{\"inst\":\"1\",\"para\":{}}]}");
    EXPECT_EQ(run_line("show wan.1.kei").errors, "bv-ctl: wan.json has no parameter kei; 'bv-ctl "
                                                 "show wan.json' shows those it has\n");
}

TEST_F(Ctl, SaysOnceThatOutputIsLost)
{
    const auto lost = [](const std::string &line, const std::string &why) {
        EXPECT_EQ(run({"/bin/sh", "-c", "'" BV_TOOL "' " + line}),
                  (Outcome{1, "", "bv-ctl: standard output: " + why + "\n"}))
            << line;
    };
    lost("show radio > /dev/full", "No space left on device");
    lost("export - -s wifi > /dev/full", "No space left on device");
    lost("show radio >&-", "Bad file descriptor");
}

#ifdef BV_HOST_PROGRAMS
// The words that bash offers for the last one of a line.
std::string completions(const std::string &line)
{
    const std::string source = BV_TEST_SOURCE_DIR "/../tools/ctl/bv-ctl.bash";
    return run({"/bin/bash", "-c",
                "bv-ctl() { '" BV_TOOL "' \"$@\"; }; compopt() { :; }; . '" + source + "'; " +
                    "COMP_WORDS=(" + line + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); " +
                    "_bv_ctl bv-ctl \"${COMP_WORDS[COMP_CWORD]#=}\"; echo \"${COMPREPLY[*]}\""})
        .output;
}

TEST_F(Ctl, IsColouredOnlyOnTerminal)
{
    const std::string on_terminal = "TERM=linux script -qec '" BV_TOOL " show radio' /dev/null";
    EXPECT_EQ(run({"/bin/sh", "-c", on_terminal}).output,
              "\033[1mradio.json.1\033[0m\r\n  channel  11\r\n");
    EXPECT_EQ(run({"/bin/sh", "-c", "NO_COLOR=1 " + on_terminal}).output,
              "radio.json.1\r\n  channel  11\r\n");
}

TEST_F(Ctl, IsCompletedByBash)
{
    EXPECT_EQ(completions("bv-ctl re"), "revert reset\n");
    EXPECT_EQ(completions("bv-ctl -s ''"), "network wifi\n");
    EXPECT_EQ(completions("bv-ctl -s wifi show lan.json.2"), "\n");
    EXPECT_EQ(completions("bv-ctl del r"), "radio.json.1\n");
    EXPECT_EQ(completions("bv-ctl set lan.1 mtu=9 h"), "hostname=\n");
    EXPECT_EQ(completions("bv-ctl set lan.json.v2.1 ''"), "on=\n");
    EXPECT_EQ(completions("bv-ctl commit --f"), "--factory\n");
}

// bash makes a word of =.
TEST_F(Ctl, CompletionKnowsWhatFollowsEqualsSign)
{
    EXPECT_EQ(completions("bv-ctl --service = w"), "wifi\n");
    EXPECT_EQ(completions("bv-ctl --service ="), "network wifi\n");
    EXPECT_EQ(completions("bv-ctl --service = wifi show r"), "radio.json radio.json.1\n");
    EXPECT_EQ(completions("bv-ctl set lan.1 mtu ="), "\n");
    EXPECT_EQ(completions("bv-ctl set lan.1 mtu = h"), "\n");
    EXPECT_EQ(completions("bv-ctl set lan.1 mtu = 9 h"), "hostname=\n");
}

TEST_F(Ctl, CompletionOffersParametersOfTheFamilyThatIsMeant)
{
    write_file("/scratch/services.json", R"({"network": {"families": {
        "lan.json.v2": {"instances": ["1"], "para": [{"name": "on"}]},
        "lan.json": {"instances": ["1"], "para": [{"name": "mtu"}]}}}})");
    EXPECT_EQ(completions("bv-ctl set lan.json.v2.1 ''"), "on=\n");
    EXPECT_EQ(completions("bv-ctl set lan.1 ''"), "mtu=\n");
    EXPECT_EQ(completions("bv-ctl set wan ''"), "\n");
}

// Names come from services, whose templates do not keep them free of what a shell runs.
TEST_F(Ctl, CompletionRunsNothingOfNames)
{
    write_file("/scratch/services.json", R"json({"evil": {"families": {
        "e$(touch${IFS}/scratch/ran)": {"instances": ["1"], "para": [
            {"name": "a$(touch${IFS}/scratch/ran)"}, {"name": "b`touch${IFS}/scratch/ran`"}]},
        "x/w": {"instances": ["1"], "para": [{"name": "on"}]}}}})json");
    // What is offered is safe in a command line, too.
    const std::string family = "e\\$\\(touch\\$\\{IFS\\}/scratch/ran\\)";
    EXPECT_EQ(completions("bv-ctl diff e"), family + "\n");
    EXPECT_EQ(completions("bv-ctl set '" + family + "' 'a\\$'"),
              "a\\$\\(touch\\$\\{IFS\\}/scratch/ran\\)=\n");
    EXPECT_EQ(completions("bv-ctl set '" + family + "' b"),
              "b\\`touch\\$\\{IFS\\}/scratch/ran\\`=\n");
    EXPECT_EQ(completions("bv-ctl set x/w ''"), "on=\n");
    EXPECT_FALSE(file_exists("/scratch/ran"));
}

#endif

TEST(CtlUsage, IsPrintedForToolAndForEachVerb)
{
    expect_help("bv-ctl", 1);
    EXPECT_EQ(run_line("-s show set --help").output.rfind("usage: bv-ctl set ", 0), 0u);
}

} // namespace
