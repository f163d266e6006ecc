// bv-template check: every fault that a template can have, with its line.

#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

namespace {

const char kFile[] = "/etc/template/lan.json";

Outcome check(const std::string &content)
{
    write_file(kFile, content);
    return run_tool({"check", kFile});
}

// What is said about a template, without the file's name in front of each line.
std::string faults(const std::string &content)
{
    Outcome outcome = check(content);
    EXPECT_EQ(outcome.status, outcome.output.empty() ? 0 : 1) << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    std::string text;
    for (size_t at = 0, end; at < outcome.output.size(); at = end + 1) {
        end = outcome.output.find('\n', at);
        std::string line = outcome.output.substr(at, end - at + 1);
        EXPECT_EQ(line.rfind(kFile, 0), 0u) << line;
        text += line.substr(std::min(line.size(), sizeof kFile));
    }
    return text;
}

// The faults of a template with one parameter, which stands in line 2.
std::string faults_of(const std::string &parameter)
{
    return faults("{\"para\": [\n" + parameter + "\n]}");
}

std::string parameter(const std::string &type, const std::string &len, const std::string &value)
{
    return R"({"name": "x", "type": ")" + type + R"(", "len": )" + len + R"(, "value": )" + value +
           "}";
}

TEST(TemplateCheck, PassesTheTemplatesOfTheExamples)
{
    const std::string folder = BV_TEST_SOURCE_DIR "/../examples/template";
    std::vector<std::string> arguments = {"check"};
    for (const std::string &name : list_folder(folder))
        arguments.push_back(folder + "/" + name);
    ASSERT_GE(arguments.size(), 6u);
    Outcome outcome = run_tool(arguments);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "");
}

// Names of files come from whoever made them: `bv-template check *` must not obey them.
TEST(TemplateCheck, MakesNamesOfFilesVisible)
{
    const std::string name = "/etc/template/\x1b[2J.json";
    write_file(name, "{");
    Outcome outcome = run_tool({"check", name, name + "2"});
    EXPECT_EQ(outcome.output.rfind(R"(/etc/template/\x1b[2J.json:1: )", 0), 0u) << outcome.output;
    EXPECT_EQ(outcome.errors.rfind(R"(bv-template: /etc/template/\x1b[2J.json2: )", 0), 0u)
        << outcome.errors;
}

TEST(TemplateCheck, PassesTheEndsOfEveryType)
{
    const char *const rows[][3] = {{"string", "1", "\"\""},
                                   {"string", "1023", "\"x\""},
                                   {"string", "4", "\"abc\""},
                                   {"char", "1", "\"-128\""},
                                   {"char", "1", "127"},
                                   {"uchar", "1", "255"},
                                   {"short", "2", "-32768"},
                                   {"short", "\"2\"", "32767"},
                                   {"ushort", "2", "65535"},
                                   {"int", "4", "-2147483648"},
                                   {"int", "4", "\"+2147483647\""},
                                   {"uint", "4", "4294967295"},
                                   {"mac", "6", "\"2:0:0:0:A:f\""},
                                   {"mac", "6", "\"02:00:00:00:00:01\""},
                                   {"ip", "4", "\"255.255.255.255\""},
                                   {"string", "9", "\"caf\\u00e9\""}};
    for (const auto &row : rows)
        EXPECT_EQ(faults_of(parameter(row[0], row[1], row[2])), "") << row[0] << " " << row[2];
}

