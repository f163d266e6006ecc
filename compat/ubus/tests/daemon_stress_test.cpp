// SPDX-License-Identifier: ISC
// What the daemon withstands: bytes in any portions, limits, garbage, clients that stall or vanish.

#include <chrono>
#include <fstream>
#include <memory>
#include <random>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include "support/bus.h"
#include "support/sanitized.h"
#include "support/shared.h"
#include "support/wire.h"

using namespace wire;

namespace {

constexpr size_t kLargestBody = 1048576;

class DaemonStress : public testing::Test {
protected:
    BusDaemon daemon;
    Client witness; // must be served to the end, no matter what the others do

    void TearDown() override { EXPECT_TRUE(witness.is_in_step()); }
};

TEST_F(DaemonStress, TakesAMessageByteByByte)
{
    Client client;
    Bytes request = add_object(3, "slow", field(2, "m", {})) + message(kLookup, 4, 0);
    for (uint8_t byte : request)
        ASSERT_TRUE(client.send({byte}));
    EXPECT_EQ(client.read().type, kData);
    EXPECT_EQ(client.read().status(), 0u);
    EXPECT_EQ(client.read().string(kAttrObjectPath), "slow");
    EXPECT_EQ(client.read().status(), 0u);
}

TEST_F(DaemonStress, TakesManyMessagesInOneWriteWhereverTheyAreCut)
{
    Bytes burst;
    for (unsigned i = 0; i < 60; i++)
        burst = burst + message(kPing, uint16_t(i), i, Bytes(i % 7 * (i % 5 == 0 ? 3000 : 1), 0));
    for (size_t cut : {1u, 11u, 12u, 13u, 1000u, 65535u, 65536u, 65537u}) {
        Client client;
        size_t at = cut < burst.size() ? cut : burst.size() / 2;
        ASSERT_TRUE(client.send(Bytes(burst.begin(), burst.begin() + long(at))));
        usleep(2000);
        ASSERT_TRUE(client.send(Bytes(burst.begin() + long(at), burst.end())));
        for (unsigned i = 0; i < 60; i++) {
            ASSERT_EQ(client.read().sequence, i) << cut;
            ASSERT_EQ(client.read().status(), 0u) << cut;
        }
    }
}

TEST_F(DaemonStress, UnalignedBodiesKeepTheStreamInStep)
{
    Client client;
    Bytes burst;
    for (size_t extra : {1, 2, 3, 0, 2})
        burst = burst + message(kPing, uint16_t(extra), 0, Bytes(extra, 0xff));
    ASSERT_TRUE(client.send(burst));
    for (size_t extra : {1, 2, 3, 0, 2}) {
        EXPECT_EQ(client.read().bytes(), message(kData, uint16_t(extra), 0, Bytes(extra, 0xff)));
        EXPECT_EQ(client.read().status(), 0u);
    }
}

TEST_F(DaemonStress, LargestBodyPassesAndOneMoreEndsTheClient)
{
    Client client;
    Bytes largest = message(kPing, 1, 0, Bytes(kLargestBody - 4, 0));
    ASSERT_TRUE(client.send(largest));
    largest[1] = kData;
    EXPECT_TRUE(client.read().bytes() == largest);
    EXPECT_EQ(client.read().status(), 0u);

    for (size_t body : {kLargestBody + 1, kLargestBody + 4, size_t(0xffffff)}) {
        Client over;
        ASSERT_TRUE(over.send(Bytes{0, kPing, 0, 1, 0, 0, 0, 0} + word(uint32_t(body))));
        EXPECT_TRUE(over.ends()) << body;
    }
    for (uint32_t body : {0u, 1u, 3u}) {
        Client under;
        ASSERT_TRUE(under.send(Bytes{0, kPing, 0, 1, 0, 0, 0, 0} + word(body)));
        EXPECT_TRUE(under.ends()) << body;
    }
}

// The daemon adds both names to a call, 24 bytes for root. Owners decide by them.
TEST_F(DaemonStress, LargestCallKeepsItsNamesAndALargerOneIsRefused)
{
    Client owner, caller;
    uint32_t id = owner.publish("x");
    size_t overhead = invoke(1, id, "m").size() - 8;
    for (size_t below : {0u, 4u, 20u, 23u, 24u, 28u, 100u}) {
        SCOPED_TRACE(below);
        Bytes call = invoke(1, id, "m", Bytes(kLargestBody - overhead - below, 0x11));
        Bytes notification = call;
        notification[1] = kNotify;
        if (below < 24) {
            EXPECT_EQ(caller.ask(call), 2u);
            EXPECT_EQ(owner.ask(notification), 2u);
            continue;
        }
        ASSERT_TRUE(caller.send(call));
        Message got = owner.read();
        EXPECT_TRUE(got.payload(kAttrData) == Bytes(kLargestBody - overhead - below, 0x11));
        EXPECT_EQ(got.string(kAttrUser), "root");
        EXPECT_EQ(got.string(kAttrGroup), "root");
        EXPECT_LE(got.bytes().size(), kLargestBody + 8);
        EXPECT_EQ(owner.ask(notification), 0u);
    }
    EXPECT_TRUE(owner.is_in_step());
}

TEST_F(DaemonStress, GarbageEndsOnlyItsSender)
{
    std::mt19937 random(4711);
    for (int round = 0; round < 300; round++) {
        Client client;
        Bytes garbage(random() % 4000);
        for (uint8_t &byte : garbage)
            byte = uint8_t(random());
        // Every other time with a sound frame around it.
        if (round % 2 == 0)
            garbage = message(uint8_t(random() % 14), uint16_t(random()), random() % 4, garbage);
        client.send(garbage);
    }
}

TEST_F(DaemonStress, DistortedMessagesAreRefusedOrServedButNeverFatal)
{
    std::mt19937 random(815);
    Client owner;
    uint32_t id = owner.publish("x");
    uint32_t other = owner.publish("y");
    const Bytes originals[] = {
        add_object(1, "path", field(2, "m", field(5, "a", word(1)))),
        invoke(2, 1, "register", field(5, "object", word(id)) + field(3, "pattern", text("a*"))),
        invoke(3, 1, "send",
               field(3, "id", text("abc")) + field(2, "data", field(5, "k", word(1)))),
        message(kNotify, 4, id,
                attribute(kAttrObjectId, word(id)) + attribute(kAttrMethod, text("n"))),
        message(kSubscribe, 5, 0,
                attribute(kAttrObjectId, word(id)) + attribute(kAttrTarget, word(other))),
        message(kLookup, 6, 0, attribute(kAttrObjectPath, text("*"))),
        message(kStatus, 7, owner.id(),
                attribute(kAttrStatus, word(0)) + attribute(kAttrObjectId, word(id))),
        message(kRemoveObject, 8, 0, attribute(kAttrObjectId, word(other))),
    };
    for (int round = 0; round < 2000; round++) {
        Bytes distorted = originals[random() % 8];
        for (unsigned hits = 1 + random() % 4; hits > 0; hits--)
            distorted[12 + random() % (distorted.size() - 12)] = uint8_t(random());
        Client client;
        client.send(distorted);
    }
}

TEST_F(DaemonStress, HalfClosedClientIsGone)
{
    Client client;
    ASSERT_NE(client.publish("x"), 0u);
    shutdown(client.fd(), SHUT_WR);
    EXPECT_TRUE(client.ends());
    EXPECT_EQ(witness.ask(message(kLookup, 1, 0, attribute(kAttrObjectPath, text("x")))), 4u);
}

TEST_F(DaemonStress, ClientMayVanishInTheMiddleOfAMessage)
{
    Bytes whole = add_object(1, "x", field(2, "m", {}));
    for (size_t length = 1; length < whole.size(); length += 3) {
        Client client;
        ASSERT_TRUE(client.send(Bytes(whole.begin(), whole.begin() + long(length))));
    }
    Client large;
    ASSERT_TRUE(
        large.send(Bytes{0, kPing, 0, 1, 0, 0, 0, 0} + word(kLargestBody) + Bytes(70000, 0)));
    large.hang_up();
    EXPECT_EQ(witness.ask(message(kLookup, 1, 0)), 0u);
    EXPECT_TRUE(witness.data.empty());
}

// Sends answers of 1028 bytes to a client that does not read; the owner must never be held up.
void stall(Client &owner, uint32_t object, const Client &reader, unsigned count)
{
    Bytes object_attr = attribute(kAttrObjectId, word(object));
    Bytes data = attribute(kAttrData, Bytes(1028 - 12 - object_attr.size() - 4, 0x77));
    for (unsigned i = 0; i < count; i++)
        ASSERT_TRUE(owner.send(message(kData, uint16_t(i), reader.id(), object_attr + data)));
    ASSERT_TRUE(owner.is_in_step());
}

TEST_F(DaemonStress, StalledReaderGetsWholeMessagesOnlyAndStaysInStep)
{
    Client owner, reader;
    uint32_t id = owner.publish("x");
    stall(owner, id, reader, 3000);

    // What fitted arrives without a gap, from the first on.
    unsigned count = 0;
    for (;;) {
        Message message = reader.read(200);
        if (message.empty())
            break;
        ASSERT_EQ(message.bytes().size(), 1028u);
        ASSERT_EQ(message.sequence, count);
        count++;
    }
    EXPECT_GE(count, 1020u); // the queue alone
    EXPECT_LT(count, 1700u); // and what the kernel keeps
    EXPECT_TRUE(reader.is_in_step());
    stall(owner, id, reader, 10);
    for (unsigned i = 0; i < 10; i++)
        EXPECT_EQ(reader.read().sequence, i);
}

TEST_F(DaemonStress, LargeMessagesAreNeverCutShort)
{
    Client owner, reader;
    uint32_t id = owner.publish("x");
    for (uint16_t i = 0; i < 30; i++) {
        Bytes fields(100000 + i * 4, uint8_t(i));
        ASSERT_TRUE(
            owner.send(message(kData, i, reader.id(),
                               attribute(kAttrObjectId, word(id)) + attribute(kAttrData, fields))));
    }
    ASSERT_TRUE(owner.is_in_step());

    unsigned count = 0;
    int last = -1;
    for (Message got = reader.read(200); !got.empty(); got = reader.read(200)) {
        ASSERT_EQ(got.peer, id);
        ASSERT_GT(int(got.sequence), last);
        last = int(got.sequence);
        ASSERT_TRUE(got.payload(kAttrData) ==
                    Bytes(100000 + got.sequence * 4, uint8_t(got.sequence)));
        count++;
    }
    EXPECT_GE(count, 10u);
    EXPECT_LT(count, 30u);
    EXPECT_TRUE(reader.is_in_step());
}

TEST_F(DaemonStress, LookupWhileStalledIsAnsweredLater)
{
    Client owner, reader;
    uint32_t id = owner.publish("x");
    stall(owner, id, reader, 3000);
    ASSERT_TRUE(reader.send(message(kLookup, 0x4242, 0)));
    ASSERT_TRUE(witness.is_in_step());

    Message message;
    do
        message = reader.read(5000);
    while (message.peer == id);
    EXPECT_EQ(message.type, kData);
    EXPECT_EQ(message.string(kAttrObjectPath), "x");
    EXPECT_EQ(reader.read().status(), 0u);
    EXPECT_TRUE(reader.is_in_step());
}

TEST_F(DaemonStress, ListingLongerThanAnyQueueArrivesWhole)
{
    constexpr unsigned kObjects = 600;
    Client owner, reader;
    Bytes signature = field(2, "method", field(5, std::string(4000, 'p'), word(3)));
    for (unsigned i = 0; i < kObjects; i++)
        ASSERT_EQ(owner.ask(add_object(1, "object." + std::to_string(1000 + i), signature)), 0u);

    ASSERT_TRUE(reader.send(message(kLookup, 5, 0, attribute(kAttrObjectPath, text("object.*")))));
    usleep(100000);
    for (unsigned i = 0; i < kObjects; i++) {
        Message object = reader.read();
        ASSERT_EQ(object.string(kAttrObjectPath), "object." + std::to_string(1000 + i));
        ASSERT_TRUE(object.payload(kAttrSignature) == signature);
    }
    EXPECT_EQ(reader.read().status(), 0u);
    EXPECT_TRUE(reader.is_in_step());
}

TEST_F(DaemonStress, StalledReaderMayVanish)
{
    Client owner;
    uint32_t id = owner.publish("x");
    for (int i = 0; i < 3; i++) {
        Client reader;
        stall(owner, id, reader, 1500);
        ASSERT_TRUE(reader.send(message(kLookup, 1, 0)));
    }
    EXPECT_TRUE(owner.is_in_step());
}

TEST_F(DaemonStress, ServesTwoHundredClientsAtOnce)
{
    const unsigned count = geteuid() == 0 ? 200 : 60; // users other than root have fewer
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<uint32_t> ids;
    for (unsigned i = 0; i < count; i++) {
        clients.push_back(std::make_unique<Client>());
        ids.push_back(clients.back()->publish("object." + std::to_string(i)));
        ASSERT_NE(ids.back(), 0u) << i;
    }
    // Each client calls the next one, then each answers.
    for (unsigned i = 0; i < count; i++)
        ASSERT_TRUE(clients[i]->send(invoke(uint16_t(i), ids[(i + 1) % count], "m")));
    for (unsigned i = 0; i < count; i++) {
        Message call = clients[(i + 1) % count]->read();
        ASSERT_EQ(call.sequence, i);
        ASSERT_EQ(call.peer, clients[i]->id());
        ASSERT_TRUE(clients[(i + 1) % count]->send(
            message(kStatus, uint16_t(i), call.peer,
                    attribute(kAttrStatus, word(i)) +
                        attribute(kAttrObjectId, word(ids[(i + 1) % count])))));
    }
    for (unsigned i = 0; i < count; i++)
        ASSERT_EQ(clients[i]->read().status(), i);
    clients.clear();
    EXPECT_EQ(witness.ask(message(kLookup, 1, 0)), 0u);
}

unsigned long cpu_ticks(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string word;
    unsigned long user = 0, system = 0;
    for (int i = 1; i < 14; i++)
        stat >> word;
    stat >> user >> system;
    return user + system;
}

TEST(DaemonLimits, WithoutDescriptorsNewcomersWaitAndTheDaemonSleeps)
{
    BusDaemon daemon("", 16);
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 6; i++) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_FALSE(clients.back()->hello().empty());
    }
    std::vector<Stream> waiting;
    for (int i = 0; i < 20; i++) {
        waiting.emplace_back();
        ASSERT_TRUE(waiting.back().dial(BusDaemon::kDefaultSocket));
    }

    unsigned long before = cpu_ticks(daemon.pid());
    usleep(500000);
    EXPECT_LE(cpu_ticks(daemon.pid()) - before, 10u); // of about 50
    EXPECT_TRUE(clients[0]->is_in_step());

    // There is room again, and those in the backlog come in.
    Stream last = std::move(waiting.back());
    waiting.clear();
    clients.clear();
    EXPECT_EQ(last.read().type, kHello);
}

