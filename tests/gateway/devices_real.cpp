// SPDX-License-Identifier: ISC
// The emulated gateway's own devices: a NOR flash chip under the kernel's flash drivers, and the
// driver's node. Nothing is interposed; faults and counters are the modules' parameters.

#include "dev/devices.h"

#include "gateway/modules.h"

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

namespace {

const std::string kFlash = "brovan_nor";
const std::string kDriver = "brovan_gw";
constexpr const char *kCounters[] = {"erases", "reads", "writes"};

void set_flash(const std::string &parameter, int64_t value)
{
    modules::set(kFlash, parameter, std::to_string(value));
}

// "/dev/mtdN" by the kernel's table, which has the names in quotes.
std::string device_of(const std::string &name)
{
    std::string table = read_file("/proc/mtd");
    size_t at = table.find('"' + name + '"');
    size_t line = table.rfind('\n', at) + 1;
    if (at == std::string::npos) {
        fprintf(stderr, "no partition %s in:\n%s", name.c_str(), table.c_str());
        abort();
    }
    return "/dev/" + table.substr(line, table.find(':', line) - line);
}

// Erases a partition and returns its size. 0 for the factory partition: it cannot be opened for
// writing, so it never changes.
uint32_t erase_all(const std::string &name)
{
    int fd = open(device_of(name).c_str(), O_RDWR);
    if (fd < 0)
        return 0;
    mtd_info_user info = {};
    EXPECT_EQ(ioctl(fd, MEMGETINFO, &info), 0);
    erase_info_user request = {0, info.size};
    EXPECT_EQ(ioctl(fd, MEMERASE, &request), 0);
    close(fd);
    return info.size;
}

// While it lives, what a test does on the flash by itself does not count.
class Uncounted {
public:
    Uncounted()
    {
        for (size_t i = 0; i < std::size(kCounters); i++)
            counts_[i] = modules::get(kFlash, kCounters[i]);
    }
    ~Uncounted()
    {
        for (size_t i = 0; i < std::size(kCounters); i++)
            set_flash(kCounters[i], counts_[i]);
    }
    Uncounted(const Uncounted &) = delete;
    Uncounted &operator=(const Uncounted &) = delete;

private:
    unsigned counts_[std::size(kCounters)];
};

// All tests of a program share the machine: after each, the devices work again.
class BackToNormal : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo &) override
    {
        if (modules::loaded(kFlash)) {
            for (const char *fault : {"bad_read", "bad_write", "bad_erase"})
                set_flash(fault, -1);
            set_flash("erases_to_fail", 0);
            set_flash("room", UINT_MAX);
            set_flash("reported_erase_size", devices::kEraseSize);
        }
        modules::unload(kDriver);
    }
};
[[maybe_unused]] const bool listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new BackToNormal);
    return true;
}();

devices::DriverCall driver_call;

} // namespace

namespace devices {

bool made_up()
{
    return false;
}

void flash_attach()
{
    modules::load(kFlash);
    for (const char *name : {"config", "crash", "rootfs", "rootfs_data"})
        erase_all(name);
    for (const char *counter : kCounters)
        set_flash(counter, 0);
}

std::vector<uint8_t> flash_contents(const std::string &name)
{
    Uncounted look;
    std::string bytes = read_file(device_of(name));
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

void flash_fill(const std::string &name, uint8_t value)
{
    Uncounted change;
    write_file(device_of(name), std::string(erase_all(name), static_cast<char>(value)));
}

unsigned erase_requests()
{
    return modules::get(kFlash, "erases");
}
unsigned system_calls_on_flash()
{
    return modules::get(kFlash, "reads") + modules::get(kFlash, "writes");
}
void fail_erases(unsigned count)
{
    set_flash("erases_to_fail", count);
}
void stop_transfers_after(uint64_t bytes)
{
    set_flash("room", bytes > UINT_MAX ? UINT_MAX : static_cast<int64_t>(bytes));
}
void report_erase_size(uint32_t size)
{
    set_flash("reported_erase_size", size);
}

void driver_load()
{
    modules::load(kDriver);
}

void driver_odd_result(bool odd)
{
    modules::set(kDriver, "odd_result", odd ? "1" : "0");
}

const DriverCall &last_driver_call()
{
    std::vector<uint8_t> answer(4 + 264 + (2u << 20));
    int fd = open("/dev/brovan", O_RDWR);
    EXPECT_EQ(ioctl(fd, 1, answer.data()), 0);
    close(fd);
    uint32_t length;
    memcpy(&driver_call.open_flags, answer.data(), 4);
    driver_call.head.assign(answer.begin() + 4, answer.begin() + 4 + 264);
    memcpy(&length, driver_call.head.data() + 256, 4);
    driver_call.data.assign(answer.begin() + 268, answer.begin() + 268 + length);
    return driver_call;
}

} // namespace devices
