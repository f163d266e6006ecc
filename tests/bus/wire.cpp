#include "bus/wire.h"

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace wire {

namespace {

void pad(Bytes &bytes)
{
    while (bytes.size() % 4 != 0)
        bytes.push_back(0);
}

void append(Bytes &to, const Bytes &from)
{
    to.insert(to.end(), from.begin(), from.end());
}

uint32_t get_word(const Bytes &bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = 0; i < 4; i++)
        value = value << 8 | bytes.at(at + i);
    return value;
}

bool readable(int fd, int timeout_ms)
{
    pollfd wait = {fd, POLLIN, 0};
    return poll(&wait, 1, timeout_ms) > 0;
}

bool receive_all(int fd, Bytes &bytes, int timeout_ms)
{
    size_t at = 0;
    while (at < bytes.size()) {
        if (!readable(fd, timeout_ms))
            return false;
        const ssize_t n = recv(fd, bytes.data() + at, bytes.size() - at, 0);
        if (n <= 0)
            return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

// Where an attribute starts, or the size of the whole when it is not there.
size_t find(const Bytes &attributes, uint8_t id)
{
    size_t at = 0;
    while (at + 4 <= attributes.size()) {
        const uint32_t length = get_word(attributes, at) & 0xffffff;
        if ((attributes[at] & 0x7f) == id)
            return at;
        if (length < 4)
            break;
        at += (length + 3) & ~size_t{3};
    }
    return attributes.size();
}

} // namespace

Bytes hex(const std::string &digits)
{
    Bytes bytes;
    std::string pair;
    for (char c : digits) {
        if (isspace(static_cast<unsigned char>(c)))
            continue;
        pair += c;
        if (pair.size() == 2) {
            bytes.push_back(static_cast<uint8_t>(strtoul(pair.c_str(), nullptr, 16)));
            pair.clear();
        }
    }
    return bytes;
}

std::string to_hex(const Bytes &bytes)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t byte : bytes) {
        out += kDigits[byte >> 4];
        out += kDigits[byte & 15];
    }
    return out;
}

Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes &part : parts)
        append(all, part);
    return all;
}

Bytes word(uint32_t value)
{
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

Bytes text(const std::string &value)
{
    Bytes bytes(value.begin(), value.end());
    bytes.push_back(0);
    return bytes;
}

Bytes attribute(uint8_t id, const Bytes &payload)
{
    Bytes bytes = word(static_cast<uint32_t>(id) << 24 | static_cast<uint32_t>(payload.size() + 4));
    append(bytes, payload);
    pad(bytes);
    return bytes;
}

Bytes field(uint8_t type, const std::string &name, const Bytes &data)
{
    Bytes payload = {static_cast<uint8_t>(name.size() >> 8), static_cast<uint8_t>(name.size())};
    append(payload, text(name));
    pad(payload);
    append(payload, data);
    return attribute(type | 0x80, payload);
}

Bytes request(const std::string &func, uint32_t len, const Bytes &data)
{
    return join({field(3, "func", text(func)), field(5, "len", word(len)), field(0, "data", data)});
}

Bytes reply(uint32_t result, uint32_t len, const Bytes &data)
{
    return join(
        {field(5, "return", word(result)), field(5, "len", word(len)), field(0, "data", data)});
}

Bytes Message::bytes() const
{
    return join({{0, type, static_cast<uint8_t>(sequence >> 8), static_cast<uint8_t>(sequence)},
                 word(peer),
                 word(static_cast<uint32_t>(attributes.size() + 4)),
                 attributes});
}

bool Message::has(uint8_t id) const
{
    return find(attributes, id) != attributes.size();
}

Bytes Message::payload(uint8_t id) const
{
    const size_t at = find(attributes, id);
    if (at == attributes.size())
        return {};
    const size_t end = at + (get_word(attributes, at) & 0xffffff);
    return Bytes(attributes.begin() + static_cast<ptrdiff_t>(at + 4),
                 attributes.begin() + static_cast<ptrdiff_t>(end));
}

uint32_t Message::number(uint8_t id) const
{
    const Bytes bytes = payload(id);
    return bytes.size() == 4 ? get_word(bytes, 0) : 0xdeadbeef;
}

bool send_all(int fd, const Bytes &bytes)
{
    size_t at = 0;
    while (at < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

bool send_message(int fd, const Message &message)
{
    return send_all(fd, message.bytes());
}

Message receive_message(int fd, int timeout_ms)
{
    Bytes head(12);
    if (!receive_all(fd, head, timeout_ms))
        return {};
    Message message;
    message.type = head[1];
    message.sequence = static_cast<uint16_t>(head[2] << 8 | head[3]);
    message.peer = get_word(head, 4);
    message.attributes.resize((get_word(head, 8) & 0xffffff) - 4);
    if (!receive_all(fd, message.attributes, timeout_ms))
        return {};
    return message;
}

bool closed_by_peer(int fd, int timeout_ms)
{
    uint8_t discarded[4096];
    while (readable(fd, timeout_ms)) {
        if (recv(fd, discarded, sizeof(discarded), 0) <= 0)
            return true;
    }
    return false;
}

} // namespace wire