// Every client let in can be named: reading the accounts takes a descriptor too.
TEST(DaemonLimits, LastDescriptorIsNotGivenToAClientWithoutItsNames)
{
    BusDaemon daemon("", 16);
    std::vector<std::unique_ptr<Client>> clients;
    for (;;) {
        auto client = std::make_unique<Stream>();
        ASSERT_TRUE(client->dial(BusDaemon::kDefaultSocket));
        if (client->is_silent(300))
            break;
        client.reset();
        clients.push_back(std::make_unique<Client>());
        ASSERT_LT(clients.size(), 16u);
    }
    uint32_t id = clients[0]->publish("x");
    for (auto &client : clients) {
        ASSERT_TRUE(client->send(invoke(1, id, "m")));
        Message call = clients[0]->read();
        EXPECT_EQ(call.string(kAttrUser), "root");
        EXPECT_EQ(call.string(kAttrGroup), "root");
    }
}

Bytes subscribe(uint32_t object, uint32_t target)
{
    return message(kSubscribe, 1, 0,
                   attribute(kAttrObjectId, word(object)) + attribute(kAttrTarget, word(target)));
}

TEST_F(DaemonStress, ObjectsPatternsAndSubscriptionsOfAClientAreLimited)
{
    constexpr unsigned kEach = 1024;
    constexpr uint32_t kNoMemory = 11;
    Client client, owner, other;
    uint32_t own = client.publish_unnamed();
    auto remove = [](uint32_t id) {
        return message(kRemoveObject, 1, 0, attribute(kAttrObjectId, word(id)));
    };

    std::vector<uint32_t> targets;
    for (unsigned i = 0; i < kEach; i++)
        targets.push_back(owner.publish_unnamed());
    EXPECT_NE(targets.back(), 0u);
    EXPECT_EQ(owner.ask(message(kAddObject, 1, 0)), kNoMemory);
    ASSERT_EQ(owner.ask(remove(targets.back())), 0u);
    targets.back() = owner.publish_unnamed(); // what goes makes room
    EXPECT_NE(targets.back(), 0u);
    EXPECT_EQ(owner.ask(message(kAddObject, 1, 0)), kNoMemory);
    targets.push_back(other.publish("other")); // each client has a limit of its own
    ASSERT_NE(targets.back(), 0u);

    for (int round = 0; round < 2; round++) {
        for (unsigned i = 0; i < kEach; i++) {
            ASSERT_EQ(client.ask(event_register(own, "event." + std::to_string(i))), 0u);
            ASSERT_EQ(client.ask(subscribe(own, targets[i])), 0u);
        }
        EXPECT_EQ(client.ask(event_register(own, "event.1")), 0u); // known already
        EXPECT_EQ(client.ask(event_register(own, "another")), kNoMemory);
        EXPECT_EQ(client.ask(subscribe(own, targets[kEach])), kNoMemory);
        ASSERT_EQ(client.ask(remove(own)), 0u);
        own = client.publish_unnamed();
    }
}

