// Raw messages on the bus socket, put together and taken apart byte by byte so that nothing of the
// library under test is trusted.

#ifndef TESTS_COMPAT_UBUS_WIRE_H
#define TESTS_COMPAT_UBUS_WIRE_H

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace wire {

using Bytes = std::vector<uint8_t>;

enum Type {
    kHello,
    kStatus,
    kData,
    kPing,
    kLookup,
    kInvoke,
    kAddObject,
    kRemoveObject,
    kSubscribe,
    kUnsubscribe,
    kNotify,
    kMonitor
};
enum Attr {
    kAttrStatus = 1,
    kAttrPath,
    kAttrId,
    kAttrMethod,
    kAttrType,
    kAttrSignature,
    kAttrData,
    kAttrTarget,
    kAttrActive,
    kAttrNoReply,
    kAttrSubscribers,
    kAttrUser,
    kAttrGroup
};

inline uint32_t be32(const uint8_t *from)
{
    return uint32_t(from[0]) << 24 | uint32_t(from[1]) << 16 | uint32_t(from[2]) << 8 | from[3];
}

inline Bytes u32(uint32_t value)
{
    return {uint8_t(value >> 24), uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
}

inline Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes text(const std::string &value)
{
    return Bytes(value.c_str(), value.c_str() + value.size() + 1);
}

inline Bytes attr(uint32_t id, const Bytes &payload)
{
    Bytes bytes = u32(id << 24 | uint32_t(4 + payload.size())) + payload;
    while (bytes.size() % 4 != 0)
        bytes.push_back(0);
    return bytes;
}

// A named field, as inside SIGNATURE and DATA.
inline Bytes field(uint32_t type, const std::string &name, const Bytes &value)
{
    Bytes head = {uint8_t(name.size() >> 8), uint8_t(name.size())};
    head = head + text(name);
    while (head.size() % 4 != 0)
        head.push_back(0);
    return attr(0x80 | type, head + value);
}

inline Bytes message(uint8_t type, uint16_t seq, uint32_t peer, const Bytes &attrs = {})
{
    Bytes head = {0, type, uint8_t(seq >> 8), uint8_t(seq)};
    return head + u32(peer) + u32(uint32_t(4 + attrs.size())) + attrs;
}

inline Bytes add_object(uint16_t seq, const std::string &path, const Bytes &methods)
{
    return message(kAddObject, seq, 0, attr(kAttrPath, text(path)) + attr(kAttrSignature, methods));
}

inline Bytes invoke(uint16_t seq, uint32_t object, const std::string &method,
                    const Bytes &fields = {})
{
    return message(kInvoke, seq, object,
                   attr(kAttrId, u32(object)) + attr(kAttrMethod, text(method)) +
                       attr(kAttrData, fields));
}

struct Message {
    Bytes bytes;

    bool empty() const { return bytes.empty(); }
    int type() const { return empty() ? -1 : bytes[1]; }
    unsigned seq() const { return empty() ? 0 : unsigned(bytes[2] << 8 | bytes[3]); }
    uint32_t peer() const { return empty() ? 0 : be32(&bytes[4]); }

    // Payload of an attribute; empty also when it is absent.
    Bytes attr(uint32_t id) const
    {
        size_t at = 12;
        while (at + 4 <= bytes.size()) {
            uint32_t word = be32(&bytes[at]);
            size_t length = word & 0xffffff;
            if (length < 4 || at + length > bytes.size())
                break;
            if (word >> 24 == id)
                return Bytes(bytes.begin() + long(at) + 4, bytes.begin() + long(at + length));
            at += (length + 3) & ~size_t(3);
        }
        return {};
    }
    uint32_t number(uint32_t id) const
    {
        Bytes value = attr(id);
        return value.size() == 4 ? be32(value.data()) : 0xffffffff;
    }
    std::string string(uint32_t id) const
    {
        Bytes value = attr(id);
        return value.empty() ? "" : std::string(value.begin(), value.end() - 1);
    }
    uint32_t status() const { return type() == kStatus ? number(kAttrStatus) : 0xfffffffe; }
};

// A stream socket that speaks in whole messages.
class Stream {
public:
    explicit Stream(int fd = -1) : fd_(fd) {}
    ~Stream() { hang_up(); }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;
    Stream(Stream &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }

    int fd() const { return fd_; }

    bool dial(const char *path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    }

    void hang_up()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

    bool send(const Bytes &bytes) const
    {
        for (size_t at = 0; at < bytes.size();) {
            ssize_t sent = ::send(fd_, &bytes[at], bytes.size() - at, MSG_NOSIGNAL);
            if (sent <= 0)
                return false;
            at += size_t(sent);
        }
        return true;
    }

    // The next message; an empty one when the stream ended or nothing came in time.
    Message read(int timeout_ms = 10000) const
    {
        Message message;
        message.bytes.resize(12);
        if (!fill(message.bytes, 0, timeout_ms))
            return {};
        message.bytes.resize(8 + (be32(&message.bytes[8]) & 0xffffff));
        if (!fill(message.bytes, 12, timeout_ms))
            return {};
        return message;
    }

    bool is_silent(int for_ms) const
    {
        pollfd poll_fd = {fd_, POLLIN, 0};
        return poll(&poll_fd, 1, for_ms) == 0;
    }

    // Whether the other side ends the stream, reading away what still comes.
    bool ends(int timeout_ms = 10000) const
    {
        uint8_t bytes[4096];
        pollfd poll_fd = {fd_, POLLIN, 0};
        while (poll(&poll_fd, 1, timeout_ms) == 1) {
            ssize_t length = recv(fd_, bytes, sizeof(bytes), 0);
            if (length <= 0)
                return true;
        }
        return false;
    }

private:
    bool fill(Bytes &bytes, size_t at, int timeout_ms) const
    {
        while (at < bytes.size()) {
            pollfd poll_fd = {fd_, POLLIN, 0};
            if (poll(&poll_fd, 1, timeout_ms) != 1)
                return false;
            ssize_t length = recv(fd_, &bytes[at], bytes.size() - at, 0);
            if (length <= 0)
                return false;
            at += size_t(length);
        }
        return true;
    }

    int fd_;
};

// A greeted client of the daemon.
class Client : public Stream {
public:
    explicit Client(const char *path = "/var/run/ubus/ubus.sock")
    {
        if (dial(path))
            hello_ = read();
    }

    const Message &hello() const { return hello_; }
    uint32_t id() const { return hello_.peer(); }

    // Sends a request and returns the status that ends its answer, 0xfffffffe without one. DATA
    // on the way is kept.
    uint32_t ask(const Bytes &request)
    {
        data.clear();
        if (!send(request))
            return 0xfffffffe;
        for (;;) {
            Message answer = read();
            if (answer.type() != kData)
                return answer.status();
            data.push_back(answer);
        }
    }

    // Publishes an object with one method; its id, 0 when refused.
    uint32_t publish(const std::string &path)
    {
        if (ask(add_object(1, path, field(2, "method", {}))) != 0 || data.size() != 1)
            return 0;
        return data[0].number(kAttrId);
    }

    uint32_t publish_unnamed()
    {
        if (ask(message(kAddObject, 1, 0)) != 0 || data.size() != 1)
            return 0;
        return data[0].number(kAttrId);
    }

    // Everything sent to this client before is in; nothing but the echo may come.
    bool is_in_step()
    {
        Bytes ping = message(kPing, 0xfeed, 0xbeef, attr(kAttrPath, text("in step")));
        if (!send(ping))
            return false;
        ping[1] = kData;
        return read().bytes == ping && read().status() == 0;
    }

    std::vector<Message> data;

private:
    Message hello_;
};

inline std::string hex(const Bytes &bytes)
{
    std::string out;
    char two[4];
    for (size_t i = 0; i < bytes.size(); i++) {
        std::snprintf(two, sizeof(two), i % 4 == 3 ? "%02x " : "%02x", bytes[i]);
        out += two;
    }
    return out;
}

} // namespace wire

#endif
