// SPDX-License-Identifier: ISC
// Descriptors that the library opens and closes within one call. Another thread may start a program
// meanwhile, so each must be kept out of it. They are looked at when the library closes them.

#include <bv/aes.h>
#include <bv/db.h>
#include <bv/ioctl.h>
#include <bv/mtd.h>
#include <bv/os.h>

#include "support/capture_stdout.h"
#include "support/faults.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <string>

namespace {

bool g_watching;
int g_closed;            // descriptors that the library closed
std::string g_inherited; // the paths of those that a program would have got

void look_at(int fd)
{
    if (!g_watching)
        return;
    ++g_closed;
    char path[128] = "";
    if (fcntl(fd, F_GETFD) != FD_CLOEXEC &&
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1) > 0)
        g_inherited += path + std::string(" ");
}

// The call holds so many descriptors, one after the other or together, and passes none on.
void expect_held(int count, const std::function<void()> &call)
{
    g_closed = 0;
    g_inherited.clear();
    g_watching = true;
    call();
    g_watching = false;
    EXPECT_EQ(g_closed, count);
    EXPECT_EQ(g_inherited, "");
}

const uint8_t kKey[] = "sixteen byte key";

} // namespace

BV_INTERPOSE(close, "close", int, (int fd))
{
    look_at(fd);
    return BV_NEXT(close)(fd);
}

BV_INTERPOSE(fclose, "fclose", int, (FILE * stream))
{
    look_at(fileno(stream));
    return BV_NEXT(fclose)(stream);
}

BV_INTERPOSE(pclose, "pclose", int, (FILE * stream))
{
    look_at(fileno(stream));
    return BV_NEXT(pclose)(stream);
}

TEST(CloseOnExec, IsSetForCapturesAndPipes)
{
    char out[64];
    expect_held(1, [&] { EXPECT_EQ(bv_os_systemex(out, sizeof out, "echo x"), 0); });
    expect_held(1, [&] { EXPECT_EQ(bv_os_sysmatch(out, sizeof out, "x", " ", "echo x y"), 0); });
    expect_held(1, [&] { bv_get_pipe("echo x", out, sizeof out); });
}

TEST(CloseOnExec, IsSetForTheRecordFile)
{
    expect_held(1, [] { EXPECT_EQ(bv_os_record("%s", "text"), 4); });
    EXPECT_EQ(read_file("/tmp/remoteprint"), "text");
}

TEST(CloseOnExec, IsSetForFilesOfDigestAndCipher)
{
    write_file("/scratch/plain", std::string(1000, 'x'));
    char digest[65];
    expect_held(1, [&] { EXPECT_EQ(bv_os_sm3_file("/scratch/plain", digest), BV_OK); });
    expect_held(2, [] { EXPECT_EQ(bv_aes_file_en("/scratch/plain", "/scratch/cipher", kKey), 0); });
    expect_held(2, [] { EXPECT_EQ(bv_aes_file_de("/scratch/cipher", "/scratch/back", kKey), 0); });
}

TEST(CloseOnExec, IsSetForTheDataFile)
{
    bv_list_head none = {&none, &none};
    expect_held(2, [&] { EXPECT_EQ(bv_db_user_write(&none, "/scratch/new.json"), BV_OK); });
    expect_held(1, [&] { EXPECT_EQ(bv_db_user_write(&none, "/scratch/new.json"), BV_OK); });
}

TEST(CloseOnExec, IsSetForDriverAndFlash)
{
    write_file("/dev/brovan", "");
    uint8_t record[264] = "operation";
    expect_held(1, [&] { EXPECT_NE(bv_ioctl_system(record), 0u); });

    write_file("/dev/mtd0", "");
    write_file("/scratch/proc-mtd", "mtd0: 00080000 00010000 \"config\"\n");
    mtd_info_user info;
    expect_held(2, [&] { EXPECT_NE(bv_mtd_get_info("config", &info), BV_OK); });
}
