#include <bv/os.h>

#include "support/capture.h"
#include "support/libc.h"
#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <vector>


namespace {

pid_t g_pid;                      // what getpid() says; 0 for the truth
bool g_run = true;                // whether system() does anything
int g_status;                     // its result when it does nothing
std::vector<std::string> g_lines; // what the shell was given

const std::string kLongest(255, 'x');
const std::string kTooLong(256, 'x');

// The number at the end of a capture's file name.
std::string capture_name(const std::string &line)
{
    return line.substr(line.rfind("/tmp/system"));
}

std::string last_line()
{
    return g_lines.empty() ? "(none)" : g_lines.back();
}

// A capture of a command that prints exactly this.
int32_t capture_text(const std::string &text, char *out, uint32_t outsize)
{
    write_file("/scratch/printed", text);
    int32_t result = bv_os_systemex(out, outsize, "cat /scratch/printed");
    remove("/scratch/printed");
    return result;
}

// Nothing of a shell function may outlive it.
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

extern "C" pid_t getpid(void) noexcept
{
    return g_pid != 0 ? g_pid : next_function<pid_t()>("getpid")();
}

extern "C" int system(const char *line)
{
    g_lines.push_back(line);
    return g_run ? next_function<int(const char *)>("system")(line) : g_status;
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

TEST_F(Shell, SystemnullThrowsOutputAndErrorsAway)
{
    CaptureStdout output;
    int saved = dup(STDERR_FILENO);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    int status = bv_os_systemnull("cat /etc/passwd /nowhere/%s", "x");
    dup2(saved, STDERR_FILENO);
    close(saved);
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

TEST_F(Shell, TheCommandStandsBetweenTheDoubleQuotesUnescaped)
{
    g_run = false;
    bv_os_sysprocess("echo \"%s\" $HOME", "a b");
    EXPECT_EQ(last_line(), "su -p BROVAN -c \"echo \"a b\" $HOME\"");
}

TEST_F(Shell, AShellThatCannotBeStartedIsReportedAsItIs)
{
    g_run = false;
    g_status = -1;
    EXPECT_EQ(bv_os_system("x"), -1);
    EXPECT_EQ(bv_os_systemnull("x"), -1);
    EXPECT_EQ(bv_os_systembk("x"), -1);
    EXPECT_EQ(bv_os_sysprocess("x"), -1);
}

TEST_F(Shell, ACommandOf255CharactersIsRunAsItIs)
{
    g_run = false;
    bv_os_system("%s", kLongest.c_str());
    EXPECT_EQ(last_line(), kLongest);
}

TEST_F(Shell, ACommandThatDoesNotFitIsRunAsAnEmptyOne)
{
    EXPECT_EQ(bv_os_system("%s", kTooLong.c_str()), 0);
    EXPECT_EQ(last_line(), "");
    EXPECT_EQ(bv_os_systemnull("%s", kTooLong.c_str()), 0);
    EXPECT_EQ(last_line(), " >/dev/null 2>&1");
    EXPECT_EQ(WEXITSTATUS(bv_os_systembk("%s", kTooLong.c_str())),
              WEXITSTATUS(system(" >/dev/null 2>&1 &")));
    EXPECT_EQ(g_lines[g_lines.size() - 2], " >/dev/null 2>&1 &");
}

TEST_F(Shell, WhatCannotBeFormattedIsRunAsAnEmptyCommandToo)
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
    remove("/scratch/bin/su");
    remove("/scratch/bin");

    g_run = false; // 18 characters besides the command
    bv_os_sysprocess("%s", std::string(237, 'x').c_str());
    EXPECT_EQ(last_line().size(), 255u);
}

TEST_F(Shell, OfSeveralCommandsOnlyTheLastIsThrownAwayOrLeftToRun)
{
    CaptureStdout output;
    EXPECT_EQ(bv_os_systemnull("echo first; echo last"), 0);
    EXPECT_EQ(bv_os_systemnull("(echo first; echo last)"), 0);
    EXPECT_EQ(bv_os_systembk("echo waited > /scratch/first; true"), 0);
    EXPECT_EQ(output.stop(), "first\n");
    EXPECT_EQ(read_file("/scratch/first"), "waited\n");
    remove("/scratch/first");
}

TEST_F(Shell, AWrappedLineThatDoesNotFitIsRunAsAnEmptyOne)
{
    // " >/dev/null 2>&1" takes 16 of the 255 characters.
    g_run = false;
    bv_os_systemnull("%s", std::string(239, 'x').c_str());
    EXPECT_EQ(last_line().size(), 255u);
    g_run = true;
    EXPECT_EQ(bv_os_systemnull("%s", std::string(240, 'x').c_str()), 0);
    EXPECT_EQ(last_line(), "");
    EXPECT_EQ(bv_os_systembk("%s", std::string(238, 'x').c_str()), 0);
    EXPECT_EQ(last_line(), "");
    EXPECT_EQ(bv_os_sysprocess("%s", std::string(238, 'x').c_str()), 0);
    EXPECT_EQ(last_line(), "");
}

TEST_F(Shell, SystemexTrimsWhatTheCommandPrints)
{
    char out[64] = "before";
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "printf '  %s \\n'", "eth0"), 0);
    EXPECT_STREQ(out, "eth0");
}

