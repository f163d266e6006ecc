// The gateway driver's ioctl channel. The driver has one entry point and dispatches on the name
// in the record, so every operation travels as one record through one request number.

#include <bv/ioctl.h>

#include <bv/os.h>

#include "os/alloc.h"
#include "os/descriptor.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>

// The driver is built for these offsets.
static_assert(sizeof(bv_ioctl_record) == 264, "the data follows at 264");
static_assert(offsetof(bv_ioctl_record, len) == 256, "len stands behind the name");
static_assert(offsetof(bv_ioctl_record, result) == 260, "result stands behind len");

namespace {

constexpr const char *kDevice = "/dev/brovan";
constexpr mode_t kMode = 0600;
constexpr unsigned long kRequest = 0;

// The driver is granted one byte behind the data; nobody here sets or reads it.
constexpr uint64_t kOverhead = sizeof(bv_ioctl_record) + 1;

uint8_t *data_of(bv_ioctl_record *record)
{
    return reinterpret_cast<uint8_t *>(record + 1);
}

// A record for `name` with the data filled in, zeros where none is given: the driver may look at
// every byte, and what an earlier user left on the heap is not its business. Null without memory.
bv_ioctl_record *make_record(const char *name, const void *data, uint32_t len)
{
    auto *record = static_cast<bv_ioctl_record *>(bv::allocate(len + kOverhead));
    if (record == nullptr)
        return nullptr;

    bv_os_memset(record, sizeof(*record), 0, sizeof(*record));
    bv_os_strncpy(record->name, sizeof(record->name), name, sizeof(record->name));
    record->len = len;
    if (data != nullptr)
        bv_os_memcpy(data_of(record), len, data, len);
    else
        bv_os_memset(data_of(record), len, 0, len);
    return record;
}

} // namespace

uint32_t bv_ioctl_call(const char *name, void *data, uint32_t len)
{
    bv_ioctl_record *record = make_record(name, data, len);
    if (record == nullptr)
        return BV_ERR_MEMORY;

    uint32_t answer = bv_ioctl_system(record);
    if (answer == 0) {
        answer = record->result;
        if (data != nullptr)
            bv_os_memcpy(data, len, data_of(record), len);
    }
    const int error = errno;
    bv_os_free(record);
    errno = error;
    return answer;
}

uint32_t bv_ioctl_system(void *record)
{
    int fd = bv::close_on_exec(bv_os_dev_open(kDevice, O_RDWR | O_NONBLOCK, kMode));
    if (fd < 0)
        return BV_ERR_CHANNEL;

    int result = bv_os_ioctl(fd, kRequest, record);
    const int error = errno; // why the driver rejected it
    bv_os_close(fd);
    errno = error;
    return static_cast<uint32_t>(result);
}