TEST(TemplateCheck, FindsValuesThatDoNotFit)
{
    const char *const rows[][4] = {
        {"string", "1", "\"a\"",
         "text of 1 byte is too long for len 1, which counts the zero byte at its end"},
        {"string", "4", "\"abcd\"",
         "text of 4 bytes is too long for len 4, which counts the zero byte at its end"},
        {"char", "1", "\"-129\"", "-129 does not fit type char (-128 to 127)"},
        {"char", "1", "128", "128 does not fit type char (-128 to 127)"},
        {"uchar", "1", "256", "256 does not fit type uchar (0 to 255)"},
        {"uchar", "1", "-1", "-1 does not fit type uchar (0 to 255)"},
        {"short", "2", "32768", "32768 does not fit type short (-32768 to 32767)"},
        {"ushort", "2", "65536", "65536 does not fit type ushort (0 to 65535)"},
        {"int", "4", "2147483648", "2147483648 does not fit type int (-2147483648 to 2147483647)"},
        {"uint", "4", "4294967296", "4294967296 does not fit type uint (0 to 4294967295)"},
        {"uint", "4", "\"99999999999999999999\"", "'99999999999999999999' is not a number"},
        {"int", "4", "\"\"", "'' is not a number"},
        {"int", "4", "\"-\"", "'-' is not a number"},
        {"int", "4", "\"12a\"", "'12a' is not a number"},
        {"int", "4", "1.5", "'1.5' is not a number"},
        {"mac", "6", "\"02:00:00:00:00\"", "'02:00:00:00:00' is no MAC address"},
        {"mac", "6", "\"02:00:00:00:00:01 \"", "'02:00:00:00:00:01 ' is no MAC address"},
        {"mac", "6", "\"002:0:0:0:0:1\"", "'002:0:0:0:0:1' is no MAC address"},
        {"mac", "6", "\"02:00:00:00:00:0g\"", "'02:00:00:00:00:0g' is no MAC address"},
        {"mac", "6", "\"2::0:0:0:1\"", "'2::0:0:0:1' is no MAC address"},
        {"ip", "4", "\"192.168.1\"", "'192.168.1' is no IPv4 address"},
        {"ip", "4", "\"::1\"", "'::1' is no IPv4 address"}};
    for (const auto &row : rows)
        EXPECT_EQ(faults_of(parameter(row[0], row[1], row[2])),
                  std::string("2: value of \"x\": ") + row[3] + "\n");
}

TEST(TemplateCheck, FindsLensThatDoNotFitTheType)
{
    const char *const rows[][3] = {
        {"int", "2", "len 2 does not fit type int, which takes 4"},
        {"uint", "8", "len 8 does not fit type uint, which takes 4"},
        {"short", "4", "len 4 does not fit type short, which takes 2"},
        {"ushort", "1", "len 1 does not fit type ushort, which takes 2"},
        {"char", "2", "len 2 does not fit type char, which takes 1"},
        {"uchar", "0", "len 0 does not fit type uchar, which takes 1"},
        {"string", "0", "len 0 has no room for anything"},
        {"string", "-4", "len -4 is negative: the image shrinks"},
        {"string", "1024", "len 1024 is above 1023: the parameter is skipped"},
        {"string", "\"many\"", "len of \"x\" is no whole number"},
        {"string", "4.5", "len of \"x\" is no whole number"},
        {"string", "[4]", "len of \"x\" is no whole number"},
        {"string", "4294967300", "len of \"x\" is beyond 32 bits"}};
    for (const auto &row : rows)
        EXPECT_EQ(faults_of(parameter(row[0], row[1], "1")), std::string("2: ") + row[2] + "\n");
    EXPECT_EQ(faults_of(parameter("mac", "5", "\"0:0:0:0:0:0\"")),
              "2: len 5 does not fit type mac, which takes 6\n");
    EXPECT_EQ(faults_of(parameter("ip", "16", "\"0.0.0.0\"")),
              "2: len 16 does not fit type ip, which takes 4\n");
}

TEST(TemplateCheck, FindsUnknownTypes)
{
    const std::string known =
        " (there are string, char, uchar, short, ushort, int, uint, mac and ip)\n";
    for (const char *type : {"uint32", "String", "int ", ""})
        EXPECT_EQ(faults_of(parameter(type, "4", "1")),
                  std::string("2: unknown type '") + type + "'" + known);
}

TEST(TemplateCheck, FindsIncompleteElements)
{
    EXPECT_EQ(faults("{\"para\": [\n"
                     " {\"type\": \"int\", \"len\": 4, \"value\": 1},\n"
                     " {\"name\": \"b\", \"len\": 4, \"value\": 1},\n"
                     " {\"name\": \"c\", \"type\": \"int\", \"value\": 1},\n"
                     " {\"name\": \"d\", \"type\": \"int\", \"len\": 4},\n"
                     " {\"name\": \"e\", \"type\": null, \"len\": 4, \"value\": 1},\n"
                     " 17,\n"
                     " {}]}"),
              "2: name is missing: the parameter is skipped\n"
              "3: type of \"b\" is missing: the parameter is skipped\n"
              "4: len of \"c\" is missing: the parameter is skipped\n"
              "5: value of \"d\" is missing: the parameter is skipped\n"
              "6: type of \"e\" is missing: the parameter is skipped\n"
              "7: an element of \"para\" is no object: it is skipped\n"
              "8: name is missing: the parameter is skipped\n"
              "8: type is missing: the parameter is skipped\n"
              "8: len is missing: the parameter is skipped\n"
              "8: value is missing: the parameter is skipped\n");
}

