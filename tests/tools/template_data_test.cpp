// bv-template data: every fault that a data file can have, with its line.

#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

namespace {

const char kFile[] = "/config/work/userdata.json";

class DataCheck : public ::testing::Test {
protected:
    DataCheck()
    {
        write_file("/etc/template/lan.json",
                   R"({"para":[{"name":"ip","type":"ip","len":4,"value":"0.0.0.0"},
                               {"name":"mtu","type":"ushort","len":2,"value":"1500"},
                               {"name":"host","type":"string","len":8,"value":"box"}]})");
    }

    // What is said about a data file, without the file's name in front of each line.
    static std::string faults(const std::string &content)
    {
        write_file(kFile, content);
        Outcome outcome = run_tool({"data", kFile});
        EXPECT_EQ(outcome.status, outcome.output.empty() ? 0 : 1) << outcome.errors;
        EXPECT_EQ(outcome.errors, "");
        std::string text;
        for (size_t at = 0, end; at < outcome.output.size(); at = end + 1) {
            end = outcome.output.find('\n', at);
            std::string line = outcome.output.substr(at, end - at + 1);
            text += line.rfind(kFile, 0) == 0 ? line.substr(sizeof kFile) : line;
        }
        return text;
    }

    // The faults of one instance; its parameters stand in line 3.
    static std::string faults_of(const std::string &para)
    {
        return faults("{\"lan.json\":[\n{\"inst\":\"1\",\"para\":{\n" + para + "}}]}");
    }
};

const char kGood[] = R"("ip":"10.0.0.1","mtu":"1400","host":"gateway")";