TEST_F(DaemonStress, WhatAClientMakesTheDaemonKeepHasALimit)
{
    Client client;
    const std::string path(600000, 'p');
    unsigned count = 0;
    while (count < 100 && client.publish(std::to_string(count) + path) != 0)
        count++;
    EXPECT_GE(count, 5u);
    EXPECT_LE(count, 10u);
    EXPECT_EQ(witness.ask(message(kLookup, 1, 0)), 0u);
    EXPECT_EQ(witness.data.size(), count);
}

TEST_F(DaemonStress, ObjectTooLargeToDescribeInAMessageIsRefused)
{
    Client client, listener;
    uint32_t own = listener.publish_unnamed();
    ASSERT_EQ(listener.ask(event_register(own, "ubus.*")), 0u);

    // Its own message has the largest size; the daemon's about it would be longer.
    Bytes largest = add_object(1, "", {});
    largest = add_object(1, std::string(kLargestBody + 8 - largest.size(), 'p'), {});
    ASSERT_EQ(largest.size(), kLargestBody + 8);
    EXPECT_EQ(client.ask(largest), 2u);
    // Path and signature may also come from different messages.
    ASSERT_EQ(
        client.ask(add_object(1, "a", field(2, "m", field(5, std::string(60000, 's'), word(3))))),
        0u);
    uint32_t type = client.data[0].number(kAttrObjectType);
    auto with_type = [&](size_t length) {
        return message(kAddObject, 1, 0,
                       attribute(kAttrObjectPath, text(std::string(length, 'p'))) +
                           attribute(kAttrObjectType, word(type)));
    };
    EXPECT_EQ(client.ask(with_type(kLargestBody - 60000)), 2u);
    EXPECT_EQ(client.ask(with_type(kLargestBody - 61000)), 0u);

    EXPECT_EQ(witness.ask(message(kLookup, 1, 0)), 0u);
    ASSERT_EQ(witness.data.size(), 2u);
    for (const Message &object : witness.data)
        EXPECT_LE(object.bytes().size(), kLargestBody + 8);
    for (int i = 0; i < 2; i++)
        EXPECT_LE(listener.read().bytes().size(), kLargestBody + 8);
    EXPECT_TRUE(listener.is_in_step());
}