TEST(TemplateCheck, FindsDuplicateNames)
{
    const std::string x = parameter("int", "4", "1");
    EXPECT_EQ(faults("{\"para\":[\n" + x + ",\n" + x + ",\n" + x + "\n]}"),
              "3: duplicate parameter \"x\", first in line 2\n"
              "4: duplicate parameter \"x\", first in line 2\n");
    EXPECT_EQ(faults("{\"getfunc\":\"a\",\n\"para\":[" + x + "],\n\"getfunc\":\"b\"}"),
              "3: duplicate name \"getfunc\", first in line 1\n");
    EXPECT_EQ(faults_of("{\"name\":\"x\",\"type\":\"int\",\n\"len\":4,\"value\":1,\n\"len\":4}"),
              "4: duplicate name \"len\", first in line 3\n");
    EXPECT_EQ(faults_of("{\"name\":\"x\",\"type\":\"int\",\n\"len\":4,\"value\":1,\n"
                        "\"len\\u0000x\":4}"),
              "4: duplicate name \"len\", first in line 3\n")
        << "the library sees no more of a name than what stands before a zero byte";
}

TEST(TemplateCheck, FindsNumbersThatTheLibraryChanges)
{
    for (const char *number : {"-0", "18446744073709551616", "-9223372036854775809"}) {
        std::string said =
            ": the library changes " + std::string(number) + ", which needs quotes\n";
        EXPECT_EQ(faults_of(parameter("string", "32", number)), "2: value of \"x\"" + said);
        EXPECT_EQ(faults_of("{\"name\":" + std::string(number) +
                            ",\"type\":\"int\",\"len\":4,\"value\":1}"),
                  "2: name" + said);
    }
    for (const char *number : {"0", "-1", "18446744073709551615", "-9223372036854775808", "-0.0",
                               "1e999", "12345678901234567890.5", "\"-0\""})
        EXPECT_EQ(faults_of(parameter("string", "32", number)), "");
}

TEST(TemplateCheck, FindsWhatWouldNotSurviveARewrite)
{
    const std::string tail = " in it does not survive a rewrite of the data file\n";
    const char *const rows[][2] = {{R"(a\"b)", "a double quote"},
                                   {R"(a\\b)", "a backslash"},
                                   {R"(a\nb)", "a control character"},
                                   {R"(a\u0000b)", "a control character"},
                                   {"a\x1f", "a control character"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row[0]);
        EXPECT_EQ(faults_of(parameter("string", "32", '"' + std::string(row[0]) + '"')),
                  std::string("2: value of \"x\": ") + row[1] + tail);
        EXPECT_EQ(faults_of("{\"name\":\"" + std::string(row[0]) +
                            "\",\"type\":\"int\",\"len\":4,\"value\":1}"),
                  std::string("2: name: ") + row[1] + tail);
    }
    // A line break in a value counts as a line.
    EXPECT_EQ(faults_of(parameter("string", "9", "\"a\nb\"") + ",17"),
              "2: value of \"x\": a control character" + tail +
                  "3: an element of \"para\" is no object: it is skipped\n");
}

TEST(TemplateCheck, FindsTextsThatAreTooLong)
{
    const std::string longest(1023, 'n');
    EXPECT_EQ(faults_of(R"({"name":")" + longest + R"(","type":"int","len":4,"value":1})"), "");
    EXPECT_EQ(faults_of(R"({"name":")" + longest + R"(n","type":"int","len":4,"value":1})"),
              "2: name: its 1024 bytes are more than 1023\n");
    const std::string x = parameter("int", "4", "1");
    EXPECT_EQ(faults("{\"para\":[" + x + "],\n\"setfunc\":\"" + longest + "n\"}"),
              "2: setfunc: its 1024 bytes are more than 1023\n");
}

TEST(TemplateCheck, FindsTextsThatAreNone)
{
    EXPECT_EQ(faults_of(R"({"name":true,"type":[],"len":4,"value":{}})"),
              "2: name is no text\n2: type is no text\n2: value of \"\" is no text\n");
    EXPECT_EQ(faults_of(R"({"name":"","type":"int","len":4,"value":1})"), "2: name is empty\n");
    EXPECT_EQ(faults("{\"getfunc\": false,\n\"para\":[" + parameter("int", "4", "1") + "]}"),
              "1: getfunc is no text\n");
}

