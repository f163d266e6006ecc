#include <bv/os.h>

#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <cerrno>
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
    EXPECT_EQ(bv_os_feof(file), 0);
    EXPECT_EQ(bv_os_fgets(buffer, 3, file), buffer);
    EXPECT_STREQ(buffer, "fg");
    EXPECT_EQ(bv_os_fgets(buffer, 16, file), buffer);
    EXPECT_EQ(bv_os_fgets(buffer, 16, file), nullptr);
    errno = 0;
    EXPECT_EQ(bv_os_fseek(file, -1, SEEK_SET), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(bv_os_fwrite("x", 1, 1, file), 0u); // opened for reading
    EXPECT_EQ(bv_os_fclose(file), 0);

    errno = 0;
    EXPECT_EQ(bv_os_fopen("/nowhere/file", "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
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
    errno = 0;
    EXPECT_EQ(bv_os_popen("true", "neither"), nullptr);
    EXPECT_EQ(errno, EINVAL);
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
        ASSERT_GE(fd, 0);
        char buffer[8] = {};
        EXPECT_EQ(bv_os_read(fd, buffer, 8), 5);
        EXPECT_STREQ(buffer, "12345");
        EXPECT_EQ(bv_os_close(fd), 0);
        EXPECT_EQ(bv_os_remove("/scratch/created"), 0);

        errno = 0;
        EXPECT_EQ(open_file("/scratch/created", O_RDONLY), -1);
        EXPECT_EQ(errno, ENOENT);
    }
}

TEST(Files, OpenTakesItsModeForANamelessFileToo)
{
    umask(0);
    for (auto open_file : {bv_os_open, bv_os_dev_open}) {
        int fd = open_file("/scratch", O_TMPFILE | O_RDWR, 0604);
        ASSERT_GE(fd, 0);
        struct stat st = {};
        EXPECT_EQ(bv_os_fstat(fd, &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0604u);
        close(fd);
    }
}

TEST(Files, CreatTruncatesAndSetsTheMode)
{
    umask(0);
    int fd = bv_os_creat("/scratch/created", 0600);
    ASSERT_GE(fd, 0);
    bv_os_write(fd, "abc", 3);
    bv_os_close(fd);
    EXPECT_EQ(mode_of("/scratch/created"), 0600u);
    bv_os_close(bv_os_creat("/scratch/created", 0600));
    EXPECT_EQ(read_file("/scratch/created"), "");
}

TEST(Files, ReadWriteAndCloseReportBadDescriptors)
{
    char byte = 0;
    struct stat st = {};
    for (int result :
         {static_cast<int>(bv_os_read(-1, &byte, 1)), static_cast<int>(bv_os_write(-1, &byte, 1)),
          bv_os_close(-1), static_cast<int>(bv_os_lseek(-1, 0, SEEK_SET)), bv_os_flock(-1, LOCK_EX),
          bv_os_fstat(-1, &st)})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, EBADF);
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
    errno = 0;
    EXPECT_EQ(bv_os_lseek(fd, -1, SEEK_SET), -1);
    EXPECT_EQ(errno, EINVAL);
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

TEST(Files, FlockExcludesOtherDescriptions)
{
    write_file("/scratch/lock", "");
    int a = open("/scratch/lock", O_RDONLY);
    int b = open("/scratch/lock", O_RDONLY);
    EXPECT_EQ(bv_os_flock(a, LOCK_EX), 0);
    errno = 0;
    EXPECT_EQ(bv_os_flock(b, LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(bv_os_flock(a, LOCK_UN), 0);
    EXPECT_EQ(bv_os_flock(b, LOCK_EX | LOCK_NB), 0);
    close(a);
    close(b);
}

TEST(Files, NamesAreMadeMovedAndRemoved)
{
    write_file("/scratch/a", "x");
    EXPECT_EQ(bv_os_access("/scratch/a", F_OK), 0);
    EXPECT_EQ(bv_os_rename("/scratch/a", "/scratch/b"), 0);
    errno = 0;
    EXPECT_EQ(bv_os_access("/scratch/a", F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
    struct stat st = {};
    EXPECT_EQ(bv_os_stat("/scratch/b", &st), 0);
    EXPECT_EQ(st.st_size, 1);
    EXPECT_EQ(bv_os_remove("/scratch/b"), 0);
    for (int result : {bv_os_remove("/scratch/b"), bv_os_rename("/scratch/b", "/scratch/c"),
                       bv_os_stat("/scratch/b", &st), bv_os_chdir("/scratch/b")})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Files, StatSeesSizesPast4GiB)
{
    int fd = open("/scratch/sparse", O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(ftruncate(fd, 0x180000005), 0);
    struct stat st = {};
    EXPECT_EQ(bv_os_fstat(fd, &st), 0);
    EXPECT_EQ(st.st_size, 0x180000005);
    EXPECT_EQ(bv_os_stat("/scratch/sparse", &st), 0);
    EXPECT_EQ(st.st_size, 0x180000005);
    close(fd);
}

TEST(Files, ChdirChangesTheWorkingFolder)
{
    ASSERT_EQ(mkdir("/scratch/folder", 0700), 0);
    EXPECT_EQ(bv_os_chdir("/scratch/folder"), 0);
    char path[64] = {};
    EXPECT_STREQ(getcwd(path, sizeof path), "/scratch/folder");
}

TEST(Files, MkfifoMakesAPipeWithAName)
{
    umask(0);
    EXPECT_EQ(bv_os_mkfifo("/scratch/fifo", 0620), 0);
    struct stat st = {};
    ASSERT_EQ(stat("/scratch/fifo", &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0620u);
    errno = 0;
    EXPECT_EQ(bv_os_mkfifo("/scratch/fifo", 0620), -1);
    EXPECT_EQ(errno, EEXIST);
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
}

TEST(Process, GetpidIsThisProcess)
{
    EXPECT_EQ(bv_os_getpid(), getpid());
}
