#include "dev/devices.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
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

unsigned erases;
unsigned transfers;
unsigned erases_to_fail;
uint64_t transfer_room = UINT64_MAX;
bool geometry_fails;
bool seeks_fail;
bool closes_fail;
std::vector<int> opened;
uint32_t reported_size; // 0: the true one
bool reading_refused;
unsigned writing_refused_at;
uint32_t erase_size = devices::kEraseSize;
bool odd_result;
devices::DriverCall driver_call;

template <typename Function>
Function *real(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

std::string device_of(size_t index)
{
    return "/dev/mtd" + std::to_string(index);
}

// The partition behind a descriptor, or -1.
int partition_of(int fd)
{
    char path[64] = {};
    std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (readlink(link.c_str(), path, sizeof(path) - 1) < 0 || strncmp(path, "/dev/mtd", 8) != 0)
        return -1;
    return atoi(path + 8);
}

bool is_driver(int fd)
{
    char path[64] = {};
    std::string link = "/proc/self/fd/" + std::to_string(fd);
    return readlink(link.c_str(), path, sizeof(path) - 1) > 0 && strcmp(path, "/dev/brovan") == 0;
}

int answer_geometry(int partition, mtd_info_user *info)
{
    if (geometry_fails) {
        errno = ENOTTY;
        return -1;
    }
    *info = {};
    info->type = MTD_NORFLASH;
    info->size = reported_size != 0 ? reported_size : kPartitions[partition].size;
    info->erasesize = erase_size;
    info->writesize = 1;
    return 0;
}

int answer_erase(int fd, const erase_info_user *request)
{
    erases++;
    if (erases_to_fail > 0) {
        erases_to_fail--;
        errno = EIO;
        return -1;
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
        errno = EPERM;
        return -1;
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
// descriptor, which is open both ways, with two calls that the library makes none of: they can be
// left out where its calls are counted.
void clear_only(std::vector<uint8_t> &bits, int fd)
{
    std::vector<uint8_t> there(bits.size());
    const ssize_t got = pread(fd, there.data(), there.size(), lseek(fd, 0, SEEK_CUR));
    for (ssize_t i = 0; i < got; i++)
        bits[static_cast<size_t>(i)] &= there[static_cast<size_t>(i)];
}

} // namespace

// ---- the libc calls that the library makes on the devices ----

// The C libraries do not agree on the type of the request, only on its name and its 32 bits here.
// Where time_t is wider than a long, glibc has it under another name.
#if defined(__GLIBC__) && defined(__USE_TIME_BITS64) && !defined(__LP64__)
#define IOCTL "__ioctl_time64"
#else
#define IOCTL "ioctl"
#endif
extern "C" int faked_ioctl(int fd, unsigned long request, ...) __asm__(IOCTL);
extern "C" int faked_ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);

    int partition = partition_of(fd);
    if (partition >= 0 && request == MEMGETINFO)
        return answer_geometry(partition, static_cast<mtd_info_user *>(argument));
    if (partition >= 0 && request == MEMERASE)
        return answer_erase(fd, static_cast<erase_info_user *>(argument));
    if (request == 0 && is_driver(fd))
        return answer_driver(fd, static_cast<uint8_t *>(argument));
    return real<int(int, unsigned long, ...)>(IOCTL)(fd, request, argument);
}

extern "C" ssize_t read(int fd, void *buf, size_t count)
{
    if (partition_of(fd) >= 0) {
        transfers++;
        count = static_cast<size_t>(limited(count));
    }
    return real<ssize_t(int, void *, size_t)>("read")(fd, buf, count);
}

extern "C" ssize_t write(int fd, const void *buf, size_t count)
{
    if (partition_of(fd) < 0)
        return real<ssize_t(int, const void *, size_t)>("write")(fd, buf, count);
    transfers++;
    std::vector<uint8_t> bits(static_cast<size_t>(limited(count)));
    memcpy(bits.data(), buf, bits.size());
    clear_only(bits, fd);
    return real<ssize_t(int, const void *, size_t)>("write")(fd, bits.data(), bits.size());
}

// Where offsets are wider than a long, these are open64 and lseek64 in some C libraries; the
// headers redirect the definitions here like every call.
extern "C" int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);

    if (strncmp(path, "/dev/mtd", 8) == 0) {
        bool writes = (flags & O_ACCMODE) != O_RDONLY;
        if ((writes && kPartitions[atoi(path + 8)].read_only) || (!writes && reading_refused) ||
            (writes && writing_refused_at > 0 && --writing_refused_at == 0)) {
            errno = EACCES;
            return -1;
        }
        opened.push_back(flags);
    }
    return real<int(const char *, int, ...)>("open")(path, flags, mode);
}

extern "C" int close(int fd)
{
    bool fails = closes_fail && (partition_of(fd) >= 0 || is_driver(fd));
    int result = real<int(int)>("close")(fd);
    if (!fails)
        return result;
    errno = EIO;
    return -1;
}

extern "C" off_t lseek(int fd, off_t offset, int whence)
{
    if (seeks_fail && partition_of(fd) >= 0) {
        errno = ESPIPE;
        return -1;
    }
#if defined(__GLIBC__) && !defined(__LP64__)
    return real<off_t(int, off_t, int)>("lseek64")(fd, offset, whence);
#else
    return real<off_t(int, off_t, int)>("lseek")(fd, offset, whence);
#endif
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
    FILE *file = fopen("/scratch/proc-mtd", "w");
    fputs(table.c_str(), file);
    fclose(file);
    erases = 0;
    transfers = 0;
    opened.clear();
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
    size_t i = index_of(name);
    std::vector<uint8_t> bytes(kPartitions[i].size);
    FILE *file = fopen(device_of(i).c_str(), "rb");
    bytes.resize(fread(bytes.data(), 1, bytes.size(), file));
    fclose(file);
    return bytes;
}

void flash_fill(const std::string &name, uint8_t value)
{
    size_t i = index_of(name);
    std::vector<uint8_t> bytes(kPartitions[i].size, value);
    FILE *file = fopen(device_of(i).c_str(), "wb");
    fwrite(bytes.data(), 1, bytes.size(), file);
    fclose(file);
}

unsigned erase_requests()
{
    return erases;
}
unsigned system_calls_on_flash()
{
    return transfers;
}
const std::vector<int> &open_flags()
{
    return opened;
}
void fail_erases(unsigned count)
{
    erases_to_fail = count;
}
void stop_transfers_after(uint64_t bytes)
{
    transfer_room = bytes;
}
void fail_geometry()
{
    geometry_fails = true;
}
void fail_seeks()
{
    seeks_fail = true;
}
void fail_closes()
{
    closes_fail = true;
}
void report_size(uint32_t size)
{
    reported_size = size;
}
void report_erase_size(uint32_t size)
{
    erase_size = size;
}
void refuse_reading(bool refuse)
{
    reading_refused = refuse;
}
void refuse_writing_at(unsigned n)
{
    writing_refused_at = n;
}

void driver_load()
{
    FILE *file = fopen("/dev/brovan", "w");
    fclose(file);
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
