// SPDX-License-Identifier: ISC
// The shell functions on a gateway, where su, grep and awk are those of busybox.

#include "support/files.h"
#include "support/process.h"

#include <bv/os.h>

#include <gtest/gtest.h>

#include <sys/wait.h>

namespace {

TEST(GatewayShell, ReturnsTheWaitStatus)
{
    EXPECT_EQ(WEXITSTATUS(bv_os_system("exit %d", 7)), 7);
    EXPECT_EQ(WEXITSTATUS(bv_os_systemnull("echo hidden; exit %d", 3)), 3);
}

TEST(GatewayShell, RunsInTheBackground)
{
    EXPECT_EQ(bv_os_systembk("(sleep 1; touch /scratch/%s)", "background"), 0);
    EXPECT_FALSE(file_exists("/scratch/background"));
    EXPECT_TRUE(eventually([] { return file_exists("/scratch/background"); }));
}

TEST(GatewayShell, CapturesOutputTrimmed)
{
    char out[64] = {};
    EXPECT_EQ(bv_os_systemex(out, sizeof(out), "(cat /proc/sys/kernel/ostype; echo)"), 0);
    EXPECT_STREQ(out, "Linux");
    EXPECT_EQ(bv_os_systemex(out, sizeof(out), "%s", "uname -m"), 0);
    EXPECT_STREQ(out, "mips");
}

TEST(GatewayShell, MatchGivesTheSecondFieldOfTheLine)
{
    write_file("/scratch/values", "first=1\nsecond=2\nthird=3\n");
    char out[64] = {};
    EXPECT_EQ(bv_os_sysmatch(out, sizeof(out), "second", "=", "cat /scratch/%s", "values"), 0);
    EXPECT_STREQ(out, "2");
}

TEST(GatewayShell, ReadsAPipe)
{
    char out[64] = {};
    bv_get_pipe("echo one line", out, sizeof(out));
    EXPECT_EQ(std::string(out).substr(0, 8), "one line");
}

TEST(GatewayShell, RunsAsTheServiceUser)
{
    ASSERT_EQ(getuid(), 0u);
    EXPECT_EQ(bv_os_sysprocess("id -un > /scratch/who; id -u >> /scratch/who; exit 4") >> 8, 4);
    EXPECT_EQ(read_file("/scratch/who"), "BROVAN\n1000\n");
}

TEST(GatewayShell, LeavesNoCaptureFile)
{
    char out[64] = {};
    bv_os_systemex(out, sizeof(out), "echo x");
    for (const std::string &name : list_folder("/tmp"))
        EXPECT_EQ(name.find("system"), std::string::npos) << name;
}

} // namespace
