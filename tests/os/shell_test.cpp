/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/capture_stdout.h"
#include "support/files.h"
#include "support/libc.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <utility>
#include <vector>

namespace {

pid_t g_pid;                      // what getpid() says; 0 for the truth
bool g_run = true;                // whether system() does anything
int g_status;                     // its result when it does nothing
std::vector<std::string> g_lines; // what the shell was given

const std::string kTooLong(256, 'x'); // for a command line of 255 characters

// The number at the end of a capture's file name.
std::string capture_name(const std::string &line)
{
    return line.substr(line.rfind("/tmp/system"));
}

std::string last_line()
{
    return g_lines.empty() ? "(none)" : g_lines.back();
}

std::string x(size_t count)
{
    return std::string(count, 'x');
}

// Standard output and error as text.
struct CaptureBoth : CaptureStdout {
    CaptureBoth() : saved(dup(STDERR_FILENO)) { dup2(STDOUT_FILENO, STDERR_FILENO); }
    ~CaptureBoth()
    {
        dup2(saved, STDERR_FILENO);
        close(saved);
    }
    int saved;
};

// A capture of a command that prints exactly this.
int32_t capture_text(const std::string &text, char *out, uint32_t outsize)
{
    write_file("/scratch/printed", text);
    int32_t result = bv_os_systemex(out, outsize, "cat /scratch/printed");
    remove("/scratch/printed");
    return result;
}

// Shell functions leave no descriptor, file or child.
class Shell : public testing::Test {
protected:
    void SetUp() override
    {
        g_lines.clear();
        descriptors_ = open_descriptors();
        files_ = list_folder("/tmp");
    }
    void TearDown() override
    {
        g_pid = 0;
        EXPECT_EQ(open_descriptors(), descriptors_);
        EXPECT_EQ(list_folder("/tmp"), files_);
        EXPECT_TRUE(child_processes().empty());
    }

    std::vector<int> descriptors_;
    std::vector<std::string> files_;
};

} // namespace

BV_INTERPOSE(getpid, "getpid", pid_t, ())
{
    return g_pid != 0 ? g_pid : BV_NEXT(getpid)();
}

BV_INTERPOSE(system, "system", int, (const char *line))
{
    g_lines.push_back(line);
    return g_run ? BV_NEXT(system)(line) : g_status;
}

TEST_F(Shell, SystemRunsTheCommandItselfAndReturnsItsWaitStatus)
{
    CaptureStdout output;
    int status = bv_os_system("echo %s %d; exit 3", "hello", 7);
    EXPECT_EQ(output.stop(), "hello 7\n");
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(g_lines, std::vector<std::string>{"echo hello 7; exit 3"});
}

TEST_F(Shell, SystemnullDiscardsOutputAndErrors)
{
    CaptureBoth output;
    int status = bv_os_systemnull("cat /etc/passwd /nowhere/%s", "x");
    EXPECT_EQ(output.stop(), "");
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(last_line(), "cat /etc/passwd /nowhere/x >/dev/null 2>&1");
}

TEST_F(Shell, SystembkReturnsAtOnceAndLeavesNoZombie)
{
    ASSERT_EQ(mkfifo("/scratch/gate", 0600), 0);
    int status = bv_os_systembk("sh -c 'cat /scratch/gate; echo done > /scratch/%s'", "result");
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(file_exists("/scratch/result")); // it waits at the gate, and we do not

    write_file("/scratch/gate", "go");
    EXPECT_TRUE(eventually([] { return read_file("/scratch/result") == "done\n"; }));
    EXPECT_EQ(last_line(),
              "sh -c 'cat /scratch/gate; echo done > /scratch/result' >/dev/null 2>&1 &");
    remove("/scratch/gate");
    remove("/scratch/result");
}

