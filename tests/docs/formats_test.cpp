// SPDX-License-Identifier: ISC
// The dumps of docs/formats.md against the library: it writes and sends what the page shows, and
// takes what the page shows.

#include "docs/page.h"

#include "bus/scripted_bus.h"
#include "dev/devices.h"
#include "support/bus.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/loopback.h"

#include <bv/bv.h>

#include <gtest/gtest.h>

#include <cstring>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/socket.h>

namespace {

using Bytes = std::vector<uint8_t>;

// ---- the driver's netlink socket: one end of a pair; the test has the other ----

int g_driver_fd = -1;
int g_library_fd = -1;
Bytes g_registration;

} // namespace

BV_INTERPOSE(socket, "socket", int, (int domain, int type, int protocol))
{
    if (domain != AF_NETLINK)
        return BV_NEXT(socket)(domain, type, protocol);
    EXPECT_EQ(protocol, 26);
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    g_driver_fd = ends[0];
    g_library_fd = ends[1];
    return g_library_fd;
}

BV_INTERPOSE(bind, "bind", int, (int fd, const sockaddr *address, socklen_t length))
{
    return fd == g_library_fd ? 0 : BV_NEXT(bind)(fd, address, length);
}

BV_INTERPOSE(sendmsg, BV_TIMED("sendmsg", "sendmsg", "__sendmsg64"), ssize_t,
             (int fd, const msghdr *message, int flags))
{
    if (fd != g_library_fd)
        return BV_NEXT(sendmsg)(fd, message, flags);
    const uint8_t *bytes = static_cast<const uint8_t *>(message->msg_iov[0].iov_base);
    g_registration.assign(bytes, bytes + message->msg_iov[0].iov_len);
    return static_cast<ssize_t>(g_registration.size());
}

namespace {

// ---- the configuration database ----

class DatabaseFormats : public testing::Test {
protected:
    void SetUp() override
    {
        write_file("/etc/template/lan.json", text_block("template"));
        ASSERT_EQ(bv_db_init(), BV_OK);
        ASSERT_EQ(bv_db_reg_user("lan.json"), BV_OK);
    }

    static Bytes image()
    {
        Bytes bytes(256);
        const bv_db_family *family = bv_db_hash_find("lan.json");
        EXPECT_NE(family, nullptr);
        EXPECT_EQ(bv_db_read("lan.json", bytes.data(), 256, 1), BV_OK);
        bytes.resize(static_cast<size_t>(family->image_size));
        return bytes;
    }
};

TEST_F(DatabaseFormats, TemplateGivesTheImageAndTheDataFileOfThePage)
{
    bv_db_start();
    EXPECT_EQ(image(), byte_block("image"));
    bv_db_ready();
    ASSERT_EQ(bv_db_commit(), BV_OK);
    EXPECT_EQ(read_file("/config/work/userdata.json"), text_block("data-file"));
}

TEST_F(DatabaseFormats, DataFileOfThePageGivesItsImage)
{
    std::string file = text_block("data-file");
    file.replace(file.find("1500"), 4, "1492");
    write_file("/config/work/userdata.json", file);
    bv_db_start();
    Bytes expected = byte_block("image");
    expected[4] = 0xd4;
    EXPECT_EQ(image(), expected);
}

// ---- the debug channel ----

TEST(DebugFormat, MessageIsTheDatagramOfThePage)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = loopback();
    socklen_t length = sizeof(address);
    ASSERT_EQ(bind(fd, generic(address), length), 0);
    ASSERT_EQ(getsockname(fd, generic(address), &length), 0);

    bv_debug_init();
    bv_debug_cfg collector = {address.sin_addr.s_addr, ntohs(address.sin_port), 0};
    bv_debug_set_cfg(&collector);
    bv_debug_set_switch(2, 3, 1);
    bv_debug_remote(5, 0x1234, 2, 3, "%s", "abc");

    Bytes datagram(1000);
    datagram.resize(static_cast<size_t>(recv(fd, datagram.data(), datagram.size(), 0)));
    EXPECT_EQ(datagram, byte_block("debug-datagram"));
}

// ---- the bus: the daemon chooses the object's number, which replaces the page's ----

constexpr uint32_t kObjectOfThePage = 0x32763986;

Bytes with_object(Bytes bytes, uint32_t object)
{
    const Bytes from = wire::word(kObjectOfThePage);
    const Bytes to = wire::word(object);
    for (auto at = bytes.begin();
         (at = std::search(at, bytes.end(), from.begin(), from.end())) != bytes.end();)
        std::copy(to.begin(), to.end(), at);
    return bytes;
}