TEST_F(Shell, SystemexKeepsInnerNewlines)
{
    char out[64];
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "printf 'a\\nb\\n\\n'"), 0);
    EXPECT_STREQ(out, "a\nb");
}

TEST_F(Shell, OneCharacterIsOutputToo)
{
    char out[64];
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "echo 0"), 0);
    EXPECT_STREQ(out, "0");
}

TEST_F(Shell, SystemexDoesNotLookAtTheExitStatus)
{
    char out[64];
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "sh -c 'echo text; exit 9'"), 0);
    EXPECT_STREQ(out, "text");
}

TEST_F(Shell, SystemexOfACommandThatPrintsNothingIsEmpty)
{
    char out[64] = "before";
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "true"), BV_ERR_FAILED);
    EXPECT_STREQ(out, "");
    strcpy(out, "before");
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "printf ' \\n\\t '"), BV_ERR_FAILED);
    EXPECT_STREQ(out, "");
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
    EXPECT_EQ(bv_os_systemex(out, 0, "echo ran > /scratch/ran; echo x"), BV_ERR_FAILED);
    EXPECT_STREQ(out, "before");
    EXPECT_EQ(read_file("/scratch/ran"), "ran\n");
    EXPECT_EQ(bv_os_systemex(nullptr, 64, "echo again > /scratch/ran; echo x"), BV_ERR_FAILED);
    EXPECT_EQ(read_file("/scratch/ran"), "again\n");
    remove("/scratch/ran");
}

TEST_F(Shell, SystemexLeavesABufferOfMoreThanItsLimitAlone)
{
    char out[] = "before";
    EXPECT_EQ(bv_os_systemex(out, 0x80000000, "echo ran > /scratch/ran; echo x"), BV_ERR_FAILED);
    EXPECT_STREQ(out, "before");
    EXPECT_EQ(read_file("/scratch/ran"), "ran\n");
    remove("/scratch/ran");
    EXPECT_EQ(bv_os_systemex(out, 0x7fffffff, "echo x"), 0);
    EXPECT_STREQ(out, "x");
}

TEST_F(Shell, A257ByteBufferHoldsAnyCapture)
{
    char out[257];
    EXPECT_EQ(capture_text(std::string(300, 'x'), out, 256), BV_ERR_FAILED);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(capture_text(std::string(300, 'x'), out, 257), 0);
    EXPECT_EQ(strlen(out), 256u);
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
}

TEST_F(Shell, SystemexEndsAtTheFirstZeroByte)
{
    char out[64];
    EXPECT_EQ(capture_text(std::string("ab\0cd\n", 6), out, sizeof out), 0);
    EXPECT_STREQ(out, "ab");
    EXPECT_EQ(capture_text(std::string("\0cd\n", 4), out, sizeof out), BV_ERR_FAILED);
}

TEST_F(Shell, ACaptureThatCannotBeReadIsEmptyAndStillRemoved)
{
    char out[] = "before";
    fault_read.fail_always();
    int32_t result = bv_os_systemex(out, sizeof out, "echo x");
    fault_read.pass();
    EXPECT_EQ(result, BV_ERR_FAILED);
    EXPECT_STREQ(out, "");
}

TEST_F(Shell, OfSeveralCommandsOnlyTheLastIsCaptured)
{
    CaptureStdout output;
    char out[64];
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "echo one; echo two"), 0);
    EXPECT_EQ(output.stop(), "one\n");
    EXPECT_STREQ(out, "two");
}

TEST_F(Shell, ACaptureFileThatCannotBeOpenedLeavesTheBufferAlone)
{
    g_run = false; // no shell, no file
    char out[] = "before";
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "echo x"), BV_ERR_NO_FILE);
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "a", ":", "echo x"), BV_ERR_NO_FILE);
    EXPECT_STREQ(out, "before");
    EXPECT_EQ(g_lines.size(), 2u); // and nothing is removed
}

