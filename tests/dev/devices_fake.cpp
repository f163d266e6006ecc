/* SPDX-License-Identifier: ISC */
#include "dev/devices.h"

#include "support/faults.h"
#include "support/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Partition {
    const char *name;
    uint32_t size;
    bool read_only;
};

constexpr Partition kPartitions[] = {{"config", 0x80000, false},
                                     {"factory", 0x10000, true},
                                     {"crash", 0x10000, false},
                                     {"rootfs", 0x100000, false},
                                     {"rootfs_data", 0x100000, false}};

using devices::settings;

unsigned erases;
unsigned transfers;
unsigned erases_to_fail;
uint64_t transfer_room = UINT64_MAX;
uint32_t erase_size = devices::kEraseSize;
bool odd_result;
devices::DriverCall driver_call;

std::string device_of(size_t index)
{
    return "/dev/mtd" + std::to_string(index);
}

// The device of a descriptor, "" for other files.
std::string device_of_descriptor(int fd)
{
    char path[64] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    return readlink(link.c_str(), path, sizeof(path) - 1) > 0 && strncmp(path, "/dev/", 5) == 0
               ? path
               : "";
}

// A partition by its device's path, or -1.
int partition_of(const std::string &path)
{
    return path.rfind("/dev/mtd", 0) == 0 ? atoi(path.c_str() + 8) : -1;
}

int partition_of(int fd)
{
    return partition_of(device_of_descriptor(fd));
}

bool is_driver(int fd)
{
    return device_of_descriptor(fd) == "/dev/brovan";
}

int fail_with(int error)
{
    errno = error;
    return -1;
}

int answer_geometry(int partition, mtd_info_user *info)
{
    if (settings.geometry_fails)
        return fail_with(ENOTTY);
    *info = {};
    info->type = MTD_NORFLASH;
    info->size = settings.size != 0 ? settings.size : kPartitions[partition].size;
    info->erasesize = erase_size;
    info->writesize = 1;
    return 0;
}

int answer_erase(int fd, const erase_info_user *request)
{
    erases++;
    if (erases_to_fail > 0) {
        erases_to_fail--;
        return fail_with(EIO);
    }
    std::vector<uint8_t> blank(request->length, 0xff);
    return pwrite(fd, blank.data(), blank.size(), request->start) ==
                   static_cast<ssize_t>(blank.size())
               ? 0
               : -1;
}

int answer_driver(int fd, uint8_t *record)
{
    uint32_t len;
    uint32_t result = 0;
    memcpy(&len, record + 256, 4);
    driver_call.head.assign(record, record + 264);
    driver_call.data.assign(record + 264, record + 264 + len);
    driver_call.open_flags = fcntl(fd, F_GETFL);

    const char *name = reinterpret_cast<const char *>(record);
    if (strcmp(name, "reject") == 0) {
        memset(record + 264, 0xee, len);
        return fail_with(EPERM);
    }
    if (strcmp(name, "upper") == 0) {
        for (uint32_t i = 0; i < len; i++)
            record[264 + i] = static_cast<uint8_t>(toupper(record[264 + i]));
    } else if (strcmp(name, "result5") == 0) {
        memset(record + 264, 0xa5, len);
        result = 5;
    } else {
        result = 0xfffffffe;
    }
    memcpy(record + 260, &result, 4);
    return odd_result ? 7 : 0;
}

ssize_t limited(size_t count)
{
    size_t room = count < transfer_room ? count : static_cast<size_t>(transfer_room);
    if (transfer_room != UINT64_MAX)
        transfer_room -= room;
    return static_cast<ssize_t>(room);
}

// What a write leaves on flash: it clears bits, only an erase sets them. Looks through the same
// descriptor, which is open both ways, with pread(): the library's calls are counted, and it never
// uses that one.
void clear_only(std::vector<uint8_t> &bits, int fd)
{
    std::vector<uint8_t> there(bits.size());
    const ssize_t got = pread(fd, there.data(), there.size(), lseek(fd, 0, SEEK_CUR));
    for (ssize_t i = 0; i < got; i++)
        bits[static_cast<size_t>(i)] &= there[static_cast<size_t>(i)];
}

} // namespace

// ---- the libc calls that the library makes on the devices ----

