// SPDX-License-Identifier: ISC
// One queue, many senders: a flood into a busy client must not push out others.

#include <atomic>
#include <map>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "support/bus.h"
#include "support/wire.h"

using namespace wire;

namespace {

Bytes answer(const Message &call, uint32_t status)
{
    return message(kStatus, uint16_t(call.sequence), call.peer,
                   attribute(kAttrStatus, word(status)) +
                       attribute(kAttrObjectId, word(call.number(kAttrObjectId))));
}

class Fairness : public testing::Test {
protected:
    // Calls that wait for the owner: the socket holds what came first, and on top of that the
    // daemon keeps some of every caller's.
    void fill_socket()
    {
        for (unsigned i = 0; i < 200; i++)
            ASSERT_TRUE(filler.send(invoke(uint16_t(i), id, "fill", Bytes(10000, 1))));
        ASSERT_TRUE(filler.is_in_step());
    }

    // What waits for a client, by sender. Ends with the owner's own echo, which must get through.
    std::map<uint32_t, unsigned> drain(Client &client)
    {
        std::map<uint32_t, unsigned> waiting;
        EXPECT_TRUE(client.send(message(kPing, 0xffff, 0)));
        for (Message got = client.read(); got.type != kData || got.sequence != 0xffff;
             got = client.read()) {
            if (got.empty()) {
                ADD_FAILURE() << "the echo is lost";
                break;
            }
            waiting[got.peer]++;
        }
        EXPECT_EQ(client.read().status(), 0u);
        return waiting;
    }

