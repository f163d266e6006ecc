// SPDX-License-Identifier: ISC
// Flash partitions by name. The kernel numbers flash devices in the order in which it finds them,
// which depends on the board. So services use names, and every call looks up the number.

#include <bv/mtd.h>

#include "os/alloc.h"
#include "os/descriptor.h"
#include "os/span.h"

#include <bv/os.h>

#include <algorithm>
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
              "the direction bits of a request on MIPS differ from those on other machines");
#endif

// The path of a partition's device: empty when the name matches no line of /proc/mtd, and unusable
// when it matches several. Either way opening it fails.
struct DevicePath {
    char text[kPathSize];
};

struct Partition {
    DevicePath path;
    mtd_info_user info;
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

// The sum has 64 bits: a range that ends beyond 32 bits is beyond the partition too.
bool beyond_end(const mtd_info_user &info, uint32_t offset, uint32_t len)
{
    return info.size < uint64_t{offset} + len;
}

// How reading and writing differ: the flags that open the device, what moves a piece, and the code
// for a piece that was moved in part or not at all.
struct Direction {
    int flags;
    ssize_t (*move)(int fd, uint8_t *piece, size_t count);
    int32_t shortfall;
};

constexpr Direction kRead = {
    O_RDONLY, [](int fd, uint8_t *piece, size_t count) { return bv_os_read(fd, piece, count); },
    BV_ERR_SHORT_READ};
constexpr Direction kWrite = {
    kForWriting, [](int fd, uint8_t *piece, size_t count) { return bv_os_write(fd, piece, count); },
    BV_ERR_SHORT_WRITE};

int32_t move_range(int fd, bv::MutableBytes buf, uint32_t offset, const Direction &direction)
{
    if (bv_os_lseek(fd, static_cast<int32_t>(offset), SEEK_SET) == -1)
        return BV_ERR_FAILED;

    for (uint32_t done = 0; done < buf.length;) {
        const uint32_t count = std::min(buf.length - done, kChunkSize);
        if (direction.move(fd, buf.data + done, count) != static_cast<ssize_t>(count))
            return direction.shortfall;
        done += count;
    }
    return BV_OK;
}

// Whether a block already reads as erased. When memory is short or the device cannot be read, the
// answer is no: erasing once too often is safe.
bool block_is_blank(const char *name, uint32_t start, uint32_t size)
{
    const bv::Block<uint8_t> buffer(bv::allocate<uint8_t>(2 * uint64_t{size}));
    if (!buffer)
        return false;

    uint8_t *read = buffer.get();
    uint8_t *blank = read + size;
    bv_os_memset(read, 2 * size, kBlank, 2 * size);
    return bv_mtd_read(name, read, start, size) == BV_OK && bv_os_memcmp(read, blank, size) == 0;
}

// One round for each block. A block that fails to erase is tried again in the next round, and the
// round still counts: a worn block may erase at the second try, and the number of requests stays
// limited by the number of blocks.
void erase_blocks(int fd, const char *name, uint32_t offset, uint32_t len, uint32_t size)
{
    uint32_t start = offset;
    for (uint32_t round = 0; round < len / size; ++round) {
        if (!block_is_blank(name, start, size)) {
            erase_info_user request = {start, size};
            if (bv_os_ioctl(fd, MEMERASE, &request) != 0)
                continue;
        }
        start += size;
    }
}

// Every use of a range starts here: finds the partition's device and checks the range against its
// geometry. The caller returns any status but BV_OK.
//
// bv_mtd_get_info() takes a name and looks it up again. One look-up would do, but would change the
// commands that a call is seen to run and the numbers of its capture files.
int32_t find_range(const char *name, uint32_t offset, uint32_t len, Partition &partition)
{
    partition.path = find_device(name);
    const int32_t status = bv_mtd_get_info(name, &partition.info);
    if (status != BV_OK)
        return status;
    return beyond_end(partition.info, offset, len) ? BV_ERR_RANGE : BV_OK;
}

int32_t transfer(const char *name, bv::MutableBytes buf, uint32_t offset,
                 const Direction &direction)
{
    if (name == nullptr || buf.data == nullptr || buf.length == 0)
        return BV_ERR_INVALID;

    Partition partition;
    const int32_t status = find_range(name, offset, buf.length, partition);
    if (status != BV_OK)
        return status;

    const bv::Descriptor fd(open_device(partition.path, direction.flags));
    return fd ? move_range(fd.get(), buf, offset, direction) : BV_ERR_OPEN;
}

} // namespace

int32_t bv_mtd_get_info(const char *name, mtd_info_user *info)
{
    if (name == nullptr || info == nullptr)
        return BV_ERR_INVALID;

    const bv::Descriptor fd(open_device(find_device(name), kForWriting));
    if (!fd)
        return BV_ERR_FAILED;
    return bv_os_ioctl(fd.get(), MEMGETINFO, info) < 0 ? BV_ERR_FAILED : BV_OK;
}

int32_t bv_mtd_read(const char *name, void *buf, uint32_t offset, uint32_t len)
{
    return transfer(name, bv::bytes_of(buf, len), offset, kRead);
}

int32_t bv_mtd_write(const char *name, const void *buf, uint32_t offset, uint32_t len)
{
    return transfer(name, bv::bytes_of(const_cast<void *>(buf), len), offset, kWrite); // only read
}

int32_t bv_mtd_erase(const char *name, uint32_t offset, uint32_t len)
{
    if (name == nullptr || len == 0)
        return BV_ERR_INVALID;

    Partition partition;
    const int32_t status = find_range(name, offset, len, partition);
    if (status != BV_OK)
        return status;
    // Erase sizes are powers of two. A size of 0 makes the mask all ones and is refused here too.
    const uint32_t block_size = partition.info.erasesize;
    if (((block_size - 1) & (offset | len)) != 0)
        return BV_ERR_INVALID;

    bv::Descriptor fd(open_device(partition.path, kForWriting));
    if (!fd)
        return BV_ERR_OPEN;
    erase_blocks(fd.get(), name, offset, len, block_size);
    return bv_os_close(fd.release()); // a driver may report a late failure only here
}
