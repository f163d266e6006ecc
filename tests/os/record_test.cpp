/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/child.h"
#include "support/files.h"
#include "support/libc.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr char kRecord[] = "/tmp/remoteprint";
std::vector<std::string> g_lines;
int g_failure; // result of every system() in place of running it; 0 runs it

} // namespace

BV_INTERPOSE(system, "system", int, (const char *line))
{
    g_lines.push_back(line);
    return g_failure != 0 ? g_failure : BV_NEXT(system)(line);
}

TEST(Record, AppendsWithoutNewlinesAndCounts)
{
    EXPECT_EQ(bv_os_record("%s=%d", "a", 1), 3);
    EXPECT_EQ(bv_os_record("%s", "\n"), 1);
    EXPECT_EQ(bv_os_record("%s", ""), 0);
    EXPECT_EQ(bv_os_record("end"), 3);
    EXPECT_EQ(read_file(kRecord), "a=1\nend");
}

TEST(Record, IsNotLimitedToTheLengthOfAShellLine)
{
    std::string text(5000, 'x');
    EXPECT_EQ(bv_os_record("%s", text.c_str()), 5000);
    EXPECT_EQ(read_file(kRecord), text);
}

TEST(Record, InitRemovesTheRecord)
{
    bv_os_record("old");
    EXPECT_EQ(bv_os_record_init(), 0);
    EXPECT_FALSE(file_exists(kRecord));
    EXPECT_EQ(g_lines, std::vector<std::string>{"rm -f /tmp/remoteprint >/dev/null 2>&1"});
    EXPECT_EQ(bv_os_record_init(), 0); // also when there is none
    bv_os_record("new");
    EXPECT_EQ(read_file(kRecord), "new");
}

TEST(Record, InitReportsTheShellsStatusAsItIs)
{
    for (int status : {-1, 0x100, 0x7f00, 9}) { // no shell; exit codes 1 and 127; killed
        g_failure = status;
        EXPECT_EQ(bv_os_record_init(), status);
    }
}

TEST(Record, FileThatCannotBeOpenedIsReported)
{
    fault_fopen.fail_next(1, EACCES);
    EXPECT_EQ(bv_os_record("x"), BV_ERR_RECORD);
    EXPECT_FALSE(file_exists(kRecord));
}

TEST(Record, FormatThatCannotBeUsedIsANegativeNumber)
{
    const wchar_t no_character[] = {0x7fffffff, 0};
    EXPECT_LT(bv_os_record("%ls", no_character), 0);
    const char *volatile no_format = nullptr;
    remove(kRecord);
    EXPECT_EQ(bv_os_record(no_format, 1), -1);
    EXPECT_FALSE(file_exists(kRecord));
}

// Writers of one letter each, all let loose at once.
TEST(Record, RecordsOfSeveralProcessesStayWhole)
{
    const int kWriters = 4, kEach = 500;
    const size_t kLength = 900;
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    std::vector<std::unique_ptr<Child>> writers;
    for (int writer = 0; writer < kWriters; ++writer)
        writers.push_back(std::make_unique<Child>([&] {
            const std::string text(kLength, static_cast<char>('a' + writer));
            close(gate[1]);
            char none;
            const bool open = read(gate[0], &none, 1) == 0;
            for (int i = 0; open && i < kEach; ++i)
                bv_os_record("%s %d\n", text.c_str(), i);
            return 0;
        }));
    close(gate[1]);
    for (const auto &writer : writers)
        EXPECT_EQ(writer->wait(), 0);

    std::istringstream lines(read_file(kRecord));
    int next[kWriters] = {};
    std::string line;
    for (int count = 0; count < kWriters * kEach; ++count) {
        ASSERT_TRUE(std::getline(lines, line)) << count;
        const int writer = line[0] - 'a';
        ASSERT_TRUE(writer >= 0 && writer < kWriters) << line;
        ASSERT_EQ(line, std::string(kLength, line[0]) + " " + std::to_string(next[writer]++));
    }
    EXPECT_FALSE(std::getline(lines, line));
}

TEST(RecordOutput, AppendsTheRecordToTheTerminalAndKeepsIt)
{
    bv_os_record("line\n");
    write_file("/tmp/tty", " /scratch/terminal\n");
    write_file("/scratch/terminal", "before\n");
    bv_os_record_output();
    EXPECT_EQ(read_file("/scratch/terminal"), "before\nline\n");
    EXPECT_EQ(read_file(kRecord), "line\n");
    EXPECT_EQ(g_lines.back(), "cat /tmp/remoteprint >> /scratch/terminal");
}

TEST(RecordOutput, DoesNothingWithoutARecord)
{
    write_file("/tmp/tty", "/scratch/terminal\n");
    bv_os_record_output();
    EXPECT_TRUE(g_lines.empty());
    EXPECT_FALSE(file_exists("/scratch/terminal"));
}

TEST(RecordOutput, WithoutATerminalNameTheShellComplains)
{
    bv_os_record("line");
    bv_os_record_output();
    EXPECT_EQ(g_lines.back(), "cat /tmp/remoteprint >> ");
    EXPECT_EQ(read_file(kRecord), "line");
}

// Leaves something other than zeros on the stack, where the next function has its variables.
static __attribute__((noinline)) void dirty_stack()
{
    char area[4096];
    memset(area, 'x', sizeof area);
    __asm__ volatile("" : : "r"(area) : "memory");
}

TEST(RecordOutput, NameThatCannotBeCapturedIsEmpty)
{
    bv_os_record("line");
    write_file("/tmp/tty", "/scratch/terminal\n");
    g_failure = -1; // no shell, and so no capture
    dirty_stack();
    bv_os_record_output();
    EXPECT_EQ(g_lines.back(), "cat /tmp/remoteprint >> ");
}

TEST(RecordOutput, TerminalNameHas31CharactersAtMost)
{
    std::string name = "/scratch/" + std::string(22, 't');
    bv_os_record("line");
    write_file("/tmp/tty", name);
    bv_os_record_output();
    EXPECT_EQ(read_file(name), "line");

    write_file("/tmp/tty", name + "t");
    bv_os_record_output();
    EXPECT_EQ(g_lines.back(), "cat /tmp/remoteprint >> ");
    EXPECT_FALSE(file_exists(name + "t"));
}

TEST(Filesize, TellsTheSizeCutTo32BitsAndMinusOneForAMissingFile)
{
    EXPECT_EQ(bv_get_filesize("/scratch/missing"), -1);
    EXPECT_EQ(bv_get_filesize(nullptr), -1);
    write_file("/scratch/file", "");
    const std::pair<off_t, int32_t> sizes[] = {
        {0, 0}, {5, 5}, {0x80000000, INT32_MIN}, {0x100000005, 5}};
    for (const auto &[size, told] : sizes) {
        ASSERT_EQ(truncate("/scratch/file", size), 0);
        EXPECT_EQ(bv_get_filesize("/scratch/file"), told) << size;
    }
}