    BusDaemon daemon;
    Client owner, filler;
    uint32_t id = owner.publish("busy");
};

TEST_F(Fairness, CallsThatWaitAreLimitedForEachCaller)
{
    struct {
        size_t size;
        unsigned calls;
    } const cases[] = {{0, 32}, {1000, 32}, {40000, 3}, {100000, 1}, {1000000, 1}};
    std::vector<std::unique_ptr<Client>> callers;
    fill_socket();
    for (const auto &row : cases) {
        callers.push_back(std::make_unique<Client>());
        for (unsigned i = 0; i < 100; i++)
            ASSERT_TRUE(callers.back()->send(invoke(uint16_t(i), id, "m", Bytes(row.size, 2))));
        ASSERT_TRUE(callers.back()->is_in_step());
    }

    std::map<uint32_t, unsigned> waiting = drain(owner);
    for (size_t i = 0; i < callers.size(); i++)
        EXPECT_EQ(waiting[callers[i]->id()], cases[i].calls) << cases[i].size;
    // There is room again.
    ASSERT_TRUE(callers[0]->send(invoke(1, id, "m")));
    EXPECT_EQ(owner.read().peer, callers[0]->id());
}

TEST_F(Fairness, AnswersArriveBetweenFloodsOfCallsAndOfAnswers)
{
    Client other, liar;
    uint32_t other_id = other.publish("other");
    uint32_t liar_id = liar.publish("liar");
    ASSERT_TRUE(owner.send(invoke(7, other_id, "m")));
    Message call = other.read();

    fill_socket();
    for (unsigned i = 0; i < 3000; i++)
        ASSERT_TRUE(liar.send(message(kData, 7, owner.id(),
                                      attribute(kAttrObjectId, word(liar_id)) +
                                          attribute(kAttrData, Bytes(1000, 3)))));
    ASSERT_TRUE(liar.is_in_step());
    // A long answer and its status, though nothing else fits.
    ASSERT_TRUE(other.send(message(kData, 7, owner.id(),
                                   attribute(kAttrObjectId, word(other_id)) +
                                       attribute(kAttrData, Bytes(1000000, 4))) +
                           answer(call, 0)));
    ASSERT_TRUE(other.is_in_step());

    std::map<uint32_t, unsigned> waiting = drain(owner);
    EXPECT_EQ(waiting[other_id], 2u);
    EXPECT_LT(waiting[liar_id], 1700u);
}

// Notices caused by others must not push out answers to the client's own requests.
TEST_F(Fairness, SubscribingAgainAndAgainDoesNotSilenceTheDaemon)
{
    Client watcher;
    const uint32_t own = watcher.publish_unnamed();
    const Bytes pair = attribute(kAttrObjectId, word(own)) + attribute(kAttrTarget, word(id));
    const Bytes both = message(kSubscribe, 1, 0, pair) + message(kUnsubscribe, 1, 0, pair);
    fill_socket();
    for (int i = 0; i < 20000; i++)
        ASSERT_TRUE(watcher.send(both));
    EXPECT_EQ(filler.ask(message(kLookup, 1, 0, attribute(kAttrObjectPath, text("busy")))), 0u);
    drain(owner);
}

TEST_F(Fairness, ComingBackUnderAnotherIdDoesNotRaiseTheLimit)
{
    fill_socket();
    for (unsigned i = 0; i < 100; i++) {
        Client caller;
        ASSERT_TRUE(caller.send(invoke(1, id, "m", Bytes(100000, 2))));
        ASSERT_TRUE(caller.is_in_step());
    }
    unsigned count = 0;
    for (const auto &[sender, calls] : drain(owner))
        count += sender != filler.id() && sender != 0 ? calls : 0;
    EXPECT_GE(count, 5u);
    EXPECT_LE(count, 15u);
}

TEST_F(Fairness, OwnerMayLookUpWhileItsQueueIsFull)
{
    fill_socket();
    ASSERT_TRUE(owner.send(message(kLookup, 0x4242, 0, attribute(kAttrObjectPath, text("busy")))));
    unsigned before = 0;
    Message got = owner.read();
    for (; got.sequence != 0x4242; got = owner.read()) {
        ASSERT_FALSE(got.empty());
        before++;
        ASSERT_TRUE(filler.send(invoke(1, id, "fill", Bytes(10000, 1)))); // the queue stays full
        ASSERT_TRUE(filler.is_in_step());
        ASSERT_LT(before, 500u) << "waits for a queue that never empties";
    }
    EXPECT_EQ(got.string(kAttrObjectPath), "busy");
}

// An event goes to thousands of objects, and one read holds hundreds of events.
TEST_F(Fairness, ClientThatCausesMuchWorkIsServedInTurns)
{
    constexpr unsigned kEvents = 500;
    std::vector<std::unique_ptr<Client>> listeners;
    for (int i = 0; i < 4; i++) {
        listeners.push_back(std::make_unique<Client>());
        for (int k = 0; k < 1000; k++) {
            uint32_t object = listeners.back()->publish_unnamed();
            ASSERT_EQ(listeners.back()->ask(invoke(1, 1, "register",
                                                   field(5, "object", word(object)) +
                                                       field(3, "pattern", text("*")))),
                      0u);
        }
    }
    const Bytes event = invoke(1, 1, "send", field(3, "id", text("e")) + field(2, "data", {}));
    Bytes burst;
    for (unsigned i = 0; i < kEvents; i++)
        burst.insert(burst.end(), event.begin(), event.end());
    ASSERT_TRUE(filler.send(burst));

    Client honest;
    EXPECT_TRUE(honest.is_in_step());
    unsigned served = 0;
    for (; !filler.is_silent(0); served++)
        ASSERT_EQ(filler.read().status(), 0u);
    EXPECT_LT(served, kEvents / 2) << "the other client waited for all of them";
    for (; served < kEvents; served++)
        ASSERT_EQ(filler.read().status(), 0u) << served; // but none is left out
    EXPECT_TRUE(filler.is_in_step());
}

class FairnessBesideFlooders : public testing::TestWithParam<size_t> {};

// Flooders never read: their sockets and queues are full too.
TEST_P(FairnessBesideFlooders, HonestCallIsAnswered)
{
    BusDaemon daemon;
    Client owner;
    const uint32_t id = owner.publish("busy");
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;

    threads.emplace_back([&] {
        while (!done) {
            Message call = owner.read(100);
            if (call.type == kInvoke)
                owner.send(answer(call, 42));
        }
    });
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] {
            Client flooder;
            const Bytes call = invoke(1, id, "flood", Bytes(GetParam(), 7));
            Bytes burst;
            do
                burst = burst + call;
            while (burst.size() < 32768);
            while (!done)
                flooder.send(burst);
        });

    // Its calls are of the same size as theirs.
    Client honest;
    for (uint16_t i = 1; i <= 10; i++) {
        EXPECT_TRUE(honest.send(invoke(i, id, "honest", Bytes(GetParam(), 1))));
        Message status = honest.read();
        EXPECT_EQ(status.status(), 42u) << "call " << i;
        if (status.empty())
            break;
    }
    done = true;
    for (std::thread &thread : threads)
        thread.join();
}

INSTANTIATE_TEST_SUITE_P(Sizes, FairnessBesideFlooders, testing::Values(0, 200000));

} // namespace
