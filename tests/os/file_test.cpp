/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

mode_t mode_of(const char *path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path, &st), 0);
    return st.st_mode & 07777;
}

} // namespace

TEST(Streams, ReadAndWriteWholeItems)
{
    FILE *file = bv_os_fopen("/scratch/stream", "w");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(bv_os_fwrite("abcdefgh", 2, 4, file), 4u);
    EXPECT_EQ(bv_os_fclose(file), 0);

    file = bv_os_fopen("/scratch/stream", "r");
    char buffer[16] = {};
    EXPECT_EQ(bv_os_fread(buffer, 3, 5, file), 2u); // two whole threes and a rest
    EXPECT_NE(bv_os_feof(file), 0);
    EXPECT_EQ(bv_os_fseek(file, -3, SEEK_END), 0);
    EXPECT_EQ(bv_os_fgets(buffer, 3, file), buffer);
    EXPECT_STREQ(buffer, "fg");
    EXPECT_EQ(bv_os_fclose(file), 0);
}

TEST(Streams, PopenGivesTheCommandsOutputAndPcloseItsStatus)
{
    FILE *stream = bv_os_popen("echo text; exit 4", "r");
    ASSERT_NE(stream, nullptr);
    char line[16];
    EXPECT_EQ(bv_os_fgets(line, sizeof line, stream), line);
    EXPECT_STREQ(line, "text\n");
    EXPECT_EQ(WEXITSTATUS(bv_os_pclose(stream)), 4);
    EXPECT_TRUE(child_processes().empty());
}

TEST(Files, OpenCreatesWithItsModeAndOpensWithoutOne)
{
    umask(0);
    for (auto open_file : {bv_os_open, bv_os_dev_open}) {
        int fd = open_file("/scratch/created", O_CREAT | O_EXCL | O_WRONLY, 0640);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(bv_os_write(fd, "12345", 5), 5);
        EXPECT_EQ(bv_os_close(fd), 0);
        EXPECT_EQ(mode_of("/scratch/created"), 0640u);

        fd = open_file("/scratch/created", O_RDONLY);
        char buffer[8] = {};
        EXPECT_EQ(bv_os_read(fd, buffer, 8), 5);
        EXPECT_STREQ(buffer, "12345");
        EXPECT_EQ(bv_os_close(fd), 0);
        EXPECT_EQ(bv_os_remove("/scratch/created"), 0);

        fd = open_file("/scratch", O_TMPFILE | O_RDWR, 0604); // a file without a name has one too
        struct stat st = {};
        EXPECT_EQ(bv_os_fstat(fd, &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0604u);
        close(fd);
    }
}

TEST(Files, LseekKeepsTheSignOfANegativeOffset)
{
    write_file("/scratch/file", "0123456789");
    int fd = open("/scratch/file", O_RDONLY);
    EXPECT_EQ(bv_os_lseek(fd, -1, SEEK_END), 9);
    char byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 1);
    EXPECT_EQ(byte, '9');
    EXPECT_EQ(bv_os_lseek(fd, -4, SEEK_CUR), 6);
    EXPECT_EQ(bv_os_lseek(fd, 3, SEEK_SET), 3);
    EXPECT_EQ(bv_os_lseek(fd, -1, SEEK_SET), -1);
    close(fd);
}

TEST(Files, LseekCutsPositionsPast2GiBTo32Bits)
{
    int fd = open("/scratch/sparse", O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(ftruncate(fd, 0x180000005), 0);
    EXPECT_EQ(bv_os_lseek(fd, 0, SEEK_END), static_cast<int32_t>(0x80000005));
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0x180000005); // where it really is
    EXPECT_EQ(bv_os_lseek(fd, -0x7fffffff, SEEK_CUR), 6);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0x100000006);
    EXPECT_EQ(bv_os_lseek(fd, 0x7fffffff, SEEK_SET), 0x7fffffff);
    close(fd);
}

TEST(Files, StatSeesSizesPast4GiB)
{
    int fd = open("/scratch/sparse", O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(ftruncate(fd, 0x180000005), 0);
    struct stat st = {};
    EXPECT_EQ(bv_os_fstat(fd, &st), 0);
    EXPECT_EQ(st.st_size, 0x180000005);
    st = {};
    EXPECT_EQ(bv_os_stat("/scratch/sparse", &st), 0);
    EXPECT_EQ(st.st_size, 0x180000005);
    close(fd);
}

TEST(Files, NamesAreMadeMovedAndRemoved)
{
    umask(0);
    bv_os_close(bv_os_creat("/scratch/a", 0600));
    EXPECT_EQ(mode_of("/scratch/a"), 0600u);
    EXPECT_EQ(bv_os_mkfifo("/scratch/fifo", 0620), 0);
    EXPECT_EQ(mode_of("/scratch/fifo"), 0620u);
    EXPECT_EQ(bv_os_rename("/scratch/a", "/scratch/b"), 0);
    EXPECT_EQ(bv_os_access("/scratch/a", F_OK), -1);
    EXPECT_EQ(bv_os_access("/scratch/b", F_OK), 0);
    EXPECT_EQ(bv_os_remove("/scratch/b"), 0);
    EXPECT_FALSE(file_exists("/scratch/b"));
    EXPECT_EQ(bv_os_chdir("/tmp"), 0);
    char path[64] = {};
    EXPECT_STREQ(getcwd(path, sizeof path), "/tmp");
}

TEST(Files, FlockExcludesOtherDescriptions)
{
    write_file("/scratch/lock", "");
    int a = open("/scratch/lock", O_RDONLY);
    int b = open("/scratch/lock", O_RDONLY);
    EXPECT_EQ(bv_os_flock(a, LOCK_EX), 0);
    EXPECT_EQ(bv_os_flock(b, LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(bv_os_flock(a, LOCK_UN), 0);
    EXPECT_EQ(bv_os_flock(b, LOCK_EX | LOCK_NB), 0);
    close(a);
    close(b);
}

TEST(Files, PipeJoinsTwoDescriptors)
{
    int fds[2] = {-1, -1};
    ASSERT_EQ(bv_os_pipe(fds), 0);
    EXPECT_EQ(bv_os_write(fds[1], "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(bv_os_read(fds[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(bv_os_getpid(), getpid());
}
