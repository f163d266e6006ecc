// SPDX-License-Identifier: ISC
// A program that a service starts through the library inherits none of the library's descriptors:
// neither those that the service keeps, nor those of calls that other threads are in the middle of.
// The gateway runs this too, with its own kernel, driver and userland.

#include <bv/aes.h>
#include <bv/debug.h>
#include <bv/os.h>
#include <bv/ubus.h>

#include "support/bus.h"
#include "support/files.h"
#include "support/process.h"

#ifdef BV_NOTHING_INTERPOSED
#include "gateway/modules.h"
#else
#include "support/libc.h"
#include <linux/netlink.h>
#endif

#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <functional>
#include <set>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

std::string target_of(int fd)
{
    char target[128] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    return readlink(link.c_str(), target, sizeof target - 1) > 0 ? target : "";
}

// What this process has open besides standard input, output and error.
std::set<std::string> open_files()
{
    std::set<std::string> files;
    for (int fd : open_descriptors())
        if (fd > STDERR_FILENO)
            files.insert(target_of(fd));
    return files;
}

// A named pipe that this test holds open at both ends, so that opening it does not wait.
class Gate {
public:
    explicit Gate(const char *path)
    {
        EXPECT_EQ(mkfifo(path, 0600), 0) << path;
        fd_ = open(path, O_RDWR | O_CLOEXEC | O_NONBLOCK);
    }
    ~Gate() { shut(); }
    Gate(const Gate &) = delete;
    Gate &operator=(const Gate &) = delete;

    int waiting() const
    {
        int bytes = 0;
        ioctl(fd_, FIONREAD, &bytes);
        return bytes;
    }
    void put(char ch) const { EXPECT_EQ(write(fd_, &ch, 1), 1); }
    void drain() const
    {
        char bytes[4096];
        while (read(fd_, bytes, sizeof bytes) > 0)
            ;
    }
    void shut()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

// Makes the kernel's events available, as the library sees them. False in user-mode emulation,
// which has no netlink sockets of this kind.
bool provide_driver()
{
#ifdef BV_NOTHING_INTERPOSED
    modules::load("brovan_gw");
    return true;
#else
    g_redirect_netlink = true;
    const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK);
    close(fd);
    return fd >= 0;
#endif
}

constexpr const char *kSeen = "/scratch/seen";
// In parentheses, so that each function's own redirection leaves this one alone.
constexpr const char *kLook = "(ls -l /proc/self/fd > /scratch/seen; touch /scratch/looked)";

} // namespace

TEST(Inherited, ProgramsInheritNothingThatTheLibraryHasOpen)
{
    const std::set<std::string> before = open_files();

    BusDaemon bus;
    const bool has_driver = provide_driver();
    ASSERT_EQ(bv_libraries_init(), 0);
    ASSERT_EQ(bv_uloop_init(), 0);
    ubus_context *connection = bv_ubus_connect(nullptr);
    ASSERT_NE(connection, nullptr);

    // A file that is encrypted, and waits for room in the pipe that its result goes to.
    Gate cipher("/scratch/cipher");
    write_file("/scratch/plain", std::string(200000, 'x'));
    std::atomic<bool> encrypted{false};
    std::thread encrypting([&] {
        bv_aes_file_en("/scratch/plain", "/scratch/cipher",
                       reinterpret_cast<const uint8_t *>("0123456789abcdef"));
        encrypted = true;
    });
    EXPECT_TRUE(eventually([&] { return cipher.waiting() > 0; }));

    // A file that is digested, and a command's output that is read; there is more to come of both.
    Gate data("/scratch/data");
    char digest[65] = "";
    std::thread digesting([&] { bv_os_sm3_file("/scratch/data", digest); });
    data.put('x');
    EXPECT_TRUE(eventually([&] { return data.waiting() == 0; }));
    Gate output("/scratch/output");
    char line[8] = "";
    std::thread reading([&] { bv_get_pipe("cat /scratch/output", line, sizeof line); });
    output.put('x');
    EXPECT_TRUE(eventually([&] { return *const_cast<volatile char *>(line) == 'x'; }));

    std::set<std::string> held = open_files();
    for (const std::string &file : before)
        held.erase(file);
    int sockets = 0;
    for (const std::string &file : held)
        sockets += file.compare(0, 7, "socket:") == 0 ? 1 : 0;
    EXPECT_GE(sockets, has_driver ? 3 : 2) << "debug messages, kernel events, the bus";
    EXPECT_EQ(held.count("/scratch/plain") + held.count("/scratch/cipher") +
                  held.count("/scratch/data"),
              3u);

    char out[64];
    const struct {
        const char *name;
        std::function<void()> run;
    } starters[] = {
        {"bv_os_system", [] { bv_os_system("%s", kLook); }},
        {"bv_os_systemnull", [] { bv_os_systemnull("%s", kLook); }},
        {"bv_os_systembk", [] { bv_os_systembk("%s", kLook); }},
        {"bv_os_sysprocess", [] { bv_os_sysprocess("%s", kLook); }},
        {"bv_os_systemex", [&] { bv_os_systemex(out, sizeof out, "%s", kLook); }},
        {"bv_os_sysmatch", [&] { bv_os_sysmatch(out, sizeof out, "a", "b", "%s", kLook); }},
        {"bv_get_pipe", [&] { bv_get_pipe(kLook, out, sizeof out); }},
        {"bv_os_popen", [] { bv_os_pclose(bv_os_popen(kLook, "r")); }},
    };
    for (const auto &starter : starters) {
        SCOPED_TRACE(starter.name);
        remove(kSeen);
        remove("/scratch/looked");
        starter.run();
        EXPECT_TRUE(eventually([] { return file_exists("/scratch/looked"); }));
        const std::string seen = read_file(kSeen);
        EXPECT_NE(seen.find(" -> /scratch/seen\n"), std::string::npos) << seen;
        for (const std::string &file : held)
            EXPECT_EQ(seen.find(" -> " + file + "\n"), std::string::npos) << seen;
    }

    data.shut();
    output.shut();
    digesting.join();
    reading.join();
    EXPECT_EQ(std::string(line), "x");
    EXPECT_TRUE(eventually([&] {
        cipher.drain();
        return encrypted.load();
    }));
    encrypting.join();
    bv_ubus_free(connection);
    bv_uloop_done();
    for (const char *path : {"/scratch/cipher", "/scratch/plain", "/scratch/data",
                             "/scratch/output", kSeen, "/scratch/looked"})
        remove(path);
}
