// SPDX-License-Identifier: ISC
// The gateway driver's ioctl channel. The driver has one request number and finds the operation by
// the name in the record.

#include <bv/ioctl.h>

#include "os/alloc.h"
#include "os/descriptor.h"
#include "os/owned.h"

#include <bv/os.h>

#include <cerrno>
#include <cstddef>
#include <fcntl.h>

// The driver is built for these offsets.
static_assert(sizeof(bv_ioctl_record) == 264, "the driver reads the data after 264 bytes");
static_assert(offsetof(bv_ioctl_record, len) == 256,
              "the driver reads len after 256 bytes of name");
static_assert(offsetof(bv_ioctl_record, result) == 260, "the driver writes result after len");

namespace {

constexpr const char *kDevice = "/dev/brovan";
constexpr mode_t kMode = 0600;
constexpr unsigned long kRequest = 0;

// The driver may use one byte after the data; the library neither sets nor reads it.
constexpr uint64_t kOverhead = sizeof(bv_ioctl_record) + 1;

// errno still says why the driver rejected the record.
void free_record(bv_ioctl_record *record)
{
    const int error = errno;
    bv_os_free(record);
    errno = error;
}

using Record = bv::Owned<bv_ioctl_record *, nullptr, free_record>;

uint8_t *data_of(bv_ioctl_record *record)
{
    return reinterpret_cast<uint8_t *>(record + 1);
}

// A record for `name` with the data filled in, or zeros without data: the driver may read every
// byte and must not get what was on the heap before. Null if memory is short.
bv_ioctl_record *make_record(const char *name, const void *data, uint32_t len)
{
    auto *record = bv::allocate<bv_ioctl_record>(len + kOverhead);
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
    const Record record(make_record(name, data, len));
    if (!record)
        return BV_ERR_MEMORY;

    const uint32_t failure = bv_ioctl_system(record.get());
    if (failure != 0)
        return failure;
    if (data != nullptr)
        bv_os_memcpy(data, len, data_of(record.get()), len);
    return record->result;
}

uint32_t bv_ioctl_system(void *record)
{
    const bv::Descriptor fd(bv::close_on_exec(bv_os_dev_open(kDevice, O_RDWR | O_NONBLOCK, kMode)));
    if (!fd)
        return BV_ERR_CHANNEL;
    return static_cast<uint32_t>(bv_os_ioctl(fd.get(), kRequest, record));
}