constexpr const char *kNoUsers = "a traced process cannot change its user";

// As another user; the result of `work` is the exit status.
template <typename Work>
int as_user(uid_t uid, Work work)
{
    return run_in_child([&] { return setgid(uid) == 0 && setuid(uid) == 0 ? work() : 255; }, 0);
}

TEST_F(DaemonStress, ConnectionsOfAUserAreLimitedButNotThoseOfRoot)
{
    BV_NEEDS_OWN_ROOT(kNoUsers);
    auto connect = [](std::vector<std::unique_ptr<Client>> &clients) {
        for (int i = 0; i < 100; i++) {
            auto client = std::make_unique<Client>();
            if (!client->hello().empty())
                clients.push_back(std::move(client));
        }
        return int(clients.size());
    };
    std::vector<std::unique_ptr<Client>> roots;
    EXPECT_EQ(connect(roots), 100);
    for (uid_t uid : {1000u, 65534u, 1000u}) {
        int count = as_user(uid, [&] {
            std::vector<std::unique_ptr<Client>> clients;
            int first = connect(clients);
            clients.pop_back(); // makes room for one
            usleep(100000);
            return first == 64 && connect(clients) == 64 ? 64 : first;
        });
        if (count == 255)
            GTEST_SKIP() << "no right to change the user";
        EXPECT_EQ(count, 64) << uid;
    }
    EXPECT_EQ(connect(roots), 200);
}

