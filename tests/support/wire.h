// SPDX-License-Identifier: ISC
// The bus's own bytes, put together and taken apart by hand, so that what the library sends and
// takes is compared with the format and not with itself.
//
//   message    version 0, type, sequence (16 bits), peer (32 bits), then the body: one word with
//              its length and the attributes
//   attribute  one word (id and length), the payload, zero padding to a multiple of 4
#ifndef BV_TESTS_SUPPORT_WIRE_H
#define BV_TESTS_SUPPORT_WIRE_H

#include "support/hex.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace wire {

using Bytes = std::vector<uint8_t>;

enum MessageType : uint8_t {
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
    kMonitor,
    kNothing = 255, // nothing came
};

enum AttributeId : uint8_t {
    kAttrStatus = 1,
    kAttrObjectPath,
    kAttrObjectId,
    kAttrMethod,
    kAttrObjectType,
    kAttrSignature,
    kAttrData,
    kAttrTarget,
    kAttrActive,
    kAttrNoReply,
    kAttrSubscribers,
    kAttrUser,
    kAttrGroup,
};

constexpr const char *kDefaultSocket = "/var/run/ubus/ubus.sock";
constexpr uint32_t kNoNumber = 0xdeadbeef; // where there is none

inline Bytes hex(const std::string &digits)
{
    return from_hex<Bytes>(digits);
}
using ::to_hex;

Bytes join(std::initializer_list<Bytes> parts);
Bytes operator+(Bytes left, const Bytes &right);
Bytes word(uint32_t value);
uint32_t get_word(const uint8_t *from);
Bytes text(const std::string &value); // with its terminator
Bytes attribute(uint32_t id, const Bytes &payload);
Bytes field(uint32_t type, const std::string &name, const Bytes &data); // a named attribute

// The three fields of a remote call's request and of its reply.
Bytes request(const std::string &func, uint32_t len, const Bytes &data);
Bytes reply(uint32_t result, uint32_t len, const Bytes &data);

struct Message {
    uint8_t type = kNothing;
    uint16_t sequence = 0;
    uint32_t peer = 0;
    Bytes attributes;
    Bytes head = {}; // as received: all that is in front of the attributes

    Bytes bytes() const; // as it went, or goes, over the socket
    bool empty() const { return type == kNothing; }
    bool has(uint32_t id) const;
    Bytes payload(uint32_t id) const; // empty when there is none
    uint32_t number(uint32_t id) const;
    std::string string(uint32_t id) const; // without its terminator
    uint32_t status() const { return type == kStatus ? number(kAttrStatus) : kNoNumber; }
};

// Messages as bytes.
Bytes message(uint8_t type, uint16_t sequence, uint32_t peer, const Bytes &attributes = {});
Bytes add_object(uint16_t sequence, const std::string &path, const Bytes &methods);
Bytes invoke(uint16_t sequence, uint32_t object, const std::string &method,
             const Bytes &fields = {});
Bytes event_register(uint32_t object, const std::string &pattern);

// True when all of it went out; the other side may be gone.
bool send_all(int fd, const Bytes &bytes);
bool send_message(int fd, const Message &message);
// The next message, or kNothing at the end of the stream or after timeout_ms.
Message receive_message(int fd, int timeout_ms = 20000);
// Whether the other side has closed, waiting up to timeout_ms for it; discards what comes.
bool closed_by_peer(int fd, int timeout_ms = 20000);
bool is_silent(int fd, int for_ms);

// A stream socket that speaks in whole messages.
class Stream {
public:
    explicit Stream(int fd = -1) : fd_(fd) {}
    ~Stream() { hang_up(); }
    Stream(Stream &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    int fd() const { return fd_; }
    bool dial(const char *path);
    void hang_up();
    bool send(const Bytes &bytes) const { return send_all(fd_, bytes); }
    Message read(int timeout_ms = 10000) const { return receive_message(fd_, timeout_ms); }
    bool is_silent(int for_ms) const { return wire::is_silent(fd_, for_ms); }
    bool ends(int timeout_ms = 10000) const { return closed_by_peer(fd_, timeout_ms); }

private:
    int fd_;
};

// A client of the daemon, after its greeting.
class Client : public Stream {
public:
    explicit Client(const char *path = kDefaultSocket);

    const Message &hello() const { return hello_; }
    uint32_t id() const { return hello_.peer; }

    // Sends a request and returns the status that ends its answer, kNoNumber without one; `data`
    // has what came before.
    uint32_t ask(const Bytes &request);
    // Publishes an object with one method; its id, 0 when refused.
    uint32_t publish(const std::string &path);
    uint32_t publish_unnamed();
    // Everything sent to this client before is in; nothing but the echo may come.
    bool is_in_step();

    std::vector<Message> data;

private:
    uint32_t published(uint32_t status) const;
    Message hello_;
};

} // namespace wire

#endif
