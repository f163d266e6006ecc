// SPDX-License-Identifier: ISC
// What the daemon promises a client, message by message.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "support/bus.h"
#include "support/child.h"
#include "support/files.h"
#include "support/wire.h"

using namespace wire;

namespace {

class Daemon : public testing::Test {
protected:
    BusDaemon daemon;
};

TEST_F(Daemon, GreetsWithAnIdAndAnEmptyBody)
{
    Client client;
    EXPECT_EQ(client.hello().bytes(), message(kHello, 0, client.id()));
    EXPECT_GE(client.id(), 1024u);
}

TEST_F(Daemon, EchoesAPingByteForByteWhateverItsLength)
{
    Client client;
    for (size_t length : {0, 1, 2, 3, 4, 100, 5000, 300000}) {
        Bytes ping = message(kPing, 0x1234, 0xdeadbeef, Bytes(length, 0x5a));
        ping[0] = 9; // the version is not checked
        ASSERT_TRUE(client.send(ping));
        ping[0] = 0;
        ping[1] = kData;
        EXPECT_EQ(to_hex(client.read().bytes()), to_hex(ping));
        Message status = client.read();
        EXPECT_EQ(status.bytes(),
                  message(kStatus, 0x1234, 0xdeadbeef, attribute(kAttrStatus, word(0))));
    }
}

TEST_F(Daemon, RefusesTypesThatNoClientMaySend)
{
    Client client;
    for (int type : {int(kHello), int(kMonitor), 12, 200, 255})
        EXPECT_EQ(client.ask(message(uint8_t(type), 7, 0)), 1u) << type;
}

TEST_F(Daemon, PathBelongsToOneObject)
{
    Client one, two;
    uint32_t id = one.publish("a.path");
    ASSERT_NE(id, 0u);
    EXPECT_EQ(one.ask(add_object(2, "a.path", {})), 2u);
    EXPECT_EQ(two.ask(add_object(2, "a.path", {})), 2u);
    EXPECT_TRUE(two.data.empty());
    EXPECT_EQ(two.ask(message(kLookup, 3, 0, attribute(kAttrObjectPath, text("a.path")))), 0u);
    ASSERT_EQ(two.data.size(), 1u);
    EXPECT_EQ(two.data[0].number(kAttrObjectId), id);
}

TEST_F(Daemon, EmptyPathCanBePublishedButNotLookedUp)
{
    Client client;
    EXPECT_NE(client.publish(""), 0u);
    EXPECT_EQ(client.ask(message(kLookup, 3, 0, attribute(kAttrObjectPath, text("")))), 2u);
    EXPECT_EQ(client.ask(message(kLookup, 4, 0)), 0u);
    EXPECT_EQ(client.data.size(), 1u);
}

TEST_F(Daemon, ListsInByteOrderOfThePaths)
{
    Client client, other;
    for (const char *path : {"b", "a.z", "a.b", "A", "a", "a.b.c"})
        ASSERT_NE(client.publish(path), 0u);
    auto list = [&](const Bytes &attrs, uint32_t status) {
        EXPECT_EQ(other.ask(message(kLookup, 9, 0, attrs)), status);
        std::string paths;
        for (const Message &object : other.data)
            paths += object.string(kAttrObjectPath) + " ";
        return paths;
    };

    EXPECT_EQ(list({}, 0), "A a a.b a.b.c a.z b ");
    EXPECT_EQ(list(attribute(kAttrObjectPath, text("*")), 0), "A a a.b a.b.c a.z b ");
    EXPECT_EQ(list(attribute(kAttrObjectPath, text("a*")), 0), "a a.b a.b.c a.z ");
    EXPECT_EQ(list(attribute(kAttrObjectPath, text("a.*")), 0), "a.b a.b.c a.z ");
    EXPECT_EQ(list(attribute(kAttrObjectPath, text("a.b")), 0), "a.b ");
    EXPECT_EQ(list(attribute(kAttrObjectPath, text("c*")), 4), "");
    EXPECT_EQ(list(attribute(kAttrObjectPath, text("a.*b")), 4), "");
    // A path that is not text counts as no path: everything is listed.
    EXPECT_EQ(list(attribute(kAttrObjectPath, {'b'}), 0), "A a a.b a.b.c a.z b ");
}

TEST_F(Daemon, EmptyBusListsNothingWithoutAnError)
{
    Client client;
    EXPECT_EQ(client.ask(message(kLookup, 1, 0)), 0u);
    EXPECT_TRUE(client.data.empty());
    EXPECT_EQ(client.ask(message(kLookup, 1, 0, attribute(kAttrObjectPath, text("*")))), 4u);
}

TEST_F(Daemon, TypesAreSharedUntilTheirLastObjectGoes)
{
    Client one, two;
    Bytes method = field(2, "m", field(5, "x", word(3)));
    ASSERT_EQ(one.ask(add_object(1, "one", method)), 0u);
    uint32_t first = one.data[0].number(kAttrObjectId);
    uint32_t type = one.data[0].number(kAttrObjectType);
    EXPECT_GE(type, 1024u);

    // By its id from another client; then the answer does not repeat it.
    ASSERT_EQ(two.ask(message(kAddObject, 2, 0,
                              attribute(kAttrObjectPath, text("two")) +
                                  attribute(kAttrObjectType, word(type)))),
              0u);
    uint32_t second = two.data[0].number(kAttrObjectId);
    EXPECT_TRUE(two.data[0].payload(kAttrObjectType).empty());
    EXPECT_EQ(two.ask(message(kLookup, 3, 0, attribute(kAttrObjectPath, text("two")))), 0u);
    ASSERT_EQ(two.data.size(), 1u);
    EXPECT_EQ(two.data[0].payload(kAttrSignature), method);

    // The same signature again is another type.
    ASSERT_EQ(two.ask(add_object(4, "three", method)), 0u);
    EXPECT_NE(two.data[0].number(kAttrObjectType), type);

    EXPECT_EQ(one.ask(message(kRemoveObject, 5, 0, attribute(kAttrObjectId, word(first)))), 0u);
    EXPECT_TRUE(one.data[0].payload(kAttrObjectType).empty());
    EXPECT_EQ(two.ask(message(kRemoveObject, 6, 0, attribute(kAttrObjectId, word(second)))), 0u);
    EXPECT_EQ(two.data[0].number(kAttrObjectType), type);
}

TEST_F(Daemon, ObjectsWithoutATypeAreInvisibleButCallable)
{
    Client owner, caller;
    const Bytes named = attribute(kAttrObjectPath, text("hidden"));
    const Bytes cases[] = {
        named + attribute(kAttrObjectType, word(4711)),      // no such type
        named,                                               // none at all
        named + attribute(kAttrSignature, field(2, "", {})), // a method without a name
    };
    for (const Bytes &attrs : cases) {
        ASSERT_EQ(owner.ask(message(kAddObject, 1, 0, attrs)), 0u);
        uint32_t id = owner.data[0].number(kAttrObjectId);
        EXPECT_TRUE(owner.data[0].payload(kAttrObjectType).empty());
        EXPECT_EQ(caller.ask(message(kLookup, 2, 0, named)), 0u);
        EXPECT_TRUE(caller.data.empty());
        EXPECT_EQ(caller.ask(message(kLookup, 2, 0)), 0u);
        EXPECT_TRUE(caller.data.empty());

        ASSERT_TRUE(caller.send(invoke(3, id, "m")));
        EXPECT_EQ(owner.read().type, kInvoke);
        EXPECT_EQ(owner.ask(message(kRemoveObject, 4, 0, attribute(kAttrObjectId, word(id)))), 0u);
    }
}

TEST_F(Daemon, EmptySignatureIsAListedTypeWithoutMethods)
{
    Client client;
    ASSERT_EQ(client.ask(add_object(1, "bare", {})), 0u);
    EXPECT_FALSE(client.data[0].payload(kAttrObjectType).empty());
    EXPECT_EQ(client.ask(message(kLookup, 2, 0)), 0u);
    EXPECT_EQ(client.data.size(), 1u);
}

TEST_F(Daemon, OnlyTheOwnerRemovesAnObject)
{
    Client owner, other;
    uint32_t id = owner.publish("x");
    auto remove = [](Client &client, const Bytes &attrs) {
        return client.ask(message(kRemoveObject, 1, 0, attrs));
    };
    EXPECT_EQ(remove(other, {}), 2u);
    EXPECT_EQ(remove(other, attribute(kAttrObjectId, {1, 2})), 2u); // no number
    EXPECT_EQ(remove(other, attribute(kAttrObjectId, word(id + 1))), 4u);
    EXPECT_EQ(remove(other, attribute(kAttrObjectId, word(id))), 6u);
    EXPECT_EQ(remove(other, attribute(kAttrObjectId, word(1))), 6u);
    EXPECT_EQ(remove(owner, attribute(kAttrObjectId, word(id))), 0u);
    EXPECT_EQ(remove(owner, attribute(kAttrObjectId, word(id))), 4u);
}

TEST_F(Daemon, PassesOnOfACallOnlyWhatItKnows)
{
    Client owner, caller;
    uint32_t id = owner.publish("x");
    Bytes fields = field(5, "k", word(1));
    // Any order, the last of two, unknown attributes and NO_REPLY: tidied up on the way.
    Bytes call =
        message(kInvoke, 0xabcd, 99,
                attribute(kAttrNoReply, {1}) + attribute(77, text("what")) +
                    attribute(kAttrData, fields) + attribute(kAttrMethod, text("first")) +
                    attribute(kAttrMethod, text("m")) + attribute(kAttrObjectId, word(id)));
    ASSERT_TRUE(caller.send(call));
    Message got = owner.read();
    Bytes expected = attribute(kAttrObjectId, word(id)) + attribute(kAttrMethod, text("m")) +
                     attribute(kAttrUser, text(got.string(kAttrUser))) +
                     attribute(kAttrGroup, text(got.string(kAttrGroup))) +
                     attribute(kAttrData, fields);
    EXPECT_EQ(to_hex(got.bytes()), to_hex(message(kInvoke, 0xabcd, caller.id(), expected)));
    EXPECT_EQ(got.string(kAttrUser), "root");

    // Without fields there are none on the other side either.
    ASSERT_TRUE(caller.send(message(
        kInvoke, 1, id, attribute(kAttrObjectId, word(id)) + attribute(kAttrMethod, text("m")))));
    EXPECT_EQ(to_hex(owner.read().bytes()).find("07000004"), std::string::npos);
    EXPECT_TRUE(caller.is_in_step()); // no answer of the daemon's own
}

TEST_F(Daemon, AnswersCallsThatReachNoObject)
{
    Client caller;
    EXPECT_EQ(caller.ask(invoke(1, 0, "m")), 4u);
    EXPECT_EQ(caller.ask(invoke(1, 0x12345678, "m")), 4u);
    EXPECT_EQ(caller.ask(message(kInvoke, 1, 5, attribute(kAttrObjectId, word(5)))), 2u);
    EXPECT_EQ(caller.ask(message(kInvoke, 1, 5, attribute(kAttrMethod, text("m")))), 2u);
    EXPECT_EQ(caller.ask(invoke(1, 2, "query")), 4u);
    EXPECT_EQ(caller.ask(invoke(1, 3, "add")), 4u);
}

TEST_F(Daemon, CallToAnOwnObjectComesBack)
{
    Client client;
    uint32_t id = client.publish("x");
    ASSERT_TRUE(client.send(invoke(5, id, "m")));
    Message got = client.read();
    EXPECT_EQ(got.type, kInvoke);
    EXPECT_EQ(got.peer, client.id());
}

TEST_F(Daemon, ForwardsWhateverTheOwnerSaysAndNothingElse)
{
    Client owner, caller, stranger;
    uint32_t id = owner.publish("x");
    Bytes object = attribute(kAttrObjectId, word(id));
    Bytes status = attribute(kAttrStatus, word(99));
    Bytes data = attribute(kAttrData, field(5, "k", word(1)));

    // None of these may arrive, and no error is sent.
    ASSERT_TRUE(owner.send(message(kStatus, 1, caller.id(), status))); // no object
    ASSERT_TRUE(owner.send(message(kStatus, 1, caller.id(), object))); // no status
    ASSERT_TRUE(owner.send(message(kData, 1, caller.id(), object)));   // no data
    ASSERT_TRUE(owner.send(message(kData, 1, 4711, object + data)));   // no such client
    ASSERT_TRUE(owner.send(message(kStatus, 1, 0, object + status)));
    ASSERT_TRUE(stranger.send(message(kStatus, 1, caller.id(), object + status))); // not the owner
    ASSERT_TRUE(stranger.send(
        message(kStatus, 1, caller.id(), attribute(kAttrObjectId, word(1)) + status)));
    EXPECT_TRUE(owner.is_in_step());
    EXPECT_TRUE(stranger.is_in_step());
    EXPECT_TRUE(caller.is_in_step());

    // All of these do, though there was no call: attributes untouched, but under the daemon's own
    // header, since a client may end its connection over a strange one. Peer is the object.
    for (int i = 0; i < 3; i++) {
        Bytes message_bytes = message(i == 0 ? kData : kStatus, uint16_t(i), caller.id(),
                                      attribute(99, {1, 2, 3}) + object + (i == 0 ? data : status));
        message_bytes[0] = 3;
        message_bytes[8] = 0x85;
        ASSERT_TRUE(owner.send(message_bytes));
        message_bytes[0] = message_bytes[8] = 0;
        Bytes peer = word(id);
        std::copy(peer.begin(), peer.end(), message_bytes.begin() + 4);
        EXPECT_EQ(to_hex(caller.read().bytes()), to_hex(message_bytes));
    }
}

TEST_F(Daemon, SharedAnswerOfSeveralPiecesKeepsItsOrder)
{
    Client owner, caller;
    uint32_t id = owner.publish("x");
    Bytes object = attribute(kAttrObjectId, word(id));
    Bytes all;
    std::vector<Bytes> expected;
    // Small and large ones, so that collected and direct output meet.
    for (size_t size : {4u, 9000u, 8u, 70000u, 12u, 16u, 5000u, 20u}) {
        Bytes body = object + attribute(kAttrData, Bytes(size, uint8_t(size)));
        all = all + message(kData, 1, caller.id(), body);
        expected.push_back(message(kData, 1, id, body));
    }
    ASSERT_TRUE(owner.send(all));
    for (const Bytes &message_bytes : expected)
        ASSERT_EQ(caller.read().bytes(), message_bytes);
}

TEST_F(Daemon, ObjectsGoWithTheirClientAndCallersHearNothing)
{
    auto owner = std::make_unique<Client>();
    Client caller, heir;
    uint32_t id = owner->publish("x");
    ASSERT_TRUE(caller.send(invoke(1, id, "m")));
    EXPECT_EQ(owner->read().type, kInvoke);
    owner.reset();

    // The status of a later question is the next thing that comes.
    Message answer;
    for (int i = 0; i < 100 && answer.status() != 4; i++) {
        ASSERT_TRUE(caller.send(message(kLookup, 2, 0, attribute(kAttrObjectPath, text("x")))));
        while ((answer = caller.read()).type == kData)
            ;
        EXPECT_EQ(answer.sequence, 2u);
    }
    EXPECT_EQ(answer.status(), 4u);
    EXPECT_EQ(caller.ask(invoke(3, id, "m")), 4u);
    EXPECT_NE(heir.publish("x"), 0u);
}

TEST_F(Daemon, AnswersToACallerThatIsGoneAreDropped)
{
    Client owner;
    uint32_t id = owner.publish("x");
    uint32_t peer;
    {
        Client caller;
        peer = caller.id();
        ASSERT_TRUE(caller.send(invoke(1, id, "m")));
        EXPECT_EQ(owner.read().type, kInvoke);
    }
    Bytes object = attribute(kAttrObjectId, word(id));
    EXPECT_TRUE(owner.send(message(kData, 1, peer, object + attribute(kAttrData, {}))));
    EXPECT_TRUE(owner.send(message(kStatus, 1, peer, object + attribute(kAttrStatus, word(0)))));
    EXPECT_TRUE(owner.is_in_step());
}

TEST_F(Daemon, MessageSentRightBeforeHangingUpIsServed)
{
    Client owner;
    uint32_t id = owner.publish("x");
    for (int i = 0; i < 20; i++) {
        Client caller;
        ASSERT_TRUE(caller.send(invoke(uint16_t(i), id, "m") + invoke(uint16_t(i), id, "n")));
    }
    for (int i = 0; i < 40; i++)
        EXPECT_EQ(owner.read().type, kInvoke);
}

// ---- events

Bytes event_send(const std::string &event, const Bytes &fields = {})
{
    return invoke(1, 1, "send", field(3, "id", text(event)) + field(2, "data", fields));
}

TEST_F(Daemon, RefusesMalformedEventRegistrations)
{
    Client one, two;
    uint32_t own = one.publish_unnamed();
    uint32_t foreign = two.publish_unnamed();
    EXPECT_EQ(one.ask(event_register(own, "x")), 0u);
    EXPECT_EQ(one.ask(event_register(own, "")), 6u);
    EXPECT_EQ(one.ask(event_register(foreign, "x")), 6u);
    EXPECT_EQ(one.ask(event_register(1, "x")), 6u);
    EXPECT_EQ(one.ask(event_register(1023, "x")), 6u);
    EXPECT_EQ(one.ask(event_register(4711, "x")), 4u);
    EXPECT_EQ(one.ask(invoke(1, 1, "register", field(5, "object", word(own)))), 2u);
    EXPECT_EQ(one.ask(invoke(1, 1, "register", field(3, "pattern", text("x")))), 2u);
    EXPECT_EQ(one.ask(invoke(1, 1, "register")), 2u);
    EXPECT_EQ(one.ask(invoke(1, 1, "send", field(3, "id", text("x")))), 2u);
    EXPECT_EQ(one.ask(invoke(1, 1, "send", field(2, "data", {}))), 2u);
    EXPECT_EQ(one.ask(event_send("ubus.fake")), 6u);
    EXPECT_EQ(one.ask(event_send("nobody.listens")), 0u);
    EXPECT_EQ(one.ask(invoke(1, 1, "other")), 1u);
}

TEST_F(Daemon, DeliversAnEventOncePerObjectButNotToItsSender)
{
    Client listener, sender;
    uint32_t first = listener.publish_unnamed();
    uint32_t second = listener.publish_unnamed();
    uint32_t senders = sender.publish_unnamed();
    EXPECT_EQ(listener.ask(event_register(first, "my.*")), 0u);
    EXPECT_EQ(listener.ask(event_register(first, "my.event")), 0u);
    EXPECT_EQ(listener.ask(event_register(second, "my.event")), 0u);
    EXPECT_EQ(sender.ask(event_register(senders, "*")), 0u);

    Bytes fields = field(5, "a", word(1));
    EXPECT_EQ(sender.ask(event_send("my.event", fields)), 0u);
    for (uint32_t object : {first, second}) {
        Message got = listener.read();
        EXPECT_EQ(got.peer, 0u);
        EXPECT_EQ(got.bytes(), message(kInvoke, uint16_t(got.sequence), 0,
                                       attribute(kAttrObjectId, word(object)) +
                                           attribute(kAttrMethod, text("my.event")) +
                                           attribute(kAttrData, fields)));
    }
    EXPECT_EQ(sender.ask(event_send("my.other", {})), 0u);
    EXPECT_EQ(listener.read().number(kAttrObjectId), first);
    EXPECT_EQ(sender.ask(event_send("mine", {})), 0u);
    EXPECT_TRUE(listener.is_in_step());
    EXPECT_TRUE(sender.is_in_step());
}

TEST_F(Daemon, NumbersDeliveredEventsFromOne)
{
    Client listener, sender;
    uint32_t object = listener.publish_unnamed();
    EXPECT_EQ(listener.ask(event_register(object, "*")), 0u);
    for (unsigned seq = 1; seq <= 3; seq++) {
        EXPECT_EQ(sender.ask(event_send("e")), 0u);
        EXPECT_EQ(listener.read().sequence, seq);
    }
}

TEST_F(Daemon, TellsEveryoneOfNamedObjectsThatComeAndGo)
{
    Client client;
    uint32_t listener = client.publish_unnamed();
    EXPECT_EQ(client.ask(event_register(listener, "ubus.object.*")), 0u);

    // The causing client hears it too, before its own answer; unnamed objects make no event.
    ASSERT_TRUE(client.send(message(kAddObject, 5, 0)));
    Message answer = client.read();
    EXPECT_EQ(answer.type, kData);
    EXPECT_EQ(client.read().status(), 0u);

    ASSERT_TRUE(client.send(add_object(6, "x", {})));
    Message event = client.read();
    Message data = client.read();
    EXPECT_EQ(client.read().status(), 0u);
    EXPECT_EQ(event.string(kAttrMethod), "ubus.object.add");
    EXPECT_EQ(event.payload(kAttrData),
              field(5, "id", word(data.number(kAttrObjectId))) + field(3, "path", text("x")));

    {
        Client other;
        ASSERT_NE(other.publish("y"), 0u);
        EXPECT_EQ(client.read().string(kAttrMethod), "ubus.object.add");
    }
    event = client.read();
    EXPECT_EQ(event.string(kAttrMethod), "ubus.object.remove");
    EXPECT_NE(to_hex(event.payload(kAttrData)).find(to_hex(field(3, "path", text("y"))).substr(10)),
              std::string::npos);
}

// ---- subscriptions

Bytes subscription(int type, uint32_t object, uint32_t target)
{
    return message(uint8_t(type), 1, 0,
                   attribute(kAttrObjectId, word(object)) + attribute(kAttrTarget, word(target)));
}

TEST_F(Daemon, RefusesMalformedSubscriptions)
{
    Client owner, watcher;
    uint32_t target = owner.publish("t");
    uint32_t own = watcher.publish_unnamed();
    uint32_t other = watcher.publish("other");
    for (int type : {kSubscribe, kUnsubscribe}) {
        EXPECT_EQ(watcher.ask(message(uint8_t(type), 1, 0, attribute(kAttrObjectId, word(own)))),
                  2u);
        EXPECT_EQ(watcher.ask(message(uint8_t(type), 1, 0, attribute(kAttrTarget, word(target)))),
                  2u);
        EXPECT_EQ(watcher.ask(subscription(type, target, own)), 2u);
        EXPECT_EQ(watcher.ask(subscription(type, 4711, target)), 4u);
        EXPECT_EQ(watcher.ask(subscription(type, own, 4711)), 4u);
        EXPECT_EQ(watcher.ask(subscription(type, own, 1)), 4u);
    }
    EXPECT_EQ(watcher.ask(subscription(kSubscribe, own, other)), 2u);
    EXPECT_EQ(watcher.ask(subscription(kUnsubscribe, own, target)), 4u);
    EXPECT_TRUE(owner.is_in_step());
}

TEST_F(Daemon, SecondSubscriptionIsRefusedAndTheFirstStays)
{
    Client owner, watcher;
    uint32_t target = owner.publish("t");
    uint32_t own = watcher.publish_unnamed();
    EXPECT_EQ(watcher.ask(subscription(kSubscribe, own, target)), 0u);
    EXPECT_EQ(watcher.ask(subscription(kSubscribe, own, target)), 2u);
    EXPECT_EQ(owner.read().payload(kAttrActive), Bytes{1});

    Bytes notify =
        message(kNotify, 9, target,
                attribute(kAttrObjectId, word(target)) + attribute(kAttrMethod, text("n")));
    ASSERT_TRUE(owner.send(notify));
    Message answer = owner.read();
    EXPECT_EQ(answer.payload(kAttrSubscribers), attribute(0, word(own)));
    EXPECT_EQ(answer.peer, target);
    Message call = watcher.read();
    EXPECT_EQ(call.type, kInvoke);
    EXPECT_EQ(call.number(kAttrObjectId), own);
    EXPECT_EQ(call.peer, owner.id());
    EXPECT_TRUE(watcher.is_in_step());

    // Another object of the same client may watch too, and is left alone.
    uint32_t second = watcher.publish_unnamed();
    EXPECT_EQ(watcher.ask(subscription(kSubscribe, second, target)), 0u);
    EXPECT_EQ(watcher.ask(subscription(kUnsubscribe, own, target)), 0u);
    EXPECT_EQ(watcher.ask(subscription(kUnsubscribe, own, target)), 4u);
    EXPECT_TRUE(owner.is_in_step());
    watcher.hang_up();
    EXPECT_EQ(owner.read().payload(kAttrActive), Bytes{0});
}

TEST_F(Daemon, RefusesMalformedNotifications)
{
    Client owner, other;
    uint32_t target = owner.publish("t");
    Bytes method = attribute(kAttrMethod, text("n"));
    EXPECT_EQ(other.ask(message(kNotify, 1, 0, method)), 2u);
    EXPECT_EQ(owner.ask(message(kNotify, 1, 0, attribute(kAttrObjectId, word(target)))), 2u);
    EXPECT_EQ(owner.ask(message(kNotify, 1, 0, method + attribute(kAttrObjectId, word(4711)))), 4u);
    EXPECT_EQ(other.ask(message(kNotify, 1, 0, method + attribute(kAttrObjectId, word(target)))),
              6u);
}

TEST_F(Daemon, TellsWatchersWhenTheirTargetIsGone)
{
    Client watcher;
    uint32_t own = watcher.publish_unnamed();
    uint32_t target;
    {
        Client owner;
        target = owner.publish("t");
        EXPECT_EQ(watcher.ask(subscription(kSubscribe, own, target)), 0u);
    }
    EXPECT_EQ(watcher.read().bytes(),
              message(kUnsubscribe, 1, 0,
                      attribute(kAttrObjectId, word(own)) + attribute(kAttrTarget, word(target))));
}

// ---- life of the daemon

TEST(DaemonLife, SocketIsOpenToAllUsersAndRemovedWithTheDaemon)
{
    BusDaemon daemon("/scratch/other.sock");
    struct stat status;
    ASSERT_EQ(stat("/scratch/other.sock", &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0666u);
    ASSERT_EQ(stat("/var/run/ubus", &status), 0); // of the default socket, made even so
    EXPECT_EQ(status.st_mode & 0777, 0755u);

    int ended = daemon.stop();
    EXPECT_TRUE(WIFEXITED(ended) && WEXITSTATUS(ended) == 0);
    EXPECT_NE(stat("/scratch/other.sock", &status), 0);

    daemon.start();
    ::kill(daemon.pid(), SIGINT);
    ASSERT_EQ(waitpid(daemon.pid(), &ended, 0), daemon.pid());
    EXPECT_TRUE(WIFEXITED(ended) && WEXITSTATUS(ended) == 0);
    EXPECT_NE(stat("/scratch/other.sock", &status), 0);
}

TEST(DaemonLife, HangUpSignalDoesNoHarm)
{
    BusDaemon daemon;
    ::kill(daemon.pid(), SIGHUP);
    Client client;
    EXPECT_TRUE(client.is_in_step());
}

TEST(DaemonLife, SocketLeftByACrashIsReplaced)
{
    BusDaemon daemon;
    Client client;
    uint32_t id = client.publish("x");
    daemon.kill();
    struct stat status;
    EXPECT_EQ(stat(BusDaemon::kDefaultSocket, &status), 0);
    EXPECT_TRUE(client.ends());

    daemon.start();
    Client after;
    EXPECT_EQ(after.ask(message(kLookup, 1, 0)), 0u);
    EXPECT_TRUE(after.data.empty());
    EXPECT_EQ(after.ask(invoke(1, id, "m")), 4u); // ids from before mean nothing
}

Outcome run_daemon(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), BV_UBUSD);
    return run(arguments);
}

