// SPDX-License-Identifier: ISC
// What clients send to the bus daemon: its code runs here, and three clients talk to it.
//
// Input: records. The first byte of one says which client and how:
//   0x80  the bytes go out as they are; otherwise type, peer (4 bytes) and body, and the header
//         with the right lengths is made here
//   0x40  the client first hangs up and comes back
//   0x20  the client does not read what the daemon sends
//   0x10  it reads a little of it
//   0x08  the bytes go out 40 times
//   0x04  the first of the bytes says which of the daemon's next allocations fails
// then a length in two bytes and the bytes. The daemon's sockets take little, so that a client that
// does not read soon has a queue. Ids are not drawn at random: clients are 0x10001 to 0x10003, objects
// and types have the numbers after those.

#include "failing_memory.h"
#include "fuzz/input.h"

#include <csignal>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

extern "C" {
#include "daemon/ubusd.h"
}

namespace {

constexpr char kPath[] = "/scratch/bus";
constexpr int kClients = 3;
constexpr int kRepetitions = 40;
constexpr size_t kEverything = SIZE_MAX;
constexpr uint32_t kIdsBefore = 0x10000;

uint32_t g_last_id;

// The client's end of a connection.
class Peer {
public:
    void connect()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, kPath, sizeof kPath);
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        FUZZ_CHECK(fd_ >= 0);
        FUZZ_CHECK(::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0);
    }

    void disconnect()
    {
        close(fd_);
        received_.clear();
    }

    // What the socket does not take is lost.
    void send(const std::string &bytes)
    {
        (void)!::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    // The daemon's stream must stay in step, no matter what it was sent.
    void receive(size_t most)
    {
        char part[16384];
        for (ssize_t got;
             most > 0 && (got = recv(fd_, part, std::min(most, sizeof part), 0)) > 0;) {
            received_.append(part, static_cast<size_t>(got));
            most -= static_cast<size_t>(got);
        }

        size_t at = 0;
        while (received_.size() - at >= kMessageMinimum) {
            const auto *bytes = reinterpret_cast<const uint8_t *>(received_.data()) + at;
            const size_t body = get_be32(bytes + kHeaderLength) & BLOB_ATTR_LEN_MASK;
            FUZZ_CHECK(bytes[0] == 0 && bytes[1] < __UBUS_MSG_LAST);
            FUZZ_CHECK(body >= kWordLength && body <= UBUS_MAX_MSGLEN);
            if (received_.size() - at < kHeaderLength + body)
                break;
            at += kHeaderLength + body;
        }
        received_.erase(0, at);
    }

private:
    int fd_ = -1;
    std::string received_;
};

bool start()
{
    signal(SIGPIPE, SIG_IGN);
    objects_init();
    FUZZ_CHECK(uloop_init() == 0);
    FUZZ_CHECK(clients_listen(kPath));
    return true;
}

// A turn serves one client.
void run_daemon(int turns = kClients)
{
    for (int turn = 0; turn < turns; ++turn)
        uloop_run_timeout(0);
}

std::string framed(fuzz::Input input)
{
    uint8_t head[kMessageMinimum];
    const uint8_t type = input.byte();
    const uint32_t peer = input.word();
    const std::string body = input.rest();
    put_header(head, type, 1, peer);
    put_be32(head + kHeaderLength, static_cast<uint32_t>(body.size()) + kWordLength);
    return std::string(reinterpret_cast<char *>(head), sizeof head) + body;
}

void play_record(fuzz::Input &input, Peer (&peers)[kClients])
{
    const uint8_t how = input.byte();
    Peer &peer = peers[how % kClients];
    const size_t high = static_cast<size_t>(input.byte()) << 8;
    std::string bytes = input.take(high | input.byte());
    unsigned failing = 0;
    if ((how & 0x04) != 0 && !bytes.empty()) {
        failing = static_cast<uint8_t>(bytes[0]);
        bytes.erase(0, 1);
    }
    if ((how & 0x40) != 0) {
        peer.disconnect();
        run_daemon();
        peer.connect();
    }
    if ((how & 0x80) == 0)
        bytes = framed(fuzz::Input(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()));
    for (int i = (how & 0x08) != 0 ? kRepetitions : 1; i > 0; --i)
        peer.send(bytes);
    fuzz::g_allocations_left = failing;
    run_daemon();
    fuzz::g_allocations_left = 0;
    if ((how & 0x30) == 0)
        peer.receive(kEverything);
    else if ((how & 0x10) != 0)
        peer.receive(100);
}

} // namespace

extern "C" ssize_t getrandom(void *buffer, size_t length, unsigned int)
{
    FUZZ_CHECK(length == sizeof g_last_id);
    ++g_last_id;
    memcpy(buffer, &g_last_id, sizeof g_last_id);
    return sizeof g_last_id;
}

extern "C" int accept4(int listener, sockaddr *address, socklen_t *length, int flags)
{
    const auto fd = static_cast<int>(syscall(SYS_accept4, listener, address, length, flags));
    const int least = 1;
    if (fd >= 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    return fd;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool started = start();
    FUZZ_CHECK(started);

    g_last_id = kIdsBefore;
    Peer peers[kClients];
    for (Peer &peer : peers) {
        peer.connect();
        run_daemon();
    }
    fuzz::Input input(data, size);
    while (!input.empty())
        play_record(input, peers);

    for (Peer &peer : peers) {
        // A reader that catches up sees a stream that is in step to its end.
        for (int i = 0; i < 20; ++i) {
            peer.receive(kEverything);
            run_daemon();
        }
        peer.disconnect();
    }
    run_daemon(4 * kClients);
    for (uint32_t id = kIdsBefore; id <= g_last_id; ++id)
        FUZZ_CHECK(client_find(id) == nullptr && object_find(id) == nullptr);
    FUZZ_CHECK(avl_is_empty(&objects_by_path));
    return 0;
}