TEST_F(Shell, SysprocessRunsAsTheServiceUserWithTheCallersEnvironment)
{
    setenv("KEPT", "from the caller", 1);
    int status = bv_os_sysprocess("id -un > /scratch/%s; printenv KEPT > /scratch/kept", "who");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(last_line(),
              "su -p BROVAN -c \"id -un > /scratch/who; printenv KEPT > /scratch/kept\"");
    EXPECT_EQ(read_file("/scratch/kept"), "from the caller\n");
    if (file_exists(
            "/scratch/su.arguments")) { // no right to change users: a stand-in recorded this
        EXPECT_EQ(read_file("/scratch/su.arguments"),
                  "-p\nBROVAN\n-c\nid -un > /scratch/who; printenv KEPT > /scratch/kept\n");
        remove("/scratch/su.arguments");
    } else {
        EXPECT_EQ(read_file("/scratch/who"), "BROVAN\n");
    }
    remove("/scratch/who");
    remove("/scratch/kept");
}

TEST_F(Shell, CommandIsPutBetweenTheDoubleQuotesUnescaped)
{
    g_run = false;
    bv_os_sysprocess("echo \"%s\" $HOME", "a b");
    EXPECT_EQ(last_line(), "su -p BROVAN -c \"echo \"a b\" $HOME\"");
}

TEST_F(Shell, StatusOfAShellThatCannotBeStartedIsReturned)
{
    g_run = false;
    g_status = -1;
    for (auto run : {bv_os_system, bv_os_systemnull, bv_os_systembk, bv_os_sysprocess})
        EXPECT_EQ(run("x"), -1);
}

TEST_F(Shell, CommandThatDoesNotFitIsRunAsAnEmptyOne)
{
    EXPECT_EQ(bv_os_system("%s", kTooLong.c_str()), 0);
    EXPECT_EQ(last_line(), "");
    EXPECT_EQ(bv_os_systemnull("%s", kTooLong.c_str()), 0);
    EXPECT_EQ(last_line(), " >/dev/null 2>&1");
    EXPECT_EQ(WEXITSTATUS(bv_os_systembk("%s", kTooLong.c_str())),
              WEXITSTATUS(system(" >/dev/null 2>&1 &")));
    EXPECT_EQ(g_lines[g_lines.size() - 2], " >/dev/null 2>&1 &");
}

// Each function adds to the command; the longest line has 255 characters, and a longer one is run
// as an empty one.
TEST_F(Shell, LineThatDoesNotFitIsRunAsAnEmptyOne)
{
    const struct {
        int32_t (*run)(const char *, ...);
        size_t added;
    } rows[] = {
        {bv_os_system, 0}, {bv_os_systemnull, 16}, {bv_os_systembk, 18}, {bv_os_sysprocess, 18}};
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        g_run = false;
        row.run("%s", x(255 - row.added).c_str());
        EXPECT_EQ(last_line().size(), 255u);
        g_run = true;
        if (row.added > 0) {
            EXPECT_EQ(row.run("%s", x(256 - row.added).c_str()), 0);
            EXPECT_EQ(last_line(), "");
        }
    }
}

TEST_F(Shell, FormatThatCannotBeUsedIsRunAsAnEmptyCommand)
{
    const char *volatile none = nullptr;
    for (const char *format : {none, "%n", "touch /scratch/ran; %a"}) {
        EXPECT_EQ(bv_os_system(format, none), 0);
        EXPECT_EQ(last_line(), "");
        EXPECT_EQ(bv_os_systemnull(format, none), 0);
        EXPECT_EQ(bv_os_systembk(format, none), 0);
        EXPECT_EQ(last_line(), " >/dev/null 2>&1 &");
        char out[8] = "before";
        EXPECT_EQ(bv_os_systemex(out, sizeof out, format, none), BV_ERR_FAILED);
        EXPECT_STREQ(out, "");
    }
}

TEST_F(Shell, SysprocessRunsSuEvenForACommandThatDoesNotFit)
{
    mkdir("/scratch/bin", 0755);
    write_file("/scratch/bin/su", "#!/bin/sh\n[ \"$*\" = '-p BROVAN -c ' ] && exit 7\n");
    chmod("/scratch/bin/su", 0755);
    const std::string path = getenv("PATH");
    setenv("PATH", ("/scratch/bin:" + path).c_str(), 1);
    EXPECT_EQ(WEXITSTATUS(bv_os_sysprocess("%s", kTooLong.c_str())), 7);
    EXPECT_EQ(last_line(), "su -p BROVAN -c \"\"");
    setenv("PATH", path.c_str(), 1);
}