TEST(DaemonLife, RefusesOptionsItDoesNotKnow)
{
    EXPECT_EQ(run_daemon({"-x"}).status, 1);
    EXPECT_EQ(run_daemon({"word"}).status, 1);
}

TEST(DaemonLife, SaysThatAccessRulesHaveNoEffect)
{
    write_file("/scratch/file", "");
    Outcome ended = run_daemon({"-A", "/etc", "-s", "/scratch/file"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.errors.find("-A has no effect"), std::string::npos) << ended.errors;
}

TEST(DaemonLife, SecondDaemonLeavesTheFirstAlone)
{
    BusDaemon daemon;
    Client client;
    Outcome ended = run_daemon({});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.errors.find(strerror(EADDRINUSE)), std::string::npos) << ended.errors;
    EXPECT_TRUE(client.is_in_step());
    Client newcomer;
    EXPECT_TRUE(newcomer.is_in_step());
}

TEST(DaemonLife, FileOtherThanASocketIsKept)
{
    write_file("/scratch/file", "precious");
    EXPECT_EQ(run_daemon({"-s", "/scratch/file"}).status, 1);
    EXPECT_EQ(read_file("/scratch/file"), "precious");
    ASSERT_EQ(symlink("/scratch/file", "/scratch/link"), 0);
    EXPECT_EQ(run_daemon({"-s", "/scratch/link"}).status, 1);
    EXPECT_EQ(read_file("/scratch/link"), "precious");
}