BV_INTERPOSE(ioctl, BV_TIMED("ioctl", "ioctl", "__ioctl_time64"), int,
             (int fd, unsigned long request, void *argument))
{
    const int partition = partition_of(fd);
    if (partition >= 0 && request == MEMGETINFO)
        return answer_geometry(partition, static_cast<mtd_info_user *>(argument));
    if (partition >= 0 && request == MEMERASE)
        return answer_erase(fd, static_cast<erase_info_user *>(argument));
    if (request == 0 && is_driver(fd))
        return answer_driver(fd, static_cast<uint8_t *>(argument));
    return BV_NEXT(ioctl)(fd, request, argument);
}

BV_INTERPOSE(read, "read", ssize_t, (int fd, void *buf, size_t count))
{
    if (partition_of(fd) >= 0) {
        transfers++;
        count = static_cast<size_t>(limited(count));
    }
    return BV_NEXT(read)(fd, buf, count);
}

BV_INTERPOSE(write, "write", ssize_t, (int fd, const void *buf, size_t count))
{
    if (partition_of(fd) < 0)
        return BV_NEXT(write)(fd, buf, count);
    transfers++;
    std::vector<uint8_t> bits(static_cast<size_t>(limited(count)));
    memcpy(bits.data(), buf, bits.size());
    clear_only(bits, fd);
    return BV_NEXT(write)(fd, bits.data(), bits.size());
}

BV_INTERPOSE(open, BV_LARGE("open"), int, (const char *path, int flags, mode_t mode))
{
    const int partition = partition_of(std::string(path));
    if (partition >= 0) {
        const bool writes = (flags & O_ACCMODE) != O_RDONLY;
        if (writes ? kPartitions[partition].read_only ||
                         (settings.writer_refused > 0 && --settings.writer_refused == 0)
                   : settings.reading_refused)
            return fail_with(EACCES);
        settings.flags_of_opens.push_back(flags & ~O_LARGEFILE);
    }
    return BV_NEXT(open)(path, flags, mode);
}

BV_INTERPOSE(close, "close", int, (int fd))
{
    const bool fails = settings.closes_fail && (partition_of(fd) >= 0 || is_driver(fd));
    const int result = BV_NEXT(close)(fd);
    return fails ? fail_with(EIO) : result;
}

BV_INTERPOSE(lseek, BV_LARGE("lseek"), off_t, (int fd, off_t offset, int whence))
{
    if (settings.seeks_fail && partition_of(fd) >= 0)
        return fail_with(ESPIPE);
    return BV_NEXT(lseek)(fd, offset, whence);
}

namespace devices {

bool made_up()
{
    return true;
}

void flash_attach()
{
    std::string table = "dev:    size   erasesize  name\n";
    for (size_t i = 0; i < sizeof(kPartitions) / sizeof(kPartitions[0]); i++) {
        char line[128];
        snprintf(line, sizeof(line), "mtd%zu: %08x %08x \"%s\"\n", i, kPartitions[i].size,
                 kEraseSize, kPartitions[i].name);
        table += line;
        flash_fill(kPartitions[i].name, 0xff);
    }
    // The `cat` of the private root reads this where the kernel has no /proc/mtd.
    write_file("/scratch/proc-mtd", table);
    erases = 0;
    transfers = 0;
    settings.flags_of_opens.clear();
}

static size_t index_of(const std::string &name)
{
    size_t i = 0;
    while (name != kPartitions[i].name)
        i++;
    return i;
}

std::vector<uint8_t> flash_contents(const std::string &name)
{
    const std::string bytes = read_file(device_of(index_of(name)));
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

void flash_fill(const std::string &name, uint8_t value)
{
    const size_t i = index_of(name);
    write_file(device_of(i), std::string(kPartitions[i].size, static_cast<char>(value)));
}

unsigned erase_requests()
{
    return erases;
}
unsigned system_calls_on_flash()
{
    return transfers;
}
void fail_erases(unsigned count)
{
    erases_to_fail = count;
}
void stop_transfers_after(uint64_t bytes)
{
    transfer_room = bytes;
}
void report_erase_size(uint32_t size)
{
    erase_size = size;
}

void driver_load()
{
    write_file("/dev/brovan", "");
}

void driver_odd_result(bool odd)
{
    odd_result = odd;
}
const DriverCall &last_driver_call()
{
    return driver_call;
}

} // namespace devices