TEST_F(Shell, ACapturedCommandThatDoesNotFitCapturesNothing)
{
    char out[] = "before";
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "%s", kTooLong.c_str()), BV_ERR_FAILED);
    EXPECT_STREQ(out, "");
    strcpy(out, "before");
    // An empty command before a pipe is a syntax error, so there is no file at all.
    CaptureStdout quiet;
    int saved = dup(STDERR_FILENO);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "a", ":", "%s", kTooLong.c_str()), BV_ERR_NO_FILE);
    dup2(saved, STDERR_FILENO);
    close(saved);
    EXPECT_STREQ(out, "before");
}

TEST_F(Shell, ACapturedLineThatDoesNotFitCapturesNothing)
{
    char out[] = "before";
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "echo %s", std::string(240, 'x').c_str()),
              BV_ERR_NO_FILE);
    EXPECT_EQ(last_line(), "");
    EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "x", " ", "echo %s", std::string(230, 'x').c_str()),
              BV_ERR_NO_FILE);
    EXPECT_EQ(last_line(), "");
    EXPECT_STREQ(out, "before");
}

// So much of the 255 characters is the caller's.
TEST_F(Shell, ACaptureLeavesRoomForItsRedirectionAndFilter)
{
    g_run = false;
    g_pid = 65535;
    char out[8];
    bv_os_systemex(out, sizeof out, "%s", std::string(255 - 23, 'x').c_str());
    EXPECT_EQ(last_line().size(), 255u);
    bv_os_systemex(out, sizeof out, "%s", std::string(255 - 22, 'x').c_str());
    EXPECT_EQ(last_line(), "");
    bv_os_sysmatch(out, sizeof out, "pat", "-", "%s", std::string(255 - 58 - 4, 'x').c_str());
    EXPECT_EQ(last_line().size(), 255u);
    bv_os_sysmatch(out, sizeof out, "pat", "-", "%s", std::string(255 - 57 - 4, 'x').c_str());
    EXPECT_EQ(last_line(), "");
    g_pid = 7;
    bv_os_systemex(out, sizeof out, "%s", std::string(255 - 22, 'x').c_str());
    EXPECT_EQ(last_line().size(), 255u);
    bv_os_sysmatch(out, sizeof out, "pat", "-", "%s", std::string(255 - 55 - 4, 'x').c_str());
    EXPECT_EQ(last_line().size(), 255u);
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

TEST_F(Shell, TheCaptureExistsUnderItsNameWhileTheCommandRunsAndIsGoneAfterwards)
{
    char out[64];
    EXPECT_EQ(bv_os_systemex(out, sizeof out, "sh -c 'echo /tmp/system*'"), 0);
    char expected[64];
    snprintf(expected, sizeof expected, "/tmp/system_%04d_01", getpid() & 0xffff);
    EXPECT_STREQ(out, expected);
    EXPECT_EQ(last_line(), std::string("rm -f ") + expected + " >/dev/null 2>&1");
    EXPECT_FALSE(file_exists(expected));
}

TEST_F(Shell, CaptureFilesAreNamedInTwoWidths)
{
    g_run = false;
    char out[8];
    g_pid = 123;
    bv_os_systemex(out, sizeof out, "x");
    EXPECT_EQ(last_line(), "x > /tmp/system_0123_01");
    bv_os_sysmatch(out, sizeof out, "a", "b", "x");
    EXPECT_EQ(capture_name(last_line()), "/tmp/system_123_02");
    g_pid = 7;
    bv_os_systemex(out, sizeof out, "x");
    EXPECT_EQ(capture_name(last_line()), "/tmp/system_0007_03");
    bv_os_sysmatch(out, sizeof out, "a", "b", "x");
    EXPECT_EQ(capture_name(last_line()), "/tmp/system_07_04");
}

TEST_F(Shell, OnlyTheLow16BitsOfTheProcessIdCount)
{
    g_run = false;
    char out[8];
    g_pid = 70000;
    bv_os_systemex(out, sizeof out, "x");
    EXPECT_EQ(capture_name(last_line()), "/tmp/system_4464_01");
    bv_os_sysmatch(out, sizeof out, "a", "b", "x");
    EXPECT_EQ(capture_name(last_line()), "/tmp/system_4464_02");
    g_pid = 65535;
    bv_os_systemex(out, sizeof out, "x");
    EXPECT_EQ(capture_name(last_line()), "/tmp/system_65535_03");
}

TEST_F(Shell, TheSequenceStartsAtOneIsSharedAndWrapsThroughZero)
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