unsigned long peak_memory_kib(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0)
            return std::stoul(line.substr(6));
    }
    return 0;
}

TEST_F(DaemonStress, ManyClientsOfAUserThatDoNotReadDoNotExhaustTheMemory)
{
    BV_NEEDS_OWN_ROOT(kNoUsers);
    if (kSanitized)
        GTEST_SKIP() << "a sanitizer keeps what is freed";
    const unsigned long before = peak_memory_kib(daemon.pid());
    int status = as_user(1000, [] {
        std::vector<std::unique_ptr<Client>> clients;
        std::vector<uint32_t> objects;
        for (int i = 0; i < 16; i++) {
            clients.push_back(std::make_unique<Client>());
            objects.push_back(clients.back()->publish_unnamed());
        }
        for (auto &client : clients) {
            for (uint32_t object : objects)
                client->send(invoke(1, object, "m", Bytes(1000000, 1)));
        }
        return 0;
    });
    if (status == 255)
        GTEST_SKIP() << "no right to change the user";
    EXPECT_TRUE(witness.is_in_step());
    EXPECT_LT(peak_memory_kib(daemon.pid()) - before, 100000u); // of 250000
}

// Whether the daemon keeps the beginning of a long message, and with it the client.
bool begins_a_long_message(Client &client, Client &other)
{
    client.send(Bytes{0, kPing, 0, 1, 0, 0, 0, 0} + word(kLargestBody) + Bytes(70000, 0));
    int unread = 1;
    while (ioctl(client.fd(), SIOCOUTQ, &unread) == 0 && unread > 0)
        usleep(1000);
    return other.is_in_step() && client.is_silent(0);
}

