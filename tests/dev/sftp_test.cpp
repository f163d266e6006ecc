// SPDX-License-Identifier: ISC
// File transfer: the command line as it reaches the script, and the script's status.

#include <bv/sftp.h>

#include "support/files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

// The script of these tests records its arguments, one a line, and exits as told.
void install_script(int status)
{
    write_file("/etc/sftp.sh", "#!/bin/sh\n: > /scratch/arguments\nfor a in \"$@\"; do"
                               " echo \"$a\" >> /scratch/arguments; done\nexit " +
                                   std::to_string(status) + "\n");
    chmod("/etc/sftp.sh", 0755);
}

std::string arguments()
{
    return read_file("/scratch/arguments");
}

bv_sftp_info transfer()
{
    bv_sftp_info info = {};
    strcpy(info.local_path, "/scratch/here.bin");
    strcpy(info.remote_path, "/srv/there.bin");
    strcpy(info.user, "backup");
    strcpy(info.host, "192.0.2.7");
    strcpy(info.password, "secret");
    info.port = 2222;
    return info;
}

TEST(Sftp, SourceComesFirst)
{
    install_script(0);
    bv_sftp_info info = transfer();
    EXPECT_EQ(bv_sftp_get(&info), 0);
    EXPECT_EQ(
        arguments(),
        "-p\nsecret\n-cmd\nget /srv/there.bin /scratch/here.bin\n-P\n2222\nbackup@192.0.2.7\n");
    EXPECT_EQ(bv_sftp_put(&info), 0);
    EXPECT_EQ(
        arguments(),
        "-p\nsecret\n-cmd\nput /scratch/here.bin /srv/there.bin\n-P\n2222\nbackup@192.0.2.7\n");
}

TEST(Sftp, StatusOfTheScriptOrTheShellIsReturned)
{
    bv_sftp_info info = transfer();
    EXPECT_EQ(WEXITSTATUS(bv_sftp_get(&info)), 127) << "there is no script";
    install_script(3);
    for (auto call : {bv_sftp_get, bv_sftp_put}) {
        const int status = call(&info);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 3);
    }
}

TEST(Sftp, PathWithABlankBecomesTwoWords)
{
    install_script(0);
    bv_sftp_info info = transfer();
    strcpy(info.local_path, "/scratch/two words");
    EXPECT_EQ(bv_sftp_put(&info), 0);
    EXPECT_NE(arguments().find("put /scratch/two words /srv/there.bin\n"), std::string::npos);
}

TEST(Sftp, PathWithAQuoteBreaksTheQuoting)
{
    install_script(0);
    bv_sftp_info info = transfer();
    strcpy(info.local_path, "/scratch/a\" b");
    EXPECT_NE(bv_sftp_put(&info), 0); // the shell is left with an open quote
    EXPECT_EQ(arguments(), "");
}

TEST(Sftp, CommandOf255CharactersIsRunAndALongerOneIsAnEmptyLine)
{
    install_script(0);
    bv_sftp_info info = transfer();
    memset(info.local_path, 'l', 127);
    memset(info.remote_path, 'r', 127);
    info.remote_path[0] = '/';
    info.local_path[127] = '\0';
    size_t fixed = strlen("/etc/sftp.sh -p secret -cmd \"get  \" -P 2222 backup@192.0.2.7");
    info.remote_path[255 - fixed - 127] = '\0';
    EXPECT_EQ(bv_sftp_get(&info), 0);
    EXPECT_NE(arguments(), "");

    remove("/scratch/arguments");
    info.remote_path[255 - fixed - 127] = 'r';
    info.remote_path[255 - fixed - 127 + 1] = '\0';
    EXPECT_EQ(bv_sftp_get(&info), 0) << "an empty line succeeds";
    EXPECT_EQ(arguments(), "") << "and the script was not run";
}

TEST(Sftp, WithoutATransferNothingIsRun)
{
    install_script(0);
    EXPECT_EQ(bv_sftp_get(nullptr), -1);
    EXPECT_EQ(bv_sftp_put(nullptr), -1);
    EXPECT_EQ(arguments(), "");
}

} // namespace