TEST(TemplateCheck, FindsMoreParametersThanTheLibraryTakes)
{
    for (int count : {425, 426}) {
        std::string para;
        for (int i = 0; i < count; ++i)
            para += (i == 0 ? "" : ",") + std::string("{\"name\":\"p") + std::to_string(i) +
                    R"(","type":"int","len":4,"value":"1"})";
        EXPECT_EQ(faults("{\n\"para\":[" + para + "]}"),
                  count == 425 ? ""
                               : "2: 426 parameters are more than the 425 that the library "
                                 "takes: it takes none\n");
    }
}

TEST(TemplateCheck, FindsTemplatesWithoutParameters)
{
    EXPECT_EQ(faults("{}"), "1: \"para\" is missing\n");
    EXPECT_EQ(faults("\n{\"para\": null}"), "2: \"para\" is missing\n");
    EXPECT_EQ(faults("{\n\"para\": {}}"), "2: \"para\" is no array\n");
    EXPECT_EQ(faults("{\n\"para\": []}"), "2: \"para\" is empty: the family holds nothing\n");
    EXPECT_EQ(faults("[]"), "1: a template is an object with \"para\"\n");
}

TEST(TemplateCheck, FindsWhatIsNoJson)
{
    EXPECT_EQ(faults(""), "1: no JSON: a value is expected\n");
    EXPECT_EQ(faults("{\"para\": [\n {\"name\": \"x\"\n  \"type\": \"int\"}]}"),
              "3: no JSON: ',' or '}' is expected\n");
    EXPECT_EQ(faults("{}\n\nx"), "3: no JSON: something follows the end\n");
}

TEST(TemplateCheck, FindsFileNamesThatTheLibraryCannotUse)
{
    const std::string good = "{\"para\":[" + parameter("int", "4", "1") + "]}";
    const std::string longest = "/scratch/" + std::string(204, 'n');
    write_file(longest, good);
    EXPECT_EQ(run_tool({"check", longest}).output, "");
    for (const std::string &name :
         {std::string("/scratch/a\"b.json"), std::string("/scratch/a$b.json"),
          std::string("/scratch/a*.json"), std::string("/scratch/a\nb"),
          std::string("/scratch/a.json "), longest + "n"}) {
        write_file(name, good);
        Outcome outcome = run_tool({"check", name});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_NE(outcome.output.find(":1: the file's name: "), std::string::npos)
            << outcome.output;
    }
}

TEST(TemplateCheck, ReportsEveryFaultOfEveryFile)
{
    write_file("/scratch/a.json", "{\"para\":[" + parameter("int", "2", "\"x\"") + "]}");
    write_file("/scratch/b.json", "[");
    Outcome outcome = run_tool({"check", "/scratch/a.json", "/scratch/b.json"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "/scratch/a.json:1: len 2 does not fit type int, which takes 4\n"
                              "/scratch/a.json:1: value of \"x\": 'x' is not a number\n"
                              "/scratch/b.json:1: no JSON: a value is expected\n");
}

TEST(TemplateCheck, SaysWhichFileCannotBeRead)
{
    Outcome outcome = run_tool({"check", "/nowhere.json", "/scratch"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "bv-template: /nowhere.json: No such file or directory\n"
                              "bv-template: /scratch: Is a directory\n");
}

TEST(TemplateCheck, RefusesFilesThatCannotBeTemplates)
{
    write_file("/scratch/large", "");
    ASSERT_EQ(truncate("/scratch/large", 17 * 1024 * 1024), 0);
    Outcome outcome = run_tool({"check", "/scratch/large"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "bv-template: /scratch/large: File too large\n");
}

TEST(TemplateCheck, PrintsItsHelpAndRefusesTheRest)
{
    Outcome help = run_tool({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output.rfind("usage: bv-template", 0), 0u);
    const std::vector<std::vector<std::string>> wrong = {{},
                                                         {"check"},
                                                         {"data"},
                                                         {"header"},
                                                         {"header", "a", "b"},
                                                         {"nonsense", "a"},
                                                         {"--nonsense"}};
    for (const auto &arguments : wrong) {
        Outcome outcome = run_tool(arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.output, "");
        EXPECT_NE(outcome.errors.find("--help"), std::string::npos);
    }
    EXPECT_EQ(run({"/bin/sh", "-c", "'" BV_TOOL "' --help > /dev/full"}).status, 2);
}

} // namespace
