// Flash partitions by name. The kernel numbers its flash devices in the order in which they were
// found, which changes with the board's layout, so services name partitions and every call looks
// the number up.

#include <bv/mtd.h>

#include <bv/os.h>

#include "os/alloc.h"
#include "os/descriptor.h"

#include <cstddef>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr uint32_t kChunkSize = 8192;
constexpr uint32_t kPathSize = 16;
constexpr mode_t kMode = 0666;
constexpr int kForWriting = O_RDWR | O_SYNC;
constexpr uint8_t kBlank = 0xFF;

static_assert(sizeof(mtd_info_user) == 32 && offsetof(mtd_info_user, size) == 8 &&
                  offsetof(mtd_info_user, erasesize) == 12,
              "the kernel fills this record");
static_assert(sizeof(erase_info_user) == 8 && offsetof(erase_info_user, length) == 4,
              "the kernel reads this record");
#ifdef __mips__
static_assert(MEMGETINFO == 0x40204D01 && MEMERASE == 0x80084D02,
              "on MIPS the direction bits of a request differ from other machines'");
#endif

// The path of a partition's device; empty when the name matches no line of /proc/mtd, and
// unusable when it matches several. Either way it is opening it that fails.
struct DevicePath {
    char text[kPathSize];
};

DevicePath find_device(const char *name)
{
    DevicePath path = {};
    bv_os_systemex(path.text, kPathSize,
                   "cat /proc/mtd | grep %s | awk -F \":\" '{printf\"/dev/\"$1}'", name);
    return path;
}

int open_device(const DevicePath &path, int flags)
{
    return bv::close_on_exec(bv_os_dev_open(path.text, flags, kMode));
}

// The sum is formed in 64 bits: a range that runs past the end of 32 is past the partition too.
bool beyond_end(const mtd_info_user &info, uint32_t offset, uint32_t len)
{
    return info.size < static_cast<uint64_t>(offset) + len;
}

// Moves a range piece by piece. move(fd, position, count) is read or write; a piece that moved
// less than asked ends it with `shortfall`.
template <typename Byte, typename Move>
int32_t move_range(int fd, Byte *buf, uint32_t offset, uint32_t len, Move move, int32_t shortfall)
{
    if (bv_os_lseek(fd, static_cast<int32_t>(offset), SEEK_SET) == -1)
        return BV_ERR_FAILED;

    for (uint32_t done = 0; done < len;) {
        uint32_t count = len - done < kChunkSize ? len - done : kChunkSize;
        if (move(fd, buf + done, count) != static_cast<ssize_t>(count))
            return shortfall;
        done += count;
    }
    return BV_OK;
}

// Whether a block already reads as erased. Anything that keeps us from finding out, be it memory
// or the device, counts as no: erasing once too often is the safe side.
bool block_is_blank(const char *name, uint32_t start, uint32_t size)
{
    uint64_t both = 2 * static_cast<uint64_t>(size);
    auto *buffer = static_cast<uint8_t *>(bv::allocate(both));
    if (buffer == nullptr)
        return false;

    bv_os_memset(buffer, 2 * size, kBlank, 2 * size);
    bool blank = bv_mtd_read(name, buffer, start, size) == BV_OK &&
                 bv_os_memcmp(buffer, buffer + size, size) == 0;
    bv_os_free(buffer);
    return blank;
}

// One round per block. A block that fails to erase is met again in the next round, and the round
// still counts: a worn block may yield at the second try, and the number of requests stays
// bounded by the number of blocks.
void erase_blocks(int fd, const char *name, uint32_t offset, uint32_t len, uint32_t size)
{
    uint32_t start = offset;
    for (uint32_t round = 0; round < len / size; round++) {
        if (!block_is_blank(name, start, size)) {
            erase_info_user request = {start, size};
            if (bv_os_ioctl(fd, MEMERASE, &request) != 0)
                continue;
        }
        start += size;
    }
}

// What every use of a range starts with: the partition's device and geometry, and whether the range
// lies within it. The status is what the caller returns when it is not BV_OK.
int32_t find_range(const char *name, uint32_t offset, uint32_t len, DevicePath &path,
                   mtd_info_user &info)
{
    path = find_device(name);
    int32_t status = bv_mtd_get_info(name, &info);
    if (status != BV_OK)
        return status;
    return beyond_end(info, offset, len) ? BV_ERR_RANGE : BV_OK;
}

// Reading and writing are the same but for how the device is opened and what moves the bytes.
template <typename Byte, typename Move>
int32_t transfer(const char *name, Byte *buf, uint32_t offset, uint32_t len, int flags, Move move,
                 int32_t shortfall)
{
    if (name == nullptr || buf == nullptr || len == 0)
        return BV_ERR_INVALID;

    DevicePath path;
    mtd_info_user info;
    int32_t status = find_range(name, offset, len, path, info);
    if (status != BV_OK)
        return status;

    int fd = open_device(path, flags);
    if (fd < 0)
        return BV_ERR_OPEN;
    status = move_range(fd, buf, offset, len, move, shortfall);
    bv_os_close(fd);
    return status;
}

} // namespace

int32_t bv_mtd_get_info(const char *name, mtd_info_user *info)
{
    if (name == nullptr || info == nullptr)
        return BV_ERR_INVALID;

    DevicePath path = find_device(name);
    int fd = open_device(path, kForWriting);
    if (fd < 0)
        return BV_ERR_FAILED;

    int32_t status = bv_os_ioctl(fd, MEMGETINFO, info) < 0 ? BV_ERR_FAILED : BV_OK;
    bv_os_close(fd);
    return status;
}

int32_t bv_mtd_read(const char *name, void *buf, uint32_t offset, uint32_t len)
{
    return transfer(name, static_cast<uint8_t *>(buf), offset, len, O_RDONLY, bv_os_read,
                    BV_ERR_SHORT_READ);
}

int32_t bv_mtd_write(const char *name, const void *buf, uint32_t offset, uint32_t len)
{
    return transfer(name, static_cast<const uint8_t *>(buf), offset, len, kForWriting, bv_os_write,
                    BV_ERR_SHORT_WRITE);
}

int32_t bv_mtd_erase(const char *name, uint32_t offset, uint32_t len)
{
    if (name == nullptr || len == 0)
        return BV_ERR_INVALID;

    DevicePath path;
    mtd_info_user info;
    int32_t status = find_range(name, offset, len, path, info);
    if (status != BV_OK)
        return status;
    // Erase sizes are powers of two. One of 0 makes the mask all ones and is refused here too.
    if (((info.erasesize - 1) & (offset | len)) != 0)
        return BV_ERR_INVALID;

    int fd = open_device(path, kForWriting);
    if (fd < 0)
        return BV_ERR_OPEN;
    erase_blocks(fd, name, offset, len, info.erasesize);
    return bv_os_close(fd);
}