// 16 MiB of messages that have only begun; short ones are served beyond that.
TEST_F(DaemonStress, UnfinishedMessagesOfAUserAreLimited)
{
    BV_NEEDS_OWN_ROOT(kNoUsers);
    int count = as_user(1000, [] {
        Client other;
        std::vector<std::unique_ptr<Client>> clients;
        int kept = 0;
        for (int i = 0; i < 40; i++) {
            clients.push_back(std::make_unique<Client>());
            kept += begins_a_long_message(*clients.back(), other);
        }
        const Bytes ping = message(kPing, 1, 0, Bytes(1000, 1));
        other.send(Bytes(ping.begin(), ping.begin() + 500));
        usleep(2000);
        other.send(Bytes(ping.begin() + 500, ping.end()));
        const bool served = other.read().type == kData && other.read().status() == 0;
        clients.clear();
        Client after;
        return served && begins_a_long_message(after, other) ? kept : 0;
    });
    if (count == 255)
        GTEST_SKIP() << "no right to change the user";
    EXPECT_EQ(count, 15);
}

TEST(DaemonLimits, IdleDaemonSleeps)
{
    BusDaemon daemon;
    Client client;
    Bytes half = message(kPing, 1, 0);
    half.pop_back();
    ASSERT_TRUE(client.send(half));
    unsigned long before = cpu_ticks(daemon.pid());
    usleep(300000);
    EXPECT_LE(cpu_ticks(daemon.pid()) - before, 5u);
}

} // namespace
