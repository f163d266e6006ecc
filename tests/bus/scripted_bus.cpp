/* SPDX-License-Identifier: ISC */
#include "bus/scripted_bus.h"

#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using wire::Message;

namespace {

constexpr char kSocketFolder[] = "/var/run/ubus";
constexpr char kSocketPath[] = "/var/run/ubus/ubus.sock";
constexpr int kAcceptTimeoutMs = 20000;

int listen_on_default_socket()
{
    mkdir(kSocketFolder, 0755);
    unlink(kSocketPath);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, kSocketPath, sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(fd, 8), 0);
    return fd;
}

} // namespace

void expect_bytes(const wire::Bytes &actual, const std::string &digits)
{
    EXPECT_EQ(wire::to_hex(actual), wire::to_hex(wire::hex(digits)));
}

wire::Bytes damaged(std::mt19937 &random, wire::Bytes fields)
{
    for (unsigned damage = random() % 4 + 1; damage > 0; damage--)
        fields[random() % fields.size()] = static_cast<uint8_t>(random());
    if (random() % 4 == 0)
        fields.resize(random() % fields.size());
    return fields;
}

void Peer::hello()
{
    Message message;
    message.type = wire::kHello;
    message.peer = 0xa377eab2;
    send(message);
}

void Peer::send_status(const Message &to, uint32_t status)
{
    Message message = {wire::kStatus, to.sequence, to.peer,
                       wire::attribute(wire::kAttrStatus, wire::word(status))};
    send(message);
}

Message Peer::answer_lookup()
{
    const Message lookup = receive();
    Message found = {
        wire::kData, lookup.sequence, lookup.peer,
        wire::join({wire::attribute(wire::kAttrObjectPath, lookup.payload(wire::kAttrObjectPath)),
                    wire::attribute(wire::kAttrObjectId, wire::word(kScriptedObject)),
                    wire::attribute(wire::kAttrObjectType, wire::word(kScriptedType))})};
    send(found);
    send_status(lookup, 0);
    return lookup;
}

void Peer::send_reply(const Message &to, const wire::Bytes &fields)
{
    Message message = {
        wire::kData, to.sequence, to.peer,
        wire::join({wire::attribute(wire::kAttrObjectId, wire::word(kScriptedObject)),
                    wire::attribute(wire::kAttrData, fields)})};
    send(message);
}

Message Peer::accept_object()
{
    hello();
    const Message added = receive();
    Message taken = {
        wire::kData, added.sequence, added.peer,
        wire::join({wire::attribute(wire::kAttrObjectId, wire::word(kScriptedObject)),
                    wire::attribute(wire::kAttrObjectType, wire::word(kScriptedType))})};
    send(taken);
    send_status(added, 0);
    return added;
}

Answer Peer::call(const wire::Bytes &fields)
{
    Message invoke = {wire::kInvoke, ++sequence_, kScriptedCaller,
                      wire::join({wire::attribute(wire::kAttrObjectId, wire::word(kScriptedObject)),
                                  wire::attribute(wire::kAttrMethod, wire::text("method")),
                                  wire::attribute(wire::kAttrData, fields)})};
    send(invoke);

    Answer answer;
    while (answer.statuses.empty()) {
        const Message message = receive();
        if (message.type == wire::kNothing) {
            ADD_FAILURE() << "the owner did not finish its answer";
            break;
        }
        EXPECT_EQ(message.sequence, sequence_);
        EXPECT_EQ(message.peer, kScriptedCaller);
        if (message.type == wire::kStatus)
            answer.statuses.push_back(message.number(wire::kAttrStatus));
        if (message.type == wire::kData) {
            EXPECT_FALSE(answer.has_data) << "two data messages";
            answer.has_data = true;
            answer.data = message.payload(wire::kAttrData);
        }
        answer.messages.push_back(message);
    }
    return answer;
}

void Peer::expect_nothing_more()
{
    send({wire::kInvoke, ++sequence_, kScriptedCaller,
          wire::join({wire::attribute(wire::kAttrObjectId, wire::word(kScriptedObject)),
                      wire::attribute(wire::kAttrMethod, wire::text("no such method"))})});
    const Message message = receive();
    EXPECT_EQ(message.sequence, sequence_);
    EXPECT_EQ(message.number(wire::kAttrStatus), 3u);
}

ScriptedBus::ScriptedBus(std::vector<Script> scripts)
    : listener_(listen_on_default_socket()), scripts_(std::move(scripts))
{
    thread_ = std::thread([this] {
        for (const Script &script : scripts_)
            play(script);
    });
}

ScriptedBus::~ScriptedBus()
{
    join();
    close(listener_);
    unlink(kSocketPath);
}

void ScriptedBus::join()
{
    if (thread_.joinable())
        thread_.join();
}

void ScriptedBus::play(const Script &script) const
{
    pollfd wait = {listener_, POLLIN, 0};
    if (poll(&wait, 1, kAcceptTimeoutMs) <= 0) {
        ADD_FAILURE() << "no client connected";
        return;
    }
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    Peer peer(fd);
    script(peer);
    close(fd);
}