TEST_F(Shell, OnlyTheLastOfSeveralCommandsIsSilencedOrRunsInTheBackground)
{
    CaptureStdout output;
    EXPECT_EQ(bv_os_systemnull("echo first; echo last"), 0);
    EXPECT_EQ(bv_os_systemnull("(echo first; echo last)"), 0);
    EXPECT_EQ(bv_os_systembk("echo waited > /scratch/first; true"), 0);
    EXPECT_EQ(output.stop(), "first\n");
    EXPECT_EQ(read_file("/scratch/first"), "waited\n");
    remove("/scratch/first");
}

TEST_F(Shell, SystemexTrimsWhatTheCommandPrintsWhateverItsExitStatus)
{
    const struct {
        const char *command;
        const char *output; // empty: BV_ERR_FAILED
    } rows[] = {{"printf '  eth0 \\n'", "eth0"},
                {"printf 'a\\nb\\n\\n'", "a\nb"},
                {"echo 0", "0"},
                {"sh -c 'echo text; exit 9'", "text"},
                {"true", ""},
                {"printf ' \\n\\t '", ""},
                {"printf 'ab\\0cd\\n'", "ab"},
                {"printf '\\0cd\\n'", ""}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.command);
        char out[64] = "before";
        EXPECT_EQ(bv_os_systemex(out, sizeof out, "%s", row.command),
                  row.output[0] != '\0' ? 0 : static_cast<int32_t>(BV_ERR_FAILED));
        EXPECT_STREQ(out, row.output);
    }
}

TEST_F(Shell, SystemexEmptiesABufferThatIsTooSmall)
{
    char out[] = "before";
    EXPECT_EQ(bv_os_systemex(out, 4, "echo abcd"), BV_ERR_FAILED);
    EXPECT_EQ(out[0], '\0');
    EXPECT_STREQ(out + 4, "re"); // and nothing past its capacity
    EXPECT_EQ(bv_os_systemex(out, 5, "echo abcd"), 0);
    EXPECT_STREQ(out, "abcd");
}

TEST_F(Shell, SystemexWorksWithoutAStandardInput)
{
    WithoutStdin closed;
    char out[8] = "";
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "echo text"), 0);
    EXPECT_STREQ(out, "text");
}

TEST_F(Shell, SystemexRunsTheCommandEvenWithoutAPlaceForItsOutput)
{
    char out[] = "before";
    const std::pair<char *, uint32_t> rows[] = {{out, 0}, {nullptr, 64}, {out, 0x80000000}};
    for (const auto &[place, size] : rows) {
        EXPECT_EQ(bv_os_systemex(place, size, "echo ran > /scratch/ran; echo x"), BV_ERR_FAILED);
        EXPECT_STREQ(out, "before");
        EXPECT_EQ(read_file("/scratch/ran"), "ran\n");
        remove("/scratch/ran");
    }
    EXPECT_EQ(bv_os_systemex(out, 0x7fffffff, "echo x"), 0);
    EXPECT_STREQ(out, "x");
}

TEST_F(Shell, SystemexReads256BytesAtMost)
{
    char out[512];
    for (size_t length : {255, 256, 257, 5000}) {
        SCOPED_TRACE(length);
        std::string printed;
        for (size_t i = 0; i < length; ++i)
            printed += static_cast<char>('a' + i % 26);
        EXPECT_EQ(capture_text(printed, out, sizeof out), 0);
        EXPECT_EQ(std::string(out), printed.substr(0, 256));
    }
    EXPECT_EQ(capture_text(x(300), out, 256), BV_ERR_FAILED);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(capture_text(x(300), out, 257), 0) << "a buffer of 257 bytes holds any capture";
}

TEST_F(Shell, CaptureThatCannotBeReadIsEmptyAndStillRemoved)
{
    char out[] = "before";
    fault_read.fail_always();
    int32_t result = bv_os_systemex(out, sizeof out, "echo x");
    fault_read.pass();
    EXPECT_EQ(result, BV_ERR_FAILED);
    EXPECT_STREQ(out, "");
}