TEST_F(DataCheck, PassesTheDataOfTheExamples)
{
    const std::string examples = BV_TEST_SOURCE_DIR "/../examples";
    Outcome outcome = run_tool({"data", "--templates=" + examples + "/template",
                                examples + "/data/userdata.json", examples + "/data/factory.json"});
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST_F(DataCheck, PassesDataWithoutAndWithInstances)
{
    EXPECT_EQ(faults("{\n}\n"), "");
    EXPECT_EQ(faults("{\n\t\"lan.json\":[\n\n\t]\n}\n"), "");
    EXPECT_EQ(faults_of(kGood), "");
}

TEST_F(DataCheck, FindsTemplatesInSubfolders)
{
    ASSERT_EQ(mkdir("/etc/template/sub", 0700), 0);
    ASSERT_EQ(rename("/etc/template/lan.json", "/etc/template/sub/lan.json"), 0);
    EXPECT_EQ(faults_of(kGood), "");
    ASSERT_EQ(symlink("sub/lan.json", "/etc/template/linked.json"), 0);
    EXPECT_EQ(faults("{\"linked.json\":[]}"), "");
    write_file("/etc/template/lan.json", "{}");
    EXPECT_EQ(faults_of(kGood), "1: several templates are called \"lan.json\": none is taken\n");
}

TEST_F(DataCheck, CountsFoldersOfATemplatesName)
{
    ASSERT_EQ(mkdir("/etc/template/sub", 0700), 0);
    ASSERT_EQ(mkdir("/etc/template/sub/lan.json", 0700), 0);
    EXPECT_EQ(faults_of(kGood), "1: several templates are called \"lan.json\": none is taken\n");
}

TEST_F(DataCheck, TakesAPathForTheNameOfAFamily)
{
    EXPECT_EQ(faults("{\"/etc/template/lan.json\":[]}"), "");
    write_file("/scratch/other.json", "{\"para\":[]}");
    EXPECT_EQ(
        faults("{\"/scratch/other.json\":[]}").find("/scratch/other.json:1: \"para\" is empty"),
        0u);
}

TEST_F(DataCheck, FindsUnknownFamilies)
{
    EXPECT_EQ(faults("{\"lan.json\":[],\n\"wan.json\":[],\n\"sub/lan.json\":[]}"),
              "2: unknown family \"wan.json\": there is no such template\n"
              "3: unknown family \"sub/lan.json\": there is no such template\n");
}

TEST_F(DataCheck, ReportsTheFaultsOfATemplateOnce)
{
    write_file("/etc/template/bad.json", "{\"para\":\n17}");
    EXPECT_EQ(faults("{\"bad.json\":[],\n\"bad.json\":[]}"),
              "2: duplicate name \"bad.json\", first in line 1\n"
              "/etc/template/bad.json:2: \"para\" is no array\n"
              "1: the template of \"bad.json\" has no usable parameters\n"
              "2: the template of \"bad.json\" has no usable parameters\n");
}

TEST_F(DataCheck, FindsTemplatesWithoutParameters)
{
    write_file("/etc/template/none.json", "{\"para\":[]}");
    EXPECT_EQ(faults("{\n\"none.json\":[]}"),
              "/etc/template/none.json:1: \"para\" is empty: the family holds nothing\n"
              "2: the template of \"none.json\" has no usable parameters\n");
}

TEST_F(DataCheck, FindsUnknownParameters)
{
    EXPECT_EQ(faults_of(kGood + std::string(",\n\"dhcp\":\"1\"")),
              "4: lan.json has no parameter \"dhcp\"\n");
}

// What is missing is taken over from the element before, which is seldom meant.
TEST_F(DataCheck, FindsMissingParameters)
{
    EXPECT_EQ(faults("{\"lan.json\":[\n{\"inst\":\"1\",\"para\":{\"ip\":\"10.0.0.1\"}},\n"
                     "{\"inst\":\"2\",\"para\":{\"ip\":\"10.0.0.1\",\"mtu\":\"1\"}}]}"),
              "2: \"mtu\" is missing: it takes the template's default\n"
              "2: \"host\" is missing: it takes the template's default\n"
              "3: \"host\" is missing: it takes the value of the element before\n");
}

TEST_F(DataCheck, FindsDuplicates)
{
    const std::string para = std::string("\"para\":{") + kGood + "}}";
    EXPECT_EQ(faults("{\"lan.json\":[\n{\"inst\":\"1\"," + para + ",\n{\"inst\":\"2\"," + para +
                     ",\n{\"inst\":1," + para + "]}"),
              "4: duplicate instance 1, first in line 2, which it replaces\n");
    EXPECT_EQ(faults("{\"lan.json\":[{\"inst\":1,\n\"inst\":2," + para + "]}"),
              "2: duplicate name \"inst\", first in line 1\n");
    EXPECT_EQ(faults_of(kGood + std::string(",\n\"mtu\":\"1\"")),
              "4: duplicate name \"mtu\", first in line 3\n");
}

TEST_F(DataCheck, FindsInstancesThatAreSkipped)
{
    const std::string para = std::string("\"para\":{") + kGood + "}";
    EXPECT_EQ(faults("{\"lan.json\":[\n17,\n{" + para +
                     "},\n{\"inst\":\"3\"},\n{\"inst\":\"one\"," + para +
                     "},\n{\"inst\":\"2147483648\"," + para +
                     "},\n{\"inst\":\"5\",\"para\":[]},\n{\"inst\":\"-6\"," + para + "}]}"),
              "2: an element is no object: it is skipped\n"
              "3: \"inst\" is missing: the element is skipped\n"
              "4: \"para\" is missing: the element is skipped\n"
              "5: \"inst\" is no whole number\n"
              "6: \"inst\" is beyond 32 bits\n"
              "7: \"para\" is no object\n");
}

TEST_F(DataCheck, FindsValuesThatDoNotFit)
{
    EXPECT_EQ(faults_of("\"ip\":\"10.0.0\",\n\"mtu\":\"70000\",\n\"host\":\"gateways\""),
              "3: \"ip\": '10.0.0' is no IPv4 address\n"
              "4: \"mtu\": 70000 does not fit type ushort (0 to 65535)\n"
              "5: \"host\": text of 8 bytes is too long for len 8, which counts the zero byte at "
              "its end\n");
    EXPECT_EQ(faults_of("\"ip\":[],\n\"mtu\":1400,\n\"host\":true"),
              "3: \"ip\" is no text\n5: \"host\" is no text\n");
}

TEST_F(DataCheck, FindsWhatWouldNotSurviveARewrite)
{
    EXPECT_EQ(faults_of(R"("ip":"10.0.0.1","mtu":"1400","host":"a\"b")"),
              "3: \"host\": a double quote in it does not survive a rewrite of the data file\n");
    EXPECT_EQ(faults("{\"a\\\\b\":[]}"),
              "1: name of a family: a backslash in it does not survive a rewrite of the data file\n"
              "1: unknown family \"a\\\\b\": there is no such template\n");
}

TEST_F(DataCheck, FindsWhatIsNoDataFile)
{
    EXPECT_EQ(faults("\n[]"), "2: a data file is an object of families\n");
    EXPECT_EQ(faults("{\"lan.json\":\n{}}"), "2: \"lan.json\" is no array: no instance is taken\n");
    EXPECT_EQ(faults("{\"lan.json\":[\n"), "2: no JSON: a value is expected\n");
}

TEST_F(DataCheck, SaysWhatCannotBeRead)
{
    EXPECT_EQ(run_tool({"data", "/nowhere.json"}).status, 2);
    Outcome outcome = run_tool({"data", "-t", "/nowhere", kFile});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "bv-template: /nowhere: No such file or directory\n");
}

// Nobody writes into the pipe: reading it would never end.
TEST_F(DataCheck, DoesNotReadATemplateThatIsNoFile)
{
    ASSERT_EQ(mkfifo("/etc/template/pipe.json", 0600), 0);
    write_file(kFile, "{\"pipe.json\":[],\n\"/etc/template/pipe.json\":[]}");
    Outcome outcome = run_tool({"data", kFile});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "bv-template: /etc/template/pipe.json: is no file\n");
    EXPECT_EQ(outcome.output,
              std::string(kFile) + ":1: the template of \"pipe.json\" has no usable parameters\n" +
                  kFile +
                  ":2: the template of \"/etc/template/pipe.json\" has no usable parameters\n");
}

} // namespace
