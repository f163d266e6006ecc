// What the tests of the tools have in common: a tool's outcome as one value, refused command lines,
// and lists of faults.
#ifndef BV_TESTS_TOOLS_TOOL_H
#define BV_TESTS_TOOLS_TOOL_H

#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <ostream>
#include <sstream>

using Words = std::vector<std::string>;

inline const std::string kExamples = BV_TEST_SOURCE_DIR "/../examples/";

inline bool operator==(const Outcome &a, const Outcome &b)
{
    return a.status == b.status && a.output == b.output && a.errors == b.errors;
}

inline std::ostream &operator<<(std::ostream &to, const Outcome &outcome)
{
    return to << "status " << outcome.status << "\noutput: " << outcome.output
              << "\nerrors: " << outcome.errors;
}

// A command line without quotes, split at its blanks.
inline Words words(const std::string &line)
{
    std::istringstream from(line);
    Words all;
    for (std::string word; from >> word;)
        all.push_back(word);
    return all;
}

inline Outcome run_line(const std::string &line)
{
    return run_tool(words(line));
}

inline bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// A command line is wrong usage, which the tool says before it does anything. It says `why` if that
// is given.
inline void expect_refused(const Words &line, const std::string &why = "")
{
    const Outcome outcome = run_tool(line);
    SCOPED_TRACE(testing::PrintToString(line));
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(contains(outcome.errors, why)) << outcome.errors;
    EXPECT_TRUE(contains(outcome.errors, "--help")) << outcome.errors;
}

// --help goes to standard output; a full disk there is a failure with this status.
inline void expect_help(const std::string &tool, int failed)
{
    const Outcome help = run_line("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output.rfind("usage: " + tool, 0), 0u);
    EXPECT_EQ(help.errors, "");
    EXPECT_EQ(run({"/bin/sh", "-c", "'" BV_TOOL "' --help > /dev/full"}).status, failed);
}

// What bv-template says about a file, without the file's name before each line.
inline std::string faults_in(const char *verb, const std::string &path, const std::string &content)
{
    write_file(path, content);
    const Outcome outcome = run_tool({verb, path});
    EXPECT_EQ(outcome.status, outcome.output.empty() ? 0 : 1) << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    std::istringstream lines(outcome.output);
    std::string text;
    for (std::string line; std::getline(lines, line); text += line + "\n")
        if (line.rfind(path + ":", 0) == 0)
            line.erase(0, path.size() + 1);
    return text;
}

// Checks the cases of a file. Each is "== TITLE", the lines of an input, "--", and what is said.
inline void expect_cases(const char *verb, const std::string &path, const std::string &cases)
{
    const std::string text = read_file(BV_TEST_SOURCE_DIR "/tools/data/" + cases);
    EXPECT_FALSE(text.empty()) << cases;
    for (size_t at = 0, end; at < text.size(); at = end) {
        const size_t next = text.find("\n== ", at);
        end = next == std::string::npos ? text.size() : next + 1;
        const size_t input = text.find('\n', at) + 1;
        const size_t mark = text.find("\n--\n", at); // for an empty input the title's newline
        SCOPED_TRACE(text.substr(at, input - at));
        EXPECT_EQ(faults_in(verb, path, mark < input ? "" : text.substr(input, mark - input)),
                  text.substr(mark + 4, end - mark - 4));
    }
}

#endif