TEST_F(Shell, OnlyTheLastOfSeveralCommandsIsCaptured)
{
    CaptureStdout output;
    char out[64];
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "echo one; echo two"), 0);
    EXPECT_EQ(output.stop(), "one\n");
    EXPECT_STREQ(out, "two");
}

TEST_F(Shell, CaptureFileThatCannotBeOpenedLeavesTheBufferAlone)
{
    g_run = false; // no shell, no file
    char out[] = "before";
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "echo x"), BV_ERR_NO_FILE);
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "a", ":", "echo x"), BV_ERR_NO_FILE);
    EXPECT_STREQ(out, "before");
    EXPECT_EQ(g_lines.size(), 2u); // and nothing is removed
}

TEST_F(Shell, CapturedCommandThatDoesNotFitCapturesNothing)
{
    char out[] = "before";
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "%s", kTooLong.c_str()), BV_ERR_FAILED);
    EXPECT_STREQ(out, "");
    strcpy(out, "before");
    // An empty command before a pipe is a syntax error, so there is no file at all.
    CaptureBoth quiet;
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "a", ":", "%s", kTooLong.c_str()), BV_ERR_NO_FILE);
    // Nor is there one where the whole line does not fit.
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "%s", x(250).c_str()), BV_ERR_NO_FILE);
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "x", " ", "%s", x(250).c_str()), BV_ERR_NO_FILE);
    EXPECT_STREQ(out, "before");
}

// Redirection and filter take the rest of the 255 characters, and so does a longer process id.
TEST_F(Shell, CaptureLeavesRoomForItsRedirectionAndFilter)
{
    g_run = false;
    char out[8];
    const struct {
        pid_t pid;
        size_t redirection, filter; // the filter without pattern and delimiter
    } rows[] = {{65535, 23, 58}, {7, 22, 55}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pid);
        g_pid = row.pid;
        for (size_t over : {0, 1}) {
            const size_t length = over == 0 ? 255u : 0u;
            bv_os_systemex(out, sizeof out, "%s", x(255 - row.redirection + over).c_str());
            EXPECT_EQ(last_line().size(), length);
            bv_os_sysmatch(out, sizeof out, "pat", "-", "%s",
                           x(255 - row.filter - 4 + over).c_str());
            EXPECT_EQ(last_line().size(), length);
        }
    }
}

TEST_F(Shell, SysmatchKeepsTheSecondFieldOfMatchingLines)
{
    write_file("/scratch/list",
               "mtd0: 00040000 \"boot\"\nmtd1: 00010000 \"env\"\nmtd2: x \"env2\"\n");
    char out[64];
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "boot", " ", "cat /scratch/%s", "list"), 0);
    EXPECT_STREQ(out, "00040000");
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "env", "\"", "cat /scratch/list"), 0);
    EXPECT_STREQ(out, "env\nenv2");
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "wlan", ":", "cat /scratch/list"), BV_ERR_FAILED);
    EXPECT_STREQ(out, "");
    strcpy(out, "before");
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "boot", "#", "cat /scratch/list"), BV_ERR_FAILED);
    EXPECT_STREQ(out, "") << "no second field";
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, nullptr, nullptr, "echo 'x(null)y'"), 0);
    EXPECT_STREQ(out, ")y") << "awk's parentheses are not the text's";
    remove("/scratch/list");
}

TEST_F(Shell, SysmatchRunsItsFilterLine)
{
    g_run = false;
    g_pid = 123;
    char out[8];
    bv_os_sysmatch(out, sizeof out, "pat", "-", "cmd %d", 5);
    EXPECT_EQ(last_line(), "cmd 5 | grep 'pat' | awk -F '-' '{print $2}' > /tmp/system_123_01");
}

