// SPDX-License-Identifier: ISC
// The gateway's devices as the tests see them: five flash partitions and the driver node.
//
// On a workstation devices_fake.cpp replaces the kernel: the devices are ordinary files in /dev,
// and it answers their ioctls at the libc boundary. On a gateway the same tests run on the real
// devices.
#ifndef TESTS_DEV_DEVICES_H
#define TESTS_DEV_DEVICES_H

#include <cstdint>
#include <string>
#include <vector>

namespace devices {

constexpr uint32_t kEraseSize = 0x10000;

// Whether these devices are made up. Real ones cannot be told to fail in every way.
bool made_up();
#define NEEDS_MADE_UP_DEVICES()                                                                    \
    if (!devices::made_up())                                                                       \
    GTEST_SKIP() << "a real device cannot be told to behave like this"

// The partitions that flash_attach() makes: "config" (512 KiB), "factory" (64 KiB, refuses to be
// opened for writing), "crash" (64 KiB), "rootfs" and "rootfs_data" (1 MiB each), all erased.
void flash_attach();

// What is on a partition, past the library.
std::vector<uint8_t> flash_contents(const std::string &name);
void flash_fill(const std::string &name, uint8_t value);

// Counts since flash_attach().
unsigned erase_requests();
unsigned system_calls_on_flash(); // reads and writes on the devices

// From now on: the next `count` erase requests fail; reading or writing stops `bytes` into the
// transfer; the erase size is reported as `size`.
void fail_erases(unsigned count);
void stop_transfers_after(uint64_t bytes);
void report_erase_size(uint32_t size);

// What only devices that are made up can be told.
struct MadeUp {
    bool geometry_fails = false;
    bool seeks_fail = false;
    bool closes_fail = false;        // of the driver's node too
    bool reading_refused = false;    // although a device opens for writing
    unsigned writer_refused = 0;     // the nth opening for writing from now on; 1 is the next
    uint32_t size = 0;               // of every partition; 0: the true one
    std::vector<int> flags_of_opens; // of flash devices, in order, since flash_attach()
};
inline MadeUp settings;

// The driver: "upper" makes the data upper case, "result5" fills it with 0xa5 and answers 5,
// "reject" fails with EPERM, anything else answers 0xfffffffe. With odd_result the ioctl itself
// returns 7 and changes the data.
void driver_load();
void driver_odd_result(bool odd);
struct DriverCall {
    std::vector<uint8_t> head; // the record's 264 bytes
    std::vector<uint8_t> data;
    int open_flags;
};
const DriverCall &last_driver_call();

} // namespace devices

#endif
