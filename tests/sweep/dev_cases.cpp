// SPDX-License-Identifier: ISC
// Flash partitions and the driver node: plain files, whose ioctl requests are answered here.

#include "sweep/sweep.h"

#include "support/files.h"

#include <bv/ioctl.h>
#include <bv/mtd.h>
#include <bv/os.h>
#include <bv/sftp.h>

#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include <mtd/mtd-user.h>

namespace sweep {

namespace {

constexpr uint32_t kSize = 0x10000;
constexpr uint32_t kBlock = 0x1000;
constexpr char kDevice[] = "/dev/mtd0";
constexpr char kDriver[] = "/dev/brovan";

uint8_t g_buffer[2 * kBlock];
uint8_t g_blank[kBlock];

int answer(int fd, unsigned long request, void *argument)
{
    if (request == MEMGETINFO) {
        auto *info = static_cast<mtd_info_user *>(argument);
        *info = {};
        info->size = kSize;
        info->erasesize = kBlock;
        return 0;
    }
    if (request == MEMERASE) {
        const auto *range = static_cast<const erase_info_user *>(argument);
        return pwrite(fd, g_blank, range->length, range->start) < 0 ? -1 : 0;
    }
    if (request == 0) {
        memset(static_cast<uint8_t *>(argument) + 260, 0, 4); // the driver's result
        return 0;
    }
    return kNotAnswered;
}

void flash()
{
    g_ioctl_answer = answer;
    write_file("/scratch/proc-mtd",
               "dev:    size   erasesize  name\nmtd0: 00010000 00001000 \"conf\"\n");
    write_file(kDevice, std::string(kSize, 'f'));
    memset(g_buffer, 'b', sizeof g_buffer);
    memset(g_blank, 0xff, sizeof g_blank);
}

void driver()
{
    g_ioctl_answer = answer;
    write_file(kDriver, "");
}

void script()
{
    mkdir("/etc", 0755);
    write_file("/etc/sftp.sh", "#!/bin/sh\nexit 0\n");
    chmod("/etc/sftp.sh", 0755);
}

char byte_of_device(size_t at)
{
    return read_file(kDevice)[at];
}

mtd_info_user g_info;
bv_ioctl_record g_record;
const bv_sftp_info kTransfer = {"/scratch/a", "/b", "user", "host", "secret", 22};

} // namespace

std::vector<Case> flash_reading_cases()
{
    return {
        CALL(bv_mtd_get_info, "conf", &g_info)
            .is_slow()
            .prepared_by(flash)
            .or_fails_with({BV_ERR_FAILED}),
        CALL(bv_mtd_read, "conf", g_buffer, 16, sizeof g_buffer)
            .is_slow()
            .is_honest()
            .prepared_by(flash)
            .or_fails_with({BV_ERR_FAILED, BV_ERR_OPEN, BV_ERR_SHORT_READ})
            .works_when([] { return g_buffer[0] == 'f' && g_buffer[sizeof g_buffer - 1] == 'f'; }),
    };
}

std::vector<Case> flash_writing_cases()
{
    return {
        CALL(bv_mtd_write, "conf", g_buffer, 16, sizeof g_buffer)
            .is_slow()
            .is_honest()
            .prepared_by(flash)
            .or_fails_with({BV_ERR_FAILED, BV_ERR_OPEN, BV_ERR_SHORT_WRITE})
            .works_when([] { return byte_of_device(15) == 'f' && byte_of_device(16) == 'b'; }),
    };
}

// On its own: with the blank check in it, this is the longest sweep of all.
std::vector<Case> flash_erasing_cases()
{
    return {
        CALL(bv_mtd_erase, "conf", kBlock, kBlock)
            .is_slow()
            .prepared_by(flash)
            .or_fails_with({BV_ERR_FAILED, BV_ERR_OPEN})
            .works_when([] {
                return byte_of_device(kBlock - 1) == 'f' && byte_of_device(kBlock) == '\xff' &&
                       byte_of_device(2 * kBlock) == 'f';
            }),
    };
}

std::vector<Case> driver_cases()
{
    return {
        CALL(bv_ioctl_call, "name", g_buffer, 64)
            .prepared_by(driver)
            .or_fails_with({BV_ERR_MEMORY, BV_ERR_CHANNEL, UINT32_MAX}),
        CALL(bv_ioctl_system, &g_record)
            .prepared_by(driver)
            .or_fails_with({BV_ERR_CHANNEL, UINT32_MAX}),
        CALL(bv_sftp_get, &kTransfer).prepared_by(script).or_fails_with({-1}),
        CALL(bv_sftp_put, &kTransfer).prepared_by(script).or_fails_with({-1}),
    };
}

} // namespace sweep
