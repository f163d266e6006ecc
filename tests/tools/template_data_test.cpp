// SPDX-License-Identifier: ISC
// bv-template data: every fault that a data file can have, with its line.

#include "tools/tool.h"

namespace {

const std::string kDataFile = "/config/work/userdata.json";

class DataCheck : public ::testing::Test {
protected:
    DataCheck()
    {
        write_file("/etc/template/lan.json",
                   R"({"para":[{"name":"ip","type":"ip","len":4,"value":"0.0.0.0"},
                               {"name":"mtu","type":"ushort","len":2,"value":"1500"},
                               {"name":"host","type":"string","len":8,"value":"box"}]})");
    }

    static std::string faults(const std::string &content)
    {
        return faults_in("data", kDataFile, content);
    }
};

const char kGoodData[] =
    R"({"lan.json":[{"inst":"1","para":{"ip":"10.0.0.1","mtu":"1400","host":"gateway"}}]})";
const char kAmbiguous[] = "1: several templates are called \"lan.json\": none is taken\n";

TEST_F(DataCheck, PassesTheDataOfTheExamples)
{
    EXPECT_EQ(run_line("data --templates=" + kExamples + "template " + kExamples +
                       "data/userdata.json " + kExamples + "data/factory.json"),
              (Outcome{0, "", ""}));
}

TEST_F(DataCheck, ReportsFaultsWithTheirLines)
{
    write_file("/etc/template/bad.json", "{\"para\":\n17}");
    write_file("/etc/template/none.json", "{\"para\":[]}");
    expect_cases("data", kDataFile, "data-faults");
}

TEST_F(DataCheck, WarnsOfMisspeltKeys)
{
    EXPECT_EQ(faults("{\"lan.json\":[{\"ints\":\"1\",\"para\":{}}]}"),
              "1: warning: unknown key \"ints\", did you mean \"inst\"?\n"
              "1: \"inst\" is missing: the element is skipped\n");
}

TEST_F(DataCheck, FindsTemplatesInSubfolders)
{
    ASSERT_EQ(mkdir("/etc/template/sub", 0700), 0);
    ASSERT_EQ(rename("/etc/template/lan.json", "/etc/template/sub/lan.json"), 0);
    EXPECT_EQ(faults(kGoodData), "");
    ASSERT_EQ(symlink("sub/lan.json", "/etc/template/linked.json"), 0);
    EXPECT_EQ(faults("{\"linked.json\":[]}"), "");
    write_file("/etc/template/lan.json", "{}");
    EXPECT_EQ(faults(kGoodData), kAmbiguous);
}

TEST_F(DataCheck, CountsFoldersWithTheNameOfATemplate)
{
    ASSERT_EQ(mkdir("/etc/template/sub", 0700), 0);
    ASSERT_EQ(mkdir("/etc/template/sub/lan.json", 0700), 0);
    EXPECT_EQ(faults(kGoodData), kAmbiguous);
}

TEST_F(DataCheck, TakesPathAsNameOfFamily)
{
    EXPECT_EQ(faults("{\"/etc/template/lan.json\":[]}"), "");
    write_file("/scratch/other.json", "{\"para\":[]}");
    EXPECT_EQ(
        faults("{\"/scratch/other.json\":[]}").find("/scratch/other.json:1: \"para\" is empty"),
        0u);
}

TEST_F(DataCheck, SaysWhatCannotBeRead)
{
    EXPECT_EQ(run_line("data /nowhere.json").status, 2);
    EXPECT_EQ(run_line("data -t /nowhere " + kDataFile),
              (Outcome{2, "", "bv-template: /nowhere: No such file or directory\n"}));
}

// No process writes into the pipe: reading it would never end.
TEST_F(DataCheck, DoesNotReadTemplateThatIsAPipe)
{
    ASSERT_EQ(mkfifo("/etc/template/pipe.json", 0600), 0);
    write_file(kDataFile, "{\"pipe.json\":[],\n\"/etc/template/pipe.json\":[]}");
    EXPECT_EQ(
        run_tool({"data", kDataFile}),
        (Outcome{2,
                 kDataFile + ":1: the template of \"pipe.json\" has no usable parameters\n" +
                     kDataFile +
                     ":2: the template of \"/etc/template/pipe.json\" has no usable parameters\n",
                 "bv-template: /etc/template/pipe.json: is not a file\n"}));
}

} // namespace