TEST(DaemonLife, EndingDaemonRemovesOnlyItsOwnSocket)
{
    BusDaemon first("/scratch/one.sock");
    ASSERT_EQ(unlink("/scratch/one.sock"), 0);
    BusDaemon second("/scratch/one.sock");
    first.stop();
    Client client("/scratch/one.sock");
    EXPECT_TRUE(client.is_in_step());

    ASSERT_EQ(unlink("/scratch/one.sock"), 0);
    write_file("/scratch/one.sock", "precious");
    second.stop();
    EXPECT_EQ(read_file("/scratch/one.sock"), "precious");
}

TEST(DaemonLife, DescriptorsAreNotPassedOnAndNeverTheStandardOnes)
{
    int saved[3];
    for (int fd = 0; fd < 3; fd++) {
        saved[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 10);
        close(fd);
    }
    auto daemon = std::make_unique<BusDaemon>();
    for (int fd = 0; fd < 3; fd++)
        dup2(saved[fd], fd);

    Client client;
    const std::string folder = "/proc/" + std::to_string(daemon->pid()) + "/fd";
    size_t count = 0;
    for (const std::string &name : list_folder(folder)) {
        char target[100] = {};
        std::string info = read_file(folder + "info/" + name);
        if (readlink((folder + "/" + name).c_str(), target, sizeof(target) - 1) < 0 || info.empty())
            continue; // closed by now, as the connection that waited for the daemon to come up
        if (atoi(name.c_str()) <= STDERR_FILENO) {
            // An emulator opens one of these before the daemon starts.
            if (getenv("BV_ROOT_USERLAND") == nullptr) {
                EXPECT_STREQ(target, "/dev/null") << name;
            }
            continue;
        }
        unsigned long flags = strtoul(info.c_str() + info.find("flags:") + 6, nullptr, 8);
        EXPECT_NE(flags & O_CLOEXEC, 0u) << name << " " << target;
        count++;
    }
    EXPECT_GE(count, 3u); // loop, listener, client
}

} // namespace