TEST_F(Shell, CaptureExistsUnderItsNameWhileTheCommandRunsAndIsGoneAfterwards)
{
    char out[64];
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "sh -c 'echo /tmp/system*'"), 0);
    char expected[64];
    snprintf(expected, sizeof expected, "/tmp/system_%04d_01", getpid() & 0xffff);
    EXPECT_STREQ(out, expected);
    EXPECT_EQ(last_line(), std::string("rm -f ") + expected + " >/dev/null 2>&1");
    EXPECT_FALSE(file_exists(expected));
}

TEST_F(Shell, CaptureFilesAreNamedByTheLow16BitsOfTheProcessIdInTwoWidths)
{
    g_run = false;
    char out[8];
    const struct {
        pid_t pid;
        const char *capture, *match;
    } rows[] = {{123, "0123_01", "123_02"},
                {7, "0007_03", "07_04"},
                {70000, "4464_05", "4464_06"},
                {65535, "65535_07", "65535_08"}};
    for (const auto &row : rows) {
        g_pid = row.pid;
        bv_os_systemex(out, sizeof out, "x");
        EXPECT_EQ(last_line(), std::string("x > /tmp/system_") + row.capture);
        bv_os_sysmatch(out, sizeof out, "a", "b", "x");
        EXPECT_EQ(capture_name(last_line()), std::string("/tmp/system_") + row.match);
    }
}

TEST_F(Shell, SequenceStartsAtOneIsSharedAndWrapsThroughZero)
{
    g_run = false; // a failed capture counts as well
    g_pid = 1;
    char out[8];
    for (int call = 1; call <= 600; ++call) {
        if (call % 3 == 0)
            bv_os_sysmatch(out, sizeof out, "a", "b", "x");
        else
            bv_os_systemex(out, sizeof out, "x");
        char expected[32];
        snprintf(expected, sizeof expected,
                 call % 3 == 0 ? "/tmp/system_01_%02d" : "/tmp/system_0001_%02d", call % 256);
        ASSERT_EQ(capture_name(last_line()), expected) << call;
    }
}

TEST_F(Shell, GetPipeReadsTheFirstLineWithItsNewline)
{
    char out[] = "................";
    bv_get_pipe("echo one; echo two", out, sizeof out);
    EXPECT_STREQ(out, "one\n");
    bv_get_pipe("printf 'no newline'", out, sizeof out);
    EXPECT_STREQ(out, "no newline");
}

TEST_F(Shell, GetPipeTakesWhatFits)
{
    char out[] = "........";
    bv_get_pipe("echo abcdef", out, 4);
    EXPECT_EQ(std::string(out, 8), std::string("abc\0....", 8));
    bv_get_pipe("echo xyz", out, 0);
    EXPECT_STREQ(out, "abc");
    bv_get_pipe("echo xyz", out, 1); // room for the terminator
    EXPECT_EQ(std::string(out, 3), std::string("\0bc", 3));
    bv_get_pipe("echo xyz", nullptr, 8);
    bv_get_pipe("echo xyz", out, 0xffffffff); // more than fgets() can be told
    EXPECT_STREQ(out, "xyz\n");
}

TEST_F(Shell, GetPipeReadsOnAfterSignals)
{
    static volatile sig_atomic_t signals;
    struct sigaction action = {}; // without SA_RESTART
    action.sa_handler = [](int) { signals = signals + 1; };
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    char out[32] = "before";
    bv_get_pipe("sleep 0.1; printf ab; sleep 0.1; echo cd; echo ef", out, sizeof out);
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_STREQ(out, "abcd\n");
    EXPECT_GT(signals, 0);
}

TEST_F(Shell, GetPipeLeavesTheBufferAloneWhenThereIsNothing)
{
    char out[] = "before";
    bv_get_pipe("true", out, sizeof out);
    EXPECT_STREQ(out, "before");
    bv_get_pipe("true", out, 1);
    EXPECT_STREQ(out, "") << "room for the terminator only";
    strcpy(out, "before");
    fault_popen.fail_next(1, EMFILE);
    bv_get_pipe("echo x", out, sizeof out);
    EXPECT_EQ(fault_popen.calls(), 1);
    EXPECT_STREQ(out, "before");
    bv_get_pipe(nullptr, out, sizeof out);
    EXPECT_STREQ(out, "before");
}
