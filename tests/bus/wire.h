// The bus's own bytes, put together and taken apart by hand, so that what the library sends and
// takes is compared with the format and not with itself.
//
//   message    version 0, type, sequence (16 bits), peer (32 bits), then the body: one word with
//              its length and the attributes
//   attribute  one word (id and length), the payload, zero padding to a multiple of 4
#ifndef BV_TESTS_BUS_WIRE_H
#define BV_TESTS_BUS_WIRE_H

#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

namespace wire {

using Bytes = std::vector<uint8_t>;

enum MessageType : uint8_t {
    kHello = 0,
    kStatus = 1,
    kData = 2,
    kLookup = 4,
    kInvoke = 5,
    kAddObject = 6,
    kNothing = 255, // nothing came
};

enum AttributeId : uint8_t {
    kAttrStatus = 1,
    kAttrObjectPath = 2,
    kAttrObjectId = 3,
    kAttrMethod = 4,
    kAttrObjectType = 5,
    kAttrSignature = 6,
    kAttrData = 7,
};

Bytes hex(const std::string &digits); // blanks and newlines between digits are fine
std::string to_hex(const Bytes &bytes);
Bytes join(std::initializer_list<Bytes> parts);
Bytes word(uint32_t value);
Bytes text(const std::string &value); // with its terminator
Bytes attribute(uint8_t id, const Bytes &payload);
Bytes field(uint8_t type, const std::string &name, const Bytes &data); // a named attribute

// The three fields of a request and of a reply.
Bytes request(const std::string &func, uint32_t len, const Bytes &data);
Bytes reply(uint32_t result, uint32_t len, const Bytes &data);

struct Message {
    uint8_t type = kNothing;
    uint16_t sequence = 0;
    uint32_t peer = 0;
    Bytes attributes;

    Bytes bytes() const; // as it goes over the socket
    bool has(uint8_t id) const;
    Bytes payload(uint8_t id) const; // empty when there is none
    uint32_t number(uint8_t id) const;
};

// True when all of it went out; the other side may be gone.
bool send_all(int fd, const Bytes &bytes);
bool send_message(int fd, const Message &message);
// The next message, or kNothing at the end of the stream or after timeout_ms.
Message receive_message(int fd, int timeout_ms = 20000);
// Whether the other side has closed, waiting up to timeout_ms for it; discards what comes.
bool closed_by_peer(int fd, int timeout_ms = 20000);

} // namespace wire

#endif
