// bv-template check: every fault that a template can have, with its line.

#include "tools/tool.h"

namespace {

using namespace std::string_literals;

const std::string kFile = "/etc/template/lan.json";

std::string faults(const std::string &content)
{
    return faults_in("check", kFile, content);
}

// The faults of a template with one parameter, which is in line 2.
std::string faults_of(const std::string &parameter)
{
    return faults("{\"para\": [\n" + parameter + "\n]}");
}

std::string parameter(const std::string &type, const std::string &len, const std::string &value)
{
    return R"({"name": "x", "type": ")" + type + R"(", "len": )" + len + R"(, "value": )" + value +
           "}";
}

std::string named(const std::string &token)
{
    return R"({"name": )" + token + R"(, "type": "int", "len": 4, "value": 1})";
}

const std::string kGood = "{\"para\":[" + parameter("int", "4", "1") + "]}";

TEST(TemplateCheck, PassesTheTemplatesOfTheExamples)
{
    Words arguments = {"check"};
    for (const std::string &name : list_folder(kExamples + "template"))
        arguments.push_back(kExamples + "template/" + name);
    ASSERT_GE(arguments.size(), 6u);
    EXPECT_EQ(run_tool(arguments), (Outcome{0, "", ""}));
}

TEST(TemplateCheck, ReportsFaultsWithTheirLines)
{
    expect_cases("check", kFile, "template-faults");
}

TEST(TemplateCheck, PassesBothEndsOfEveryType)
{
    for (const char *row :
         {R"(string 1 "")", R"(string 1023 "x")", R"(string 4 "abc")", R"(string 9 "caf\u00e9")",
          R"(char 1 "-128")", "char 1 127", "uchar 1 255", "short 2 -32768", R"(short "2" 32767)",
          "ushort 2 65535", "int 4 -2147483648", R"(int 4 "+2147483647")", "uint 4 4294967295",
          R"(mac 6 "2:0:0:0:A:f")", R"(mac 6 "02:00:00:00:00:01")", R"(ip 4 "255.255.255.255")"}) {
        const Words parts = words(row);
        EXPECT_EQ(faults_of(parameter(parts[0], parts[1], parts[2])), "") << row;
    }
}

TEST(TemplateCheck, FindsValuesThatDoNotFit)
{
    const char *const strings[][3] = {{"1", "a", "1 byte is too long: len 1 holds 0"},
                                      {"4", "abcd", "4 bytes is too long: len 4 holds 3"}};
    for (const auto &[len, value, why] : strings)
        EXPECT_EQ(faults_of(parameter("string", len, '"' + std::string(value) + '"')),
                  "2: value of \"x\": text of "s + why + " and the zero byte at its end\n");

    const struct {
        const char *type, *len, *kind;
        Words values;
    } kinds[] = {{"char", "1", "a number from -128 to 127, as type char needs", {"-129", "128"}},
                 {"uchar", "1", "a number from 0 to 255, as type uchar needs", {"256", "-1"}},
                 {"short", "2", "a number from -32768 to 32767, as type short needs", {"32768"}},
                 {"ushort", "2", "a number from 0 to 65535, as type ushort needs", {"65536"}},
                 {"int",
                  "4",
                  "a number from -2147483648 to 2147483647, as type int needs",
                  {"2147483648", "1.5", "99999999999999999999", "", "-", "12a"}},
                 {"uint", "4", "a number from 0 to 4294967295, as type uint needs", {"4294967296"}},
                 {"mac",
                  "6",
                  "a MAC address, as in 02:00:00:00:00:01",
                  {"02:00:00:00:00", "02:00:00:00:00:01 ", "002:0:0:0:0:1", "02:00:00:00:00:0g",
                   "2::0:0:0:1"}},
                 {"ip", "4", "an IPv4 address, as in 192.168.1.1", {"192.168.1", "::1"}}};
    for (const auto &row : kinds)
        for (const std::string &value : row.values)
            EXPECT_EQ(faults_of(parameter(row.type, row.len, '"' + value + '"')),
                      "2: value of \"x\": '" + value + "' is not " + row.kind + "\n");
}

TEST(TemplateCheck, FindsLensThatDoNotFitTheType)
{
    const char *const rows[][4] = {
        {"int", "2", "1", "len 2 does not fit type int, which takes 4"},
        {"uint", "8", "1", "len 8 does not fit type uint, which takes 4"},
        {"short", "4", "1", "len 4 does not fit type short, which takes 2"},
        {"ushort", "1", "1", "len 1 does not fit type ushort, which takes 2"},
        {"char", "2", "1", "len 2 does not fit type char, which takes 1"},
        {"uchar", "0", "1", "len 0 does not fit type uchar, which takes 1"},
        {"mac", "5", "\"0:0:0:0:0:0\"", "len 5 does not fit type mac, which takes 6"},
        {"ip", "16", "\"0.0.0.0\"", "len 16 does not fit type ip, which takes 4"},
        {"string", "0", "1", "len 0 has no room for anything"},
        {"string", "-4", "1", "len -4 is negative: the image shrinks"},
        {"string", "1024", "1", "len 1024 is above 1023: the parameter is skipped"},
        {"string", "\"many\"", "1", "len of \"x\" is not a whole number"},
        {"string", "4.5", "1", "len of \"x\" is not a whole number"},
        {"string", "[4]", "1", "len of \"x\" is not a whole number"},
        {"string", "4294967300", "1", "len of \"x\" does not fit 32 bits"}};
    for (const auto &[type, len, value, why] : rows)
        EXPECT_EQ(faults_of(parameter(type, len, value)), "2: "s + why + "\n");
}

TEST(TemplateCheck, FindsUnknownTypes)
{
    for (const char *type : {"uint32", "String", "int ", ""})
        EXPECT_EQ(faults_of(parameter(type, "4", "1")),
                  "2: unknown type '"s + type +
                      "', not one of string char uchar short ushort int uint mac ip\n");
}

TEST(TemplateCheck, FindsNumbersThatTheLibraryChanges)
{
    for (const char *number : {"-0", "18446744073709551616", "-9223372036854775809"}) {
        const std::string said = ": the library changes "s + number + ", which needs quotes\n";
        EXPECT_EQ(faults_of(parameter("string", "32", number)), "2: value of \"x\"" + said);
        EXPECT_EQ(faults_of(named(number)), "2: name" + said);
    }
    for (const char *number : {"0", "-1", "18446744073709551615", "-9223372036854775808", "-0.0",
                               "1e999", "12345678901234567890.5", "\"-0\""})
        EXPECT_EQ(faults_of(parameter("string", "32", number)), "");
}

TEST(TemplateCheck, FindsWhatWouldNotSurviveARewrite)
{
    const char *const rows[][2] = {{R"("a\"b")", "a double quote"},
                                   {R"("a\\b")", "a backslash"},
                                   {R"("a\nb")", "a control character"},
                                   {R"("a\u0000b")", "a control character"},
                                   {"\"a\x1f\"", "a control character"}};
    for (const auto &[text, what] : rows) {
        const std::string said = ": "s + what + " does not survive a rewrite of the data file\n";
        EXPECT_EQ(faults_of(parameter("string", "32", text)), "2: value of \"x\"" + said);
        EXPECT_EQ(faults_of(named(text)), "2: name" + said);
    }
}

// They may be somebody's own, as is one beside the key that it resembles.
TEST(TemplateCheck, WarnsOfUnknownKeysWithoutCallingThemFaults)
{
    write_file(kFile, "{\"paras\":1,\"para\":[" +
                          parameter("int", "4", "1").insert(1, "\n\"min\":0,") + "]}");
    const std::string ignored = kFile + ":1: warning: unknown key \"paras\" is ignored\n" + kFile +
                                ":2: warning: unknown key \"min\" is ignored\n";
    EXPECT_EQ(run_tool({"check", kFile}), (Outcome{0, ignored, ""}));
    const Outcome header = run_tool({"header", kFile});
    EXPECT_EQ(header.errors, ignored);
    EXPECT_EQ(header.output.rfind("/* Parameters", 0), 0u) << header.output;
}

TEST(TemplateCheck, FindsTextsThatAreTooLong)
{
    const std::string longest(1023, 'n');
    EXPECT_EQ(faults_of(named('"' + longest + '"')), "");
    EXPECT_EQ(faults_of(named('"' + longest + "n\"")),
              "2: name: its 1024 bytes are more than 1023\n");
    EXPECT_EQ(faults("{\"para\":[" + named("1") + "],\n\"setfunc\":\"" + longest + "n\"}"),
              "2: setfunc: its 1024 bytes are more than 1023\n");
}

TEST(TemplateCheck, FindsMoreParametersThanTheLibraryTakes)
{
    std::string para;
    for (int i = 0; i < 425; ++i)
        para += named("\"p" + std::to_string(i) + '"') + (i < 424 ? "," : "");
    EXPECT_EQ(faults("{\n\"para\":[" + para + "]}"), "");
    EXPECT_EQ(faults("{\n\"para\":[" + para + "," + named("\"more\"") + "]}"),
              "2: 426 parameters are more than the 425 that the library takes: it takes none\n");
}

TEST(TemplateCheck, FindsFileNamesThatTheLibraryCannotUse)
{
    const std::string longest = "/scratch/" + std::string(204, 'n');
    EXPECT_EQ(faults_in("check", longest, kGood), "");
    for (const std::string &name :
         {"/scratch/a\"b.json"s, "/scratch/a$b.json"s, "/scratch/a*.json"s, "/scratch/a\nb"s,
          "/scratch/a.json "s, longest + "n"}) {
        write_file(name, kGood);
        const Outcome outcome = run_tool({"check", name});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_TRUE(contains(outcome.output, ":1: the file's name: ")) << outcome.output;
    }
}

// File names come from anywhere: `bv-template check *` must not obey them.
TEST(TemplateCheck, EscapesControlCharactersInFileNames)
{
    const std::string name = "/etc/template/\x1b[2J.json";
    write_file(name, "{");
    const Outcome outcome = run_tool({"check", name, name + "2"});
    EXPECT_EQ(outcome.output.rfind(R"(/etc/template/\x1b[2J.json:1: )", 0), 0u) << outcome.output;
    EXPECT_EQ(outcome.errors.rfind(R"(bv-template: /etc/template/\x1b[2J.json2: )", 0), 0u)
        << outcome.errors;
}

TEST(TemplateCheck, ReportsEveryFaultOfEveryFile)
{
    write_file("/scratch/a.json", "{\"para\":[" + parameter("int", "2", "\"x\"") + "]}");
    write_file("/scratch/b.json", "[");
    EXPECT_EQ(run_line("check /scratch/a.json /scratch/b.json"),
              (Outcome{1,
                       "/scratch/a.json:1: len 2 does not fit type int, which takes 4\n"
                       "/scratch/a.json:1: value of \"x\": 'x' is not a number from -2147483648 to "
                       "2147483647, as type int needs\n"
                       "/scratch/b.json:1: not JSON: a value is expected\n",
                       ""}));
}

TEST(TemplateCheck, SaysWhichFileCannotBeRead)
{
    write_file("/scratch/large", "");
    ASSERT_EQ(truncate("/scratch/large", 17 * 1024 * 1024), 0);
    EXPECT_EQ(run_line("check /nowhere.json /scratch /scratch/large"),
              (Outcome{2, "",
                       "bv-template: /nowhere.json: No such file or directory\n"
                       "bv-template: /scratch: Is a directory\n"
                       "bv-template: /scratch/large: File too large\n"}));
}

TEST(TemplateUsage, PrintsHelpAndRefusesTheRest)
{
    expect_help("bv-template", 2);
    for (const char *line :
         {"", "check", "data", "header", "header a b", "nonsense a", "--nonsense"})
        expect_refused(words(line));
}

} // namespace