TEST(BusFormat, CallerSendsTheRequestOfThePage)
{
    Bytes sent;
    ScriptedBus bus([&](Peer &peer) {
        peer.hello();
        peer.answer_lookup();
        wire::Message invoke = peer.receive();
        sent = invoke.bytes();
        peer.send_status(invoke, 0);
        wire::closed_by_peer(peer.fd());
    });
    ASSERT_EQ(bv_ubus_client_init(nullptr), 0);
    bv_debug_switch record = {1, 6, 4};
    bv_ubus_client_call("debug_switch", &record, sizeof(record));
    bv_ubus_client_exit();
    bus.join();
    EXPECT_EQ(sent, with_object(byte_block("bus-request"), kScriptedObject));
}

uint32_t leave_it(void *, uint32_t)
{
    return 0;
}

int register_switch()
{
    return bv_ubus_server_reg("debug_switch", leave_it);
}

TEST(BusFormat, OwnerAnswersTheRequestOfThePageWithItsReply)
{
    BusDaemon daemon;
    Service owner([] { return bv_ubus_server_init(nullptr, register_switch); });
    ASSERT_TRUE(wait_for_object("brovan.gateway.server"));

    wire::Client caller;
    wire::send_message(
        caller.fd(), {wire::kLookup, 1, 0,
                      wire::attribute(wire::kAttrObjectPath, wire::text("brovan.gateway.server"))});
    uint32_t object = caller.read().number(wire::kAttrObjectId);
    caller.read(); // status of the look-up

    const Bytes expected = with_object(byte_block("bus-reply"), object);
    ASSERT_TRUE(caller.send(with_object(byte_block("bus-request"), object)));
    Bytes received;
    while (received.size() < expected.size()) {
        wire::Message message = caller.read();
        ASSERT_FALSE(message.empty());
        received = wire::join({received, message.bytes()});
    }
    EXPECT_EQ(received, expected);
    EXPECT_TRUE(caller.is_silent(200)) << "the page has no more";
}

// ---- kernel messages ----

sem_t g_event_came;
Bytes g_event;

void on_event(void *data, uint32_t length)
{
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    g_event.assign(bytes, bytes + length);
    sem_post(&g_event_came);
}

TEST(KernelFormat, RegistrationAndEventAreThoseOfThePage)
{
    sem_init(&g_event_came, 0, 0);
    bv_notifier_init();
    bv_notifier_reg(8, on_event);
    ASSERT_GE(g_driver_fd, 0);

    const Bytes event = byte_block("kernel-event");
    ASSERT_EQ(write(g_driver_fd, event.data(), event.size()), static_cast<ssize_t>(event.size()));
    while (sem_wait(&g_event_came) != 0)
        ;
    EXPECT_EQ(g_event, (Bytes{'l', 'i', 'n', 'k', ' ', 'u', 'p'}));

    // The page's process is number 1234. The receive thread registers before it listens.
    Bytes expected = byte_block("kernel-registration");
    ASSERT_EQ(expected.size(), 1040u);
    uint32_t process = static_cast<uint32_t>(getpid());
    EXPECT_EQ(Bytes(expected.begin() + 12, expected.begin() + 16), (Bytes{0xd2, 0x04, 0, 0}));
    memcpy(&expected[12], &process, 4);
    EXPECT_EQ(g_registration, expected);
}

// ---- the driver's record ----

TEST(DriverFormat, CallPassesTheRecordOfThePage)
{
    devices::driver_load();
    char data[] = "abc";
    EXPECT_EQ(bv_ioctl_call("upper", data, 3), 0u);
    Bytes record = devices::last_driver_call().head;
    record.insert(record.end(), devices::last_driver_call().data.begin(),
                  devices::last_driver_call().data.end());
    EXPECT_EQ(record, byte_block("driver-record"));
}

// ---- encrypted files ----

Bytes encrypted(const std::string &text)
{
    uint8_t key[16];
    for (uint8_t i = 0; i < 16; i++)
        key[i] = i;
    write_file("/scratch/plain", text);
    bv_aes_file_en("/scratch/plain", "/scratch/encrypted", key);
    const std::string bytes = read_file("/scratch/encrypted");
    return Bytes(bytes.begin(), bytes.end());
}

TEST(EncryptedFormat, FilesAreThoseOfThePage)
{
    EXPECT_EQ(encrypted("hello\n"), byte_block("encrypted-short"));
    EXPECT_EQ(encrypted("0123456789abcdef0123456789abcde\nx"), byte_block("encrypted-long"));
}

} // namespace
