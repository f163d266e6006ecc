/* SPDX-License-Identifier: ISC */
#include "support/wire.h"

#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
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
size_t find(const Bytes &attributes, uint32_t id)
{
    size_t at = 0;
    while (at + 4 <= attributes.size()) {
        const uint32_t length = get_word(&attributes[at]) & 0xffffff;
        if (length < 4 || at + length > attributes.size())
            break;
        if ((attributes[at] & 0x7f) == id) // its highest bit says that it is named
            return at;
        at += (length + 3) & ~size_t{3};
    }
    return attributes.size();
}

} // namespace

Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes &part : parts)
        append(all, part);
    return all;
}

Bytes operator+(Bytes left, const Bytes &right)
{
    append(left, right);
    return left;
}

uint32_t get_word(const uint8_t *from)
{
    uint32_t value = 0;
    for (size_t i = 0; i < 4; i++)
        value = value << 8 | from[i];
    return value;
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

Bytes attribute(uint32_t id, const Bytes &payload)
{
    Bytes bytes = word(id << 24 | static_cast<uint32_t>(payload.size() + 4));
    append(bytes, payload);
    pad(bytes);
    return bytes;
}

Bytes field(uint32_t type, const std::string &name, const Bytes &data)
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

Bytes message(uint8_t type, uint16_t sequence, uint32_t peer, const Bytes &attributes)
{
    return join({{0, type, static_cast<uint8_t>(sequence >> 8), static_cast<uint8_t>(sequence)},
                 word(peer),
                 word(static_cast<uint32_t>(attributes.size() + 4)),
                 attributes});
}

Bytes add_object(uint16_t sequence, const std::string &path, const Bytes &methods)
{
    return message(kAddObject, sequence, 0,
                   attribute(kAttrObjectPath, text(path)) + attribute(kAttrSignature, methods));
}

Bytes invoke(uint16_t sequence, uint32_t object, const std::string &method, const Bytes &fields)
{
    return message(kInvoke, sequence, object,
                   attribute(kAttrObjectId, word(object)) + attribute(kAttrMethod, text(method)) +
                       attribute(kAttrData, fields));
}

Bytes event_register(uint32_t object, const std::string &pattern)
{
    return invoke(1, 1, "register",
                  field(5, "object", word(object)) + field(3, "pattern", text(pattern)));
}

Bytes Message::bytes() const
{
    return head.empty() ? message(type, sequence, peer, attributes) : head + attributes;
}

bool Message::has(uint32_t id) const
{
    return find(attributes, id) != attributes.size();
}

Bytes Message::payload(uint32_t id) const
{
    const size_t at = find(attributes, id);
    if (at == attributes.size())
        return {};
    const size_t end = at + (get_word(&attributes[at]) & 0xffffff);
    return Bytes(attributes.begin() + static_cast<ptrdiff_t>(at + 4),
                 attributes.begin() + static_cast<ptrdiff_t>(end));
}

uint32_t Message::number(uint32_t id) const
{
    const Bytes bytes = payload(id);
    return bytes.size() == 4 ? get_word(bytes.data()) : kNoNumber;
}

std::string Message::string(uint32_t id) const
{
    const Bytes value = payload(id);
    return value.empty() ? "" : std::string(value.begin(), value.end() - 1);
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
    message.peer = get_word(&head[4]);
    message.attributes.resize((get_word(&head[8]) & 0xffffff) - 4);
    if (!receive_all(fd, message.attributes, timeout_ms))
        return {};
    message.head = head;
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

bool is_silent(int fd, int for_ms)
{
    return !readable(fd, for_ms);
}

bool Stream::dial(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    hang_up();
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
}

void Stream::hang_up()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

Client::Client(const char *path)
{
    if (dial(path))
        hello_ = read();
}

uint32_t Client::ask(const Bytes &request)
{
    data.clear();
    if (!send(request))
        return kNoNumber;
    for (;;) {
        Message answer = read();
        if (answer.type != kData)
            return answer.status();
        data.push_back(answer);
    }
}

uint32_t Client::published(uint32_t status) const
{
    return status == 0 && data.size() == 1 ? data[0].number(kAttrObjectId) : 0;
}

uint32_t Client::publish(const std::string &path)
{
    return published(ask(add_object(1, path, field(2, "method", {}))));
}

uint32_t Client::publish_unnamed()
{
    return published(ask(message(kAddObject, 1, 0)));
}

bool Client::is_in_step()
{
    Bytes ping = message(kPing, 0xfeed, 0xbeef, attribute(kAttrObjectPath, text("in step")));
    if (!send(ping))
        return false;
    ping[1] = kData;
    return read().bytes() == ping && read().status() == 0;
}

} // namespace wire
